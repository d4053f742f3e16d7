// A daemon is killed while records wait that only it knows: suspended ones, and listed programs
// whose process is searched for. The next daemon finds what they wait for in their files, and in
// the end there is exactly one copy of each.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

// The living processes of a task's program.
std::vector<pid_t> copies(const Device &device, const Task &task) {
  std::vector<pid_t> pids;
  for (const auto &process : device.processes())
    if (process.command == task.command) pids.push_back(process.pid);
  return pids;
}

// One copy runs, and it is supervised: killed, it comes back, once.
void expect_one_copy(Device &device, Task &task, Task &bystander) {
  EXPECT_EQ(copies(device, task).size(), 1U);
  kill_and_return(device, task);
  pass_events(device, bystander);
  EXPECT_EQ(copies(device, task).size(), 1U);
  EXPECT_EQ(device.births(task.name).size(), task.births);
}

// Of a listed program: it has used its right to start it.
bool a_child_is_on_its_way(Device &device) {
  const auto names = device.list("/tmp/vsd/0/tov/db");
  return std::any_of(names.begin(), names.end(),
                     [](const std::string &name) { return name.starts_with(".claim.child."); });
}

}  // namespace

TEST(NextDaemon, StartsASearchedProgramThatDidNotCome) {
  Device device;
  Task bystander = start_task(device, "bystander_search");
  SearchedProgram searched(device, "next_search");
  device.start_ready_daemon();
  searched.start();
  searched.kill_into_search();
  device.kill_daemon();
  searched.restore();
  searched.let_script_fail();
  ASSERT_TRUE(wait_until([&] { return !device.lives(searched.script); }, STORY_LIMIT_MS));
  device.start_ready_daemon();
  next_birth(device, searched.task);
  expect_one_copy(device, searched.task, bystander);
}

static void take_in(const DaemonOptions &next) {
  Device device;
  Task bystander = start_task(device, "bystander_came");
  SearchedProgram searched(device, "next_came");
  device.start_ready_daemon();
  searched.start();
  searched.kill_into_search();
  device.kill_daemon();
  searched.restore();
  searched.let_script_become_it();
  next_birth(device, searched.task);
  device.start_ready_daemon(next);
  pass_events(device, bystander);
  expect_one_copy(device, searched.task, bystander);
}

TEST(NextDaemon, TakesInASearchedProgramThatCameMeanwhile) {
  take_in({});
}

// Ages are the kernel's, whatever the daemon's own clock says.
TEST(NextDaemon, TakesItInOnAClockOfItsOwn) {
  take_in({.faketime = "+1000 x20"});
}

TEST(NextDaemon, KnowsAListedProgramThatWasBroughtBack) {
  Device device;
  Task bystander = start_task(device, "bystander_listed");
  Task task = start_listed(device, "next_listed");
  kill_and_return(device, task);
  device.kill_daemon();
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.lives(task.pid); }, STORY_LIMIT_MS));
  device.start_ready_daemon();
  next_birth(device, task);
  expect_one_copy(device, task, bystander);
}

// Until it executes the program a child has the daemon's command line.
TEST(NextDaemon, WaitsForAChildThatHasNotExecutedItsProgramYet) {
  Device device;
  Task bystander = start_task(device, "bystander_child");
  const std::string library = device.binary_dir() + "/tests/programs/libbroken_daemon.so";
  Task task =
      start_listed(device, "next_child", {.env = {{"BREAK", "slow"}, {"LD_PRELOAD", library}}});
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return a_child_is_on_its_way(device); }, STORY_LIMIT_MS));
  device.kill_daemon();
  EXPECT_TRUE(a_child_is_on_its_way(device));
  device.start_ready_daemon();
  next_birth(device, task);
  expect_one_copy(device, task, bystander);
  EXPECT_FALSE(a_child_is_on_its_way(device));
}

TEST(NextDaemon, StartsASuspendedProgram) {
  Device device;
  Task bystander = start_task(device, "bystander_suspended");
  Task task = start_task(device, "next_suspended");
  device.start_ready_daemon();
  kill_until_suspended(device, task, suspended(task, 5));
  const size_t births = device.births(task.name).size();
  device.kill_daemon();
  device.start_ready_daemon();
  next_birth(device, task);
  EXPECT_EQ(device.births(task.name).size(), births + 1);
  expect_one_copy(device, task, bystander);
}

// No file of the old process was left: the child removes it before it executes.
TEST(NextDaemon, StartsNoSecondCopyOfAProgramThatWasJustBroughtBack) {
  Device device;
  Task bystander = start_task(device, "bystander_just");
  Task task = start_task(device, "next_just", {.words = {"lock=2"}, .registered = false});
  const pid_t daemon = device.start_ready_daemon();
  device.kill(task.pid, SIGKILL);
  next_birth(device, task);
  device.kill(daemon, SIGKILL);  // wherever it is with its bookkeeping
  ASSERT_TRUE(device.wait(daemon, STORY_LIMIT_MS));
  device.start_ready_daemon();
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 2U);
  expect_one_copy(device, task, bystander);
}
