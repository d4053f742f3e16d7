// Listed programs that run when a daemon begins to listen: it missed their execution, and registers
// them all the same, once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"

using namespace tov_test;
using testing::ElementsAre;

namespace {

class ListedBefore : public testing::Test {
 protected:
  // A program that is listed, with words of its own, and runs.
  Task run(const std::string &prefix, const std::vector<std::string> &words = {}) {
    Task task = install_task(device, prefix, words);
    device.write("/etc/tov/proc/" + task.name, task.command + " TOV_RESTART");
    start_by_hand(task);
    return task;
  }
  void start_by_hand(Task &task) {
    std::vector<std::string> argv;
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
      end = task.command.find(' ', begin);
      argv.push_back(task.command.substr(begin, end - begin));
    }
    device.spawn(argv);
    next_birth(device, task);
  }
  void need_registered(const Task &task) {
    need_event(device, REGISTER_LOG,
               "register - process:" + task.command + " pid:" + std::to_string(task.pid) + ",");
  }
  std::vector<pid_t> copies(const Task &task) const {
    std::vector<pid_t> pids;
    for (const auto &process : device.processes())
      if (process.command == task.command) pids.push_back(process.pid);
    return pids;
  }
  // Killed, it comes back, and no other one beside it.
  void expect_back(Task &task) {
    device.kill(task.pid, SIGKILL);
    next_birth(device, task);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
    EXPECT_THAT(copies(task), ElementsAre(task.pid));
  }

  Device device;
};

TEST_F(ListedBefore, TheFirstDaemonIsSupervised) {
  Task plain = run("plain");
  Task with_words = run("words", {"-x", "file"});
  device.start_ready_daemon();
  need_registered(plain);
  need_registered(with_words);
  expect_back(plain);
}

TEST_F(ListedBefore, TheNextDaemonIsSupervisedOnce) {
  Task known = run("known");
  device.start_ready_daemon();
  need_registered(known);
  device.kill_daemon();
  Task late = run("late");
  device.start_ready_daemon();
  need_registered(late);
  EXPECT_EQ(device.count_events(REGISTER_LOG, "process:" + known.command + " pid:"), 1U)
      << "that one was found in its file";
  expect_back(late);
  expect_back(known);
}

TEST_F(ListedBefore, WithWorkersIsSupervisedItself) {
  Task task = run("workers", {"child"});
  ASSERT_EQ(copies(task).size(), 2U) << "the program and its worker";
  device.start_ready_daemon();
  need_registered(task);
  EXPECT_EQ(device.count_events(REGISTER_LOG, "process:" + task.command + " pid:"), 1U);
}

}  // namespace
