// What one program's wait costs the others: the shipped daemon in a private device, one record that
// waits, and other programs that end meanwhile.
//
//   waits_bench
//
// Each row opens a device of its own. Its programs are victims (tests/support/programs/victim.cpp),
// which note the time as the first act of main. A row's figures count only while its wait lasts: a
// daemon that stands still shows one figure, as long as the wait.
//
// While a fork has failed nobody is started. What is measured then, and once without it as its
// floor, is the end of a program that was stopped on purpose: until its registration file is gone.
//
// The machine should be quiet, see device_bench.cpp.
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "include/tov_wire.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using tov_test::Device;
using tov_test::Millis;
using tov_test::monotonic_ns;

static constexpr size_t PROGRAMS = 15;
static constexpr size_t RESTARTS_EACH =
    4;  // the fifth within two minutes would suspend the program
static constexpr size_t STOPS = PROGRAMS * RESTARTS_EACH;
static constexpr int RESTART_TIME_S = 12;
static constexpr Millis LIMIT_MS{30'000};
static constexpr Millis SETTLE_MS{3'000};  // start-up work is over, first pages are touched
static constexpr Millis REST_MS{20};       // the bookkeeping of the last restart is over
static constexpr double NS_PER_MS = 1e6;
static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";

// ---- programs -----------------------------------------------------------------------------------

namespace {

struct Program {
  std::string name;
  pid_t pid = 0;
  size_t births = 0;
};

}  // namespace

static std::string path_of(const Program &program) {
  return "/opt/" + program.name + "/" + program.name;
}

static void await_birth(const Device &device, Program &program) {
  const auto birth = device.wait_birth(program.name, program.births + 1, LIMIT_MS);
  if (!birth) throw std::runtime_error(program.name + " did not start\n" + device.dump());
  program.births++;
  program.pid = birth->pid;
}

static void await(const Device &device, const std::function<bool()> &condition, const char *what) {
  if (!tov_test::wait_until(condition, LIMIT_MS))
    throw std::runtime_error(std::string(what) + "\n" + device.dump());
}

// Starts a victim that nobody has registered.
static Program start_victim(Device &device, const std::string &prefix,
                            const std::vector<std::string> &words = {}) {
  Program program;
  program.name = tov_test::unique_name(prefix);
  std::vector<std::string> argv = {device.install_program(program.name)};
  argv.insert(argv.end(), words.begin(), words.end());
  device.spawn(argv);
  await_birth(device, program);
  return program;
}

// Victims with registration files, which the daemon finds when it starts.
static std::vector<Program> start_filed(Device &device, const std::string &prefix, size_t count) {
  std::vector<Program> programs;
  for (size_t i = 0; i < count; i++)
    programs.push_back(start_victim(device, prefix + std::to_string(i) + "_", {"lock=2"}));
  return programs;
}

static void list(Device &device, const std::string &name, const std::string &type) {
  device.write("/etc/tov/proc/" + name, "/opt/" + name + "/" + name + " " + type);
}

static void await_registration(const Device &device, pid_t pid) {
  const std::string text = "pid:" + std::to_string(pid) + ",";
  if (!device.wait_event(tov_test::REGISTER_LOG, text, LIMIT_MS))
    throw std::runtime_error("no registration of " + std::to_string(pid) + "\n" + device.dump());
}

// ---- one wait -----------------------------------------------------------------------------------

namespace {

// What goes on while others are measured. The constructor prepares what must be there before the
// daemon starts.
class Wait {
 public:
  explicit Wait(Device &device) : device_(device) {}
  Wait(const Wait &) = delete;
  Wait &operator=(const Wait &) = delete;
  virtual ~Wait() = default;

  virtual void begin() {}  // under a daemon that is ready; returns when the wait has begun
  virtual bool lasts() { return true; }
  virtual void before_each(size_t) {}  // right before the measured program is killed
  virtual void after_each(size_t) {}
  virtual void end() {}  // for a daemon that does not go on before

 protected:
  Device &device_;
};

// A restart delay, which the program asks for when it registers.
class RestartTime final : public Wait {
 public:
  using Wait::Wait;
  void begin() override {
    const std::string name = tov_test::unique_name("bw_delayed_");
    const std::string path = device_.install_program(name, "worker");
    report_ = "/data/worker." + name;
    const pid_t pid = device_.spawn({path, "exec", "delay=" + std::to_string(RESTART_TIME_S)});
    await(
        device_, [&] { return device_.lines(report_).size() > 1; }, "the worker does not register");
    await_registration(device_, pid);
    device_.kill(pid, SIGKILL);
    std::this_thread::sleep_for(SETTLED_MS);
  }
  bool lasts() override { return device_.lines(report_).size() == 2; }

 private:
  static constexpr Millis SETTLED_MS{100};  // its end has been decided
  std::string report_;
};

// A listed program whose start script starts nothing: the daemon searches for it in vain.
class Search final : public Wait {
 public:
  explicit Search(Device &device) : Wait(device), name_(tov_test::unique_name("bw_searched_")) {
    list(device, name_, "TOV_SHELL_RESTART");
    device.install_start_script(name_, "echo >>" + std::string(STARTED_FILE) + "\n");
  }
  void begin() override {
    const pid_t pid = device_.spawn({device_.install_program(name_)});
    await_registration(device_, pid);
    device_.kill(pid, SIGKILL);
    await(
        device_, [&] { return device_.exists(STARTED_FILE); }, "the script is not started");
  }
  bool lasts() override { return device_.count_events(tov_test::ERROR_LOG, "Not Found") == 0; }

 private:
  static constexpr char STARTED_FILE[] = "/data/started";
  std::string name_;
};

// A program's registration file stays locked after its end.
class Deferral final : public Wait {
 public:
  explicit Deferral(Device &device) : Wait(device), program_(start_victim(device, "bw_deferred_")) {
    hold(device.register_file(0, program_.pid, RESPAWN, path_of(program_)));
  }
  ~Deferral() override {
    ::kill(holder_, SIGKILL);
    (void)waitpid(holder_, nullptr, 0);
  }
  void begin() override {
    device_.kill(program_.pid, SIGKILL);
    std::this_thread::sleep_for(SETTLED_MS);
  }
  bool lasts() override { return device_.births(program_.name).size() == program_.births; }

 private:
  static constexpr Millis SETTLED_MS{1'500};  // the alarm has asked for the lock

  void hold(const std::string &file) {
    const std::string path = device_.path(file);
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) < 0) throw std::runtime_error("no pipe");
    holder_ = fork();
    if (holder_ == 0) {
      const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
      struct flock whole {};
      whole.l_type = F_WRLCK;
      whole.l_whence = SEEK_SET;
      if (fcntl(fd, F_SETLK, &whole) < 0 || write(ready[1], "", 1) != 1) _exit(1);
      for (;;)
        pause();
    }
    close(ready[1]);
    char held;
    const bool done = read(ready[0], &held, 1) == 1;
    close(ready[0]);
    if (!done) throw std::runtime_error("the file cannot be locked");
  }

  Program program_;
  pid_t holder_ = -1;
};

// Another program dies right before each measured one.
class Neighbours : public Wait {
 public:
  explicit Neighbours(Device &device)
      : Wait(device), programs_(start_filed(device, "bw_plain_", PROGRAMS)) {}
  void before_each(size_t sample) override {
    const pid_t pid = programs_[sample % PROGRAMS].pid;
    device_.kill(pid, SIGKILL);
    // The daemon hears of ends in their order, which need not be that of the signals.
    await(
        device_, [&] { return !device_.lives(pid); }, "a killed process lives");
  }
  void after_each(size_t sample) override { await_birth(device_, programs_[sample % PROGRAMS]); }

 protected:
  Neighbours(Device &device, std::vector<Program> programs)
      : Wait(device), programs_(std::move(programs)) {}
  std::vector<Program> programs_;
};

// That one is listed: the daemon looks whether it runs again, and searches for its new process.
class ListedNeighbours final : public Neighbours {
 public:
  explicit ListedNeighbours(Device &device) : Neighbours(device, name_them(device)) {}
  void begin() override {
    for (Program &program : programs_) {
      device_.spawn({device_.install_program(program.name)});
      await_birth(device_, program);
      await_registration(device_, program.pid);
    }
  }
  void after_each(size_t sample) override {
    Neighbours::after_each(sample);
    const std::string found = "] new pid: " + std::to_string(programs_[sample % PROGRAMS].pid);
    if (!device_.wait_event(tov_test::RUN_LOG, found, LIMIT_MS))
      throw std::runtime_error("a listed program was not found\n" + device_.dump());
  }

 private:
  static std::vector<Program> name_them(Device &device) {
    std::vector<Program> programs(PROGRAMS);
    for (size_t i = 0; i < PROGRAMS; i++) {
      programs[i].name = tov_test::unique_name("bw_listed" + std::to_string(i) + "_");
      list(device, programs[i].name, "TOV_RESTART");
    }
    return programs;
  }
};

// A program that cannot be started because forks fail.
class ForkPause final : public Wait {
 public:
  explicit ForkPause(Device &device)
      : Wait(device), program_(start_filed(device, "bw_unforked_", 1)[0]) {}
  void begin() override {
    if (!device_.limit_processes(device_.daemon_pid(), 1))
      throw std::runtime_error("no version-1 pids controller");
    device_.kill(program_.pid, SIGKILL);
    await(
        device_, [&] { return !device_.read(FORK_FILE).empty(); }, "no fork has failed");
    begun_ns_ = monotonic_ns();
  }
  // Before the seventh failure, which ends the daemon.
  bool lasts() override { return monotonic_ns() - begun_ns_ < MOST_NS; }
  void end() override { (void)device_.limit_processes(device_.daemon_pid(), NO_LIMIT); }

 private:
  static constexpr int NO_LIMIT = -1;
  static constexpr int64_t MOST_NS = 20'000'000'000;
  Program program_;
  int64_t begun_ns_ = 0;
};

}  // namespace

// ---- figures ------------------------------------------------------------------------------------

// Milliseconds from the kill of one program after the other to the main of its successor.
static std::vector<double> restarts(Device &device, Wait &wait, std::vector<Program> &programs) {
  std::vector<double> ms;
  for (size_t sample = 0; sample < PROGRAMS * RESTARTS_EACH && wait.lasts(); sample++) {
    Program &program = programs[sample % PROGRAMS];
    wait.before_each(sample);
    const int64_t killed_ns = monotonic_ns();
    device.kill(program.pid, SIGKILL);
    const auto birth = device.wait_birth(program.name, program.births + 1, LIMIT_MS);
    if (!birth) throw std::runtime_error(program.name + " is not back\n" + device.dump());
    program.births++;
    program.pid = birth->pid;
    ms.push_back(static_cast<double>(birth->main_ns - killed_ns) / NS_PER_MS);
    wait.after_each(sample);
    std::this_thread::sleep_for(REST_MS);
  }
  return ms;
}

// Milliseconds from a deliberate stop to the removal of the program's registration file.
static std::vector<double> stops(Device &device, Wait &wait, std::vector<Program> &programs) {
  static constexpr useconds_t LOOK_US = 50;
  std::vector<double> ms;
  for (size_t sample = 0; sample < programs.size() && wait.lasts(); sample++) {
    const Program &program = programs[sample];
    const std::string file =
        device.path(Device::register_path(0, program.pid, path_of(program) + " lock=2"));
    if (access(file.c_str(), F_OK) < 0) throw std::runtime_error("no file " + file);
    const int64_t killed_ns = monotonic_ns();
    device.kill(program.pid, SIGTERM);
    while (access(file.c_str(), F_OK) == 0) {
      if (monotonic_ns() - killed_ns > std::chrono::nanoseconds(LIMIT_MS).count())
        throw std::runtime_error("a stop is not heard\n" + device.dump());
      if (!wait.lasts()) wait.end();
      usleep(LOOK_US);
    }
    ms.push_back(static_cast<double>(monotonic_ns() - killed_ns) / NS_PER_MS);
    std::this_thread::sleep_for(REST_MS);
  }
  return ms;
}

using Measure = std::vector<double> (*)(Device &, Wait &, std::vector<Program> &);

template <typename Kind>
static std::vector<double> take(Measure measure, size_t count) {
  Device device;
  std::vector<Program> programs = start_filed(device, "bw_other_", count);
  Kind wait(device);
  device.start_ready_daemon();
  std::this_thread::sleep_for(SETTLE_MS);
  wait.begin();
  return measure(device, wait, programs);
}

template <typename Kind>
static std::vector<double> take_restarts() {
  return take<Kind>(restarts, PROGRAMS);
}

template <typename Kind>
static std::vector<double> take_stops() {
  return take<Kind>(stops, STOPS);
}

static constexpr struct {
  const char *what;
  std::vector<double> (*take)();
  bool floor;  // of the rows up to the next floor
} rows[] = {
    {"restart, quiet", take_restarts<Wait>, true},
    {"  while a restart delay lasts", take_restarts<RestartTime>, false},
    {"  while a listed program is searched in vain", take_restarts<Search>, false},
    {"  while a restart is deferred", take_restarts<Deferral>, false},
    {"restart, right behind another's end", take_restarts<Neighbours>, true},
    {"  right behind a listed program's end", take_restarts<ListedNeighbours>, false},
    {"deliberate stop, quiet", take_stops<Wait>, true},
    {"  while forks fail", take_stops<ForkPause>, false},
};

static double median(const std::vector<double> &sorted) {
  return sorted[sorted.size() / 2];
}

// The latest but a twentieth: the machine itself stops for some 20 ms now and then.
static double p95(const std::vector<double> &sorted) {
  return sorted[(sorted.size() - 1) * 95 / 100];
}

int main() {
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  printf("waits: other programs' restarts while one waits, ms\n");
  printf("  %-46s %9s %9s %9s %9s %6s   %s\n", "", "minimum", "median", "p95", "maximum", "count",
         "median and p95 beyond the floor");
  try {
    std::vector<double> floor;
    for (const auto &row : rows) {
      std::vector<double> ms = row.take();
      if (ms.empty()) throw std::runtime_error(std::string(row.what) + ": the wait was over");
      std::sort(ms.begin(), ms.end());
      printf("  %-46s %9.3f %9.3f %9.3f %9.3f %6zu", row.what, ms.front(), median(ms), p95(ms),
             ms.back(), ms.size());
      if (row.floor)
        floor = ms;
      else
        printf("   %+.3f %+.3f", median(ms) - median(floor), p95(ms) - p95(floor));
      printf("\n");
    }
  } catch (const std::exception &failure) {
    fprintf(stderr, "%s\n", failure.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
