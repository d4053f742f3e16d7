// What the watch over threads costs the daemon: one scan of its watchdog, and one thread's bytes in
// the shared area. What it costs the watched programs is measured in client_bench.
//
// The threads are real, four to a process, and live by signs of life of this process, the area's
// master. The floor of a scan is what it cannot do without: four looks into /proc for each thread,
// with nothing done about what is read.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/registry/tov_chain.h"
#include "core/watch/watchdog.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "log/tov_log.h"
#include "tests/support/private_root.h"
#include "util/owner.h"

static constexpr int MOST_THREADS = 4096;
static constexpr int THREADS_EACH = 4;
static constexpr size_t STACK_SIZE = size_t{64} * 1024;
static constexpr unsigned int PERIOD_S = 120;
static constexpr unsigned int BUDGET = 5;

// ---- the watched threads ------------------------------------------------------------------------

namespace {

// Written by the watched threads, each its own place, and read when `ready` says so.
struct Shared {
  std::atomic<int> ready;
  pid_t tids[MOST_THREADS];
};

}  // namespace

static void *wait_for_ever(void *place) {
  auto *shared = static_cast<std::pair<Shared *, int> *>(place);
  shared->first->tids[shared->second] = gettid();
  shared->first->ready++;
  for (;;)
    pause();
}

[[noreturn]] static void live(Shared *shared, int first) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  static std::pair<Shared *, int> places[THREADS_EACH];
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, STACK_SIZE);
  for (int i = 0; i < THREADS_EACH; i++)
    places[i] = {shared, first + i};
  for (int i = 1; i < THREADS_EACH; i++) {
    pthread_t thread;
    if (pthread_create(&thread, &small, wait_for_ever, &places[i]) != 0) _exit(1);
  }
  wait_for_ever(&places[0]);
  _exit(0);
}

namespace {

// Watched threads and their records. Made once for each size.
class Watched {
 public:
  explicit Watched(int count) : count_(count) {
    void *const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    shared_ = new (memory) Shared{};
    for (int first = 0; first < count; first += THREADS_EACH) {
      const pid_t pid = fork();
      if (pid == 0) live(shared_, first);
      if (pid < 0) abort();
      pids_.push_back(pid);
    }
    while (shared_->ready < count)
      usleep(1000);
    for (int i = 0; i < count; i++)
      enrol(shared_->tids[i], pids_[static_cast<size_t>(i / THREADS_EACH)]);
  }
  Watched(const Watched &) = delete;
  Watched &operator=(const Watched &) = delete;
  ~Watched() {
    for (const pid_t pid : pids_)
      kill(pid, SIGKILL);
    for (const pid_t pid : pids_)
      waitpid(pid, nullptr, 0);
    tov_destroy_chains(&tov_alive_chains);
    munmap(shared_, sizeof(Shared));
  }

  // Everybody is heard of, as between two scans on a device.
  void give_signs_of_life() const {
    for (int i = 0; i < count_; i++)
      tov_sys_update_alive_seq(shared_->tids[i]);
  }
  pid_t tid(int index) const { return shared_->tids[index]; }

 private:
  static void enrol(pid_t tid, pid_t owner) {
    tov_msg_xtach_t payload{};
    payload.pid = tid;
    payload.ppid = owner;
    payload.m_n_counter = payload.m_n_cur_counter = BUDGET;
    payload.m_n_notify_time = PERIOD_S;
    if (tov_notifier_start(&payload) != 0) abort();
  }

  int count_;
  Shared *shared_ = nullptr;
  std::vector<pid_t> pids_;
};

}  // namespace

// ---- the scan -----------------------------------------------------------------------------------

static void per_thread(benchmark::State &state) {
  state.counters["each"] = benchmark::Counter(
      static_cast<double>(state.range(0)),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

static void read_file(pid_t tid, const char *name) {
  char path[64], bytes[1024];
  snprintf(path, sizeof path, "/proc/%d/%s", tid, name);
  const tov_fd_t fd(open(path, O_RDONLY | O_CLOEXEC));
  if (read(fd.n, bytes, sizeof bytes) <= 0) abort();
}

static void read_link(pid_t tid) {
  char path[64], target[512];
  snprintf(path, sizeof path, "/proc/%d/exe", tid);
  if (readlink(path, target, sizeof target) <= 0) abort();
}

static void FloorReadProc(benchmark::State &state) {
  const int count = static_cast<int>(state.range(0));
  const Watched watched(count);
  for ([[maybe_unused]] auto _ : state) {
    for (int i = 0; i < count; i++) {
      read_file(watched.tid(i), "status");
      read_link(watched.tid(i));
      read_file(watched.tid(i), "cmdline");
      read_file(watched.tid(i), "stat");
    }
  }
  per_thread(state);
}
BENCHMARK(FloorReadProc)->Arg(64)->Arg(512)->Arg(MOST_THREADS)->Unit(benchmark::kMillisecond);

static void ScanOfLivingThreads(benchmark::State &state) {
  const Watched watched(static_cast<int>(state.range(0)));
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    watched.give_signs_of_life();
    state.ResumeTiming();
    tov_notifer_scan();
  }
  if (tov_alive_chains.node_num != state.range(0)) state.SkipWithError("records were dropped");
  per_thread(state);
}
BENCHMARK(ScanOfLivingThreads)->Arg(64)->Arg(512)->Arg(MOST_THREADS)->Unit(benchmark::kMillisecond);

// ---- the shared area, as its master sees it -----------------------------------------------------

// One read of one byte through a descriptor: the master never touches the mapping.
static void FloorReadByte(benchmark::State &state) {
  const tov_fd_t fd(open(TOV_ALIVE_SHM_PATH, O_RDONLY | O_CLOEXEC));
  char byte = 0;
  for ([[maybe_unused]] auto _ : state)
    if (pread(fd.n, &byte, 1, 4711) != 1) abort();
}
BENCHMARK(FloorReadByte);

static void MasterLooksAtAThread(benchmark::State &state) {
  const pid_t tid = gettid();
  tov_sys_reg_alive_info(tid);
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(tov_sys_isreg_alive_info(tid));
    benchmark::DoNotOptimize(tov_sys_get_alive_seq(tid));
  }
  tov_sys_unreg_alive_info(tid);
}
BENCHMARK(MasterLooksAtAThread);

// ---- main ---------------------------------------------------------------------------------------

static void prepare() {
  tov_test::enter_private_root();
  mkdir(TOV_RUN_DIR, 0777);
  std::filesystem::create_directories(TOV_LOG_DIR);
  for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
    tov_init_chains(chains);
  tov_log_init();
  if (tov_sys_init_alive_info(true) != 0) abort();
}

int main(int argc, char **argv) {
  prepare();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
