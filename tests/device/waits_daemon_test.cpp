// The daemon ends while records wait: at once, and the next one goes on from their files.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <iostream>
#include <optional>
#include <string>

#include "tests/device/client.h"
#include "tests/device/lock_holder.h"
#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

using namespace tov_test;

namespace {

// A thread's failure asks all others to end; the laziest of them asks back now and then.
constexpr Millis END_LIMIT_MS{20'000};
constexpr int FOR_EVER_S = 3'600;

// The watcher is busy with the record of failed forks; it hears of changes in their order, and this
// one of its switch comes last.
void pass_changes(Device &device) {
  static constexpr char OFF[] = "no tov single-process-ha auto-restart enable\r\n";
  device.write("/data/.syshacfg", OFF);
  ASSERT_TRUE(
      wait_until([&] { return device.read("/tmp/vsd/0/tov/cfg.txt") == OFF; }, STORY_LIMIT_MS));
}

// Makes the daemon's server fail: it may open nothing more, and a client comes. What has failed
// closes its socket; then the others may open again what they need for their farewell.
void fail_server(Device &device) {
  pass_changes(device);
  const pid_t daemon = device.daemon_pid();
  rlimit usual{};
  ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, nullptr, &usual), 0);
  // Those that it has open have the lowest numbers. (None at all would fail every poll, too.)
  const rlimit none{4, usual.rlim_max};
  ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, &none, nullptr), 0);
  const auto refuses = [&] { return RawClient().connect(device.path("/tmp/tov/.tov")) != 0; };
  EXPECT_TRUE(wait_until(refuses, STORY_LIMIT_MS));
  ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, &usual, nullptr), 0);
}

void expect_ends_soon(Device &device, Millis limit = END_LIMIT_MS) {
  const int64_t begin_ns = monotonic_ns();
  fail_server(device);
  const auto status = device.wait_daemon(limit);
  ASSERT_TRUE(status) << "it waits, too\n" << device.dump();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  const int64_t took_ms = milliseconds_since(begin_ns);
  std::cout << "ended after " << took_ms << " ms\n";
  EXPECT_LE(took_ms, limit.count() * patience());
}

// A task whose process was killed and that is not started again within the story.
Task kill_waiting_for_ever(Device &device, const std::string &name) {
  device.start_ready_daemon({.env = with_diagnostics(device)});
  Task task = start_client(device, name, {"wait=" + std::to_string(FOR_EVER_S), "exec"});
  need_report(device, task, "did exec 0");
  need_locked_file(device, task);
  const pid_t dead = task.pid;
  device.kill(dead, SIGKILL);
  need_answered(device, task, dead);
  return task;
}

}  // namespace

TEST(EndOfTheDaemon, DoesNotWaitForARestartsTime) {
  Device device;
  Task task = kill_waiting_for_ever(device, "ends_time");
  expect_ends_soon(device);
  EXPECT_EQ(client_lives(device, task).size(), 1U);

  device.start_ready_daemon();
  next_life(device, task);
  need_locked_file(device, task);
  EXPECT_EQ(client_lives(device, task).size(), 2U);
}

TEST(EndOfTheDaemon, DoesNotWaitForForks) {
  Device device;
  Task task = start_task(device, "ends_forks");
  // Where memory is checked, the look for leaks at the end needs a process that the limit forbids.
  const pid_t daemon = device.start_ready_daemon({.env = {{"LSAN_OPTIONS", "detect_leaks=0"}}});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(task.pid, SIGKILL);
  need_event(device, RUN_LOG, "fork fail");
  expect_ends_soon(device);  // forks fail to the end
  EXPECT_EQ(device.births(task.name).size(), 1U);

  device.start_ready_daemon();
  next_birth(device, task);
  kill_and_return(device, task);
  EXPECT_EQ(device.births(task.name).size(), 3U);
}

TEST(EndOfTheDaemon, DoesNotWaitForALockedFile) {
  Device device;
  Task task = start_task(device, "ends_file");
  LockHolder holder(device, task.file);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));
  expect_ends_soon(device);
  EXPECT_EQ(device.births(task.name).size(), 1U);

  device.start_ready_daemon();
  EXPECT_EQ(device.births(task.name).size(), 1U) << "the file is still locked";
  holder.end();
  next_birth(device, task);
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

TEST(EndOfTheDaemon, DoesNotWaitForASearch) {
  Device device;
  SearchedProgram searched(device, "ends_search");
  // Slow, so that the search is not over before the end; other threads are slow, too.
  device.start_ready_daemon({.faketime = "+0 x0.25"});
  searched.start();
  searched.kill_into_search();
  expect_ends_soon(device, 3 * END_LIMIT_MS);
  EXPECT_EQ(device.count_events(ERROR_LOG, searched.missed()), 0U);
}

// ---- a sudden end -----------------------------------------------------------------------------

TEST(SuddenEndOfTheDaemon, OfARecordThatWaitsForItsTimeLeavesItsFile) {
  Device device;
  Task task = kill_waiting_for_ever(device, "killed_time");
  device.kill_daemon();
  device.start_ready_daemon();
  next_life(device, task);
  need_report(device, task, "did exec 0");
  EXPECT_EQ(client_lives(device, task).size(), 2U);
}

TEST(SuddenEndOfTheDaemon, WhileForksFailLeavesEveryFile) {
  Device device;
  Task first = start_task(device, "killed_fork_a");
  Task second = start_task(device, "killed_fork_b");
  const pid_t daemon = device.start_ready_daemon();
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(first.pid, SIGKILL);
  need_event(device, RUN_LOG, "fork fail");
  device.kill(second.pid, SIGKILL);
  EXPECT_TRUE(device.wait_event(RESTART_LOG, self_checking(second, second.pid, 9), PROMPT_MS));
  device.kill_daemon();
  device.start_ready_daemon();
  for (Task *task : {&first, &second}) {
    next_birth(device, *task);
    kill_and_return(device, *task);
    EXPECT_EQ(device.births(task->name).size(), 3U);
  }
}

TEST(SuddenEndOfTheDaemon, WhileAFileIsLockedIsFollowedByAnotherDeferral) {
  Device device;
  Task task = start_task(device, "killed_file");
  LockHolder holder(device, task.file);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));
  device.kill_daemon();
  device.start_ready_daemon();
  EXPECT_EQ(device.births(task.name).size(), 1U);
  holder.end();
  next_birth(device, task);
  EXPECT_EQ(device.births(task.name).size(), 2U);
}
