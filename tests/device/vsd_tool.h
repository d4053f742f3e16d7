// What the stories of virtual devices share: the command line, devices with members, what belongs
// to a device.
//
// Groups are the machine's: a deletion signals every process whose groups show the device's number,
// in whatever private device it lives. These stories therefore run alone (_serial_test).
//
// Nothing here relies on how long a deletion takes: one story has it in real time, the others stop
// it in its sleeps (SteppedCommand) until what they wait for has happened.
#ifndef TOV_TEST_VSD_TOOL_H
#define TOV_TEST_VSD_TOOL_H

#include <stddef.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/worker.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/sanitizer_env.h"

namespace tov_test {

// How the command line ends when it goes on to start the daemon and one is running: after "add".
inline constexpr int ADD_STATUS = 255;
inline constexpr char SCRIPT_DIR[] = "/etc/rc.d/rc.vsd/";

// With a debug directory that does not exist, so that nothing is said about the variable itself.
inline SpawnOptions tool_options(const std::string &faketime) {
  SpawnOptions options;
  options.env["DATA_QXOS_DIR"] = "/nowhere";
  if (!faketime.empty()) add_faketime_settings(options.env, faketime);
  return options;
}

// The path of a program of the build.
inline std::string tov_program(const Device &device) {
  return device.binary_dir() + "/tov";
}

inline std::string caller_program(const Device &device) {
  return device.binary_dir() + "/tests/programs/vsd_caller";
}

inline RunResult run_tov(Device &device, std::vector<std::string> words,
                         const std::string &faketime = {}) {
  words.insert(words.begin(), tov_program(device));
  return device.run(words, tool_options(faketime), Millis(60'000));
}

// Calls a function that no command reaches (programs/vsd_caller.cpp). Returns what it printed.
inline std::string call_vsd(Device &device, std::vector<std::string> words,
                            const std::string &faketime = {}) {
  words.insert(words.begin(), caller_program(device));
  return device.run(words, tool_options(faketime), Millis(60'000)).output;
}

// A command that sleeps until the test wakes it (programs/stepped_sleep.c).
class SteppedCommand {
 public:
  // Starts it; the first word is the program's path.
  SteppedCommand(Device &device, const std::vector<std::string> &words)
      : device_(device), prefix_("/data/" + unique_name("stepped") + "_" + next_number()) {
    const std::string library = device.binary_dir() + "/tests/programs/libstepped_sleep.so";
    std::vector<std::string> argv = {"/bin/sh",
                                     "-c",
                                     "exec env \"$@\" > " + prefix_ + ".output",
                                     "sh",
                                     "LD_PRELOAD=" + library,
                                     "TOV_TEST_SLEEPS=" + prefix_};
    argv.insert(argv.end(), words.begin(), words.end());
    pid_ = device.spawn(argv, tool_options(""));
  }
  // Waits until it sleeps for the next time; throws when it is not for so many seconds.
  void need_sleep(int seconds) {
    const std::string file = prefix_ + ".asleep." + std::to_string(++sleeps_);
    wait_until([&] { return device_.exists(file); }, Millis(60'000));
    if (device_.read(file) != std::to_string(seconds))
      throw std::runtime_error("sleeps for \"" + device_.read(file) + "\" seconds");
  }
  void wake() { device_.write(prefix_ + ".awake." + std::to_string(sleeps_), ""); }
  // Waits for its end. Returns what it has printed; throws when it has failed.
  std::string finish() {
    const auto status = device_.wait(pid_, Millis(60'000));
    if (status != 0) throw std::runtime_error("the command failed:\n" + output());
    return output();
  }
  std::string output() const { return device_.read(prefix_ + ".output"); }

 private:
  static std::string next_number() {
    static int number = 0;
    return std::to_string(++number);
  }
  Device &device_;
  std::string prefix_;
  pid_t pid_ = -1;
  int sleeps_ = 0;
};

// Waits until a process has ended and has been buried: no group is busy with it any more.
inline void need_end(const Device &device, pid_t pid) {
  const auto gone = [&] { return process_state(pid) != 'Z' && !device.lives(pid); };
  if (!wait_until(gone, Millis(30'000)))
    throw std::runtime_error(std::to_string(pid) + " does not end\n" + device.dump());
}

// Lets a command that ends a device go through its two sleeps; in the second, the last ones of
// these processes must end. Returns what it has printed.
inline std::string end_device(Device &device, const std::vector<std::string> &words,
                              const std::vector<pid_t> &members) {
  SteppedCommand command(device, words);
  command.need_sleep(5);
  command.wake();
  command.need_sleep(10);
  for (const pid_t pid : members)
    need_end(device, pid);
  command.wake();
  return command.finish();
}

inline std::string member_dir(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/tov";
}

inline std::string member_file(int vsd, pid_t pid) {
  return member_dir(vsd) + "/" + std::to_string(pid);
}

// The names in a member directory, without the processes of other private devices that happen to
// carry the same group.
inline std::vector<std::string> members(const Device &device, int vsd) {
  std::vector<std::string> names;
  for (const std::string &name : device.list(member_dir(vsd))) {
    const bool process = name.find_first_not_of("0123456789") == std::string::npos;
    if (!process || !process_lives(std::stoi(name)) || device.lives(std::stoi(name)))
      names.push_back(name);
  }
  return names;
}

// Installs a worker that the start scripts of device `vsd` start, and that registers itself.
//   prepare  shell commands before it is executed ("trap '' TERM")
inline Task install_member(Device &device, int vsd, const std::string &prefix,
                           const std::string &prepare = ":") {
  Task task = install_worker(device, prefix + std::to_string(vsd) + "_", {"exec"});
  device.write(SCRIPT_DIR + ("50" + task.name),
               "#!/bin/sh\ntest \"$TMPDIR\" = /tmp/vsd/" + std::to_string(vsd) + " || exit 0\n(" +
                   prepare + "; exec " + task.command + ") > /dev/null 2>&1 &\n",
               0755);
  return task;
}

// Waits until the daemon has taken a member in.
inline void wait_member(Device &device, Task &task, int vsd) {
  next_worker(device, task);
  need_event(device, REGISTER_LOG, registered(task, RESPAWN, vsd));
}

// Waits until a member that has died is back and registered. (That it registers itself again is no
// news to the daemon, which knows the new process already.)
inline void wait_back(Device &device, Task &task) {
  const pid_t dead = task.pid;
  next_worker(device, task);
  need_event(device, RESTART_LOG, named(task, dead) + " receives event:0009");
  need_event(device, RESTART_LOG, "new id " + named(task, task.pid));
}

// Everything that a device consists of and that exists.
inline std::set<std::string> traces(const Device &device, int vsd) {
  const std::string n = std::to_string(vsd);
  std::set<std::string> found;
  for (const char *parent :
       {"/tmp/vsd/", "/etc/vsd/", "/data/var/run/vsd/", "/data/.qxos/vsd/", "/data2/.qxos/vsd/",
        "/data2/var/run/vsd/", "/qx_cfg/vsd/", "/qxos/vsd/", "/memory/vsd_", "/cpu/vsd_"})
    if (device.exists(parent + n)) found.insert(parent + n);
  return found;
}

// What one asks the kernel about a living process of the device.
inline std::string groups_of(pid_t pid) {
  std::string groups = status_field(pid, "Groups");
  while (groups.ends_with(' '))
    groups.pop_back();
  return groups;
}

inline std::string working_directory(Device &device, pid_t pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/cwd";
  std::string target = device.run({"readlink", link}).output;
  return target.substr(0, target.find('\n'));
}

inline std::string variable_of(pid_t pid, const std::string &name) {
  const std::string all = read_small_file("/proc/" + std::to_string(pid) + "/environ");
  std::string text = '\0' + all;
  const size_t at = text.find('\0' + name + "=");
  if (at == std::string::npos) return {};
  const size_t begin = at + name.size() + 2;
  return text.substr(begin, text.find('\0', begin) - begin);
}

// The progress lines of a deletion.
inline std::string progress_of(int vsd) {
  const std::string n = std::to_string(vsd);
  return "Sending vsd: " + n + " all processes the TERM signal...\nAfter 5s, Sending vsd: " + n +
         " all processes the KILL signal...\nAfter 10s, Delete vsd: " + n + " OK.\n";
}

}  // namespace tov_test

#endif  // TOV_TEST_VSD_TOOL_H
