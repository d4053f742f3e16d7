// The soak tool: many watched programs on a fast clock for as long as one likes. All of their
// threads give signs of life at random moments, so no process may be reported, and the daemon may
// not grow. Then some of the threads fall silent, and exactly their processes must be reported.
//
//   soak [--processes N] [--threads N] [--silent N] [--hours N | --minutes N] [--speed N]
//        [--random MS] [--seed N]
//
// Hours and minutes are the daemon's; `speed` of its seconds pass in one of ours. The programs live
// by the real clock (support/programs/watched.cpp): they have `random` milliseconds at most between
// two signs of life, and five periods of 120 s of the daemon's clock until they are reported.
//
// Needs root and a machine that is otherwise quiet. Exit status: 0, 1 for a verdict against the
// daemon, 2 when the run could not be made.
#include <getopt.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <exception>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using tov_test::Device;
using tov_test::Millis;
using tov_test::monotonic_ns;

namespace {

enum { EXIT_RIGHT = 0, EXIT_WRONG = 1, EXIT_UNABLE = 2 };

constexpr char ALIVE_LOG[] = "user_register_alive.log";
constexpr char PROGRAM[] = "soaked";
constexpr int64_t PASS_S = 60;       // of the daemon's clock, between two looks of its watchdog
constexpr int PASSES_TO_SETTLE = 5;  // until every page that is used has been touched
constexpr int PASSES_TO_SPEND = 10;  // a budget of 5 periods of 120 s
// The ring of process events takes its pages one after another, as processes of the machine come
// and go; that ends when it has gone round once.
constexpr int RING_KB = 512;
constexpr int GROWTH_LIMIT_KB = RING_KB + 256;
constexpr Millis START_LIMIT_MS{120'000};
constexpr Millis LEAK_LIMIT_MS{10'000};
constexpr Millis LOOK_MS{500};
constexpr int PROGRESS_S = 60;

struct Options {
  int processes = 200;
  int threads = 4;
  int silent = 20;
  int64_t span_s = 86'400;  // of the daemon's clock
  int speed = 60;
  int random_ms = 1500;
  unsigned int seed = std::random_device()();
};

struct Process {
  pid_t pid = 0;
  std::map<int, pid_t> tids;
};

struct Usage {
  long resident_kb = 0;
  long private_kb = 0;
  size_t descriptors = 0;
};

struct Wrong : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Soak {
 public:
  explicit Soak(const Options &options)
      : options_(options),
        name_(tov_test::unique_name(PROGRAM)),
        program_(device_.install_program(name_, "watched")) {}

  void start();
  void live();
  void fall_silent();

 private:
  // So long of ours lasts so much of the daemon's time.
  Millis real(int64_t daemon_s) const { return Millis(daemon_s * 1000 / options_.speed); }
  std::string command() const {
    return name_ + " threads=" + std::to_string(options_.threads - 1) +
           " random=" + std::to_string(options_.random_ms);
  }
  void read_reports();
  Usage usage() const;
  void look(const char *when);
  std::set<std::string> killed() const;

  Options options_;
  Device device_;
  std::string name_;
  std::string program_;
  std::vector<Process> processes_;
  Usage first_;
  Usage most_;
};

long status_kb(pid_t pid, const std::string &field) {
  return atol(tov_test::status_field(pid, field).c_str());
}

Usage Soak::usage() const {
  const pid_t pid = device_.daemon_pid();
  Usage now;
  now.resident_kb = status_kb(pid, "VmRSS");
  now.private_kb = status_kb(pid, "RssAnon");
  now.descriptors = tov_test::descriptors_of(pid);
  return now;
}

void print_usage(const char *when, const Usage &usage) {
  printf("%s: daemon %ld KiB resident, %ld KiB of its own, %zu descriptors\n", when,
         usage.resident_kb, usage.private_kb, usage.descriptors);
  fflush(stdout);
}

// The threads' ids, from what the programs have reported.
void Soak::read_reports() {
  std::map<pid_t, Process *> by_pid;
  for (Process &process : processes_)
    by_pid[process.pid] = &process;
  for (const std::string &line : device_.lines("/data/watched." + name_)) {
    std::istringstream fields(line);
    pid_t pid = 0, tid = 0;
    int index = 0, result = -1;
    std::string word;
    if (!(fields >> pid >> index >> tid >> word >> result) || word != "register") continue;
    if (result != 0) throw Wrong("a registration failed: " + line);
    if (by_pid.contains(pid)) by_pid[pid]->tids[index] = tid;
  }
}

void Soak::start() {
  device_.start_ready_daemon({.faketime = "+0 x" + std::to_string(options_.speed)});
  const size_t count =
      static_cast<size_t>(options_.processes) * static_cast<size_t>(options_.threads);
  for (int i = 0; i < options_.processes; i++) {
    const pid_t pid = device_.spawn({program_, "threads=" + std::to_string(options_.threads - 1),
                                     "random=" + std::to_string(options_.random_ms)});
    processes_.push_back({pid, {}});
  }
  if (!device_.wait_event(ALIVE_LOG, " reg TOV thread-alive service.", START_LIMIT_MS, count))
    throw std::runtime_error("the threads did not register\n" + device_.dump());
  tov_test::wait_until(
      [&] {
        read_reports();
        return std::all_of(processes_.begin(), processes_.end(), [&](const Process &process) {
          return process.tids.size() == static_cast<size_t>(options_.threads);
        });
      },
      START_LIMIT_MS);
  printf("%zu threads of %d processes, %d times as fast, seed %u\n", count, options_.processes,
         options_.speed, options_.seed);
  std::this_thread::sleep_for(real(PASSES_TO_SETTLE * PASS_S));
  first_ = most_ = usage();
  print_usage("settled", first_);
}

// What must hold at every moment: the daemon lives, has reported no process and has not grown.
void Soak::look(const char *when) {
  if (device_.wait(device_.daemon_pid(), Millis(0))) throw Wrong("the daemon has ended");
  if (!device_.event_log(tov_test::KILL_LOG).empty())
    throw Wrong("reported although alive: " + device_.event_log(tov_test::KILL_LOG)[0]);
  const Usage now = usage();
  most_.resident_kb = std::max(most_.resident_kb, now.resident_kb);
  most_.private_kb = std::max(most_.private_kb, now.private_kb);
  most_.descriptors = std::max(most_.descriptors, now.descriptors);
  if (when != nullptr) print_usage(when, now);
}

void Soak::live() {
  const int64_t begin_ns = monotonic_ns();
  const int64_t end_ns = begin_ns + real(options_.span_s).count() * 1'000'000;
  int64_t progress_ns = begin_ns;
  while (monotonic_ns() < end_ns) {
    std::this_thread::sleep_for(LOOK_MS);
    const int64_t now_ns = monotonic_ns();
    const bool tell = now_ns >= progress_ns + int64_t{PROGRESS_S} * 1'000'000'000;
    char when[64];
    snprintf(when, sizeof when, "after %.1f h",
             static_cast<double>(now_ns - begin_ns) / 3.6e12 * options_.speed);
    look(tell ? when : nullptr);
    if (tell) progress_ns = now_ns;
  }
  look("alive all the time");
  // What leaked stays open; what the sweep has open at the moment of a look does not.
  if (!tov_test::wait_until([&] { return usage().descriptors <= first_.descriptors; },
                            LEAK_LIMIT_MS))
    throw Wrong("descriptors have leaked");
  // A sanitizer's own memory is not the daemon's.
  const bool plain = tov_test::patience() == 1;
  if (plain && usage().private_kb > first_.private_kb + GROWTH_LIMIT_KB)
    throw Wrong("the daemon has grown");
}

std::set<std::string> Soak::killed() const {
  std::set<std::string> texts;
  for (const std::string &line : device_.event_log(tov_test::KILL_LOG))
    texts.insert(tov_test::without_stamp(line));
  return texts;
}

void Soak::fall_silent() {
  std::mt19937 dice(options_.seed);
  std::vector<Process> order = processes_;
  std::shuffle(order.begin(), order.end(), dice);
  const auto silent_end = order.begin() + options_.silent;
  std::set<std::string> expected;
  for (auto process = order.begin(); process != silent_end; ++process) {
    const int index = static_cast<int>(dice() % static_cast<unsigned int>(options_.threads));
    device_.kill(process->pid, SIGRTMIN + index);
    expected.insert("detected process [" + command() + "/" + std::to_string(process->pid) +
                    "] thread sentry" + std::to_string(index) + ":" +
                    std::to_string(process->tids.at(index)) + " hang, kill with PSH.");
  }
  const int64_t begin_ns = monotonic_ns();
  for (auto process = order.begin(); process != silent_end; ++process) {
    const auto status =
        device_.wait(process->pid, 4 * real((PASSES_TO_SPEND + options_.silent) * PASS_S));
    if (!status || !WIFSIGNALED(*status) || WTERMSIG(*status) != SIGABRT)
      throw Wrong("process " + std::to_string(process->pid) + " was not ended");
  }
  printf("%d silent threads: their processes were ended within %.1f min\n", options_.silent,
         static_cast<double>(monotonic_ns() - begin_ns) / 6e10 * options_.speed);
  tov_test::wait_until([&] { return killed() == expected; }, Millis(10'000));
  std::this_thread::sleep_for(real(2 * PASS_S));
  for (const std::string &text : killed())
    if (!expected.contains(text)) throw Wrong("reported although alive: " + text);
  if (killed() != expected) throw Wrong("a silent thread was not reported");
  for (auto process = silent_end; process != order.end(); ++process)
    if (!device_.lives(process->pid))
      throw Wrong("process " + std::to_string(process->pid) + " ended, though alive");
  print_usage("at the end", usage());
}

bool read_options(int argc, char **argv, Options *options) {
  static const struct option known[] = {{"processes", required_argument, nullptr, 'p'},
                                        {"threads", required_argument, nullptr, 't'},
                                        {"silent", required_argument, nullptr, 's'},
                                        {"hours", required_argument, nullptr, 'h'},
                                        {"minutes", required_argument, nullptr, 'm'},
                                        {"speed", required_argument, nullptr, 'x'},
                                        {"random", required_argument, nullptr, 'r'},
                                        {"seed", required_argument, nullptr, 'd'},
                                        {nullptr, 0, nullptr, 0}};
  int option;
  while ((option = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    const int number = optarg != nullptr ? atoi(optarg) : 0;
    if (option == '?' || number <= 0) return false;
    if (option == 'p') options->processes = number;
    if (option == 't') options->threads = number;
    if (option == 's') options->silent = number;
    if (option == 'h') options->span_s = int64_t{number} * 3600;
    if (option == 'm') options->span_s = int64_t{number} * 60;
    if (option == 'x') options->speed = number;
    if (option == 'r') options->random_ms = number;
    if (option == 'd') options->seed = static_cast<unsigned int>(number);
  }
  return optind == argc && options->silent <= options->processes;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!read_options(argc, argv, &options)) {
    fprintf(stderr,
            "usage: soak [--processes N] [--threads N] [--silent N] [--hours N | --minutes N]\n"
            "            [--speed N] [--random MS] [--seed N]\n");
    return EXIT_UNABLE;
  }
  try {
    Soak soak(options);
    soak.start();
    soak.live();
    soak.fall_silent();
  } catch (const Wrong &verdict) {
    printf("WRONG: %s\n", verdict.what());
    return EXIT_WRONG;
  } catch (const std::exception &failure) {
    printf("unable: %s\n", failure.what());
    return EXIT_UNABLE;
  }
  printf("everything as it should be\n");
  return EXIT_RIGHT;
}
