// Whatever a restart waits for, it is told once, in the words and the order of any other; what was
// decided before its wait is not asked again behind it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;

static constexpr char MARKER[] = "/etc/dev_mon";
static constexpr char JOURNAL_1[] = "/tmp/tov/tov.log1";
static constexpr char JOURNAL_2[] = "/tmp/tov/tov.log2";

TEST(ToldOnce, RestartThatWaitsForItsTime) {
  Device device;
  device.start_ready_daemon();
  Task task = start_delayed(device, "told_time", 2);
  const pid_t dead = task.pid;
  device.kill(dead, SIGKILL);
  const Birth birth = next_birth(device, task);
  const std::string before = self_checking(task, dead, 9);
  const std::string after = self_check_ok(task, 1, birth.pid);
  need_event(device, RESTART_LOG, after);
  Events expected{
      {RUN_LOG, {"TOV start.", spawned(task, birth.pid)}},
      {RESTART_LOG, {"%HA-5-HA_SELF_CHECK: " + before, "%HA-5-HA_SELF_CHECK_INFO " + after}}};
  task.pid = dead;
  expected[REGISTER_LOG] = {entered(task).substr(1)};
  EXPECT_EQ(all_events(device), expected);
  EXPECT_THAT(notice_texts(device),
              ElementsAre("%HA-5-HA_SELF_CHECK: " + before, "%HA-5-HA_SELF_CHECK_INFO: " + after));
}

// The program waited twice as long before each of them as between announcement and start.
TEST(ToldOnce, EveryRestartOfABurst) {
  Device device;
  device.start_ready_daemon({.faketime = "+0 x5"});
  Task task = start_delayed(device, "told_burst", 2);
  for (int count = 1; count <= 4; count++) {
    const pid_t dead = task.pid;
    const Birth birth = kill_and_return(device, task);
    EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
    need_event(device, RESTART_LOG, self_check_ok(task, count, birth.pid));
  }
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, suspended(task, 5));
  EXPECT_EQ(device.births(task.name).size(), 5U);
}

// ---- the marker of a silent restart -----------------------------------------------------------

namespace {

// A task that is to be restarted while forks fail: announced, if it is, and not started yet.
class MarkerAndForks : public testing::Test {
 protected:
  void SetUp() override {
    task = start_task(device, "marked");
    daemon = device.start_ready_daemon({.faketime = pause_clock()});
    if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  }
  void begin() {
    dead = task.pid;
    device.kill(dead, SIGKILL);
    need_event(device, RUN_LOG, "fork fail");
  }
  void end() {
    ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
    const Birth birth = next_birth(device, task);
    need_event(device, RUN_LOG, spawned(task, birth.pid));
  }
  Device device;
  Task task;
  pid_t daemon = 0, dead = 0;
};

}  // namespace

TEST_F(MarkerAndForks, MarkerThatComesLaterSilencesNothing) {
  begin();
  need_event(device, RESTART_LOG, self_checking(task, dead, 9));
  device.write(MARKER, "");
  end();
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid), 1, PROMPT_MS);
}

TEST_F(MarkerAndForks, MarkerThatGoesMeanwhileStillSilences) {
  Task bystander = start_task(device, "bystander", {.registered = false});
  need_carried_out(device, registration(bystander));
  device.write(MARKER, "");
  begin();
  ASSERT_TRUE(device.remove(MARKER));
  end();
  pass_events(device, bystander);
  EXPECT_EQ(count_texts(device, RESTART_LOG, task.shown + "/"), 0U) << "half of it was told";
}

TEST_F(MarkerAndForks, MarkerIsForOneRestart) {
  Task other = start_task(device, "other", {.registered = false});
  need_carried_out(device, registration(other));
  device.write(MARKER, "");
  begin();
  end();
  ASSERT_TRUE(wait_until([&] { return !device.exists(MARKER); }, STORY_LIMIT_MS));
  const pid_t second = other.pid;
  kill_and_return(device, other);
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(other, second, 9)), 1U);
  EXPECT_EQ(count_texts(device, RESTART_LOG, task.shown + "/"), 0U);
}

// ---- the journal ------------------------------------------------------------------------------

namespace {

// Journal lines without time and empty lines.
std::vector<std::string> journal(const Device &device, const std::string &file) {
  std::vector<std::string> texts;
  for (const std::string &line : device.lines(file))
    if (const size_t begin = line.find("%HA-5-"); begin != std::string::npos)
      texts.push_back(line.substr(begin));
  return texts;
}

struct Pair {
  std::string before;
  std::string after;
};

// The pair of a first restart: in the first file the line before is bracketed, in the second the
// one after it.
Pair in_first_file(const Task &task, pid_t dead) {
  return {"%HA-5-HA_RESTART: Process:[" + named(task, dead) +
              "] receives internal event:[0x0009] and restarts.",
          "%HA-5-HA_RESTART_INFO: Process:" + task.shown + " restarts 1 times and new process is " +
              named(task, task.pid) + "."};
}

Pair in_second_file(const Task &task, pid_t dead) {
  return {"%HA-5-HA_RESTART: Process:" + named(task, dead) +
              " receives internal event: 0009 and restarts.",
          "%HA-5-HA_RESTART_INFO: Process:[" + task.shown +
              "] restarts [1] times and new process is [" + named(task, task.pid) + "]."};
}

// Two restarts that overlap: both are announced before either is made.
class Overlapping : public testing::Test {
 protected:
  void start() {
    device.write("/etc/debug_log", "");
    first = start_task(device, "first");
    second = start_task(device, "second");
    daemon = device.start_ready_daemon({.faketime = pause_clock()});
  }
  // Lets four restarts pass, so that the next one is the fifth.
  void use_four_slots() {
    Task earlier = start_task(device, "earlier", {.registered = false});
    need_carried_out(device, registration(earlier));
    for (size_t i = 1; i <= 4; i++) {
      kill_and_return(device, earlier);
      ASSERT_TRUE(
          wait_until([&] { return journal(device, JOURNAL_1).size() == 2 * i; }, STORY_LIMIT_MS));
    }
  }
  // Makes both.
  void overlap() {
    if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
    first_dead = first.pid;
    second_dead = second.pid;
    device.kill(first_dead, SIGKILL);
    need_event(device, RUN_LOG, "fork fail");
    device.kill(second_dead, SIGKILL);
    EXPECT_TRUE(device.wait_event(RESTART_LOG, self_checking(second, second_dead, 9), PROMPT_MS))
        << "they do not overlap";
    EXPECT_FALSE(is_back(device, first));
    ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
    for (Task *task : {&first, &second}) {
      next_birth(device, *task);
      need_event(device, RESTART_LOG, self_check_ok(*task, 1, task->pid));
    }
  }

  Device device;
  Task first, second;
  pid_t daemon = 0, first_dead = 0, second_dead = 0;
};

}  // namespace

TEST_F(Overlapping, RestartsHaveAPairOfJournalLinesEach) {
  start();
  overlap();
  if (IsSkipped()) return;
  const Pair one = in_first_file(first, first_dead), two = in_first_file(second, second_dead);
  ASSERT_TRUE(wait_until([&] { return journal(device, JOURNAL_1).size() >= 4; }, STORY_LIMIT_MS));
  EXPECT_THAT(journal(device, JOURNAL_1),
              testing::UnorderedElementsAre(one.before, two.before, one.after, two.after));
}

// Slot five is the last one of the first file, slot six the first one of the second. The end of the
// fifth restart begins the second file anew, whatever stands in it by then.
TEST_F(Overlapping, RestartsOnEitherSideOfARotationKeepTheirFiles) {
  start();
  use_four_slots();
  overlap();
  if (IsSkipped()) return;
  const Pair one = in_first_file(first, first_dead), two = in_second_file(second, second_dead);
  ASSERT_TRUE(wait_until(
      [&] {
        const auto lines = journal(device, JOURNAL_2);
        return !lines.empty() && lines.back() == two.after;
      },
      STORY_LIMIT_MS))
      << device.read(JOURNAL_1) << "---\n"
      << device.read(JOURNAL_2);
  const auto lines = journal(device, JOURNAL_1);
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[8], one.before);
  EXPECT_EQ(lines[9], one.after);
}
