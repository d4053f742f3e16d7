// What the stories about watched threads share: programs whose threads do as they are told
// (support/programs/watched.cpp), a daemon on a fast clock, and what its watchdog says.
//
// The watchdog's diagnostics are the tests' clock: each pass over the registered threads ends with
// a line of its own, so periods are counted as the daemon counts them, however busy the machine is.
#ifndef TOV_TEST_WATCHED_H
#define TOV_TEST_WATCHED_H

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/device/story.h"

namespace tov_test {

// A pass is 60 s of the daemon's clock: 300 ms of ours.
inline constexpr int WATCH_SPEED = 200;
inline constexpr Millis WATCH_LIMIT_MS{30'000};

// What the program's threads register with, and the passes that go by until a silent one is
// reported.
struct Terms {
  int period_s;
  int budget;
  int passes;  // in a period
};
inline constexpr Terms EVEN_TERMS = {120, 5, 2};
inline constexpr Terms ODD_TERMS = {180, 4, 3};

// ---- the daemon -----------------------------------------------------------------------------

// A daemon on a fast clock that prints the watchdog's diagnostics.
inline DaemonOptions watching(Device &device, int speed = WATCH_SPEED) {
  device.write("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_alive_dbg_level 0\n");
  return {.env = {{"DATA_QXOS_DIR", "/data/.qxos/vsd/0"}},
          .faketime = "+0 x" + std::to_string(speed)};
}

// A self-healing program that only notes what it is asked for, a line a request.
inline constexpr char WATCH_ASKED_FILE[] = "/data/watch_asked";

inline void install_patient_healer(Device &device) {
  device.write("/etc/tov/selfhealing",
               "#!/bin/sh\nprintf '<%s><%s><%s><%s>\\n' \"$1\" \"$2\" \"$3\" \"$4\" >> " +
                   std::string(WATCH_ASKED_FILE) + "\n",
               0755);
}

// ---- the programs ---------------------------------------------------------------------------

// One line of a watched program's report.
struct Told {
  pid_t pid;
  int index;
  pid_t tid;
  std::string word;
  int result;
};

inline std::vector<Told> told(const Device &device, const Task &task) {
  std::vector<Told> all;
  for (const std::string &line : device.lines("/data/watched." + task.name)) {
    std::istringstream fields(line);
    Told one{};
    if (fields >> one.pid >> one.index >> one.tid >> one.word >> one.result) all.push_back(one);
  }
  return all;
}

// The newest report of a thread on a word; waits for the `nth` one. Throws when it does not come.
inline Told need_told(const Device &device, const Task &task, int index, const std::string &word,
                      size_t nth = 1) {
  std::vector<Told> found;
  const bool done = wait_until(
      [&] {
        found.clear();
        for (Told &one : told(device, task))
          if (one.index == index && one.word == word) found.push_back(std::move(one));
        return found.size() >= nth;
      },
      WATCH_LIMIT_MS);
  if (!done) throw std::runtime_error(task.name + ": no " + word + "\n" + device.dump());
  return found.back();
}

// Installs and starts a watched program. Its threads are ready, and none has registered.
inline Task start_watched(Device &device, const std::string &prefix,
                          const std::vector<std::string> &words = {}) {
  Task task;
  task.name = unique_name(prefix);
  task.program = device.install_program(task.name, "watched");
  task.command = task.program;
  std::vector<std::string> argv = {task.program};
  for (const std::string &word : words) {
    task.command += " " + word;
    argv.push_back(word);
  }
  task.shown = shown_name(task.command);
  task.pid = device.spawn(argv);
  need_told(device, task, 0, "ready");
  return task;
}

inline pid_t thread_of(const Device &device, const Task &task, int index) {
  return need_told(device, task, index, "ready").tid;
}

// Gives a thread a word and waits until it has obeyed. Returns the result that it reported.
inline int say(Device &device, const Task &task, int index, const std::string &word) {
  const auto reports = told(device, task);
  const auto before = std::count_if(reports.begin(), reports.end(), [&](const Told &one) {
    return one.index == index && one.word == word;
  });
  device.write("/data/do." + task.name + "." + std::to_string(index), word + "\n");
  return need_told(device, task, index, word, static_cast<size_t>(before) + 1).result;
}

// Registers a thread and waits until the daemon knows it.
inline pid_t enrol(Device &device, const Task &task, int index,
                   const std::string &word = "register") {
  const pid_t tid = thread_of(device, task, index);
  const std::string line = "Thread " + task.command + "/" + std::to_string(tid) + " (pid " +
                           std::to_string(task.pid) + ") reg TOV thread-alive service.";
  const size_t before = device.count_events(ALIVE_LOG, line);
  if (const int result = say(device, task, index, word); result != 0)
    throw std::runtime_error("registration: " + std::to_string(result) + "\n" + device.dump());
  need_event(device, ALIVE_LOG, line, before + 1, WATCH_LIMIT_MS);
  return tid;
}

// ---- what the watchdog says -------------------------------------------------------------------

// One line of the watchdog's diagnostics.
struct Step {
  enum Kind { SEEN, PERIOD, WARNING, KILL, GONE, PASS } kind;
  int pass = 0;                                          // from 0; the PASS step is its last
  pid_t tid = 0;                                         // KILL and PASS name none
  pid_t pid = 0;                                         // the owner; not with GONE and PASS
  int period_s = 0, budget = 0, left = 0, silent_s = 0;  // SEEN and PERIOD
  int missed = 0;                                        // WARNING, which fills budget, too
  int semaphore = 0;                                     // PASS
};

inline std::optional<Step> parse_step(const std::string &line) {
  static constexpr char SOURCE[] = "[TOV:watchdog.cpp:";
  const size_t end = line.find(']');
  if (!line.starts_with(SOURCE) || end == std::string::npos) return {};
  const char *text = line.c_str() + end + 1;
  const auto record = [text](const std::string &prefix, Step &step) {
    const std::string format = prefix +
                               "pid (%d) ppid (%d) ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) "
                               "cur_ntfy_time (%d)";
    return sscanf(text, format.c_str(), &step.tid, &step.pid, &step.period_s, &step.budget,
                  &step.left, &step.silent_s) == 6;
  };
  Step step{};
  if (record("", step)) {
    step.kind = Step::SEEN;
  } else if (record("Decrease ", step)) {
    step.kind = Step::PERIOD;
  } else if (sscanf(text,
                    "Process pid(%d) tid(%d) not notify reset for %d times, It will be killed "
                    "after %d times!!!",
                    &step.pid, &step.tid, &step.missed, &step.budget) == 4) {
    step.kind = Step::WARNING;
  } else if (sscanf(text, "ntfy_cnt(%d), send SIGABRT to ppid (%d)", &step.budget, &step.pid) ==
             2) {
    step.kind = Step::KILL;
  } else if (sscanf(text, "pid is not exist(%d, ret:-1)", &step.tid) == 1) {
    step.kind = Step::GONE;
  } else if (sscanf(text, "sem_cnt = %d", &step.semaphore) == 1) {
    step.kind = Step::PASS;
  } else {
    return {};
  }
  return step;
}

using Steps = std::vector<Step>;

// Everything that all daemons of the device have said so far, in whole passes and what has come of
// the next one. A record's KILL follows its SEEN step.
inline Steps watch_steps(const Device &device) {
  Steps steps;
  int pass = 0;
  std::istringstream output(device.daemon_output());
  for (std::string line; std::getline(output, line);) {
    auto step = parse_step(line);
    if (!step) continue;
    step->pass = pass;
    if (step->kind == Step::PASS) pass++;
    steps.push_back(*step);
  }
  return steps;
}

inline Steps steps_of(const Steps &steps, Step::Kind kind, pid_t tid = 0) {
  Steps found;
  std::copy_if(steps.begin(), steps.end(), std::back_inserter(found), [&](const Step &step) {
    return step.kind == kind && (tid == 0 || step.tid == tid);
  });
  return found;
}

// Waits until what the watchdog has said fulfils a condition; throws when it does not.
inline Steps need_steps(const Device &device, const std::string &what,
                        const std::function<bool(const Steps &)> &holds) {
  Steps steps;
  if (!wait_until([&] { return holds(steps = watch_steps(device)); }, WATCH_LIMIT_MS))
    throw std::runtime_error("the watchdog misses: " + what + "\n" + device.dump());
  return steps;
}

// Waits for `count` whole passes that begin from now on.
inline Steps pass_minutes(const Device &device, size_t count) {
  const size_t before = steps_of(watch_steps(device), Step::PASS).size();
  // The one that may be under way now does not count.
  return need_steps(device, "passes", [&](const Steps &steps) {
    return steps_of(steps, Step::PASS).size() >= before + 1 + count;
  });
}

inline Steps need_step(const Device &device, const std::string &what, Step::Kind kind, pid_t tid,
                       const std::function<bool(const Step &)> &holds) {
  return need_steps(device, what, [&](const Steps &steps) {
    const Steps found = steps_of(steps, kind, tid);
    return std::any_of(found.begin(), found.end(), holds);
  });
}

// A request to kill: the pass in which it was made, and the thread that it was made for.
struct Request {
  int pass;
  pid_t tid;
};

inline std::vector<Request> requests(const Steps &steps) {
  std::vector<Request> all;
  pid_t tid = 0;
  for (const Step &step : steps) {
    if (step.kind == Step::SEEN) tid = step.tid;
    if (step.kind == Step::KILL) all.push_back({step.pass, tid});
  }
  return all;
}

inline std::vector<Request> need_requests(const Device &device, size_t count) {
  return requests(need_steps(device, "kill requests", [&](const Steps &steps) {
    return steps_of(steps, Step::KILL).size() >= count;
  }));
}

inline std::vector<int> budgets(const Steps &steps) {
  std::vector<int> left;
  for (const Step &step : steps)
    left.push_back(step.left);
  return left;
}

inline constexpr char AREA[] = "/dev/shm/UTILS-tov-shm-001";

// A thread's bit and byte in the shared area.
inline std::pair<int, int> slot(const Device &device, pid_t tid) {
  static constexpr size_t MAP = 32, SEQ = 20513;
  const std::string area = device.read(AREA);
  const auto id = static_cast<size_t>(tid);
  return {(static_cast<unsigned char>(area.at(MAP + id / 8)) >> (id % 8)) & 1,
          static_cast<unsigned char>(area.at(SEQ + id))};
}

// ---- what is reported -------------------------------------------------------------------------

inline std::string hung(const Task &task, int index, pid_t tid) {
  return "[" + named(task, task.pid) + "] thread sentry" + std::to_string(index) + ":" +
         std::to_string(tid);
}

// The line of the kill log.
inline std::string killed_hung(const Task &task, int index, pid_t tid) {
  return "detected process " + hung(task, index, tid) + " hang, kill with PSH.";
}

// What the self-healing program is asked for.
inline std::string asked_to_kill(const Task &task, int index, pid_t tid) {
  return "<2><" + std::to_string(task.pid) + "><tov><detect process:" + hung(task, index, tid) +
         " hung.>";
}

// Waits for so many lines of the kill log and returns all there are, without their stamps.
inline std::vector<std::string> need_kill_lines(const Device &device, size_t count) {
  std::vector<std::string> lines;
  if (!wait_until([&] { return (lines = event_texts(device, KILL_LOG)).size() >= count; },
                  WATCH_LIMIT_MS))
    throw std::runtime_error("kill log: too few lines\n" + device.dump());
  return lines;
}

// The same of what the patient self-healing program was asked for.
inline std::vector<std::string> need_asked(const Device &device, size_t count) {
  std::vector<std::string> lines;
  if (!wait_until([&] { return (lines = device.lines(WATCH_ASKED_FILE)).size() >= count; },
                  WATCH_LIMIT_MS))
    throw std::runtime_error("too few kill requests\n" + device.dump());
  return lines;
}

}  // namespace tov_test

#endif  // TOV_TEST_WATCHED_H
