// Waits that follow one another, and waits that other threads than the event handler begin: the
// hand-back of a deferred restart, the self-check alarm. Whoever begins one goes on with its own
// work, and the others do with theirs.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "include/tov_wire.h"
#include "tests/device/lock_holder.h"
#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

// A task that waits for its file first and for its time when it is handed back.
TEST(WaitsInTurn, TimeIsWaitedForAfterTheFile) {
  const int wait_s = LONG_WAIT_S * patience();
  Device device;
  Task other = start_task(device, "other_turn");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  Task task = start_delayed(device, "file_then_time", wait_s);
  task.file = device.register_file(0, task.pid, RESPAWN, task.command);
  LockHolder holder(device, task.file);
  const pid_t dead = task.pid;
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));

  const int64_t released_ns = monotonic_ns();
  holder.end();
  ASSERT_TRUE(device.wait_output("pid:" + std::to_string(dead) + ", exit_signal:0x9"));
  expect_others_go_on(device, task, other, released_ns, wait_s);
  // Whatever is handed back meanwhile does not wait behind it either.
  Task deferred = start_task(device, "handed_back", {.registered = false});
  need_carried_out(device, registration(deferred));
  device.kill(deferred.pid, SIGKILL);
  next_birth(device, deferred, PROMPT_MS);

  const Birth birth = next_birth(device, task);
  EXPECT_GE(birth.main_ns - released_ns, wait_s * int64_t{1'000'000'000});
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
}

TEST(WaitsInTurn, ForksFailAfterTheTimeIsOver) {
  Device device;
  const pid_t daemon = device.start_ready_daemon({.faketime = pause_clock()});
  Task task = start_delayed(device, "time_then_forks", 2);
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  const pid_t dead = task.pid;
  device.kill(dead, SIGKILL);
  need_event(device, RUN_LOG, "fork fail");
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
  EXPECT_EQ(device.count_events(RUN_LOG, "fork fail"), 1U);
}

// The alarm's restart has no line before it, and waits like any other.
TEST(WaitsInTurn, ForksFailWhenTheSelfCheckAlarmComes) {
  static constexpr char FAST[] = "+0 x30";  // five minutes are ten seconds
  Device device;
  Task task = start_task(device, "alarm_forks");
  Task other = start_task(device, "other_alarm");
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  kill_until_suspended(device, task, suspended(task, 5));
  const size_t births = device.births(task.name).size();
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  const int64_t suspended_ns = monotonic_ns();
  need_event(device, RUN_LOG, "fork fail", 1, Millis(60'000));
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
  EXPECT_GT(milliseconds_since(suspended_ns), 5'000) << "it was not the alarm that tried";
  const auto birth = device.wait_birth(task.name, births + 1);
  ASSERT_TRUE(birth) << device.dump();
  need_event(device, RESTART_LOG, "new id " + named(task, birth->pid));
  expect_comes_back_at_once(device, other);
  EXPECT_EQ(device.births(task.name).size(), births + 1);
}

// The alarm starts a listed program, which does not come: others do not wait for its search.
TEST(WaitsInTurn, ListedProgramIsSearchedForAfterTheSelfCheckAlarm) {
  static constexpr char FAST[] = "+0 x30";
  Device device;
  SearchedProgram searched(device, "alarm_search");
  Task &task = searched.task;
  Task other = start_task(device, "other_alarm_search");
  device.start_ready_daemon({.faketime = FAST});
  searched.start();
  kill_until_suspended(device, task, suspended(task, 5));
  const size_t births = device.births(task.name).size();
  searched.put_script_in_its_place();
  searched.need_search(Millis(60'000));
  searched.restore();
  expect_comes_back_at_once(device, other);
  need_event(device, ERROR_LOG, searched.missed());
  EXPECT_EQ(device.births(task.name).size(), births);
  EXPECT_EQ(device.count_events(RESTART_LOG, "new id " + task.shown + "/0"), 0U);
}
