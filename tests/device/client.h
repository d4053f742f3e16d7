// What the stories with clients in C share: programs that make the library's calls as a test tells
// them (support/programs/c_client.c). A Task is used as in story.h; its births are the client's
// lives.
#ifndef TOV_TEST_CLIENT_H
#define TOV_TEST_CLIENT_H

#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

// The limit for what may take a daemon's or a client's whole patience (5 s) and a busy machine.
inline constexpr Millis CLIENT_LIMIT_MS{30'000};

// Installs a client under a name of its own; `words` are its command line.
inline Task install_client(Device &device, const std::string &prefix,
                           const std::vector<std::string> &words) {
  return install_task(device, prefix, words, "c_client");
}

inline std::vector<std::string> client_reports(const Device &device, const Task &task) {
  return device.lines("/data/client." + task.name);
}

// The ids of all processes of a client that were born so far, oldest first.
inline std::vector<pid_t> client_lives(const Device &device, const Task &task) {
  std::vector<pid_t> pids;
  for (const std::string &line : client_reports(device, task))
    if (line.ends_with(" born")) pids.push_back(std::stoi(line));
  return pids;
}

// How often the present life has reported `text`.
inline size_t count_reports(const Device &device, const Task &task, const std::string &text) {
  const auto lines = client_reports(device, task);
  return static_cast<size_t>(
      std::count(lines.begin(), lines.end(), std::to_string(task.pid) + " " + text));
}

// Waits until it has done so for the nth time. Throws when it does not.
inline void need_report(const Device &device, const Task &task, const std::string &text,
                        size_t nth = 1) {
  if (!wait_until([&] { return count_reports(device, task, text) >= nth; }, CLIENT_LIMIT_MS))
    throw std::runtime_error(task.name + " did not report: " + text + "\n" + device.dump());
}

// Waits until the next life was born, as a child of whomever. Throws when it does not come.
inline pid_t next_life(const Device &device, Task &task, Millis limit = CLIENT_LIMIT_MS) {
  std::vector<pid_t> pids;
  wait_until([&] { return (pids = client_lives(device, task)).size() > task.births; }, limit);
  if (pids.size() <= task.births)
    throw std::runtime_error(task.name + " was not started\n" + device.dump());
  task.pid = pids[task.births++];
  task.file = Device::register_path(0, task.pid, task.command);
  return task.pid;
}

// Starts an installed client as a child of the test and waits for its first report.
inline void start_client(Device &device, Task &task, const std::vector<std::string> &words) {
  std::vector<std::string> argv = {task.program};
  argv.insert(argv.end(), words.begin(), words.end());
  device.spawn(argv);
  next_life(device, task);
}

inline Task start_client(Device &device, const std::string &prefix,
                         const std::vector<std::string> &words) {
  Task task = install_client(device, prefix, words);
  start_client(device, task, words);
  return task;
}

// Tells the present life to carry a word out, and does not wait for it.
inline void order(Device &device, const Task &task, const std::string &word) {
  device.append("/data/do." + task.name, std::to_string(task.pid) + " " + word + "\n");
}

// The same, and waits for the result.
inline void order(Device &device, const Task &task, const std::string &word, int result) {
  const std::string done = "did " + word + " " + std::to_string(result);
  const size_t before = count_reports(device, task, done);
  order(device, task, word);
  need_report(device, task, done, before + 1);
}

// How the daemon notes that it has taken a registration in, or let it go.
inline std::string registered(const Task &task, int action) {
  return "register - process:" + task.command + " pid:" + std::to_string(task.pid) +
         ", vsd_id:0, action:" + std::to_string(action);
}
inline std::string unregistered(const Task &task, int action) {
  return "un" + registered(task, action);
}

// Waits for the nth such line. (Both end alike; the blank behind the stamp tells them apart.)
inline void need_registered(const Device &device, const Task &task, int action, size_t nth = 1) {
  need_event(device, REGISTER_LOG, " " + registered(task, action), nth, CLIENT_LIMIT_MS);
}
inline void need_unregistered(const Device &device, const Task &task, int action) {
  need_event(device, REGISTER_LOG, " " + unregistered(task, action), 1, CLIENT_LIMIT_MS);
}

// How the daemon notes a thread's registration or its end: the first one of the process if none is
// named.
inline std::string thread_registered(const Task &task, const std::string &verb = "reg",
                                     pid_t tid = 0) {
  return "Thread " + task.command + "/" + std::to_string(tid == 0 ? task.pid : tid) + " (pid " +
         std::to_string(task.pid) + ") " + verb + " TOV thread-alive service.";
}

// The process that holds a file of the device locked, 0 when none does or there is no such file.
inline pid_t lock_holder(const Device &device, const std::string &file) {
  const tov_fd_t fd(open(device.path(file).c_str(), O_RDWR | O_CLOEXEC));
  struct flock asked {};
  asked.l_type = F_WRLCK;
  asked.l_whence = SEEK_SET;
  if (fd.n < 0 || fcntl(fd.n, F_GETLK, &asked) < 0 || asked.l_type == F_UNLCK) return 0;
  return asked.l_pid;
}

// Waits until the present life has written and locked its registration file.
inline void need_locked_file(const Device &device, const Task &task) {
  if (!wait_until([&] { return lock_holder(device, task.file) == task.pid; }, CLIENT_LIMIT_MS))
    throw std::runtime_error(task.file + " is not locked by its client\n" + device.dump());
}

// Kills a client and waits until it has come back and the daemon has said so.
inline void kill_and_come_back(Device &device, Task &task) {
  device.kill(task.pid, SIGKILL);
  next_life(device, task);
  need_event(device, RESTART_LOG, "new id " + named(task, task.pid), 1, CLIENT_LIMIT_MS);
}

}  // namespace tov_test

#endif  // TOV_TEST_CLIENT_H
