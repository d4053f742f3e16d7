// What the next daemon knows of a process by the last one's word, and could not see for itself.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"

using namespace tov_test;

namespace {

// A program that a daemon supervised, and that executes another one before the next daemon comes.
class NextDaemon : public testing::Test {
 protected:
  void become_between_daemons(const std::function<void()> &meanwhile = [] {}) {
    static constexpr char FAST[] = "+0 x60";
    device.start_ready_daemon({.faketime = FAST});
    device.kill_daemon();
    meanwhile();
    tell(device, task);
    next_birth(device, other);
    ASSERT_EQ(other.pid, pid);
    device.start_ready_daemon({.faketime = FAST});
  }

  Device device;
  Task other = install_task(device, "other", {});
  Task task = start_task(device, "becoming", {.words = {"exec=" + other.program, "until-told"}});
  const pid_t pid = task.pid;
};

}  // namespace

// To whoever sees the process for the first time it may as well have rewritten its command line.
TEST_F(NextDaemon, KnowsThatAProgramExecutedAnotherWhileNobodyListened) {
  become_between_daemons();
  const Birth birth = next_birth(device, task);
  EXPECT_NE(birth.pid, pid);
  need_event(device, RESTART_LOG, exit_lost(task, pid));
  EXPECT_TRUE(device.lives(pid)) << "what it has become is nobody's business";
  kill_and_return(device, task);
}

// Without the rows it is reported, and left alone.
TEST_F(NextDaemon, AccusesNobodyWhomTheLastOneDidNotName) {
  become_between_daemons([this] { device.remove("/run/tov/supervised"); });
  need_event(device, RESTART_LOG, not_running(task, pid), 4);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.lives(pid));
}
