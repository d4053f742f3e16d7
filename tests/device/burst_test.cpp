// A program that dies again and again: after five deaths in a burst it has to wait for its
// self-check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <thread>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;

static constexpr size_t BURST = 4;  // restarts that are made; the next death suspends

// The deaths of a burst must fit into two minutes of the daemon's clock: here six seconds, also on
// a busy machine.
static constexpr char FAST[] = "+0 x20";
static constexpr int64_t MINUTE_NS = 3'000'000'000;  // by the daemon's clock

// Kills a task as often as it comes back in one burst.
static void use_up_burst(Device &device, Task &task, size_t restarts = BURST) {
  for (size_t i = 0; i < restarts; i++)
    kill_and_return(device, task);
}

static void kill_and_suspend(Device &device, const Task &task, int minutes, size_t nth = 1) {
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, "HA_WAIT_SELF_CHECK " + suspended(task, minutes), nth);
}

TEST(Burst, FifthDeathSuspendsTheTask) {
  Device device;
  Task task = start_task(device, "bursting", {.words = {"lock=2"}, .registered = false});
  Task bystander = start_task(device, "bystander_b");
  device.start_ready_daemon();
  use_up_burst(device, task);
  const pid_t last = task.pid;
  kill_and_suspend(device, task, 5);
  pass_events(device, bystander);

  EXPECT_EQ(device.births(task.name).size(), 1 + BURST);
  EXPECT_EQ(device.count_events(RUN_LOG, "process = " + task.program), BURST);
  EXPECT_TRUE(device.exists(Device::register_path(0, last, task.command)))
      << "a task that waits stays registered";
  auto restart_log = event_texts(device, RESTART_LOG);
  ASSERT_EQ(restart_log.size(), 2 * BURST + 4);
  EXPECT_EQ(restart_log[2 * BURST], "%HA-5-HA_SELF_CHECK: " + self_checking(task, last, 9));
  EXPECT_EQ(restart_log[2 * BURST + 1], "HA_WAIT_SELF_CHECK " + suspended(task, 5));
  EXPECT_EQ(notice_texts(device).at(2 * BURST + 1),
            "%HA-5-HA_WAIT_SELF_CHECK: " + suspended(task, 5));
}

TEST(Burst, PeriodFileTellsTheMinutes) {
  Device device;
  device.write("/debug_time", "60");
  Task task = start_task(device, "minute");
  device.start_ready_daemon();
  use_up_burst(device, task);
  kill_and_suspend(device, task, 1);
  EXPECT_TRUE(device.wait_notice("%HA-5-HA_WAIT_SELF_CHECK: " + suspended(task, 1)));
}

TEST(Burst, ScriptsAreSuspendedUnderTheirOwnWord) {
  Device device;
  Task task = start_task(device, "script_burst", {.action = SHELL_RESTART});
  device.install_start_script(task.name, "exec " + task.program + "\n");
  device.start_ready_daemon();
  use_up_burst(device, task);
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, "HA_WAIT_SCRIPT_SELF_CHECK " + suspended(task, 5));
  EXPECT_TRUE(device.wait_notice("%HA-5-HA_WAIT_SCRIPT_SELF_CHECK: " + suspended(task, 5)));
  EXPECT_EQ(device.births(task.name).size(), 1 + BURST);
}

TEST(Burst, CleanExitsCountLikeAnyOther) {
  Device device;
  Task task = start_task(device, "restless", {.words = {"exit=0", "until-told"}});
  device.start_ready_daemon();
  for (size_t i = 0; i < BURST; i++) {
    tell(device, task);
    next_birth(device, task);
  }
  tell(device, task);
  need_event(device, RESTART_LOG, suspended(task, 5));
  EXPECT_EQ(device.births(task.name).size(), 1 + BURST);
}

// ---- the marker for one silent restart --------------------------------------------------------

TEST(SilentRestart, IsOneRestartThatIsNotAnnounced) {
  Device device;
  Task task = start_task(device, "silent");
  device.start_ready_daemon();
  device.write("/etc/dev_mon", "");
  device.kill(task.pid, SIGKILL);
  next_birth(device, task);
  EXPECT_TRUE(wait_until([&] { return !device.exists("/etc/dev_mon"); }, STORY_LIMIT_MS));
  const pid_t silent = task.pid;
  const Birth loud = kill_and_return(device, task);
  EXPECT_THAT(event_texts(device, RESTART_LOG),
              ElementsAre("%HA-5-HA_SELF_CHECK: " + self_checking(task, silent, 9),
                          "%HA-5-HA_SELF_CHECK_INFO " + self_check_ok(task, 2, loud.pid)));
  EXPECT_EQ(device.notices().size(), 2U);
}

TEST(SilentRestart, ExemptsFromTheLimitOfTheBurst) {
  Device device;
  Task task = start_task(device, "exempt");
  device.start_ready_daemon();
  use_up_burst(device, task);
  device.write("/etc/dev_mon", "");
  device.kill(task.pid, SIGKILL);
  next_birth(device, task);
  EXPECT_TRUE(wait_until([&] { return !device.exists("/etc/dev_mon"); }, STORY_LIMIT_MS));
  EXPECT_EQ(device.count_events(RESTART_LOG, "HA_WAIT_SELF_CHECK"), 0U);
  kill_and_suspend(device, task, 5);
}

TEST(Burst, IsOverAfterTwoMinutes) {
  static constexpr Millis TWO_MINUTES_MS{6'200};  // 124 s by the daemon's clock
  Device device;
  Task task = start_task(device, "slow_burst");
  device.start_ready_daemon({.faketime = FAST});
  use_up_burst(device, task, 3);
  std::this_thread::sleep_for(TWO_MINUTES_MS);
  const Birth first = kill_and_return(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, first.pid));
  kill_until_suspended(device, task, "HA_WAIT_SELF_CHECK " + suspended(task, 5));
  EXPECT_GE(device.births(task.name).size(), 1 + 3 + BURST);
}

// ---- the self-check alarm ---------------------------------------------------------------------

static int64_t burst_until_suspended(Device &device, Task &task, int minutes, size_t nth = 1) {
  return kill_until_suspended(device, task, "HA_WAIT_SELF_CHECK " + suspended(task, minutes), nth);
}

TEST(SelfCheck, BringsASuspendedTaskBack) {
  Device device;
  device.write("/debug_time", "60\n");
  Task task = start_task(device, "checked", {.words = {"lock=2"}, .registered = false});
  device.start_ready_daemon({.faketime = FAST});
  const int64_t before_ns = burst_until_suspended(device, task, 1);
  const pid_t last = task.pid;
  const Birth back = next_birth(device, task);
  EXPECT_GT(back.main_ns - before_ns, MINUTE_NS);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, back.pid));

  EXPECT_EQ(event_texts(device, RESTART_LOG).back(),
            "%HA-5-HA_SELF_CHECK_INFO " + self_check_ok(task, 1, back.pid));
  EXPECT_EQ(notice_texts(device).back(),
            "%HA-5-HA_SELF_CHECK_INFO: " + self_check_ok(task, 1, back.pid));
  EXPECT_EQ(event_texts(device, RUN_LOG).back(), spawned(task, back.pid));
  EXPECT_FALSE(device.exists(Device::register_path(0, last, task.command)));
  EXPECT_TRUE(device.exists(Device::register_path(0, back.pid, task.command)));
  EXPECT_EQ(back.blocked | back.ignored | back.caught, 0U);
  EXPECT_EQ(back.policy, SCHED_OTHER);
  EXPECT_EQ(back.fds.size(), 3U);

  // And it may be suspended again.
  burst_until_suspended(device, task, 1, 2);
}

TEST(SelfCheck, BringsASuspendedScriptBack) {
  Device device;
  device.write("/debug_time", "60");
  Task task = start_task(device, "script_checked", {.action = SHELL_RESTART});
  device.install_start_script(task.name, "exec " + task.program + "\n");
  device.start_ready_daemon({.faketime = FAST});
  kill_until_suspended(device, task, "HA_WAIT_SCRIPT_SELF_CHECK " + suspended(task, 1));
  const Birth back = next_birth(device, task);
  const std::string text = self_check_ok(task, 1, back.pid);
  need_event(device, RESTART_LOG, "%HA-5-HA_SCRIPT_SELF_CHECK_INFO " + text);
  EXPECT_TRUE(device.wait_notice("%HA-5-HA_SCRIPT_SELF_CHECK_INFO: " + text));
}

// The alarm has brought the task back once; when it must wait again soon, it is beyond help.
static void suspend_twice(Device &device, Task &task) {
  device.write("/debug_time", "60");
  install_healer(device);
  device.start_ready_daemon({.faketime = FAST});
  burst_until_suspended(device, task, 1);
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  burst_until_suspended(device, task, 1, 2);
}

TEST(SelfCheck, SecondSuspensionInARowAsksForAReload) {
  Device device;
  Task task = start_task(device, "hopeless");
  suspend_twice(device, task);
  const std::string sentence =
      "tov detect process " + task.command + " can not restart, so restart system.";
  EXPECT_EQ(asked(device), "<3><0><tov><" + sentence + ">");
  EXPECT_EQ(device.count_events(RUN_LOG, sentence), 1U);
  const auto notice = device.wait_notice("self-healing action 3");
  ASSERT_TRUE(notice);
  EXPECT_THAT(notice->text, HasSubstr(sentence));
}

TEST(SelfCheck, AsksForNoReloadWhereNoneIsWanted) {
  Device device;
  device.write("/tov_no_reboot", "");
  Task task = start_task(device, "spared");
  suspend_twice(device, task);
  next_birth(device, task);  // so the decision has been made
  EXPECT_FALSE(device.exists(ASKED_FILE));
  EXPECT_EQ(device.count_events(RUN_LOG, "so restart system"), 0U);
}
