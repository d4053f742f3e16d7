// A process lives as long as one of its threads does: what its first thread does alone is no end.
// When the last one ends, the program comes back at once, or stays away if it was stopped.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

namespace {

constexpr int64_t AT_ONCE_NS = 1'000'000'000;  // the sweep needs a minute

// A program whose first thread has ended, as the daemon has heard.
class Leaderless {
 public:
  Leaderless(Device &device, const std::string &prefix, const DaemonOptions &options = {},
             const std::vector<std::string> &words = {})
      : device_(device),
        bystander(start_task(device, prefix + "_bystander")),
        task(start_task(device, prefix, {.words = with(words)})) {
    device.start_ready_daemon(options);
    tell(device, task);
    if (!wait_until([&] { return process_state(task.pid) == 'Z'; }, STORY_LIMIT_MS))
      throw std::runtime_error(task.name + " keeps its first thread");
    pass_events(device, bystander);
  }

  // Waits for the next copy, which must come at once after `ended_ns`.
  Birth need_back_at_once(int64_t ended_ns) {
    const Birth birth = next_birth(device_, task);
    EXPECT_LT(birth.main_ns - ended_ns, AT_ONCE_NS * patience());
    EXPECT_EQ(device_.births(task.name).size(), 2U);
    return birth;
  }

 private:
  static std::vector<std::string> with(std::vector<std::string> words) {
    words.insert(words.begin(), {"leader-exit", "until-told"});
    return words;
  }

  Device &device_;

 public:
  Task bystander;
  Task task;
};

}  // namespace

TEST(Leaderless, ProgramIsLeftAloneByEverySweep) {
  static constexpr size_t SWEEPS = 3;
  Device device;
  Task dead = start_task(device, "leaderless_clock", {.action = NORMAL_EXIT});
  Leaderless story(device, "leaderless_swept", {.faketime = "+0 x120"});
  device.kill(dead.pid, SIGKILL);  // and named by every sweep
  need_event(device, RESTART_LOG, not_running(dead, dead.pid), SWEEPS + 1);
  EXPECT_TRUE(device.lives(story.task.pid));
  EXPECT_EQ(device.births(story.task.name).size(), 1U);
  EXPECT_EQ(device.count_events(RESTART_LOG, story.task.shown), 0U) << "nothing is to be said";
}

TEST(Leaderless, ProgramThatIsKilledComesBackAtOnce) {
  Device device;
  Leaderless story(device, "leaderless_killed");
  const pid_t dead = story.task.pid;
  const int64_t killed_ns = monotonic_ns();
  device.kill(dead, SIGKILL);
  const Birth birth = story.need_back_at_once(killed_ns);
  need_event(device, RESTART_LOG, self_checking(story.task, dead, 9));
  need_event(device, RESTART_LOG, self_check_ok(story.task, 1, birth.pid));
}

TEST(Leaderless, ProgramWhoseLastThreadFailsComesBackAtOnce) {
  Device device;
  Leaderless story(device, "leaderless_failed", {}, {"last-exit=3"});
  const pid_t dead = story.task.pid;
  const int64_t told_ns = monotonic_ns();
  tell(device, story.task);
  const Birth birth = story.need_back_at_once(told_ns);
  need_event(device, RESTART_LOG, self_checking(story.task, dead, 0x300));
  need_event(device, RESTART_LOG, self_check_ok(story.task, 1, birth.pid));
}

TEST(Leaderless, ProgramThatIsStoppedStaysAway) {
  Device device;
  Leaderless story(device, "leaderless_stopped");
  device.kill(story.task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(story.task, story.task.pid, -1));
  EXPECT_TRUE(wait_until([&] { return !device.exists(story.task.file); }, STORY_LIMIT_MS));
  pass_events(device, story.bystander);
  EXPECT_EQ(device.births(story.task.name).size(), 1U);
  EXPECT_EQ(count_texts(device, RESTART_LOG, story.task.shown), 0U);
}
