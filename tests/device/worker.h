// What the stories with workers share: programs that register themselves with the running daemon
// (support/programs/worker.cpp). A Task is used as in story.h; its births are the worker's.
#ifndef TOV_TEST_WORKER_H
#define TOV_TEST_WORKER_H

#include <string>
#include <vector>

#include "tests/device/story.h"

namespace tov_test {

// The process ids that workers of a task have reported behind `what`, oldest first.
inline std::vector<pid_t> worker_reports(const Device &device, const Task &task,
                                         const std::string &what) {
  std::vector<pid_t> pids;
  for (const std::string &line : device.lines("/data/worker." + task.name))
    if (line.starts_with(what + " ")) pids.push_back(std::stoi(line.substr(what.size() + 1)));
  return pids;
}

// Waits until the next instance has registered itself. Throws when it does not come.
inline pid_t next_worker(const Device &device, Task &task, Millis limit = STORY_LIMIT_MS) {
  std::vector<pid_t> pids;
  wait_until(
      [&] { return (pids = worker_reports(device, task, "registered")).size() > task.births; },
      limit);
  if (pids.size() <= task.births)
    throw std::runtime_error(task.name + " did not register\n" + device.dump());
  return task.pid = pids[task.births++];
}

// How the daemon notes that it has taken a registration in.
inline std::string registered(const Task &task, int action, int vsd = 0) {
  return "register - process:" + task.command + " pid:" + std::to_string(task.pid) +
         ", vsd_id:" + std::to_string(vsd) + ", action:" + std::to_string(action);
}

// Installs a worker under a name of its own.
inline Task install_worker(Device &device, const std::string &prefix,
                           const std::vector<std::string> &words) {
  return install_task(device, prefix, words, "worker");
}

// Starts one more instance of a worker as a child of the test and waits until the daemon knows it.
inline void start_worker(Device &device, Task &task, const std::vector<std::string> &words,
                         int action) {
  std::vector<std::string> argv = {task.program};
  argv.insert(argv.end(), words.begin(), words.end());
  device.spawn(argv);
  next_worker(device, task);
  need_event(device, REGISTER_LOG, registered(task, action));
}

// A worker that executes again when it ends.
inline Task start_worker(Device &device, const std::string &prefix) {
  Task task = install_worker(device, prefix, {"exec"});
  start_worker(device, task, {"exec"}, RESPAWN);
  return task;
}

}  // namespace tov_test

#endif  // TOV_TEST_WORKER_H
