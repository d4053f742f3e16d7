// The restart journal, which is kept in two files of five restarts each while an operator asks for
// it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

static constexpr char JOURNAL_1[] = "/tmp/tov/tov.log1";
static constexpr char JOURNAL_2[] = "/tmp/tov/tov.log2";
static constexpr size_t RESTARTS_A_PROGRAM = 4;  // a fifth would suspend it

// Lines without the time in front of them. Every text brings a line end of its own, so an empty
// line follows each.
static std::vector<std::string> journal(const Device &device, const std::string &file) {
  static constexpr size_t TIME_CHARS = 25;  // "Sun Nov 15 10:25:41 2026 "
  std::vector<std::string> texts;
  bool text_expected = true;
  for (const std::string &line : device.lines(file)) {
    if (text_expected) {
      EXPECT_THAT(line, MatchesRegex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} "
                                     "[0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4} %HA-5-.*"));
      texts.push_back(line.substr(std::min(TIME_CHARS, line.size())));
    } else {
      EXPECT_EQ(line, "");
    }
    text_expected = !text_expected;
  }
  EXPECT_TRUE(text_expected) << "no empty line at the end of " << file;
  return texts;
}

// The two lines of a restart: with brackets and without, by the file they go to.
struct Forms {
  std::string before;
  std::string after;
};

struct Done {
  pid_t dead;
  pid_t fresh;
  int count;
};

static Forms bracketed(const std::string &word, const Task &task, const Done &done) {
  const std::string fresh = task.shown + "/" + std::to_string(done.fresh);
  return {"%HA-5-HA_" + word + ": Process:[" + named(task, done.dead) +
              "] receives internal event:[0x0009] and restarts.",
          "%HA-5-HA_" + word + "_INFO: Process:[" + task.shown + "] restarts [" +
              std::to_string(done.count) + "] times and new process is [" + fresh + "]."};
}

static Forms plain(const Task &task, const Done &done) {
  return {"%HA-5-HA_RESTART: Process:" + named(task, done.dead) +
              " receives internal event: 0009 and restarts.",
          "%HA-5-HA_RESTART_INFO: Process:" + task.shown + " restarts " +
              std::to_string(done.count) + " times and new process is " + named(task, done.fresh) +
              "."};
}

// Restarts a number of programs in turn, each as often as a burst allows.
class Restarts {
 public:
  Restarts(Device &device, std::vector<Task> tasks) : device_(device), tasks_(std::move(tasks)) {}

  const Task &task() const { return tasks_[made_ / RESTARTS_A_PROGRAM]; }

  // Makes the next one and waits for its journal line, if one is expected.
  Done make(const std::string &file) {
    Task &current = tasks_[made_ / RESTARTS_A_PROGRAM];
    Done done{current.pid, 0, static_cast<int>(made_ % RESTARTS_A_PROGRAM) + 1};
    done.fresh = kill_and_return(device_, current).pid;
    made_++;
    // The event log comes before the journal.
    wait_until(
        [&] {
          return device_.read(file).ends_with(std::to_string(done.fresh) + ".\n\n") ||
                 device_.read(file).ends_with(std::to_string(done.fresh) + "].\n\n");
        },
        STORY_LIMIT_MS);
    return done;
  }

 private:
  Device &device_;
  std::vector<Task> tasks_;
  size_t made_ = 0;
};

TEST(Journal, AlternatesBetweenTwoFilesEveryFiveRestarts) {
  Device device;
  device.write("/etc/debug_log", "");
  device.write(JOURNAL_2, "from long ago\n");
  Restarts restarts(
      device, {start_task(device, "j_a"), start_task(device, "j_b"), start_task(device, "j_c")});
  device.start_ready_daemon();

  std::vector<std::string> expected;
  for (int i = 1; i <= 5; i++) {
    EXPECT_TRUE(device.exists(JOURNAL_2)) << "removed before the fifth restart";
    const Task task = restarts.task();
    const Done done = restarts.make(JOURNAL_1);
    // Brackets before the restart, none after it.
    expected.push_back(bracketed("RESTART", task, done).before);
    expected.push_back(plain(task, done).after);
    EXPECT_THAT(journal(device, JOURNAL_1), ElementsAreArray(expected));
  }
  EXPECT_TRUE(wait_until([&] { return !device.exists(JOURNAL_2); }, STORY_LIMIT_MS));

  std::vector<std::string> second;
  for (int i = 6; i <= 10; i++) {
    EXPECT_TRUE(device.exists(JOURNAL_1)) << "removed before the tenth restart";
    const Task task = restarts.task();
    const Done done = restarts.make(JOURNAL_2);
    // The other way round.
    second.push_back(plain(task, done).before);
    second.push_back(bracketed("RESTART", task, done).after);
    EXPECT_THAT(journal(device, JOURNAL_2), ElementsAreArray(second));
  }
  EXPECT_TRUE(wait_until([&] { return !device.exists(JOURNAL_1); }, STORY_LIMIT_MS));

  const Task task = restarts.task();
  const Done done = restarts.make(JOURNAL_1);
  EXPECT_THAT(journal(device, JOURNAL_1),
              ElementsAreArray({bracketed("RESTART", task, done).before, plain(task, done).after}));
  EXPECT_THAT(journal(device, JOURNAL_2), ElementsAreArray(second));
}

TEST(Journal, OfScriptRestartsHasBracketsInBothFiles) {
  Device device;
  device.write("/etc/debug_log", "");
  std::vector<Task> tasks;
  for (const char *prefix : {"js_a", "js_b"}) {
    tasks.push_back(start_task(device, prefix, {.action = SHELL_RESTART}));
    device.install_start_script(tasks.back().name, "exec " + tasks.back().program + "\n");
  }
  Restarts restarts(device, std::move(tasks));
  device.start_ready_daemon();
  std::vector<std::string> expected;
  for (int i = 1; i <= 6; i++) {
    if (i == 6) expected.clear();
    const Task task = restarts.task();
    const Done done = restarts.make(i == 6 ? JOURNAL_2 : JOURNAL_1);
    const Forms forms = bracketed("SCRIPT_RESTART", task, done);
    expected.insert(expected.end(), {forms.before, forms.after});
    EXPECT_THAT(journal(device, i == 6 ? JOURNAL_2 : JOURNAL_1), ElementsAreArray(expected));
  }
}

TEST(Journal, IsKeptOnlyWhileItIsAskedFor) {
  Device device;
  Task task = start_task(device, "unasked");
  device.start_ready_daemon();
  kill_and_return(device, task);
  device.write("/etc/debug_log", "");
  const Done done{task.pid, kill_and_return(device, task).pid, 2};
  EXPECT_TRUE(wait_until([&] { return device.lines(JOURNAL_1).size() == 4; }, STORY_LIMIT_MS));
  EXPECT_THAT(journal(device, JOURNAL_1),
              ElementsAreArray({bracketed("RESTART", task, done).before, plain(task, done).after}));
  device.remove("/etc/debug_log");
  kill_and_return(device, task);
  kill_and_return(device, task);  // the one before has passed
  EXPECT_THAT(device.lines(JOURNAL_1), SizeIs(4));
}

TEST(Journal, OfASilentRestartIsSilentToo) {
  Device device;
  device.write("/etc/debug_log", "");
  device.write("/etc/dev_mon", "");
  Task task = start_task(device, "silent_journal");
  device.start_ready_daemon();
  device.kill(task.pid, SIGKILL);
  next_birth(device, task);
  ASSERT_TRUE(wait_until([&] { return !device.exists("/etc/dev_mon"); }, STORY_LIMIT_MS));
  EXPECT_THAT(device.read(JOURNAL_1), IsEmpty());
}

TEST(Journal, ThatCannotBeWrittenHoldsTheRestartBack) {
  Device device;
  device.write("/etc/debug_log", "");
  device.mkdir(JOURNAL_1);
  Task task = start_task(device, "held_back", {.words = {"lock=2"}, .registered = false});
  Task bystander = start_task(device, "bystander_journal");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const pid_t dead = task.pid;
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, self_checking(task, dead, 9));
  // The announcement comes before the look at the marker.
  ASSERT_TRUE(device.wait_output("fail to openlog: Is a directory"));
  device.remove("/etc/debug_log");
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_TRUE(device.exists(task.file));
}
