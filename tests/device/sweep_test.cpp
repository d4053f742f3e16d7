// The sweep over all registrations, once a minute, which finds what no event has told.
//
// On a clock that is sixty times as fast: a sweep takes a second.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "story.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::IsEmpty;

static constexpr char FAST[] = "+0 x60";

// What the restart log says about one task.
static std::vector<std::string> about(const Device &device, const Task &task) {
  std::vector<std::string> texts;
  for (const std::string &text : event_texts(device, RESTART_LOG))
    if (text.find(task.name) != std::string::npos) texts.push_back(text);
  return texts;
}

static std::string re_init(const Task &task, pid_t dead) {
  return "%HA-5-HA_RE_INIT: Job " + named(task, dead) + " will be re-initialized ...";
}

static std::string re_init_info(const Task &task, int count, pid_t fresh) {
  return "%HA-5-HA_RE_INIT_INFO Re-initialized OK: " + std::to_string(count) +
         " times and new id " + named(task, fresh) + ".";
}

// A task that is dead and stays so: every sweep names it, which makes it a clock.
class SweepClock {
 public:
  SweepClock(Device &device, const std::string &prefix)
      : device_(device), task_(start_task(device, prefix, {.action = NORMAL_EXIT})) {}
  void start() { device_.kill(task_.pid, SIGKILL); }
  size_t sweeps() const { return device_.count_events(RESTART_LOG, not_running(task_, task_.pid)); }
  // Waits until everybody has been looked at `count` times from now on.
  void wait(size_t count) const {
    // The sweep that is under way may have passed the others already.
    need_event(device_, RESTART_LOG, not_running(task_, task_.pid), sweeps() + count + 1);
  }

 private:
  Device &device_;
  Task task_;
};

// ---- exits that were lost -----------------------------------------------------------------------

// Keeps a daemon busy between its rebuild of device 0 and its subscription to process events: it
// looks for each of these programs, which it has started again and which ended at once, for 5.5 s
// by its own clock.
static std::string install_slow_start(Device &device) {
  static constexpr pid_t NOBODY = 5'000'000;  // the kernel gives out no such id
  static constexpr int PROGRAMS = 10;
  std::string name = unique_name("slow_start");
  const std::string command = device.install_program(name) + " exit=0";
  for (pid_t pid = NOBODY; pid < NOBODY + PROGRAMS; pid++)
    device.register_file(15, pid, NORMAL_EXIT, command);
  device.write("/etc/tov/third_part_proc", command + " TOV_RESTART\n");
  return name;
}

TEST(Sweep, FindsALostExitTheSecondTime) {
  Device device;
  Task task = start_task(device, "lost");
  const std::string slow = install_slow_start(device);
  device.start_daemon({.faketime = FAST});
  ASSERT_TRUE(device.wait_birth(slow));
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait(task.pid, STORY_LIMIT_MS));
  EXPECT_THAT(event_texts(device, RUN_LOG), testing::Not(testing::Contains("TOV start.")))
      << "too late: the exit was no longer lost";
  ASSERT_TRUE(device.wait_daemon_ready());

  const Birth birth = next_birth(device, task);
  need_event(device, RESTART_LOG, "new id " + named(task, birth.pid));
  EXPECT_THAT(about(device, task),
              ElementsAre(not_running(task, dead), not_running(task, dead), exit_lost(task, dead),
                          re_init(task, dead), re_init_info(task, 1, birth.pid)));
  EXPECT_FALSE(device.exists(task.file));
}

// A restart that could not be made is nobody's business but the sweep's.
TEST(Sweep, MakesUpForARestartThatWasHeldBack) {
  Device device;
  device.write("/etc/debug_log", "");
  device.mkdir("/tmp/tov/tov.log1");
  Task task = start_task(device, "held");
  const pid_t dead = task.pid;
  device.start_ready_daemon({.faketime = FAST});
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, self_checking(task, dead, 9));
  device.remove("/etc/debug_log");
  next_birth(device, task);
  need_event(device, RESTART_LOG, re_init_info(task, 1, task.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, not_running(task, dead)), 2U);
}

// ---- strangers ------------------------------------------------------------------------------

TEST(Sweep, StartsAProgramAgainWhoseProcessNowRunsAnother) {
  Device device;
  const std::string stranger = unique_name("stranger_of");
  const std::string other = device.install_program(stranger);
  Task task = start_task(device, "replaced_by",
                         {.words = {"until-told", "exec=" + other, "lock=2"}, .registered = false});
  const pid_t old = task.pid;
  device.start_ready_daemon({.faketime = FAST});
  tell(device, task);
  const auto changed = device.wait_birth(stranger);
  ASSERT_TRUE(changed);
  ASSERT_EQ(changed->pid, old);
  const Birth birth = next_birth(device, task);
  EXPECT_NE(birth.pid, old);
  need_event(device, RESTART_LOG, re_init_info(task, 1, birth.pid));
  EXPECT_THAT(event_texts(device, RESTART_LOG),
              ElementsAre(not_running(task, old), not_running(task, old), exit_lost(task, old),
                          re_init(task, old), re_init_info(task, 1, birth.pid)));
  EXPECT_TRUE(device.lives(old)) << "the living stranger is left alone";
  EXPECT_EQ(device.births(stranger).size(), 1U);
}

// ---- no false alarm -------------------------------------------------------------------------

TEST(Sweep, ForgetsAMissWhenTheProcessIsFoundAgain) {
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
  }
  EXPECT_EQ(about(device, task), std::vector<std::string>(3, not_running(task, task.pid)));
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_THAT(about(device, healthy), IsEmpty());
}

TEST(Sweep, PassesOverTasksThatWaitForTheirSelfCheck) {
  Device device;
  device.write("/debug_time", "60000");
  Task task = start_task(device, "waiting");
  SweepClock clock(device, "clock_b");
  device.start_ready_daemon({.faketime = FAST});
  clock.start();
  for (int i = 0; i < 4; i++)
    kill_and_return(device, task);
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, suspended(task, 1000));
  clock.wait(2);
  EXPECT_EQ(device.count_events(RESTART_LOG, not_running(task, task.pid)), 0U);
  EXPECT_EQ(device.births(task.name).size(), 5U);
}

TEST(Sweep, ReportsProgramsThatNobodyBringsBack) {
  Device device;
  Task task = start_task(device, "unwanted", {.action = IGNORE_EXIT});
  SweepClock clock(device, "clock_c");
  device.start_ready_daemon({.faketime = FAST});
  clock.start();
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, exit_lost(task, task.pid));
  clock.wait(1);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.exists(task.file));
}
