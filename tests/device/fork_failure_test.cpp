// Forks that fail: recorded, retried every five seconds, forgotten at the first success.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;

static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";
static constexpr int NO_LIMIT = -1;

// A second for the five that lie between two tries: fast, and still slow enough for a busy machine
// to make an end before the seventh failure, which would end the daemon.
static constexpr char FAST[] = "+0 x5";
static constexpr int64_t PAUSE_NS = 1'000'000'000;

TEST(ForkFailure, IsRecordedAndTriedAgain) {
  Device device;
  Task task = start_task(device, "unforked");
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  const std::string failure = "tov_spawn--> fork fail, err: Resource temporarily unavailable(11)";
  need_event(device, RUN_LOG, failure, 2);
  EXPECT_THAT(device.read(FORK_FILE), testing::MatchesRegex("aa+"));
  EXPECT_EQ(device.births(task.name).size(), 1U);

  ASSERT_TRUE(device.limit_processes(daemon, NO_LIMIT));
  const Birth birth = next_birth(device, task);
  need_event(device, RUN_LOG, spawned(task, birth.pid));
  const auto run = event_texts(device, RUN_LOG);
  ASSERT_GE(run.size(), 6U);
  EXPECT_EQ(run[0], "TOV start.");
  for (size_t i = 1; i + 1 < run.size(); i += 2) {
    EXPECT_EQ(run[i], spawned(task, -1));
    EXPECT_EQ(run[i + 1], failure);
  }
  EXPECT_EQ(run.back(), spawned(task, birth.pid));
  need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
  EXPECT_THAT(event_texts(device, RESTART_LOG),
              ElementsAre("%HA-5-HA_SELF_CHECK: " + self_checking(task, dead, 9),
                          "%HA-5-HA_SELF_CHECK_INFO " + self_check_ok(task, 1, birth.pid)));
  EXPECT_EQ(device.read(FORK_FILE), "") << "a child that lives clears the record";
}

TEST(ForkFailure, RecordIsMadeForEverybodyToRead) {
  Device device;
  Task task = start_task(device, "recorded");
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.read(FORK_FILE).empty(); }, STORY_LIMIT_MS));
  EXPECT_EQ(device.mode(FORK_FILE), 0755U);
  ASSERT_TRUE(device.limit_processes(daemon, NO_LIMIT));
  next_birth(device, task);
}

TEST(ForkFailure, PausesFiveSecondsBetweenTries) {
  Device device;
  Task task = start_task(device, "paused");
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  const int64_t before_ns = monotonic_ns();
  device.kill(task.pid, SIGKILL);
  need_event(device, RUN_LOG, "fork fail", 3);
  EXPECT_GT(monotonic_ns() - before_ns, 2 * PAUSE_NS);
  ASSERT_TRUE(device.limit_processes(daemon, NO_LIMIT));
  next_birth(device, task);
}

TEST(ForkFailure, OfTheChildsOwnLeavesOthersAlone) {
  Device device;
  device.write(FORK_FILE, "aaa");  // of a daemon before
  Task task = start_task(device, "clearing");
  device.start_ready_daemon();
  kill_and_return(device, task);
  EXPECT_TRUE(wait_until([&] { return device.read(FORK_FILE).empty(); }, STORY_LIMIT_MS));
}
