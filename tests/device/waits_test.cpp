// One program waits before it is started again; all the others are served as if it did not.
#include "tests/device/waits.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "tests/device/lock_holder.h"
#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

TEST(OthersGoOn, WhileAProgramWaitsForItsTime) {
  const int wait_s = LONG_WAIT_S * patience();
  Device device;
  Task other = start_task(device, "other_time");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  Task task = start_delayed(device, "waits_time", wait_s);
  const pid_t dead = task.pid;
  const int64_t killed_ns = monotonic_ns();
  device.kill(dead, SIGKILL);
  need_answered(device, task, dead);
  expect_others_go_on(device, task, other, killed_ns, wait_s);

  const Birth birth = next_birth(device, task);
  EXPECT_GE(birth.main_ns - killed_ns, wait_s * int64_t{1'000'000'000});
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
}

// The longest time that a client can ask for, so the record waits for good.
TEST(OthersGoOn, WhileAProgramWaitsForEver) {
  Device device;
  Task other = start_task(device, "other_ever");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  Task task = start_delayed(device, "waits_ever", INT32_MAX);
  const pid_t dead = task.pid;
  device.kill(dead, SIGKILL);
  need_answered(device, task, dead);
  for (int i = 0; i < 3; i++)
    expect_comes_back_at_once(device, other);
  expect_requests_are_served(device, "fresh_ever");
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(was_registered(device, dead));
}

TEST(OthersGoOn, WhileARegistrationFileIsLocked) {
  Device device;
  Task task = start_task(device, "waits_file");
  Task other = start_task(device, "other_file");
  LockHolder holder(device, task.file);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const pid_t dead = task.pid;
  const int64_t killed_ns = monotonic_ns();
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));
  expect_others_go_on(device, task, other, killed_ns, LONG_WAIT_S * patience());

  holder.end();
  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
}

TEST(OthersGoOn, WhileAListedProgramIsSearchedFor) {
  Device device;
  Task other = start_task(device, "other_search");
  SearchedProgram searched(device, "waits_search");
  device.start_ready_daemon({.faketime = unhurried_clock()});
  searched.start();
  const int64_t killed_ns = monotonic_ns();
  searched.kill_into_search();
  expect_others_go_on(device, searched.task, other, killed_ns, SEARCH_S * patience());
  EXPECT_EQ(device.count_events(ERROR_LOG, searched.missed()), 0U)
      << "the search was over before its time";
  need_event(device, ERROR_LOG, searched.missed());
  EXPECT_GE(milliseconds_since(killed_ns), static_cast<int64_t>(SEARCH_S * 1'000));
}

// Four at once took four times as long when one search waited for the other.
TEST(OthersGoOn, WhileOneListedProgramAfterTheOtherDies) {
  static constexpr int PROGRAMS = 4;
  Device device;
  std::vector<SearchedProgram> all;
  for (int i = 0; i < PROGRAMS; i++)
    all.emplace_back(device, "search" + std::to_string(i) + "_");
  device.start_ready_daemon({.faketime = unhurried_clock()});
  for (SearchedProgram &each : all)
    each.start();
  const int64_t killed_ns = monotonic_ns();
  for (SearchedProgram &each : all)
    each.kill_quietly();
  for (SearchedProgram &each : all)
    each.need_search();
  EXPECT_LT(milliseconds_since(killed_ns), PROMPT_MS.count() * patience()) << "all are started";
  for (const SearchedProgram &each : all)
    need_event(device, ERROR_LOG, each.missed());
  EXPECT_LT(milliseconds_since(killed_ns), static_cast<int64_t>(2 * SEARCH_S * 1'000) * patience());
}

// While one of them cannot be forked nobody is started, but everything else goes on: exits are
// answered, requests are served.
TEST(OthersGoOn, WhileForksFail) {
  static constexpr double PAUSE_S = 5;
  Device device;
  Task task = start_task(device, "waits_fork");
  std::vector<Task> others;
  for (const char *prefix : {"other_early", "other_middle", "other_late"})
    others.push_back(start_task(device, prefix));
  const pid_t daemon = device.start_ready_daemon({.faketime = unhurried_clock()});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(task.pid, SIGKILL);
  need_event(device, RUN_LOG, "fork fail");
  const int64_t failed_ns = monotonic_ns();
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));

  const auto is_over = [&] { return is_back(device, task); };
  for (size_t i = 0; i < others.size(); i++) {
    SCOPED_TRACE(others[i].name);
    pass_part(failed_ns, PAUSE_S * patience(), 0.2 * static_cast<double>(i), is_over);
    const pid_t dead = others[i].pid;
    device.kill(dead, SIGKILL);
    EXPECT_TRUE(device.wait_event(RESTART_LOG, self_checking(others[i], dead, 9), PROMPT_MS))
        << "its exit is not answered";
    expect_requests_are_served(device, "fresh_fork" + std::to_string(i) + "_");
    EXPECT_FALSE(is_back(device, others[i])) << "a start while starts pause";
    EXPECT_FALSE(is_over());
  }
  next_birth(device, task);
  for (Task &other : others)
    next_birth(device, other, PROMPT_MS);
  EXPECT_EQ(device.count_events(RUN_LOG, "fork fail"), 1U);
}

// Starts many processes that end one by one, a millisecond apart: whoever ends while /proc is
// looked through spoils that look, and it is made again.
static void start_dying_crowd(Device &device) {
  device.remove("/data/crowd");
  device.spawn({"/bin/sh", "-c",
                "i=0; while [ $i -lt 400 ]; do sleep 0.$((400 + i)) & i=$((i + 1)); done; "
                "touch /data/crowd; wait"});
  wait_until([&] { return device.exists("/data/crowd"); }, STORY_LIMIT_MS);
}

TEST(OthersGoOn, WhileItIsLookedWhetherAListedProgramRunsAgain) {
  Device device;
  Task other = start_task(device, "other_look");
  Task task = start_listed(device, "waits_look");
  for (const Millis delay : {Millis(0), Millis(150), Millis(300)}) {
    start_dying_crowd(device);
    const int64_t begin_ns = monotonic_ns();
    wait_until([&] { return milliseconds_since(begin_ns) >= delay.count(); }, STORY_LIMIT_MS);
    device.kill(task.pid, SIGKILL);
    expect_comes_back_at_once(device, other);
    expect_requests_are_served(device, "fresh_look" + std::to_string(delay.count()) + "_");
    next_birth(device, task);
    need_event(device, RESTART_LOG, "new id " + named(task, task.pid));
    EXPECT_EQ(device.births(task.name).size(), task.births) << "started twice";
  }
}
