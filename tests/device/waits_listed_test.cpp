// Listed programs whose process is searched for after their start: what comes of the search, and
// what happens to program and child while it lasts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

class Search : public testing::Test {
 protected:
  // Twice as fast as the daemon's own clock, so that a search takes less than three seconds.
  static std::string clock() { return "+0 x" + std::to_string(2.0 / patience()); }

  void SetUp() override {
    bystander = start_task(device, "bystander");
    device.start_ready_daemon({.faketime = clock()});
    searched.start();
    witness.start();
  }
  // Both are searched for; the witness's search ends after the other one.
  void begin() {
    searched.kill_into_search();
    witness.kill_into_search();
    EXPECT_EQ(device.count_events(ERROR_LOG, searched.missed()), 0U)
        << "one search came after the other";
  }
  void end() {
    need_event(device, ERROR_LOG, witness.missed());
    pass_events(device, bystander);
  }
  std::vector<pid_t> copies() const {
    std::vector<pid_t> pids;
    for (const auto &process : device.processes())
      if (process.command == task().command) pids.push_back(process.pid);
    return pids;
  }
  // Exactly one process is in charge: killed, it is started once. (The search finds it, since the
  // program is in its place.)
  void expect_supervised_once(pid_t pid) {
    EXPECT_THAT(copies(), testing::ElementsAre(pid));
    device.kill(pid, SIGKILL);
    const Birth birth = next_birth(device, searched.task);
    need_event(device, RESTART_LOG, "new id " + named(task(), birth.pid));
    pass_events(device, bystander);
    EXPECT_EQ(device.births(task().name).size(), task().births) << "started twice";
    EXPECT_THAT(copies(), testing::ElementsAre(birth.pid));
  }
  const Task &task() const { return searched.task; }
  size_t announced_back() const {
    return device.count_events(RESTART_LOG, "new id " + task().shown);
  }

  Device device;
  Task bystander;
  SearchedProgram searched{device, "searched"}, witness{device, "witness"};
};

TEST_F(Search, EndsWhenTheChildBecomesTheProgram) {
  begin();
  searched.restore();
  searched.let_script_become_it();
  next_birth(device, searched.task);
  EXPECT_EQ(task().pid, searched.script);
  need_event(device, RUN_LOG, searched.found_as_child(task().pid));
  need_event(device, RESTART_LOG, self_check_ok(task(), 1, task().pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, self_checking(task(), searched.dead, 9)), 1U);
  end();
  EXPECT_EQ(device.count_events(ERROR_LOG, searched.missed()), 0U);
  EXPECT_EQ(announced_back(), 1U);
  expect_supervised_once(task().pid);
}

TEST_F(Search, FindsTheProgramThatAnOperatorStartedMeanwhile) {
  begin();
  searched.restore();
  device.spawn({task().program});
  next_birth(device, searched.task);
  need_event(device, RUN_LOG, searched.found_elsewhere(task().pid));
  need_event(device, RESTART_LOG, self_check_ok(task(), 1, task().pid));
  // What the daemon started is nobody's any more.
  searched.let_script_fail();
  end();
  EXPECT_EQ(device.births(task().name).size(), task().births);
  EXPECT_EQ(announced_back(), 1U);
  expect_supervised_once(task().pid);
}

// Its execution is heard while the record still searches, and is no reason for a second record.
TEST_F(Search, ProgramExecutedMeanwhileIsRegisteredOnce) {
  begin();
  searched.restore();
  searched.let_script_become_it();
  next_birth(device, searched.task);
  need_event(device, RESTART_LOG, "new id " + named(task(), task().pid));
  end();
  EXPECT_TRUE(was_registered(device, task().pid));
  device.kill(task().pid, SIGKILL);
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task().name).size(), task().births) << "a second record is left";
}

TEST_F(Search, OfAWithdrawnTaskEndsAndNothingIsSaid) {
  begin();
  EXPECT_TRUE(is_carried_out(device, withdrawal(searched.dead), PROMPT_MS))
      << "the withdrawal waits";
  EXPECT_EQ(device.count_events(REGISTER_LOG, withdrawn(task(), searched.dead)), 1U);
  searched.let_script_fail();
  end();
  EXPECT_EQ(device.count_events(RUN_LOG, "third part Normal[" + task().program), 0U);
  EXPECT_EQ(device.count_events(RUN_LOG, "third part Daemon[" + task().program), 0U);
  EXPECT_EQ(announced_back(), 0U);
  EXPECT_EQ(device.births(task().name).size(), 1U);
  EXPECT_FALSE(was_registered(device, searched.dead));
  EXPECT_FALSE(was_registered(device, searched.script));
}

// The child fails while its program is searched for: that is an exit of the task, answered when the
// search has ended, and not minutes later by a sweep.
TEST_F(Search, ChildThatFailsMeanwhileIsAnsweredAtItsEnd) {
  begin();
  searched.restore();  // for the next start
  searched.let_script_fail();
  const Birth birth = next_birth(device, searched.task);
  EXPECT_EQ(birth.ppid, device.daemon_pid());
  need_event(device, RESTART_LOG, "new id " + named(task(), birth.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, "receives event:0300"), 1U);
  end();
  EXPECT_EQ(device.births(task().name).size(), task().births);
  expect_supervised_once(task().pid);
}

// The id of the process that ended belongs to whoever gets it.
TEST_F(Search, StrangerWithTheOldIdIsLeftAlone) {
  begin();
  ASSERT_TRUE(device.wait(searched.dead, STORY_LIMIT_MS));
  Task stranger = install_task(device, "stranger_search", {});
  try {
    device.spawn({stranger.program}, {.id = searched.dead});
  } catch (const std::runtime_error &) {
    GTEST_SKIP() << "another process got the id";
  }
  next_birth(device, stranger);
  searched.restore();
  searched.let_script_become_it();
  next_birth(device, searched.task);
  need_event(device, RESTART_LOG, self_check_ok(task(), 1, task().pid));
  device.kill(stranger.pid, SIGTERM);
  end();
  EXPECT_EQ(device.births(stranger.name).size(), 1U);
  EXPECT_EQ(device.count_events(RUN_LOG, "killed by signal 15"), 0U);
  expect_supervised_once(task().pid);
}

}  // namespace
