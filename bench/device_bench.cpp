// The shipped daemon in a private device: restart time, wake-ups, strangers, memory, its own
// restart.
//
//   device_bench [restart] [wakeups] [strangers] [memory] [rebuild]      all of them without a word
//
// Supervised programs are victims (tests/support/programs/victim.cpp): statically linked, they note
// the time as the first act of main, and they write and lock their own registration files, which
// the daemon finds when it starts. Each has a command line of its own.
//
// The machine should be quiet: the daemon hears every process of the machine, and handles one
// event a millisecond. Each figure tells how many processes the machine started meanwhile.
#include <linux/connector.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/events/connector.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"
#include "util/identity.h"
#include "util/priority.h"

using tov_test::Birth;
using tov_test::Device;
using tov_test::Millis;
using tov_test::monotonic_ns;

namespace fs = std::filesystem;

static constexpr int RESTARTS = 200;
static constexpr int RESTARTS_EACH = 4;  // the fifth within two minutes would suspend the program
static constexpr int LIFE_ROUNDS = 50;
static constexpr int IDLE_PROGRAMS = 100;
static constexpr int IDLE_SPAN_S = 20;
static constexpr Millis WINDOW_MS{250};
static constexpr int STRANGERS = 2000;
static constexpr int STRANGER_ROUNDS = 5;
static constexpr int MEMORY_STEPS[] = {1, 100, 1000};
static constexpr int REBUILD_PROGRAMS = 1000;
static constexpr int REBUILD_ROUNDS = 9;
static constexpr Millis BIRTH_LIMIT_MS{30'000};
static constexpr Millis SETTLE_MS{3'000};  // start-up work is over, first pages are touched
static constexpr double NS_PER_MS = 1e6;
static constexpr int64_t NS_PER_S = 1'000'000'000;

// ---- numbers --------------------------------------------------------------------------------

static double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  const auto index = static_cast<size_t>(lround(part * static_cast<double>(values.size() - 1)));
  return values[index];
}

static void print_times(const char *what, const std::vector<double> &ms) {
  printf("  %-44s median %8.3f   p99 %8.3f   min %8.3f   max %8.3f  ms  (%zu)\n", what,
         quantile(ms, 0.5), quantile(ms, 0.99), quantile(ms, 0), quantile(ms, 1), ms.size());
}

// Processes and threads that the machine has started since it booted.
static int64_t machine_forks() {
  std::istringstream stat(tov_test::read_small_file("/proc/stat"));
  for (std::string line; std::getline(stat, line);)
    if (line.starts_with("processes ")) return atoll(line.c_str() + strlen("processes "));
  return 0;
}

namespace {

// Tells at its end how quiet the machine was.
class Noise {
 public:
  ~Noise() {
    const double seconds = static_cast<double>(monotonic_ns() - begin_ns_) / NS_PER_S;
    printf("  (the machine started %.0f processes a second meanwhile, ours included)\n",
           static_cast<double>(machine_forks() - forks_) / seconds);
  }

 private:
  int64_t begin_ns_ = monotonic_ns();
  int64_t forks_ = machine_forks();
};

}  // namespace

// ---- programs -------------------------------------------------------------------------------

// The arguments of the n-th program: every one registers under a command line of its own.
static std::vector<std::string> words(const std::string &path, int n) {
  return {path, "lock=2", "n=" + std::to_string(n)};
}

// Starts `count` programs of one name and waits until all have registered.
static std::vector<pid_t> start_programs(Device &device, const std::string &name, int count) {
  const std::string path = device.install_program(name);
  std::vector<pid_t> pids;
  pids.reserve(static_cast<size_t>(count));
  for (int n = 0; n < count; n++)
    pids.push_back(device.spawn(words(path, n)));
  if (!device.wait_birth(name, static_cast<size_t>(count), BIRTH_LIMIT_MS))
    throw std::runtime_error("the programs did not start");
  return pids;
}

// ---- restart --------------------------------------------------------------------------------

static std::vector<double> restart_times() {
  Device device;
  std::vector<std::string> names;
  std::vector<pid_t> pids;
  for (int i = 0; i < RESTARTS / RESTARTS_EACH; i++) {
    names.push_back("restart" + std::to_string(i));
    pids.push_back(start_programs(device, names.back(), 1)[0]);
  }
  device.start_ready_daemon();
  std::this_thread::sleep_for(SETTLE_MS);
  std::vector<double> ms;
  for (size_t round = 1; round <= RESTARTS_EACH; round++) {
    for (size_t i = 0; i < pids.size(); i++) {
      const int64_t killed_ns = monotonic_ns();
      device.kill(pids[i], SIGKILL);
      const auto birth = device.wait_birth(names[i], round + 1, BIRTH_LIMIT_MS);
      if (!birth) throw std::runtime_error(names[i] + " did not come back\n" + device.dump());
      pids[i] = birth->pid;
      ms.push_back(static_cast<double>(birth->main_ns - killed_ns) / NS_PER_MS);
    }
  }
  return ms;
}

static pid_t fork_victim(const std::string &program, const std::string &report) {
  const pid_t child = fork();
  if (child != 0) return child;
  setenv("VICTIM_REPORT", report.c_str(), 1);
  execl(program.c_str(), program.c_str(), nullptr);
  _exit(1);
}

static std::vector<Birth> read_births(const std::string &report) {
  std::vector<Birth> births;
  std::ifstream lines(report);
  for (std::string line; std::getline(lines, line);)
    if (auto birth = tov_test::parse_birth(line)) births.push_back(*birth);
  return births;
}

// The floor: a parent that waits for its child and at once forks and executes it again.
static std::vector<double> bare_restart_times(const std::string &program) {
  char directory[] = "/tmp/tov_bench.XXXXXX";
  if (mkdtemp(directory) == nullptr) throw std::runtime_error("mkdtemp");
  const std::string report = std::string(directory) + "/births";
  std::vector<double> ms;
  pid_t child = fork_victim(program, report);
  for (size_t started = 1; started <= RESTARTS; started++) {
    tov_test::wait_until([&] { return read_births(report).size() == started; }, BIRTH_LIMIT_MS);
    const int64_t killed_ns = monotonic_ns();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    child = fork_victim(program, report);
    tov_test::wait_until([&] { return read_births(report).size() > started; }, BIRTH_LIMIT_MS);
    ms.push_back(static_cast<double>(read_births(report).back().main_ns - killed_ns) / NS_PER_MS);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  fs::remove_all(directory);
  return ms;
}

// What the liveness rule takes to say that a process is certainly dead, at the event handler's
// priority.
static std::vector<double> liveness_times() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  std::vector<double> ms;
  std::thread handler([&] {
    (void)tov_set_priority(TOV_RT_PRIORITY);
    for (int i = 0; i < LIFE_ROUNDS; i++) {
      const int64_t begin_ns = monotonic_ns();
      (void)tov_identity_life(child, {});
      ms.push_back(static_cast<double>(monotonic_ns() - begin_ns) / NS_PER_MS);
    }
  });
  handler.join();
  return ms;
}

static void measure_restart() {
  printf("restart: kill -9 of a registered program to the main of its successor\n");
  const Noise noise;
  const auto floor = bare_restart_times(TOV_BENCH_VICTIM);
  const auto liveness = liveness_times();
  const auto restart = restart_times();
  print_times("the daemon", restart);
  print_times("of which the liveness rule takes", liveness);
  print_times("floor: a bare parent, fork and exec at once", floor);
  const double over = quantile(restart, 0.5) - quantile(liveness, 0.5);
  printf("  median less the rule: %.3f ms, %.1f times the floor\n", over,
         over / quantile(floor, 0.5));
}

// ---- wake-ups -------------------------------------------------------------------------------

using Switches = std::map<pid_t, int64_t>;  // voluntary ones, by thread

static Switches switches(pid_t pid) {
  Switches all;
  for (const auto &task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const pid_t tid = atoi(task.path().filename().c_str());
    all[tid] = atoll(tov_test::status_field(tid, "voluntary_ctxt_switches").c_str());
  }
  return all;
}

namespace {

// Wake-ups over some time, by thread.
struct WakeUps {
  Switches count;
  double seconds = 0;

  void add(const Switches &before, const Switches &after, double span) {
    for (const auto &[tid, switched] : after) {
      const auto known = before.find(tid);
      count[tid] += known != before.end() ? switched - known->second : 0;
    }
    seconds += span;
  }
  double rate(pid_t tid) const {
    const auto found = count.find(tid);
    return found != count.end() ? static_cast<double>(found->second) / seconds : 0;
  }
};

}  // namespace

static void print_wakeups(const WakeUps &all, const WakeUps &quiet) {
  double sum = 0, quiet_sum = 0;
  printf("  %-44s %10s  %10s\n", "a second", "in all", "quiet");
  for (const auto &entry : all.count) {
    const pid_t tid = entry.first;
    printf("  %-44s %10.2f  %10.2f\n", tov_test::status_field(tid, "Name").c_str(), all.rate(tid),
           quiet.rate(tid));
    sum += all.rate(tid);
    quiet_sum += quiet.rate(tid);
  }
  printf("  %-44s %10.2f  %10.2f\n", "all threads", sum, quiet_sum);
  printf("  (in all: %.1f s; quiet: the %.1f s of them in which the machine started nothing)\n",
         all.seconds, quiet.seconds);
}

// A machine on which nothing starts is hard to find, and every program that starts wakes the
// daemon. The time is therefore cut into windows, and those in which nothing started are added up
// on their own.
static void measure_wakeups() {
  printf("wakeups: the idle daemon, %d registered programs, %d s\n", IDLE_PROGRAMS, IDLE_SPAN_S);
  Device device;
  start_programs(device, "idle", IDLE_PROGRAMS);
  const pid_t daemon = device.start_ready_daemon();
  std::this_thread::sleep_for(SETTLE_MS);
  const Noise noise;
  WakeUps all, quiet;
  while (all.seconds < IDLE_SPAN_S) {
    const int64_t begin_ns = monotonic_ns();
    const int64_t forks = machine_forks();
    const Switches before = switches(daemon);
    std::this_thread::sleep_for(WINDOW_MS);
    const Switches after = switches(daemon);
    const double span = static_cast<double>(monotonic_ns() - begin_ns) / NS_PER_S;
    all.add(before, after, span);
    if (machine_forks() == forks) quiet.add(before, after, span);
  }
  print_wakeups(all, quiet);
}

// ---- strangers ------------------------------------------------------------------------------

// What a process does that is no business of the daemon.
static void live_shortly(const char *program) {
  const pid_t child = fork();
  if (child == 0) {
    if (program != nullptr) execl(program, program, nullptr);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
}

// Nanoseconds on a processor, by thread.
static std::map<std::string, int64_t> processor_ns(pid_t pid) {
  std::map<std::string, int64_t> all;
  for (const auto &task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const pid_t tid = atoi(task.path().filename().c_str());
    std::ifstream(task.path() / "schedstat") >> all[tov_test::status_field(tid, "Name")];
  }
  return all;
}

// Microseconds of the daemon's threads for each process, in each round.
static std::map<std::string, std::vector<double>> costs_of_strangers(pid_t daemon,
                                                                     const char *program) {
  std::map<std::string, std::vector<double>> us;
  for (int round = 0; round < STRANGER_ROUNDS; round++) {
    const int64_t forks = machine_forks();
    const auto before = processor_ns(daemon);
    for (int i = 0; i < STRANGERS; i++)
      live_shortly(program);
    std::this_thread::sleep_for(SETTLE_MS);  // what was queued is handled by then
    const auto after = processor_ns(daemon);
    const auto started = static_cast<double>(machine_forks() - forks);  // others', too
    double sum = 0;
    for (const auto &[name, ns] : after) {
      const double cost = static_cast<double>(ns - before.at(name)) / started / 1000;
      us[name].push_back(cost);
      sum += cost;
    }
    us["all threads"].push_back(sum);
  }
  return us;
}

static void print_costs(pid_t pid, const char *what, const char *only) {
  static constexpr double SMALL_US = 0.05;
  for (const char *program : {static_cast<const char *>(nullptr), "/bin/true"}) {
    printf("  %s: %s\n", what, program == nullptr ? "fork and exit" : "fork, execution and exit");
    for (const auto &[name, us] : costs_of_strangers(pid, program))
      if (quantile(us, 0.5) > SMALL_US && (only == nullptr || name == only))
        printf("    %-42s median %6.2f   min %6.2f   max %6.2f  us\n", name.c_str(),
               quantile(us, 0.5), quantile(us, 0), quantile(us, 1));
  }
}

// The floor: a thread of the daemon's priority that receives ends and executions, and nothing else.
static void measure_bare_listener() {
  static constexpr char NAME[] = "bare_listener";
  std::atomic<bool> is_over{false};
  std::thread listener([&] {
    (void)tov_set_priority(TOV_RT_PRIORITY);
    pthread_setname_np(pthread_self(), NAME);
    tov_connector_t connector;
    if (tov_connector_open(&connector) != 0) return;
    connector.others.reset();
    while (!is_over)  // it comes back after the socket's time-out
      (void)tov_connector_receive(connector.events.n, 0, [](const cn_msg *) {});
  });
  std::this_thread::sleep_for(WINDOW_MS);
  print_costs(getpid(), "floor, a bare listener", NAME);
  is_over = true;
  listener.join();
}

// One after the other, so that each is heard alone: what a storm costs is less.
static void measure_strangers() {
  printf("strangers: processor time of the daemon for a process that is not registered\n");
  const Noise noise;
  for (const bool is_listed : {false, true}) {
    Device device;
    if (is_listed) device.write("/etc/tov/proc/other", "/opt/other/other TOV_RESTART");
    start_programs(device, "watched", IDLE_PROGRAMS);
    const pid_t daemon = device.start_ready_daemon();
    std::this_thread::sleep_for(SETTLE_MS);
    print_costs(daemon, is_listed ? "a program listed" : "nothing listed", nullptr);
  }
  measure_bare_listener();
}

// ---- memory ---------------------------------------------------------------------------------

namespace {

struct Memory {
  int64_t rss_kb;
  int64_t pss_kb;
};

}  // namespace

static Memory memory_of(pid_t pid) {
  Memory memory{atoll(tov_test::status_field(pid, "VmRSS").c_str()), 0};
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.starts_with("Pss:")) memory.pss_kb = atoll(line.c_str() + strlen("Pss:"));
  return memory;
}

static void measure_memory() {
  printf("memory: resident memory of the daemon\n");
  const Noise noise;
  Memory last{};
  int last_count = 0;
  for (const int count : MEMORY_STEPS) {
    Device device;
    start_programs(device, "memory", count);
    const pid_t daemon = device.start_ready_daemon();
    std::this_thread::sleep_for(SETTLE_MS);
    const Memory memory = memory_of(daemon);
    printf("  %4d registered programs: VmRSS %6lld KiB, Pss %6lld KiB", count,
           static_cast<long long>(memory.rss_kb), static_cast<long long>(memory.pss_kb));
    if (last_count > 0)
      printf("; %.2f KiB for each further one (Pss %.2f)",
             static_cast<double>(memory.rss_kb - last.rss_kb) / (count - last_count),
             static_cast<double>(memory.pss_kb - last.pss_kb) / (count - last_count));
    printf("\n");
    last = memory;
    last_count = count;
  }
}

// ---- the daemon's own restart ---------------------------------------------------------------

// Wall time of the latest "TOV start." of the event log, as monotonic time.
static int64_t start_line_ns(const Device &device) {
  const auto lines = device.event_log("tov_run_event.log");
  const auto line = std::find_if(lines.rbegin(), lines.rend(), [](const std::string &text) {
    return text.find("TOV start.") != std::string::npos;
  });
  struct tm local {};
  const char *behind =
      line == lines.rend() ? nullptr : strptime(line->c_str(), "%Y-%m-%d %H%M%S ", &local);
  if (behind == nullptr) throw std::runtime_error("no start line\n" + device.dump());
  local.tm_isdst = -1;
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  const int64_t offset_ns = int64_t{wall.tv_sec} * NS_PER_S + wall.tv_nsec - monotonic_ns();
  return int64_t{mktime(&local)} * NS_PER_S + atoll(behind) * 1000 - offset_ns;
}

// Supervised is what comes back: the first, a middle and the last one are killed.
static void prove_supervision(Device &device, const std::string &name, std::vector<pid_t> &pids) {
  for (pid_t *pid : {&pids.front(), &pids[pids.size() / 2], &pids.back()}) {
    const size_t before = device.births(name).size();
    device.kill(*pid, SIGKILL);
    const auto birth = device.wait_birth(name, before + 1, BIRTH_LIMIT_MS);
    if (!birth) throw std::runtime_error("a program was forgotten\n" + device.dump());
    *pid = birth->pid;
  }
}

// The floor: reading so many small files and one file of /proc for each.
static double bare_scan_ms(const Device &device, const std::vector<pid_t> &pids) {
  const int64_t begin_ns = monotonic_ns();
  const std::string directory = device.path("/tmp/vsd/0/tov/db");
  for (const auto &entry : fs::directory_iterator(directory))
    (void)tov_test::read_small_file(entry.path());
  for (const pid_t pid : pids)
    (void)tov_test::read_small_file("/proc/" + std::to_string(pid) + "/stat");
  return static_cast<double>(monotonic_ns() - begin_ns) / NS_PER_MS;
}

static void measure_rebuild() {
  printf("rebuild: the daemon killed and started again, %d living registered programs\n",
         REBUILD_PROGRAMS);
  const Noise noise;
  Device device;
  auto pids = start_programs(device, "rebuild", REBUILD_PROGRAMS);
  device.start_ready_daemon();
  std::vector<double> rebuilt_ms, ready_ms, floor_ms;
  for (int round = 0; round < REBUILD_ROUNDS; round++) {
    device.kill_daemon(SIGKILL);
    device.start_daemon();
    const int64_t executed_ns = monotonic_ns();  // its exec has just succeeded, main is to come
    if (!device.wait_daemon_ready()) throw std::runtime_error("no daemon\n" + device.dump());
    ready_ms.push_back(static_cast<double>(monotonic_ns() - executed_ns) / NS_PER_MS);
    rebuilt_ms.push_back(static_cast<double>(start_line_ns(device) - executed_ns) / NS_PER_MS);
    floor_ms.push_back(bare_scan_ms(device, pids));
  }
  prove_supervision(device, "rebuild", pids);
  print_times("exec to the registry being complete", rebuilt_ms);
  print_times("exec to hearing process events", ready_ms);
  print_times("floor: reading the files and /proc/PID/stat", floor_ms);
}

// ---- main -----------------------------------------------------------------------------------

static constexpr struct {
  const char *name;
  void (*measure)();
} figures[] = {
    {"restart", measure_restart}, {"wakeups", measure_wakeups}, {"strangers", measure_strangers},
    {"memory", measure_memory},   {"rebuild", measure_rebuild},
};

int main(int argc, char **argv) {
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    for (const auto &figure : figures) {
      const bool wanted = argc < 2 || std::find_if(argv + 1, argv + argc, [&](const char *word) {
                                        return strcmp(word, figure.name) == 0;
                                      }) != argv + argc;
      if (wanted) figure.measure();
    }
  } catch (const std::exception &failure) {
    fprintf(stderr, "%s\n", failure.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
