// What the stories of the daemon's device tests share: a task under supervision, and what the
// daemon says about it, without time stamps.
//
// A task here is a victim program (programs/victim.cpp) that was started before the daemon and
// whose registration file the test wrote. The daemon takes such files in at its start.
//
// A header alone: every test file is a program of its own.
#ifndef TOV_TEST_STORY_H
#define TOV_TEST_STORY_H

#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "include/tov_wire.h"
#include "tests/support/birth.h"
#include "tests/support/collector.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

namespace tov_test {

inline constexpr Millis STORY_LIMIT_MS = PATIENT_MS;

// ---- a task ---------------------------------------------------------------------------------

struct Task {
  std::string name;     // of the program; unique on the machine
  std::string program;  // its path in the device
  std::string command;  // as it stands in the registration file
  std::string shown;    // as announcements name it
  std::string file;     // of the first registration
  pid_t pid = 0;        // the latest one known
  size_t births = 0;    // known
};

struct TaskOptions {
  std::vector<std::string> words = {};  // behind the program
  int action = RESPAWN;
  int vsd = 0;
  bool registered = true;  // false: the test (or the victim, with "lock=") does it
  SpawnOptions spawn = {};
};

// What follows the last slash of the whole command, arguments included.
inline std::string shown_name(const std::string &command) {
  return command.substr(command.rfind('/') + 1);
}

// Takes the next start of a task in. Throws when it does not come.
inline Birth next_birth(const Device &device, Task &task, Millis limit = STORY_LIMIT_MS) {
  const auto birth = device.wait_birth(task.name, task.births + 1, limit);
  if (!birth) throw std::runtime_error(task.name + " was not started\n" + device.dump());
  task.births++;
  task.pid = birth->pid;
  return *birth;
}

// Starts one more instance of an installed program, as a child of the test.
inline Task start_instance(Device &device, Task task, const TaskOptions &options = {}) {
  task.births = device.births(task.name).size();
  std::vector<std::string> argv = {task.program};
  argv.insert(argv.end(), options.words.begin(), options.words.end());
  device.spawn(argv, options.spawn);
  next_birth(device, task);
  if (options.registered)
    task.file = device.register_file(options.vsd, task.pid, options.action, task.command);
  else
    task.file = Device::register_path(options.vsd, task.pid, task.command);
  return task;
}

// Installs a test program under a name of its own; `words` end its command line.
inline Task install_task(Device &device, const std::string &prefix,
                         const std::vector<std::string> &words,
                         const std::string &original = "victim") {
  Task task;
  task.name = unique_name(prefix);
  task.program = device.install_program(task.name, original);
  task.command = task.program;
  for (const std::string &word : words)
    task.command += " " + word;
  task.shown = shown_name(task.command);
  return task;
}

// Installs a victim under a name of its own, starts it and registers it.
inline Task start_task(Device &device, const std::string &prefix, const TaskOptions &options = {}) {
  return start_instance(device, install_task(device, prefix, options.words), options);
}

// Lets a victim with the word "until-told" do what its other words say.
inline void tell(Device &device, const Task &task) {
  device.write("/data/tell." + task.name, "");
}

// ---- what is said ---------------------------------------------------------------------------

// Does the sweep say that it missed a process? It may do so at any time about one whose end has not
// been handled yet, or which has been forked and not executed yet.
inline bool is_miss_of_sweep(const std::string &text) {
  return text.starts_with("tov_proc_stat_check: ") && text.ends_with(" is not running.");
}

// The lines of one event log without their time stamps. What the sweep merely missed is left out,
// since a test cannot foresee it; tests of the sweep ask for those lines with need_event().
inline std::vector<std::string> event_texts(const Device &device, const std::string &log) {
  std::vector<std::string> texts;
  for (const std::string &line : device.event_log(log)) {
    std::string text = without_stamp(line);
    if (!is_miss_of_sweep(text)) texts.push_back(std::move(text));
  }
  return texts;
}

// How many of these lines contain a text.
inline size_t count_texts(const Device &device, const std::string &log, const std::string &part) {
  size_t count = 0;
  for (const std::string &text : event_texts(device, log))
    if (text.find(part) != std::string::npos) count++;
  return count;
}

using Events = std::map<std::string, std::vector<std::string>>;

// Everything that stands in the event logs; kinds without a line are left out.
inline Events all_events(const Device &device) {
  Events events;
  for (const char *log : EVENT_LOGS)
    if (auto texts = event_texts(device, log); !texts.empty()) events[log] = std::move(texts);
  return events;
}

// The daemon's notices from their "%" on.
inline std::vector<std::string> notice_texts(const Device &device) {
  std::vector<std::string> texts;
  for (const Notice &notice : device.notices()) {
    const size_t begin = notice.text.find("]: ");
    texts.push_back(begin == std::string::npos ? notice.text : notice.text.substr(begin + 3));
  }
  return texts;
}

// "NAME/PID" as announcements have it.
inline std::string named(const Task &task, pid_t pid) {
  return task.shown + "/" + std::to_string(pid);
}

inline std::string hex_code(unsigned int code) {
  char text[16];
  snprintf(text, sizeof text, "%04x", code);
  return text;
}

inline std::string self_checking(const Task &task, pid_t dead, unsigned int code) {
  return "Task: " + named(task, dead) + " receives event:" + hex_code(code) +
         " and self-checking ...";
}

inline std::string self_check_ok(const Task &task, int count, pid_t fresh) {
  return "Self-checking OK: " + std::to_string(count) + " times and new id " + named(task, fresh) +
         ".";
}

inline std::string spawned(const Task &task, pid_t fresh) {
  return "tov_spawn--> tov_pid->process = " + task.program + ", new pid: " + std::to_string(fresh);
}

inline std::string suspended(const Task &task, int minutes) {
  return "Task: " + task.shown + " had checked more than 5 times. After " +
         std::to_string(minutes) + " mimutes, task will finish self-checking.";
}

inline std::string killed_by_15(const Task &task, pid_t pid, int vsd) {
  return "Task:" + task.command + ",pid:" + std::to_string(pid) + ",vsd_no:" + std::to_string(vsd) +
         ",killed by signal 15 from others.";
}

inline std::string not_running(const Task &task, pid_t pid, int vsd = 0) {
  return "tov_proc_stat_check: tov_pid(" + task.command + ", " + std::to_string(vsd) + ", " +
         std::to_string(pid) + ") is not running.";
}

inline std::string exit_lost(const Task &task, pid_t pid, int vsd = 0) {
  return "tov_proc_stat_check: tov_pid(" + task.command + ", " + std::to_string(vsd) + ", " +
         std::to_string(pid) + ") exit code lost, restart it.";
}

// ---- what happens ---------------------------------------------------------------------------

// Waits for the nth line of the restart log that contains the text; throws without it.
inline void need_event(const Device &device, const std::string &log, const std::string &text,
                       size_t nth = 1, Millis limit = STORY_LIMIT_MS) {
  if (!device.wait_event(log, text, limit, nth))
    throw std::runtime_error(log + " misses: " + text + "\n" + device.dump());
}

// Kills a task and waits until the daemon has brought it back and said so.
inline Birth kill_and_return(Device &device, Task &task, int signal = SIGKILL) {
  device.kill(task.pid, signal);
  Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, "new id " + named(task, birth.pid));
  return birth;
}

// Kills a task until the restart log holds `text`, the notice of its suspension, for the nth time.
// On a busy machine a burst may run out of its two minutes; then it takes another one.
//   before_kill  called before each of these kills
// Returns the time before the last kill: the suspension came later.
inline int64_t kill_until_suspended(
    Device &device, Task &task, const std::string &text, size_t nth = 1,
    const std::function<void()> &before_kill = [] {}) {
  static constexpr int DEATHS_MAX = 20;  // of four bursts
  const auto is_suspended = [&] { return device.count_events(RESTART_LOG, text) >= nth; };
  for (int deaths = 0; deaths < DEATHS_MAX; deaths++) {
    before_kill();
    const int64_t killed_ns = monotonic_ns();
    device.kill(task.pid, SIGKILL);
    wait_until([&] { return device.births(task.name).size() > task.births || is_suspended(); },
               STORY_LIMIT_MS);
    if (is_suspended()) return killed_ns;
    next_birth(device, task);
  }
  throw std::runtime_error(task.name + " is not suspended\n" + device.dump());
}

// Proves that the daemon has dealt with every process event before this call: events are handled
// in their order, and this task's restart comes last.
inline void pass_events(Device &device, Task &bystander) {
  kill_and_return(device, bystander);
}

// The program that the generic platform runs for self-healing requests; it notes its arguments.
inline constexpr char ASKED_FILE[] = "/data/asked";

inline void install_healer(Device &device) {
  device.write("/etc/tov/selfhealing",
               "#!/bin/sh\nprintf '<%s>' \"$@\" > /data/asked.$$\n"
               "mv /data/asked.$$ " +
                   std::string(ASKED_FILE) + "\n",
               0755);
}

// Waits for the request; empty when none came.
inline std::string asked(const Device &device, Millis limit = STORY_LIMIT_MS) {
  wait_until([&] { return device.exists(ASKED_FILE); }, limit);
  return device.read(ASKED_FILE);
}

// Makes the daemon print its diagnostics: the environment it needs; the file is written.
inline Environment with_diagnostics(Device &device) {
  device.write("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
  return {{"DATA_QXOS_DIR", "/data/.qxos/vsd/0"}};
}

}  // namespace tov_test

#endif  // TOV_TEST_STORY_H
