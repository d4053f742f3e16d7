// What happens to a task while its restart waits: it is registered again, withdrawn, its id goes to
// a stranger. When the wait ends the rules are asked again, and nobody is started in vain.
//
// A second task, the witness, begins the same wait after the first one: when it comes back the
// first one's wait has been decided about.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include "include/tov_wire.h"
#include "tests/device/lock_holder.h"
#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

enum class Wait { TIME, FILE, FORKS };

struct Row {
  Wait wait;
  const char *label;
};

// Names the case; without it the test's name would show its bytes.
void PrintTo(const Row &row, std::ostream *out) {
  *out << row.label;
}

class Meanwhile : public testing::TestWithParam<Row> {
 protected:
  static constexpr int WAIT_S = 1;

  // A daemon, the task, the witness, and a bystander that does not wait.
  void SetUp() override {
    DaemonOptions options{.env = with_diagnostics(device)};
    if (is(Wait::FORKS)) options.faketime = pause_clock();
    const std::string label = GetParam().label;
    bystander = start_task(device, "bystander_" + label);
    if (!is(Wait::TIME)) {
      task = start_task(device, "waits_" + label);
      witness = start_task(device, "witness_" + label);
    }
    if (is(Wait::FILE)) {
      task_file = std::make_unique<LockHolder>(device, task.file);
      witness_file = std::make_unique<LockHolder>(device, witness.file);
    }
    daemon = device.start_ready_daemon(options);
    if (is(Wait::TIME)) {
      task = start_delayed(device, "waits_" + label, WAIT_S * patience());
      witness = start_delayed(device, "witness_" + label, WAIT_S * patience());
    }
    if (is(Wait::FORKS) && !device.limit_processes(daemon, 1))
      GTEST_SKIP() << "no version-1 pids controller";
  }
  static bool is(Wait wait) { return GetParam().wait == wait; }

  // Ends the task, and returns when it waits.
  void begin() {
    dead = task.pid;
    device.kill(dead, SIGKILL);
    switch (GetParam().wait) {
      case Wait::TIME:
        need_answered(device, task, dead);
        break;
      case Wait::FILE:
        ASSERT_TRUE(device.wait_output("be lock file " + task.file + ", "));
        break;
      case Wait::FORKS:
        need_event(device, RUN_LOG, "fork fail");
        ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
        break;
    }
    device.kill(witness.pid, SIGKILL);
  }
  // Lets the wait end, and returns when it is over for everybody.
  void end() {
    EXPECT_FALSE(is_back(device, witness)) << "the wait is over too early for this story";
    task_file.reset();
    witness_file.reset();
    next_birth(device, witness);
    if (is(Wait::FILE)) hand_back_once_more();
    pass_events(device, bystander);
  }
  // One exit is handed back at a time: of two that are due the witness may be the first.
  void hand_back_once_more() {
    Task next = start_task(device, "next_witness", {.registered = false});
    next.file = device.register_file(0, next.pid, RESPAWN, next.command);
    need_carried_out(device, registration(next));
    LockHolder holder(device, next.file);
    device.kill(next.pid, SIGKILL);
    ASSERT_TRUE(device.wait_output("be lock file " + next.file + ", "));
    holder.end();
    next_birth(device, next);
  }
  // Gives the id of the dead process to another program.
  std::optional<Task> start_stranger() {
    if (!device.wait(dead, STORY_LIMIT_MS)) throw std::runtime_error("not dead");
    Task stranger = install_task(device, std::string("stranger_") + GetParam().label, {});
    try {
      device.spawn({stranger.program}, {.id = dead});
    } catch (const std::runtime_error &) {
      return std::nullopt;  // another process got it
    }
    next_birth(device, stranger);
    return stranger;
  }
  void expect_back_once() {
    const Birth birth = next_birth(device, task);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, birth.pid));
    EXPECT_EQ(device.births(task.name).size(), task.births);
    EXPECT_EQ(count_texts(device, RESTART_LOG, named(task, dead)), 1U) << "announced twice";
    EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task, dead, 9)), 1U);
    EXPECT_EQ(device.count_events(RUN_LOG, "killed by signal 15"), 0U);
  }

  Device device;
  Task task, witness, bystander;
  std::unique_ptr<LockHolder> task_file, witness_file;
  pid_t daemon = 0;
  pid_t dead = 0;
};

TEST_P(Meanwhile, RegisteredByAnotherProcessItIsNotStartedTwice) {
  begin();
  Task again = start_instance(device, task, {.registered = false});
  need_carried_out(device, registration(again));
  need_event(device, REGISTER_LOG, entered(again));
  end();
  EXPECT_EQ(device.births(task.name).size(), 2U) << "a second copy was started";
  EXPECT_TRUE(device.lives(again.pid));
  kill_and_return(device, again);
  EXPECT_EQ(device.births(task.name).size(), 3U);
  EXPECT_FALSE(was_registered(device, dead)) << "the old record is still there";
}

TEST_P(Meanwhile, WithdrawnItIsNotStarted) {
  begin();
  EXPECT_TRUE(is_carried_out(device, withdrawal(dead), PROMPT_MS)) << "the withdrawal waits";
  EXPECT_EQ(device.count_events(REGISTER_LOG, withdrawn(task, dead)), 1U);
  EXPECT_FALSE(is_back(device, task));
  end();
  EXPECT_EQ(device.births(task.name).size(), 1U) << "it was started all the same";
  EXPECT_EQ(device.count_events(RESTART_LOG, "new id " + task.shown), 0U);
  EXPECT_EQ(device.count_events(RESTART_LOG, named(task, dead)), is(Wait::FORKS) ? 1U : 0U);
}

TEST_P(Meanwhile, WithdrawnAndRegisteredAgainItIsStartedOnceWhenTheNewProcessEnds) {
  begin();
  EXPECT_TRUE(is_carried_out(device, withdrawal(dead), PROMPT_MS)) << "the withdrawal waits";
  Task again = start_instance(device, task, {.registered = false});
  need_carried_out(device, registration(again));
  end();
  EXPECT_EQ(device.births(task.name).size(), 2U);
  kill_and_return(device, again);
  EXPECT_EQ(device.births(task.name).size(), 3U);
}

class MeanwhileAStranger : public Meanwhile {};

TEST_P(MeanwhileAStranger, WithItsIdIsLeftAlone) {
  begin();
  const auto stranger = start_stranger();
  if (!stranger) GTEST_SKIP() << "another process got the id";
  end();
  expect_back_once();
  EXPECT_TRUE(device.lives(stranger->pid));
  EXPECT_EQ(device.births(stranger->name).size(), 1U);
}

// Signal 15 would be a deliberate stop of the task, were it its own process.
TEST_P(MeanwhileAStranger, WithItsIdEndsAndTheTaskComesBack) {
  begin();
  const auto stranger = start_stranger();
  if (!stranger) GTEST_SKIP() << "another process got the id";
  device.kill(dead, SIGTERM);
  end();
  expect_back_once();
  EXPECT_EQ(device.births(stranger->name).size(), 1U);
}

std::string label_of(const testing::TestParamInfo<Row> &row) {
  return row.param.label;
}

INSTANTIATE_TEST_SUITE_P(Waits, Meanwhile,
                         testing::Values(Row{Wait::TIME, "Time"}, Row{Wait::FILE, "File"},
                                         Row{Wait::FORKS, "Forks"}),
                         label_of);
INSTANTIATE_TEST_SUITE_P(Waits, MeanwhileAStranger,
                         testing::Values(Row{Wait::TIME, "Time"}, Row{Wait::FILE, "File"},
                                         Row{Wait::FORKS, "Forks"}),
                         label_of);

}  // namespace
