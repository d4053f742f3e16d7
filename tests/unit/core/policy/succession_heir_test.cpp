// Listed programs that somebody executes by hand beside a record of them: one that is suspended has
// that process from then on, one that runs gets it when it is stopped on purpose.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <string>

#include "core/events/handler.h"
#include "core/policy/revive.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "proc/selfcheck/tov_signals.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/succession.h"
#include "tests/unit/waiting.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::DEVICE_1;
using tov_test::kernel;
using tov_test::LIST;
using tov_test::LISTED;
using tov_test::platform;
using tov_test::US_PER_S;

namespace {

class TovSuccessionHeir : public tov_test::Succession {
 protected:
  enum { SELF_CHECK_S = 300, LONG_AGO_S = 10 };

  // A record whose program was killed too often.
  static tov_pid_t *suspended(int vsd_id = 0) {
    tov_pid_t *record = supervised(words(), vsd_id);
    begin_burst(record);
    kernel().end(record->pid);
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGKILL, 0);
    tov_record_suspend(held, record, kernel().now_us() / US_PER_S);
    return record;
  }
  // A program is executed, and that is heard.
  static pid_t executed(const words_t &words, const std::string &groups = "") {
    const pid_t pid = starts(words, groups);
    tov_cn_msg_exec(pid, 0);
    return pid;
  }
  static pid_t executed() { return executed(words()); }
  // Its process forks one that executes the program, and that is heard.
  static pid_t executing_worker_of(const tov_pid_t *record) {
    const pid_t pid = copy_of(record->pid);
    kernel().process(pid).parent = record->pid;
    kernel().exec(pid, words());
    tov_cn_msg_exec(pid, 0);
    return pid;
  }
  // The alarm rings when the suspension is over.
  void alarm_rings() {
    kernel().pass((SELF_CHECK_S + 2) * US_PER_S);
    tov_alrm_handler(SIGALRM);
    run();
  }
  // What the alarm asks for.
  void suspension_ends(tov_pid_t *record) {
    {
      const tov_chains_guard_t held(tov_chains);
      tov_record_resume(held, record);
      tov_revive(held, record, TOV_REVIVE_AFTER_SUSPENSION);
    }
    run();
  }
  // It is stopped on purpose, and goes without an heir.
  void expect_stopped(const tov_pid_t *record) {
    ends(record, SIGTERM);
    EXPECT_EQ(count(), 0);
    EXPECT_THAT(files(), IsEmpty());
    run(LONG_AGO_S * US_PER_S);
    EXPECT_EQ(forks(), 0u);
  }
  static std::string registration_of(pid_t pid) {
    return "register - process:/opt/daemon -d pid:" + std::to_string(pid) + ", vsd_id:0, action:2";
  }
};

}  // namespace

// ---- suspended programs ---------------------------------------------------------------------

TEST_F(TovSuccessionHeir, SuspendedProgramThatIsExecutedHasThatProcess) {
  tov_pid_t *record = suspended();
  const pid_t pid = executed();
  EXPECT_FALSE(tov_record_is_suspended(*record));
  expect_found(record, pid);
  EXPECT_THAT(platform().registered, IsEmpty()) << "the record goes on";
  EXPECT_THAT(platform().events[TOV_LOG_REG_RESTART], Contains(registration_of(pid)));
}

TEST_F(TovSuccessionHeir, SuspendedProgramThatIsExecutedIsNotStartedByTheAlarm) {
  tov_pid_t *record = suspended();
  const pid_t pid = executed();
  alarm_rings();
  expect_found(record, pid);
}

TEST_F(TovSuccessionHeir, SuspendedProgramThatIsExecutedBeginsNoBurst) {
  tov_pid_t *record = suspended();
  (void)executed();
  EXPECT_EQ(record->count, 0);
  EXPECT_EQ(record->first_tm, 0);
}

TEST_F(TovSuccessionHeir, EndOfWhatWasExecutedIsAnsweredLikeAnyOther) {
  tov_pid_t *record = suspended();
  const pid_t pid = executed();
  ASSERT_EQ(record->pid, pid);
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionHeir, SuspendedProgramThatWasExecutedUnheardIsFoundByTheLook) {
  tov_pid_t *record = suspended();
  const pid_t pid = starts(words());
  suspension_ends(record);
  expect_found(record, pid);
}

TEST_F(TovSuccessionHeir, SuspendedProgramThatWasExecutedUnheardIsFoundBehindTheAlarm) {
  tov_pid_t *record = suspended();
  const pid_t pid = starts(words());
  alarm_rings();
  EXPECT_FALSE(tov_record_is_suspended(*record));
  expect_found(record, pid);
}

TEST_F(TovSuccessionHeir, SuspendedProgramThatDoesNotRunIsStarted) {
  tov_pid_t *record = suspended();
  (void)starts({LISTED});
  (void)starts(words(), DEVICE_1);
  suspension_ends(record);
  expect_started(record);
}

TEST_F(TovSuccessionHeir, WorkersOfTheDeadAreLeftBehindAtTheEndOfTheSuspension) {
  tov_pid_t *record = supervised();
  (void)copy_of(record->pid);
  kernel().end(record->pid);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGKILL, 0);
    tov_record_suspend(held, record, kernel().now_us() / US_PER_S);
  }
  suspension_ends(record);
  expect_started(record);
}

TEST_F(TovSuccessionHeir, ProgramOfAnotherDeviceIsNoHeir) {
  tov_pid_t *record = suspended();
  const pid_t dead = record->pid;
  const pid_t pid = executed(words(), DEVICE_1);
  EXPECT_TRUE(tov_record_is_suspended(*record));
  EXPECT_EQ(record->pid, dead);
  EXPECT_THAT(platform().registered, ElementsAre(std::to_string(pid) + " TOV_RESTART\n"));
}

TEST_F(TovSuccessionHeir, ProgramOfTheSameDeviceIs) {
  tov_pid_t *record = suspended(1);
  const pid_t pid = executed(words(), DEVICE_1);
  expect_has(record, pid, 1);
}

// ---- programs that run ----------------------------------------------------------------------

TEST_F(TovSuccessionHeir, ProgramThatRunsKeepsItsProcess) {
  const tov_pid_t *record = supervised();
  const pid_t pid = record->pid;
  const pid_t heir = executed();
  expect_found(record, pid);
  EXPECT_EQ(record->heir, heir);
  EXPECT_THAT(platform().registered, IsEmpty());
}

// As an upgrade does it: first the new one is started, then the old one stopped.
TEST_F(TovSuccessionHeir, ProgramThatIsStoppedOnPurposeGoesOnWithItsHeir) {
  tov_pid_t *record = supervised();
  begin_burst(record);
  const pid_t heir = executed();
  ends(record, SIGTERM);
  ASSERT_EQ(count(), 1);
  expect_found(record, heir);
  EXPECT_EQ(record->heir, 0);
  EXPECT_EQ(record->count, 0);
  EXPECT_THAT(platform().events[TOV_LOG_REG_RESTART], Contains(registration_of(heir)));
}

TEST_F(TovSuccessionHeir, LastOfTwoHeirsIsTaken) {
  const tov_pid_t *record = supervised();
  kernel().end(executed());
  const pid_t heir = executed();
  ends(record, SIGTERM);
  expect_found(record, heir);
}

// Whoever comes later may end at once, since it finds its port taken.
TEST_F(TovSuccessionHeir, FirstOfTwoHeirsThatLiveIsTaken) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  kernel().end(executed());
  ends(record, SIGTERM);
  expect_found(record, heir);
}

TEST_F(TovSuccessionHeir, WorkerDoesNotTakeThePlaceOfAnHeir) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  (void)executing_worker_of(record);
  ends(record, SIGTERM);
  expect_found(record, heir);
}

TEST_F(TovSuccessionHeir, HeirThatIsStoppedOnPurposeHasNoneItself) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  ends(record, SIGTERM);
  ASSERT_EQ(record->pid, heir);
  expect_stopped(record);
}

// An upgrade by the program itself.
TEST_F(TovSuccessionHeir, StoppedProgramGoesOnWithTheSuccessorThatItHasForked) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executing_worker_of(record);
  kernel().process(heir).session = heir;
  ends(record, SIGTERM);
  expect_found(record, heir);
}

TEST_F(TovSuccessionHeir, WorkerOfADeviceThatHasGivenUpItsGroupsIsNoProgramOfItsOwn) {
  const tov_pid_t *record = supervised(words(), 1);
  const pid_t worker = copy_of(record->pid);
  kernel().process(worker).groups = "";
  tov_cn_msg_exec(worker, 0);
  EXPECT_THAT(platform().registered, IsEmpty());
}

TEST_F(TovSuccessionHeir, KilledProgramGoesOnWithItsHeirToo) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, heir);
}

// Its execution was heard, so its title does not matter.
TEST_F(TovSuccessionHeir, KilledProgramGoesOnWithAnHeirThatHasATitle) {
  tov_pid_t *record = supervised();
  begin_burst(record);
  const pid_t heir = executed();
  kernel().set_title(heir, title());
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, heir);
  EXPECT_EQ(record->count, 0);
}

TEST_F(TovSuccessionHeir, KilledProgramIsStartedWhereItsHeirHasEnded) {
  const tov_pid_t *record = supervised();
  kernel().end(executed());
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionHeir, ProgramThatIsStoppedOnPurposeWithoutAnHeirIsDropped) {
  expect_stopped(supervised());
}

TEST_F(TovSuccessionHeir, HeirThatHasEndedDoesNotCount) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  kernel().end(heir);
  expect_stopped(record);
}

TEST_F(TovSuccessionHeir, ProcessThatWasGivenTheHeirsIdDoesNotCount) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  kernel().end(heir);
  (void)kernel().start_as(heir, words());
  expect_stopped(record);
}

TEST_F(TovSuccessionHeir, HeirThatHasARecordOfItsOwnByThenDoesNotCount) {
  const tov_pid_t *record = supervised();
  const pid_t heir = executed();
  (void)add(heir, "/opt/other");
  ends(record, SIGTERM);
  EXPECT_EQ(count(), 1);
  EXPECT_STREQ(find(heir)->process, "/opt/other");
}

TEST_F(TovSuccessionHeir, WorkerOfItsOwnProcessIsNoHeir) {
  const tov_pid_t *record = supervised();
  const pid_t worker = copy_of(record->pid);
  tov_cn_msg_exec(worker, 0);  // by a walk that has found it
  EXPECT_EQ(record->heir, 0);
  expect_stopped(record);
  EXPECT_TRUE(kernel().has(worker));
}

TEST_F(TovSuccessionHeir, WorkerOfASuspendedOnesProcessIsNoHeir) {
  tov_pid_t *record = supervised();
  const pid_t dead = record->pid;
  const pid_t worker = copy_of(dead);
  kernel().end(dead);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGKILL, 0);
    tov_record_suspend(held, record, kernel().now_us() / US_PER_S);
  }
  tov_cn_msg_exec(worker, 0);
  EXPECT_TRUE(tov_record_is_suspended(*record));
  EXPECT_EQ(record->pid, dead);
}

// A worker that executes the program, or an upgraded one, is a new program, and goes on with the
// burst of the one that has died: it may be all that a crashing one leaves.
TEST_F(TovSuccessionHeir, WorkerThatExecutesTheProgramIsAnHeir) {
  tov_pid_t *record = supervised();
  begin_burst(record);
  const pid_t pid = executing_worker_of(record);
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, pid);
  EXPECT_EQ(record->count, 1);
}

// It is stopped with its program, a moment later.
TEST_F(TovSuccessionHeir, WorkerThatExecutesTheProgramIsNoneWhenThatIsStoppedOnPurpose) {
  const tov_pid_t *record = supervised();
  (void)executing_worker_of(record);
  expect_stopped(record);
}

// ---- during a search ----------------------------------------------------------------------------

TEST_F(TovSuccessionHeir, ProgramThatIsExecutedDuringTheSearchIsTakenWhenTheChildFails) {
  const tov_pid_t *record = supervised();
  is_started_anew(record);
  const pid_t heir = executed();
  kernel().set_title(heir, title());
  child_ends(tov_test::EXITED_WITH_1);
  first_scan();
  expect_has(record, heir);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovSuccessionHeir, ProgramThatIsExecutedDuringTheSearchIsTakenWhenThatHasFoundNobody) {
  const tov_pid_t *record = supervised();
  is_started_anew(record);
  const pid_t heir = executed();
  kernel().set_title(heir, title());
  child_ends();
  run(LONG_AGO_S * US_PER_S);
  expect_has(record, heir);
  EXPECT_EQ(forks(), 1u);
}

// ---- registrations that come too late -----------------------------------------------------------

// What an upgraded program has forked are its workers, although the record is older.
TEST_F(TovSuccessionHeir, WorkerIsKnownAfterItsProgramHasExecutedAnew) {
  const tov_pid_t *record = supervised();
  const pid_t pid = record->pid;
  kernel().replace_binary(LISTED);
  kernel().exec(pid, words());
  tov_cn_msg_exec(pid, 0);
  tov_cn_msg_exec(copy_of(pid), 0);
  EXPECT_EQ(record->pid, pid);
  expect_stopped(record);
}

// Worker of a process before this one, which shows the same command line.
TEST_F(TovSuccessionHeir, WhatIsOlderThanTheProgramIsNoHeir) {
  const pid_t left = starts(words());
  const tov_pid_t *record = supervised();
  tov_cn_msg_exec(left, 0);  // by a walk that has found it
  EXPECT_EQ(record->heir, 0);
  expect_stopped(record);
}

// ---- programs that are registered ---------------------------------------------------------------

// It is started again as it is listed, not as it calls itself.
TEST_F(TovSuccessionHeir, RegisteredProgramIsNotRegisteredByItsTitle) {
  tov_pid_t *record = supervised();
  list(LIST + std::string("/opt/daemon TOV_RESTART\n"));  // what a title shows
  kernel().set_title(record->pid, {"daemon:"});
  tov_cn_msg_exec(record->pid, 0);
  EXPECT_THAT(platform().registered, IsEmpty());
  EXPECT_STREQ(record->process, "/opt/daemon -d");
}

TEST_F(TovSuccessionHeir, WhatAProgramForksIsKnownAfterItExecutedItselfWithAnotherWord) {
  tov_pid_t *record = supervised();
  kernel().exec(record->pid, {LISTED, "-d", "anew"});
  tov_cn_msg_exec(record->pid, 0);
  const pid_t background = copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, background);
  EXPECT_STREQ(record->process, "/opt/daemon -d");
}

// The execution is handled when the program has forked and ended already.
TEST_F(TovSuccessionHeir, WhatAnEndedProgramForkedStaysKnown) {
  tov_pid_t *record = supervised();
  const pid_t background = copy_of(record->pid);
  kernel().end(record->pid);
  tov_cn_msg_exec(record->pid, 0);
  die(record, 0);
  run_first_look();
  expect_found(record, background);
}

// ---- without drawn places -----------------------------------------------------------------------

// What was executed cannot have been forked alone, wherever its stack is.
TEST_F(TovSuccessionHeir, WithoutDrawnPlacesWhatWasExecutedIsAnHeir) {
  kernel().write_file("/proc/sys/kernel/randomize_va_space", "0\n");
  const tov_pid_t *record = supervised();
  const pid_t heir = starts(words());
  kernel().process(heir).stack = record->identity.stack;
  tov_cn_msg_exec(heir, 0);
  ends(record, SIGTERM);
  ASSERT_EQ(count(), 1);
  expect_found(record, heir);
}

TEST_F(TovSuccessionHeir, WithoutDrawnPlacesAProgramOfTheBaseSystemIsNoWorkerOfADevices) {
  kernel().write_file("/proc/sys/kernel/randomize_va_space", "0\n");
  const tov_pid_t *record = supervised(words(), 1);
  const pid_t other = starts(words());
  kernel().process(other).stack = record->identity.stack;
  tov_cn_msg_exec(other, 0);
  EXPECT_EQ(platform().registered.size(), 1u);
}

// ---- restarts that are under way ------------------------------------------------------------

TEST_F(TovSuccessionHeir, ProgramThatIsExecutedDuringTheLookIsFoundByIt) {
  const tov_pid_t *record = supervised();
  ends(record, SIGKILL);
  const pid_t pid = executed();
  run_first_look();
  expect_found(record, pid);
}

TEST_F(TovSuccessionHeir, ProgramThatIsExecutedBehindTheScanOfTheLookIsNotStartedOnceMore) {
  enum { LOWEST_ID = 100 };
  crowd();
  const tov_pid_t *record = supervised();
  ends(record, SIGKILL);
  kernel().pass(tov_test::LOOK_PAUSE_US);
  (void)go_on();  // it asks
  (void)go_on();  // the first portion
  ASSERT_TRUE(waits_for(record, TOV_WAIT_LOOK));
  kernel().set_next_pid(LOWEST_ID);
  const pid_t pid = kernel().start(words());
  tov_cn_msg_exec(pid, 0);
  run();
  expect_found(record, pid);
}

TEST_F(TovSuccessionHeir, ProgramThatIsExecutedDuringTheSearchIsFoundByIt) {
  const tov_pid_t *record = supervised();
  is_started_anew(record);
  const pid_t pid = executed();
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  first_scan();
  expect_has(record, pid);
  EXPECT_EQ(forks(), 1u);
}
