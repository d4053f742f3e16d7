// What the client library costs its hosts: requests, registrations, signs of life.
//
// The daemon's real server thread runs in this process, inside a private root, and the requests go
// through its real socket. Floors are measured beside: a bare round trip between two threads over a
// socket of the same kind, on an open connection and with a connection made for each; the system
// calls that a sign of life cannot do without.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/tov_rpc.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/server/server.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "log/tov_log.h"
#include "tests/support/private_root.h"
#include "util/owner.h"
#include "util/priority.h"

using std::chrono::steady_clock;

static constexpr const char *FLOOR_PATH = "/tmp/tov/.floor";
static constexpr const char *FLOOR_CLIENT_PATH = "/tmp/tov/.floor_client";
static constexpr int CLIENTS = 1000;
static constexpr std::chrono::seconds CLIENTS_LIMIT{60};

// ---- times of single calls --------------------------------------------------------------------

namespace {

// Collects the time of each iteration and reports median and p99 beside the mean.
class Times {
 public:
  explicit Times(benchmark::State &state) : state_(state) { times_.reserve(1 << 16); }
  Times(const Times &) = delete;
  Times &operator=(const Times &) = delete;
  ~Times() {
    if (times_.empty()) return;
    std::sort(times_.begin(), times_.end());
    state_.counters["median_us"] = times_[times_.size() / 2] * 1e6;
    state_.counters["p99_us"] = times_[times_.size() * 99 / 100] * 1e6;
  }
  template <typename Call>
  void take(Call call) {
    const auto begin = steady_clock::now();
    call();
    const std::chrono::duration<double> took = steady_clock::now() - begin;
    state_.SetIterationTime(took.count());
    times_.push_back(took.count());
  }

 private:
  benchmark::State &state_;
  std::vector<double> times_;
};

// The same for calls that are shorter than reading the clock: so many of them at once. The median
// of such batches is little moved by what else runs on the machine, which the mean is.
class BatchTimes {
 public:
  explicit BatchTimes(benchmark::State &state) : state_(state) { times_.reserve(1 << 16); }
  BatchTimes(const BatchTimes &) = delete;
  BatchTimes &operator=(const BatchTimes &) = delete;
  ~BatchTimes() {
    if (times_.empty()) return;
    std::sort(times_.begin(), times_.end());
    state_.counters["median_ns"] = times_[times_.size() / 2] * 1e9;
    state_.counters["p99_ns"] = times_[times_.size() * 99 / 100] * 1e9;
  }
  template <typename Call>
  void take(Call call) {
    static constexpr int BATCH = 32;
    const auto begin = steady_clock::now();
    for (int i = 0; i < BATCH; i++)
      call();
    const std::chrono::duration<double> took = steady_clock::now() - begin;
    state_.SetIterationTime(took.count() / BATCH);
    times_.push_back(took.count() / BATCH);
  }

 private:
  benchmark::State &state_;
  std::vector<double> times_;
};

}  // namespace

// ---- the floor ----------------------------------------------------------------------------------

// Answers whatever comes with a head's worth of zeroes, one client at a time; at the server's
// priority, so that both are woken alike.
static void echo(int listener) {
  tov_set_priority(TOV_RT_PRIORITY);
  char bytes[1024];
  static const char answer[sizeof(tov_msg_head_t)] = {};
  for (;;) {
    const tov_fd_t client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (client.n < 0) return;
    while (recv(client.n, bytes, sizeof bytes, 0) > 0) {
      if (send(client.n, answer, sizeof answer, MSG_NOSIGNAL) < 0) break;
    }
  }
}

static int bound_socket(const char *path) {
  const int sd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un at{};
  unlink(path);
  const socklen_t length = tov_rpc_address(&at, path);
  return bind(sd, reinterpret_cast<sockaddr *>(&at), length) == 0 ? sd : -1;
}

static int floor_connection() {
  const int sd = bound_socket(FLOOR_CLIENT_PATH);
  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, FLOOR_PATH);
  return connect(sd, reinterpret_cast<sockaddr *>(&at), length) == 0 ? sd : -1;
}

static void floor_exchange(int sd) {
  static const char request[sizeof(tov_msg_head_t) + sizeof(tov_msg_xtach_t)] = {};
  char answer[sizeof(tov_msg_head_t)];
  if (send(sd, request, sizeof request, MSG_NOSIGNAL) < 0) abort();
  if (recv(sd, answer, sizeof answer, 0) < 0) abort();
}

namespace {

class Floor {
 public:
  Floor() : listener_(bound_socket(FLOOR_PATH)) {
    listen(listener_.n, 8);
    thread_ = std::thread(echo, listener_.n);
  }
  Floor(const Floor &) = delete;
  Floor &operator=(const Floor &) = delete;
  ~Floor() {
    shutdown(listener_.n, SHUT_RDWR);
    thread_.join();
  }

 private:
  tov_fd_t listener_;
  std::thread thread_;
};

}  // namespace

static void FloorOpenConnection(benchmark::State &state) {
  const Floor floor;
  const tov_fd_t sd(floor_connection());
  Times times(state);
  for ([[maybe_unused]] auto _ : state)
    times.take([&] { floor_exchange(sd.n); });
}
BENCHMARK(FloorOpenConnection)->UseManualTime();

static void FloorFreshConnection(benchmark::State &state) {
  const Floor floor;
  Times times(state);
  for ([[maybe_unused]] auto _ : state) {
    times.take([] {
      const tov_fd_t sd(floor_connection());
      floor_exchange(sd.n);
    });
  }
}
BENCHMARK(FloorFreshConnection)->UseManualTime();

// ---- requests -----------------------------------------------------------------------------------

// A request that changes nothing: transport and server alone.
static void RequestRoundTrip(benchmark::State &state) {
  tov_msg_cons_t payload = {.event = 99, .pid = 0};
  Times times(state);
  for ([[maybe_unused]] auto _ : state) {
    times.take([&] { tov_rpc(TOV_MSG_CONS, nullptr, &payload, sizeof payload, true, false); });
  }
}
BENCHMARK(RequestRoundTrip)->UseManualTime();

// The message of a registration, until it is acknowledged. The server's work on the one before it
// (it reads a command line of /proc) falls into the time.
static void RegistrationRoundTrip(benchmark::State &state) {
  tov_msg_xtach_t payload{};
  payload.pid = getpid();
  Times times(state);
  for ([[maybe_unused]] auto _ : state) {
    times.take([&] { tov_rpc(TOV_RESTART, nullptr, &payload, sizeof payload, true, false); });
  }
}
BENCHMARK(RegistrationRoundTrip)->UseManualTime();

// The whole call, with the registration file.
static void RegistrationCall(benchmark::State &state) {
  Times times(state);
  for ([[maybe_unused]] auto _ : state)
    times.take([] { reg_process_exit_action(0, TOV_RESTART); });
}
BENCHMARK(RegistrationCall)->UseManualTime();

namespace {

// Clients that are connected and ask for nothing.
class IdleClients {
 public:
  explicit IdleClients(int64_t count) {
    sockaddr_un at{};
    const socklen_t length = tov_rpc_address(&at, TOV_SOCKET_PATH);
    for (int64_t i = 0; i < count; i++) {
      clients_.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      if (connect(clients_.back().n, reinterpret_cast<sockaddr *>(&at), length) != 0) abort();
    }
    // Connections are accepted in their order: whoever is answered has all of them before him.
    tov_msg_cons_t payload = {.event = 99, .pid = 0};
    tov_rpc(TOV_MSG_CONS, nullptr, &payload, sizeof payload, true, false);
  }

 private:
  std::vector<tov_fd_t> clients_;
};

}  // namespace

// The same request while others are connected.
static void RequestBesideIdleClients(benchmark::State &state) {
  const IdleClients idle(state.range(0));
  RequestRoundTrip(state);
}
BENCHMARK(RequestBesideIdleClients)->ArgName("idle")->Arg(0)->Arg(2000)->UseManualTime();

// ---- many clients -------------------------------------------------------------------------------

static int registered() {
  const tov_chains_guard_t hold(tov_chains);
  return tov_chains.node_num;
}

namespace {

// Client processes that register when the gate opens, and live until they are killed.
class Clients {
 public:
  Clients() {
    if (pipe2(gate_, O_CLOEXEC) != 0) abort();
    for (int i = 0; i < CLIENTS; i++) {
      const pid_t pid = fork();
      if (pid == 0) live();
      pids_.push_back(pid);
    }
    close(gate_[0]);
  }
  Clients(const Clients &) = delete;
  Clients &operator=(const Clients &) = delete;
  ~Clients() {
    for (const pid_t pid : pids_)
      kill(pid, SIGKILL);
    for (const pid_t pid : pids_)
      waitpid(pid, nullptr, 0);
  }
  void open_gate() { close(gate_[1]); }

 private:
  [[noreturn]] void live() {
    char byte = 0;
    close(gate_[1]);
    (void)!read(gate_[0], &byte, 1);
    reg_process_exit_action(0, TOV_RESTART);
    for (;;)
      pause();
  }
  int gate_[2] = {-1, -1};
  std::vector<pid_t> pids_;
};

}  // namespace

// From the opening of the gate until the last of them stands in the registry.
static void ThousandClientsAtOnce(benchmark::State &state) {
  for ([[maybe_unused]] auto _ : state) {
    tov_destroy_chains(&tov_chains);
    Clients clients;
    const auto begin = steady_clock::now();
    clients.open_gate();
    while (registered() < CLIENTS && steady_clock::now() - begin < CLIENTS_LIMIT)
      usleep(500);
    const std::chrono::duration<double> took = steady_clock::now() - begin;
    state.SetIterationTime(took.count());
    if (registered() != CLIENTS) state.SkipWithError("registrations were lost");
  }
  tov_destroy_chains(&tov_chains);
}
BENCHMARK(ThousandClientsAtOnce)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// ---- signs of life ------------------------------------------------------------------------------

namespace {

// Where the exemption file is looked for: a file system in memory asks itself anew for a name that
// it does not hold, one on a disk remembers that there is none.
enum data_e { MEMORY, DISK };

// Lays a directory of the build tree over /data for its own life, as on a device whose data lies on
// a disk.
class Data {
 public:
  explicit Data(data_e where) : on_disk_(where == DISK) {
    if (!on_disk_) return;
    std::filesystem::create_directories(TOV_BENCH_DATA);
    if (mount(TOV_BENCH_DATA, "/data", nullptr, MS_BIND, nullptr) < 0)
      throw std::runtime_error("no directory for /data");
  }
  Data(const Data &) = delete;
  Data &operator=(const Data &) = delete;
  ~Data() {
    if (on_disk_) umount("/data");
  }

 private:
  bool on_disk_;
};

}  // namespace

// What no sign of life can do without: who is calling, and whether there is an exemption file.
static void FloorKeepAlive(benchmark::State &state) {
  const Data data(static_cast<data_e>(state.range(0)));
  BatchTimes times(state);
  for ([[maybe_unused]] auto _ : state) {
    times.take([] {
      benchmark::DoNotOptimize(getpid());
      benchmark::DoNotOptimize(gettid());
      struct stat found;
      benchmark::DoNotOptimize(stat(TOV_DEBUG_PID_FILE, &found));
    });
  }
}
BENCHMARK(FloorKeepAlive)->ArgName("on_disk")->Arg(DISK)->Arg(MEMORY)->UseManualTime();

static void SharedByte(benchmark::State &state) {
  const pid_t tid = gettid();
  BatchTimes times(state);
  for ([[maybe_unused]] auto _ : state)
    times.take([tid] { tov_sys_update_alive_seq(tid); });
}
BENCHMARK(SharedByte)->UseManualTime();

static void keep_alive(benchmark::State &state) {
  const pid_t pid = getpid();
  const pid_t tid = gettid();
  tov_sys_reg_alive_info(tid);
  BatchTimes times(state);
  for ([[maybe_unused]] auto _ : state)
    times.take([pid, tid] { tov_client_reset_thread_notify(pid, tid, 120, 5); });
}

static void KeepAlive(benchmark::State &state) {
  const Data data(static_cast<data_e>(state.range(0)));
  keep_alive(state);
}
BENCHMARK(KeepAlive)->ArgName("on_disk")->Arg(DISK)->Arg(MEMORY)->UseManualTime();

// The file exempts others: it is read to its end.
static void KeepAliveWithExemptionFile(benchmark::State &state) {
  const Data data(static_cast<data_e>(state.range(0)));
  const tov_file_t file(fopen(TOV_DEBUG_PID_FILE, "we"));
  for (int line = 1; line <= 10; line++)
    fprintf(file.get(), "%d\n", 1000000 + line);
  fflush(file.get());
  keep_alive(state);
  unlink(TOV_DEBUG_PID_FILE);
}
BENCHMARK(KeepAliveWithExemptionFile)->ArgName("on_disk")->Arg(DISK)->Arg(MEMORY)->UseManualTime();

// ---- main ---------------------------------------------------------------------------------------

static void prepare() {
  tov_test::enter_private_root();
  setenv("DATA_QXOS_DIR", "/data/none", 1);  // as on a device: the debug file is looked for
  mkdir(TOV_RUN_DIR, 0777);
  std::filesystem::create_directories("/tmp/vsd/0/tov/db");
  std::filesystem::create_directories(TOV_LOG_DIR);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);

  for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains})
    tov_init_chains(chains);
  tov_log_init();
  // Not as its master: signs of life are a client's.
  if (tov_sys_init_alive_info(false) != 0) abort();
}

int main(int argc, char **argv) {
  prepare();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::thread server([] { tov_process_domain(nullptr); });
  benchmark::RunSpecifiedBenchmarks();
  tov_flag_set(quit, 1);
  tov_rpc(TOV_RESET, nullptr, nullptr, 0, false, true);  // wakes the server
  server.join();
  return 0;
}
