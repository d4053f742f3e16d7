// The sweep over all registrations, once a minute, which finds what no event has told.
//
// On a clock that is sixty times as fast: a sweep takes a second.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <filesystem>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/sweep_clock.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::IsEmpty;

static constexpr char FAST[] = "+0 x60";
static constexpr char SLOWER[] = "+0 x30";

// What the restart log says about one process of a task, the sweep's lines included.
static std::vector<std::string> about(const Device &device, const Task &task, pid_t pid) {
  std::vector<std::string> texts;
  for (const std::string &line : device.event_log(RESTART_LOG)) {
    const bool is_named =
        line.find(task.name) != std::string::npos || line.find(task.shown) != std::string::npos;
    const bool is_meant = is_named && (line.find("/" + std::to_string(pid) + " ") != line.npos ||
                                       line.find(" " + std::to_string(pid) + ")") != line.npos);
    if (is_meant) texts.push_back(without_stamp(line));
  }
  return texts;
}

static std::string re_init(const Task &task, pid_t dead) {
  return "%HA-5-HA_RE_INIT: Job " + named(task, dead) + " will be re-initialized ...";
}

static std::string re_init_info(const Task &task, int count, pid_t fresh) {
  return "%HA-5-HA_RE_INIT_INFO Re-initialized OK: " + std::to_string(count) +
         " times and new id " + named(task, fresh) + ".";
}

// ---- exits that were lost -----------------------------------------------------------------------

// Keeps a daemon busy between its rebuild of device 0 and its subscription to process events: it
// starts each of these programs, which end at once.
static std::string install_slow_start(Device &device) {
  static constexpr pid_t NOBODY = 5'000'000;  // the kernel gives out no such id
  static constexpr int PROGRAMS = 60;
  std::string name = unique_name("slow_start");
  const std::string command = device.install_program(name) + " exit=0";
  for (pid_t pid = NOBODY; pid < NOBODY + PROGRAMS; pid++)
    device.register_file(15, pid, NORMAL_EXIT, command);
  return name;
}

// No sweep has looked twice by then: what was not heard before the subscription is looked for
// behind it.
static void find_lost_exit(bool *is_too_late) {
  Device device;
  Task task = start_task(device, "lost");
  const std::string slow = install_slow_start(device);
  const pid_t daemon = device.start_daemon();
  ASSERT_TRUE(device.wait_birth(slow));
  device.kill(daemon, SIGSTOP);
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait(task.pid, STORY_LIMIT_MS));
  *is_too_late = device.count_events(RUN_LOG, "TOV start.") > 0;
  device.kill(daemon, SIGCONT);
  if (*is_too_late) return;
  ASSERT_TRUE(device.wait_daemon_ready(SWEEPS_LIMIT_MS));

  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, re_init_info(task, 1, birth.pid));
  std::vector<std::string> said = about(device, task, dead);
  const std::string miss = not_running(task, dead);
  if (said.size() > 1 && said[1] == miss) said.erase(said.begin());  // a sweep's first, just before
  EXPECT_THAT(said, ElementsAre(miss, exit_lost(task, dead), re_init(task, dead)));
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty()) << "nothing is known to be lost";
  EXPECT_FALSE(device.exists(task.file));
}

TEST(LookAfterTheStart, FindsALostExitAtOnce) {
  static constexpr int TRIES =
      10;  // on a busy machine the daemon may be ready before it is stopped
  bool is_too_late = true;
  for (int i = 0; is_too_late && i < TRIES && !HasFatalFailure(); i++)
    find_lost_exit(&is_too_late);
  EXPECT_FALSE(is_too_late) << "the exit was no longer lost";
}

// A restart that could not be made is left to the sweep alone.
TEST(Sweep, MakesUpForARestartThatWasHeldBack) {
  Device device;
  device.write("/etc/debug_log", "");
  device.mkdir("/tmp/tov/tov.log1");
  Task task = start_task(device, "held");
  const pid_t dead = task.pid;
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = FAST});
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, self_checking(task, dead, 9));
  // The announcement comes before the look at the marker.
  ASSERT_TRUE(device.wait_output("fail to openlog: Is a directory"));
  device.remove("/etc/debug_log");
  next_birth(device, task, SWEEPS_LIMIT_MS);
  need_event(device, RESTART_LOG, re_init_info(task, 1, task.pid));
  // Every second miss is answered; the first answer may have been held back, too.
  const size_t misses = device.count_events(RESTART_LOG, not_running(task, dead));
  EXPECT_GE(misses, 2U);
  EXPECT_EQ(misses, 2 * device.count_events(RESTART_LOG, exit_lost(task, dead)));
}

// ---- strangers ------------------------------------------------------------------------------

TEST(Sweep, StartsAProgramAgainWhoseProcessNowRunsAnother) {
  Device device;
  const std::string stranger = unique_name("stranger_of");
  const std::string other = device.install_program(stranger);
  Task task = start_task(device, "replaced_by",
                         {.words = {"until-told", "exec=" + other, "lock=2"}, .registered = false});
  SweepClock clock(device, "clock_d");
  const pid_t old = task.pid;
  device.start_ready_daemon({.faketime = FAST});
  clock.start();
  clock.wait(1);  // it has been seen as it was registered
  tell(device, task);
  const auto changed = device.wait_birth(stranger);
  ASSERT_TRUE(changed);
  ASSERT_EQ(changed->pid, old);
  const Birth birth = next_birth(device, task, SWEEPS_LIMIT_MS);
  EXPECT_NE(birth.pid, old);
  need_event(device, RESTART_LOG, re_init_info(task, 1, birth.pid));
  EXPECT_THAT(about(device, task, old), ElementsAre(not_running(task, old), not_running(task, old),
                                                    exit_lost(task, old), re_init(task, old)));
  EXPECT_TRUE(device.lives(old)) << "the living stranger is left alone";
  EXPECT_EQ(device.births(stranger).size(), 1U);
}

// ---- no false alarm -------------------------------------------------------------------------

// Hides a task from three sweeps, one at a time. False when two sweeps in a row missed it, because
// the machine was too busy to bring it back between them.
static bool hide_from_single_sweeps() {
  Device device;
  Task task = start_task(device, "elusive");
  Task healthy = start_task(device, "healthy");
  SweepClock clock(device, "clock_a");
  device.start_ready_daemon({.faketime = FAST});
  clock.start();
  // The path of the executable is part of a process's command line.
  const std::string away = task.program + ".away";
  for (size_t miss = 1; miss <= 3; miss++) {
    std::filesystem::rename(device.path(task.program), device.path(away));
    need_event(device, RESTART_LOG, not_running(task, task.pid), miss);
    std::filesystem::rename(device.path(away), device.path(task.program));
    clock.wait(1);
    if (device.count_events(RESTART_LOG, not_running(task, task.pid)) > miss) return false;
    EXPECT_EQ(device.count_events(RESTART_LOG, exit_lost(task, task.pid)), 0U);
  }
  EXPECT_EQ(about(device, task, task.pid),
            std::vector<std::string>(3, not_running(task, task.pid)));
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_THAT(about(device, healthy, healthy.pid), IsEmpty());
  return true;
}

TEST(Sweep, ForgetsAMissWhenTheProcessIsFoundAgain) {
  static constexpr int ATTEMPTS = 5;
  int attempt = 0;
  while (attempt < ATTEMPTS && !hide_from_single_sweeps())
    attempt++;
  EXPECT_LT(attempt, ATTEMPTS) << "the machine is too busy";
}

TEST(Sweep, PassesOverTasksThatWaitForTheirSelfCheck) {
  Device device;
  device.write("/debug_time", "60000");
  Task task = start_task(device, "waiting");
  SweepClock clock(device, "clock_b");
  device.start_ready_daemon({.faketime = SLOWER});
  clock.start();
  kill_until_suspended(device, task, suspended(task, 1000));
  // Between its death and its suspension it may have been missed.
  const size_t misses = device.count_events(RESTART_LOG, not_running(task, task.pid));
  clock.wait(2);
  EXPECT_EQ(device.count_events(RESTART_LOG, not_running(task, task.pid)), misses);
  EXPECT_EQ(device.births(task.name).size(), task.births);
}

TEST(Sweep, ReportsProgramsWhoseActionBringsNoRestart) {
  Device device;
  Task task = start_task(device, "unwanted", {.action = IGNORE_EXIT});
  SweepClock clock(device, "clock_c");
  device.start_ready_daemon({.faketime = FAST});
  clock.start();
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, exit_lost(task, task.pid), 1, SWEEPS_LIMIT_MS);
  clock.wait(1);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.exists(task.file));
}
