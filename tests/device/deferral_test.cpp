// Restarts that wait because the dead process's registration file is still locked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>

#include <string>

#include "tests/device/lock_holder.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(Deferral, LastsAsLongAsTheFileIsLocked) {
  Device device;
  Task task = start_task(device, "deferred");
  Task bystander = start_task(device, "bystander_deferral");
  LockHolder holder(device, task.file);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  EXPECT_TRUE(device.wait_output("be lock file " + task.file + ", "));
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_EQ(count_texts(device, RESTART_LOG, task.name), 0U);
  EXPECT_TRUE(device.exists(task.file));

  holder.end();
  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U)
      << "the code of the exit is remembered";
  EXPECT_THAT(device.daemon_output(), HasSubstr("Succeed to lock file " + task.file + "."));
  EXPECT_FALSE(device.exists(task.file));
}

TEST(Deferral, EndsAfterFiveMinutesWhoeverHoldsTheFile) {
  Device device;
  Task task = start_task(device, "forced");
  LockHolder holder(device, task.file);
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = "+0 x100"});
  const pid_t dead = task.pid;
  const int64_t killed_ns = monotonic_ns();
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_GT(birth.main_ns - killed_ns, 2'980'000'000) << "300 s by the daemon's clock";
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
  EXPECT_THAT(device.daemon_output(), HasSubstr(task.command + "/" + std::to_string(dead) +
                                                " more than 300s delay restart."));
  // The sweeps may have found the exit meanwhile, and left the restart to the deferral.
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

TEST(Deferral, AppliesToProgramsThatDiedBeforeTheStart) {
  Device device;
  Task task = start_task(device, "early_deferred");
  LockHolder holder(device, task.file);
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait(task.pid, STORY_LIMIT_MS));
  device.start_ready_daemon();
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_THAT(event_texts(device, RUN_LOG), ElementsAre("TOV start."));
  holder.end();
  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, "new id " + named(task, birth.pid));
  EXPECT_THAT(
      event_texts(device, RESTART_LOG),
      ElementsAre("%HA-5-HA_RE_INIT: Job " + named(task, dead) + " will be re-initialized ...",
                  "%HA-5-HA_RE_INIT_INFO Re-initialized OK: 1 times and new id " +
                      named(task, birth.pid) + "."));
}

// It lives, and who lives is not asked for its lock.
TEST(Deferral, DoesNotApplyToAProcessWhoseFirstThreadHasEnded) {
  Device device;
  Task task = start_task(device, "half_dead",
                         {.words = {"leader-exit", "until-told", "lock=2"}, .registered = false});
  Task bystander = start_task(device, "bystander_half");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const pid_t old = task.pid;
  tell(device, task);
  ASSERT_TRUE(wait_until([&] { return process_state(old) == 'Z'; }, STORY_LIMIT_MS));
  pass_events(device, bystander);
  EXPECT_THAT(device.daemon_output(), Not(HasSubstr("be lock file " + task.file)));
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.lives(old));

  device.kill(old, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_FALSE(device.lives(old));
  EXPECT_TRUE(device.exists(Device::register_path(0, birth.pid, task.command)));
}

// A stop by signal 15 asks for no lock.
TEST(Deferral, DoesNotApplyToADeliberateStop) {
  Device device;
  Task task = start_task(device, "stopped_deferred");
  LockHolder holder(device, task.file);
  device.start_ready_daemon();
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(task, task.pid, -1));
  EXPECT_TRUE(wait_until([&] { return !device.exists(task.file); }, STORY_LIMIT_MS));
}

// What the sweep finds is deferred like any other exit.
TEST(Deferral, HoldsBackWhatTheSweepFound) {
  Device device;
  Task task = start_task(device, "swept_deferred");
  LockHolder holder(device, task.file);
  const pid_t dead = task.pid;
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = "+0 x15"});
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));
  need_event(device, RESTART_LOG, exit_lost(task, dead), 1, Millis(30'000));
  ASSERT_TRUE(
      device.wait_output("tov_proc_restart_delay pid " + std::to_string(dead) + " exist in "));
  EXPECT_EQ(device.births(task.name).size(), 1U);
  holder.end();
  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, "new id " + named(task, birth.pid));
}
