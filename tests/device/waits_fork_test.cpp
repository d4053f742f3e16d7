// Forks that fail while several records want to be started: one pause for all of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

// A second for the five that lie between two tries.
static constexpr char FAST[] = "+0 x5";
static constexpr int64_t PAUSE_MS = 1'000;
// The failure is written down some time after its pause began.
static constexpr int64_t WRITTEN_LATE_MS = 100;

static std::vector<Task> start_tasks(Device &device, const std::string &prefix, size_t count) {
  std::vector<Task> tasks;
  for (size_t i = 0; i < count; i++)
    tasks.push_back(start_task(device, prefix + std::to_string(i) + "_"));
  return tasks;
}

static void kill_all(Device &device, const std::vector<Task> &tasks) {
  for (const Task &task : tasks)
    device.kill(task.pid, SIGKILL);
}

// Notes when the record of failures grows, until `enough`.
class Failures {
 public:
  explicit Failures(const Device &device) : device_(device) {}

  bool watch(const std::function<bool()> &enough) {
    return wait_until(
        [&] {
          const size_t length = device_.read(FORK_FILE).size();
          longest_ = std::max(longest_, length);
          while (times_ns_.size() < length)
            times_ns_.push_back(monotonic_ns());
          return enough();
        },
        STORY_LIMIT_MS);
  }
  bool watch_for(size_t length) {
    return watch([&] { return longest_ >= length; });
  }
  size_t longest() const { return longest_; }
  // The shortest time between two of them.
  int64_t shortest_gap_ms() const {
    int64_t gap_ns = INT64_MAX;
    for (size_t i = 1; i < times_ns_.size(); i++)
      gap_ns = std::min(gap_ns, times_ns_[i] - times_ns_[i - 1]);
    return gap_ns / 1'000'000;
  }
  int64_t first_ns() const { return times_ns_.front(); }

 private:
  const Device &device_;
  size_t longest_ = 0;
  std::vector<int64_t> times_ns_;
};

TEST(FailingForks, OfTwoRecordsShareOnePause) {
  static constexpr size_t FAILURES = 3;
  Device device;
  std::vector<Task> tasks = start_tasks(device, "shares", 2);
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  kill_all(device, tasks);
  Failures failures(device);
  ASSERT_TRUE(failures.watch_for(FAILURES));
  EXPECT_GE(failures.shortest_gap_ms(), PAUSE_MS - WRITTEN_LATE_MS);
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));

  for (Task &task : tasks) {
    const pid_t dead = task.pid;
    const Birth birth = next_birth(device, task);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
    EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
    EXPECT_EQ(device.births(task.name).size(), 2U);
  }
  EXPECT_LE(device.count_events(RUN_LOG, "fork fail"), FAILURES + 1);
  EXPECT_TRUE(wait_until([&] { return device.read(FORK_FILE).empty(); }, STORY_LIMIT_MS));
  EXPECT_FALSE(device.wait_daemon(Millis(0)));
}

TEST(FailingForks, SevenTakeThirtySecondsHoweverManyRecordsWait) {
  Device device;
  std::vector<Task> tasks = start_tasks(device, "unforkable", 5);
  // Where memory is checked, the look for leaks at the end needs a process that the limit forbids.
  const pid_t daemon =
      device.start_ready_daemon({.env = {{"LSAN_OPTIONS", "detect_leaks=0"}}, .faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  kill_all(device, tasks);
  Failures failures(device);
  ASSERT_TRUE(failures.watch([&] { return device.wait_daemon(Millis(0)).has_value(); }))
      << device.dump();
  const auto status = device.wait_daemon(Millis(0));
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
  EXPECT_GE(milliseconds_since(failures.first_ns()), 6 * PAUSE_MS - WRITTEN_LATE_MS);
  EXPECT_GE(failures.shortest_gap_ms(), PAUSE_MS - WRITTEN_LATE_MS);
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              testing::ElementsAre("Unable to restart the process, tov will be restart."));

  device.start_ready_daemon();
  for (Task &task : tasks) {
    next_birth(device, task);
    kill_and_return(device, task);
    EXPECT_EQ(device.births(task.name).size(), 3U) << "one by the fresh daemon, one after it";
  }
}

// Each of fifty would have written its own failure, and seven are enough for the end of the daemon.
TEST(FailingForks, OfFiftyThatDieAtOnceAreOneFailure) {
  static constexpr size_t TASKS = 50;
  static constexpr int64_t FAILING_MS = 3'000;
  Device device;
  std::vector<Task> tasks = start_tasks(device, "fifty", TASKS);
  const pid_t daemon = device.start_ready_daemon();
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  kill_all(device, tasks);
  Failures failures(device);
  ASSERT_TRUE(failures.watch_for(1));
  const auto seconds_are_over = [&] {
    return milliseconds_since(failures.first_ns()) >= FAILING_MS;
  };
  ASSERT_TRUE(failures.watch(seconds_are_over));
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
  const auto all_are_back = [&] {
    return std::all_of(tasks.begin(), tasks.end(),
                       [&](const Task &task) { return is_back(device, task); });
  };
  ASSERT_TRUE(failures.watch(all_are_back)) << device.dump();

  EXPECT_EQ(failures.longest(), 1U);
  EXPECT_EQ(device.count_events(RUN_LOG, "fork fail"), 1U);
  for (Task &task : tasks) {
    next_birth(device, task);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  }
  kill_and_return(device, tasks.front());
  for (const Task &task : tasks) {
    EXPECT_EQ(device.births(task.name).size(), task.births) << task.name;
    EXPECT_TRUE(device.lives(task.pid)) << task.name;
  }
  EXPECT_FALSE(device.wait_daemon(Millis(0)));
  EXPECT_EQ(device.daemon_pid(), daemon);
}

// Whose turn it was is gone; the next one tries.
TEST(FailingForks, OfAWithdrawnRecordHoldNobodyBack) {
  Device device;
  std::vector<Task> tasks = start_tasks(device, "turn", 3);
  const pid_t daemon = device.start_ready_daemon({.faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(tasks[0].pid, SIGKILL);
  need_event(device, RUN_LOG, "fork fail");
  device.kill(tasks[1].pid, SIGKILL);
  device.kill(tasks[2].pid, SIGKILL);
  need_carried_out(device, withdrawal(tasks[0].pid));
  EXPECT_EQ(device.count_events(REGISTER_LOG, withdrawn(tasks[0], tasks[0].pid)), 1U);
  EXPECT_FALSE(is_back(device, tasks[1]));
  ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
  for (Task *task : {&tasks[1], &tasks[2]}) {
    next_birth(device, *task);
    need_event(device, RESTART_LOG, "new id " + named(*task, task->pid));
  }
  EXPECT_EQ(device.births(tasks[0].name).size(), 1U);
}
