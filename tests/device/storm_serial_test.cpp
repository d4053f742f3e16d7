// Many processes at once, threads that end, and what of it the daemon takes for the end of a
// registered program. Runs alone: process events are machine-wide.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::Contains;
using testing::IsEmpty;
using testing::MatchesRegex;

static constexpr int STORM = 3000;
static constexpr Millis STORM_LIMIT_MS{60'000};

// Forks `count` processes that end at once, and in the middle of it kills `target`.
// Runs in a forked child: nothing but system calls.
static int make_storm(int count, pid_t target) {
  for (int i = 0; i < count; i++) {
    if (i == count / 2 && kill(target, SIGKILL) < 0) return 1;
    const pid_t child = fork();
    if (child == 0) _exit(0);
    if (child < 0 || waitpid(child, nullptr, 0) != child) return 2;
  }
  return 0;
}

TEST(Storm, OfShortLivedProcessesHidesNoExit) {
  Device device;
  Task task = start_task(device, "stormed");
  Task bystander = start_task(device, "bystander_storm");
  device.start_ready_daemon();
  const pid_t dead = task.pid;
  ASSERT_EQ(device.call_inside([&] { return make_storm(STORM, task.pid); }), 0);
  const Birth birth = next_birth(device, task, STORM_LIMIT_MS);
  need_event(device, RESTART_LOG, self_checking(task, dead, 9));
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));

  device.kill(bystander.pid, SIGKILL);
  next_birth(device, bystander, STORM_LIMIT_MS);  // so the whole storm has passed
  EXPECT_EQ(device.births(task.name).size(), 2U);
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty()) << "nothing was lost on the way";
}

// Executions are events, too, and each of them is looked up in the list of third-part programs.
TEST(Storm, OfExecutedProgramsHidesNoExit) {
  Device device;
  device.write("/etc/tov/proc/listed", "/opt/somebody/somebody TOV_RESTART");
  Task task = start_task(device, "stormed_exec");
  device.start_ready_daemon();
  const pid_t storm =
      device.spawn({"sh", "-c", "i=0; while test $i -lt 500; do /bin/true; i=$((i + 1)); done"});
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task, STORM_LIMIT_MS);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid), 1, STORM_LIMIT_MS);
  EXPECT_EQ(device.wait(storm, STORM_LIMIT_MS), 0);
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty());
}

TEST(Storm, OfRegisteredProgramsBringsEveryOneBack) {
  static constexpr int MANY = 60;
  Device device;
  std::vector<Task> tasks;
  tasks.reserve(MANY);
  for (int i = 0; i < MANY; i++)
    tasks.push_back(start_task(device, "crowd" + std::to_string(i) + "_"));
  device.start_ready_daemon();
  for (const Task &task : tasks)
    device.kill(task.pid, SIGKILL);
  for (Task &task : tasks) {
    const Birth birth = next_birth(device, task, STORM_LIMIT_MS);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  }
  EXPECT_EQ(device.count_events(RESTART_LOG, "new id crowd"), size_t{MANY});
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty());
}

// ---- threads --------------------------------------------------------------------------------

TEST(Thread, ThatEndsIsNoProcessThatEnds) {
  Device device;
  Task task = start_task(device, "threaded", {.words = {"thread-exit", "until-told"}});
  Task bystander = start_task(device, "bystander_thread");
  device.start_ready_daemon();
  tell(device, task);
  ASSERT_TRUE(wait_until([&] { return !device.victim_notes(task.name).empty(); }, STORY_LIMIT_MS));
  EXPECT_THAT(device.victim_notes(task.name), Contains(MatchesRegex("thread [0-9]+ ends")));
  ASSERT_TRUE(wait_until([&] { return status_field(task.pid, "Threads") == "1"; }, STORY_LIMIT_MS));
  pass_events(device, bystander);
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_EQ(device.births(task.name).size(), 1U);

  kill_and_return(device, task);
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

TEST(Thread, ManyOfADyingProgramMakeOneRestart) {
  Device device;
  Task task = start_task(device, "crowded", {.words = {"threads=50"}});
  Task bystander = start_task(device, "bystander_crowd");
  device.start_ready_daemon();
  kill_and_return(device, task);
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 2U);
  EXPECT_EQ(device.count_events(RESTART_LOG, "self-checking ..."), 2U);
}

// What the first thread does alone is no end of the process either:
// tests/device/leaderless_test.cpp.
TEST(Thread, FirstOneThatEndsIsNoProcessThatEnds) {
  Device device;
  Task task = start_task(device, "leaderless", {.words = {"leader-exit", "until-told"}});
  Task bystander = start_task(device, "bystander_leader");
  device.start_ready_daemon();
  tell(device, task);
  ASSERT_TRUE(wait_until([&] { return process_state(task.pid) == 'Z'; }, STORY_LIMIT_MS));
  pass_events(device, bystander);
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_EQ(device.births(task.name).size(), 1U);

  kill_and_return(device, task);
  EXPECT_EQ(device.births(task.name).size(), 2U);
}
