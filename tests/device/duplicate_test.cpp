// Two registrations of one task: the same command in the same device. One instance is enough.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <string>

#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

// The older instance was there first; the second one is `younger`.
struct Pair {
  Task older;
  Task younger;
};

static Pair start_pair(Device &device, const std::string &prefix) {
  Task older = start_task(device, prefix);
  Task younger = start_instance(device, older);
  older.births = younger.births;
  return {older, younger};
}

TEST(Duplicate, OfALivingInstanceIsDroppedWhenItEnds) {
  Device device;
  Pair pair = start_pair(device, "pair");
  Task &older = pair.older;
  Task &younger = pair.younger;
  Task bystander = start_task(device, "bystander_dup");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  device.kill(older.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.exists(older.file); }, STORY_LIMIT_MS));
  pass_events(device, bystander);
  EXPECT_EQ(device.births(older.name).size(), 2U) << "the other one stays in charge";
  EXPECT_TRUE(device.exists(younger.file));
  EXPECT_EQ(count_texts(device, RESTART_LOG, older.name), 0U);
  EXPECT_TRUE(device.wait_output("tov_handle_netlink_exit--> del " + std::to_string(older.pid)));

  kill_and_return(device, younger);
  EXPECT_EQ(device.births(older.name).size(), 3U);
}

TEST(Duplicate, IsDroppedWhicheverOfTheTwoEnds) {
  Device device;
  Pair pair = start_pair(device, "pair_reversed");
  Task &older = pair.older;
  Task &younger = pair.younger;
  device.start_ready_daemon();
  device.kill(younger.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.exists(younger.file); }, STORY_LIMIT_MS));
  EXPECT_TRUE(device.exists(older.file));
  kill_and_return(device, older);
  EXPECT_EQ(device.births(older.name).size(), 3U);
}

TEST(Duplicate, InAnotherDeviceIsNone) {
  Device device;
  Task first = start_task(device, "elsewhere");
  Task second = start_instance(device, first, {.vsd = 2});
  first.births = second.births;
  device.start_ready_daemon();
  kill_and_return(device, first);
  second.births = first.births;
  kill_and_return(device, second);
  EXPECT_EQ(device.births(first.name).size(), 4U);
}

TEST(Duplicate, WithOtherArgumentsIsNone) {
  Device device;
  Task first = start_task(device, "arguments", {.words = {"a"}});
  Task second = first;
  second.command = second.program + " b";
  second.shown = shown_name(second.command);
  second = start_instance(device, second, {.words = {"b"}});
  first.births = second.births;
  device.start_ready_daemon();
  EXPECT_EQ(kill_and_return(device, first).argv, first.command);
  second.births = first.births;
  EXPECT_EQ(kill_and_return(device, second).argv, second.command);
}

// A task that the daemon has started itself gives way to one that was started beside it.
TEST(Duplicate, OfATaskThatWasBroughtBackStaysInCharge) {
  Device device;
  Pair pair = start_pair(device, "pair_restarted");
  Task &older = pair.older;
  Task &younger = pair.younger;
  Task bystander = start_task(device, "bystander_pair");
  device.kill(older.pid, SIGKILL);
  ASSERT_TRUE(device.wait(older.pid, STORY_LIMIT_MS));
  device.start_ready_daemon({.env = with_diagnostics(device)});
  next_birth(device, older);  // by the rebuild, which asks for no duplicates
  device.kill(older.pid, SIGKILL);
  EXPECT_TRUE(device.wait_output("tov_handle_netlink_exit--> pid " + std::to_string(younger.pid) +
                                 " alive, del " + std::to_string(older.pid)));
  pass_events(device, bystander);
  EXPECT_EQ(device.births(older.name).size(), 3U);
  younger.births = 3;
  kill_and_return(device, younger);
}

TEST(Duplicate, ThatDiesTogetherWithTheOtherLeavesOneInstance) {
  Device device;
  Pair pair = start_pair(device, "pair_dead");
  Task &older = pair.older;
  Task &younger = pair.younger;
  Task bystander = start_task(device, "bystander_both");
  device.kill(older.pid, SIGKILL);
  ASSERT_TRUE(device.wait(older.pid, STORY_LIMIT_MS));
  device.start_ready_daemon();
  next_birth(device, older);
  need_event(device, RUN_LOG, spawned(older, older.pid));
  const pid_t dead = older.pid;
  // The daemon looks only when both are dead.
  device.kill(device.daemon_pid(), SIGSTOP);
  // In this order: the daemon's child stays a zombie, the other one is the test's.
  device.kill(older.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return process_state(dead) == 'Z'; }, STORY_LIMIT_MS));
  device.kill(younger.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.lives(younger.pid); }, STORY_LIMIT_MS));
  device.kill(device.daemon_pid(), SIGCONT);
  next_birth(device, older);
  need_event(device, RESTART_LOG, self_checking(older, dead, 9));
  pass_events(device, bystander);
  EXPECT_EQ(device.births(older.name).size(), 4U);
  EXPECT_FALSE(device.exists(younger.file));
}
