// The search after the start of a listed program: when its child is found, and which of the child's
// copies, where it goes to the background.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <string>

#include "core/policy/revive.h"
#include "core/policy/search.h"
#include "core/policy/succession.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/succession.h"
#include "tests/unit/waiting.h"

using tov_test::EXITED_WITH_1;
using tov_test::FIRST_SCAN_MS;
using tov_test::kernel;
using tov_test::LISTED;
using tov_test::US_PER_MS;

namespace {

class TovSuccessionStart : public tov_test::SuccessionSearch {
 protected:
  // Its restart was begun by a daemon that is gone.
  static void follow(tov_pid_t *record, pid_t child, bool has_ended) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGKILL, 0);
    tov_revive_follow(held, record, child, has_ended);
  }
  static words_t script() { return {"/bin/sh", "/etc/cmdmap/sh.sh", "start"}; }
};

}  // namespace

// ---- the child ------------------------------------------------------------------------------

TEST_F(TovSuccessionStart, ChildIsFoundATenthOfASecondAfterItsStart) {
  children_become(words());
  const tov_pid_t *record = started();
  run(FIRST_SCAN_MS * US_PER_MS - 1);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  run(1);
  expect_has(record, child());
}

TEST_F(TovSuccessionStart, ChildIsFoundUnderATitle) {
  children_become(words());
  const tov_pid_t *record = started();
  kernel().set_title(child(), title());
  first_scan();
  expect_has(record, child());
}

// As by an upgrade while the child runs.
TEST_F(TovSuccessionStart, ChildIsFoundThoughItsExecutableWasReplaced) {
  children_become(words());
  const tov_pid_t *record = started();
  kernel().replace_binary(LISTED);
  first_scan();
  expect_has(record, child());
}

TEST_F(TovSuccessionStart, ChildThatIsStillACopyOfTheDaemonDoesNotCount) {
  const tov_pid_t *record = started();
  const pid_t dead = record->pid;
  first_scan();
  EXPECT_EQ(record->pid, dead);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  child_executes(words());
  second_scan();
  expect_has(record, child());
}

TEST_F(TovSuccessionStart, ChildThatExecutesAnotherProgramDoesNotCount) {
  children_become({"/opt/launcher", "-d"});
  const tov_pid_t *record = started();
  const pid_t dead = record->pid;
  first_scan();
  expect_not_found(record, dead);
}

// Here the shell is the program, too.
TEST_F(TovSuccessionStart, ShellOfTheStartScriptIsNotTheProgramYet) {
  list("/bin/sh /opt/loop.sh TOV_SHELL_RESTART\n");
  const tov_pid_t *record = started(supervised({"/bin/sh", "/opt/loop.sh"}, 0, SHELL_RESTART));
  const pid_t dead = record->pid;
  child_executes(script());
  first_scan();
  EXPECT_EQ(record->pid, dead);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  child_executes({"/bin/sh", "/opt/loop.sh"});
  second_scan();
  EXPECT_EQ(record->pid, child());
  EXPECT_THAT(files(), testing::ElementsAre("sh." + std::to_string(child())));
}

TEST_F(TovSuccessionStart, CopyOfTheStartScriptsShellIsNotTheProgramEither) {
  list("/bin/sh /opt/loop.sh TOV_SHELL_RESTART\n");
  const tov_pid_t *record = started(supervised({"/bin/sh", "/opt/loop.sh"}, 0, SHELL_RESTART));
  const pid_t dead = record->pid;
  child_executes(script());
  (void)copy_of(child());
  child_ends();
  first_scan();
  expect_not_found(record, dead);
}

TEST_F(TovSuccessionStart, ProcessThatWasGivenTheChildsIdIsNotTheChild) {
  tov_pid_t *record = started();
  const pid_t dead = record->pid, stranger = child();
  kernel().end(stranger);  // which nobody has told
  kernel().reap(stranger);
  (void)kernel().start_as(stranger, {LISTED, "-x"});
  first_scan();
  expect_not_found(record, dead);
}

TEST_F(TovSuccessionStart, ChildWithTheDeadOnesIdIsFound) {
  children_become(words());
  const tov_pid_t *record = supervised();
  const pid_t id = record->pid;
  kernel().set_next_pid(id);
  ASSERT_EQ(started(find(id))->pid, id);
  ASSERT_EQ(child(), id);
  first_scan();
  EXPECT_FALSE(tov_record_is_starting(*record));
  expect_has(record, id);
}

// The child of a daemon that is gone: all that is known of it is its id.
TEST_F(TovSuccessionStart, ProcessThatWasGivenTheIdOfTheLastDaemonsChildIsNotTheChild) {
  tov_pid_t *record = supervised();
  kernel().end(record->pid);
  const pid_t stranger = starts({LISTED, "-x"}), daemon = starts(words());
  follow(record, stranger, true);
  run();
  EXPECT_NE(record->pid, stranger);
  expect_has(record, daemon);
}

TEST_F(TovSuccessionStart, ProcessThatIsGivenTheIdOfTheLastDaemonsChildLaterIsNotTheChild) {
  tov_pid_t *record = supervised();
  kernel().end(record->pid);
  const pid_t childs = starts({"/opt/launcher"});
  follow(record, childs, false);
  kernel().end(childs);  // which nobody has told
  const pid_t stranger = kernel().start_as(childs, {LISTED, "-x"});
  EXPECT_EQ(found_among(*record, {stranger}).pid, 0);
}

// How it ended is not known, nor when it was started.
TEST_F(TovSuccessionStart, TitledProgramIsNotFoundWhereTheLastDaemonsChildHadEnded) {
  tov_pid_t *record = supervised();
  kernel().end(record->pid);
  const pid_t daemon = titled();
  follow(record, LOWEST_ID, true);
  EXPECT_EQ(found_among(*record, {daemon}).pid, 0);
}

TEST_F(TovSuccessionStart, ChildOfTheLastDaemonIsFound) {
  tov_pid_t *record = supervised();
  kernel().end(record->pid);
  const pid_t childs = starts(words());
  kernel().set_title(childs, title());
  follow(record, childs, false);
  run();
  expect_has(record, childs);
}

TEST_F(TovSuccessionStart, CopyOfTheLastDaemonsChildIsFound) {
  tov_pid_t *record = supervised();
  kernel().end(record->pid);
  const pid_t childs = starts(words());
  follow(record, childs, false);
  const pid_t daemon = daemon_of(childs);
  kernel().end(childs);
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, childs, EXITED_WITH_1}));
  run();
  expect_has(record, daemon);
}

// ---- programs that go to the background -----------------------------------------------------

TEST_F(TovSuccessionStart, CopyOfTheChildIsFound) {
  const tov_pid_t *record = executed();
  expect_becomes(record, copy_of(child()));
}

TEST_F(TovSuccessionStart, CopyOfTheChildIsFoundUnderATitle) {
  const tov_pid_t *record = executed();
  expect_becomes(record, titled_copy_of(child()));
}

// It may end because it was killed: what has gone to the background runs all the same.
TEST_F(TovSuccessionStart, CopyOfAChildThatFailedIsFoundInASessionOfItsOwn) {
  const tov_pid_t *record = executed();
  expect_becomes(record, daemon_of(child()), EXITED_WITH_1);
}

TEST_F(TovSuccessionStart, WorkersOfAChildThatFailedAreLeftBehind) {
  const tov_pid_t *record = executed();
  (void)titled_copy_of(child());
  (void)copy_of(child());
  const pid_t failed = child();
  child_ends(SIGSEGV);
  expect_not_found(record, failed);
  die(record, SIGSEGV);  // as is told behind the search
  run_first_look();
  EXPECT_EQ(forks(), 2u) << "they are still what it has left";
}

// A wrapper, perhaps: the program does not show as what is listed.
TEST_F(TovSuccessionStart, ChildThatLivesAsSomethingElseIsTakenWhenTheProgramIsMissed) {
  tov_pid_t *record = started();
  child_executes({"/opt/real", "-d"});
  const pid_t other = child();
  first_scan();
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  search_on();
  EXPECT_NE(record->pid, other);
  ends_unheard(record);
  run_first_look();
  expect_has(record, other);
  EXPECT_EQ(forks(), 1u);
}

// Nor is what its start script runs, which shows other words.
TEST_F(TovSuccessionStart, ScriptThatGoesOnIsTakenWhenTheProgramIsMissed) {
  tov_pid_t *record = started(supervised(words(), 0, SHELL_RESTART));
  child_executes(script());
  const pid_t shell = child();
  search_on();
  EXPECT_NE(record->pid, shell);
  ends_unheard(record);
  run_first_look();
  expect_has(record, shell);
  EXPECT_EQ(forks(), 1u);
}

// The kernel tells of the first thread while others are still ending.
TEST_F(TovSuccessionStart, ChildThatFailsWithItsThreadsIsAnsweredSoon) {
  tov_pid_t *record = started();
  child_executes(words());
  const pid_t failed = child();
  const pid_t thread = kernel().start_thread(failed);
  kernel().end_thread(failed);
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, failed, 0x100}));
  kernel().end_thread(thread);
  kernel().end(failed);
  ASSERT_TRUE(tov_ends_note(failed, thread, 0x100, kernel().now_us())) << "to be handled";
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, failed, 0x100}));
  search_on();
  EXPECT_EQ(record->pid, failed);
  EXPECT_FALSE(tov_ends_note(failed, thread, 0x100, kernel().now_us())) << "awaited no more";
}

TEST_F(TovSuccessionStart, ThreadsOfAChildAreAwaitedNoMoreWhenItsRecordGoes) {
  tov_pid_t *record = started();
  child_executes(words());
  const pid_t failed = child();
  const pid_t thread = kernel().start_thread(failed);
  kernel().end_thread(failed);
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, failed, 0x100}));
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget(held, record);
  }
  EXPECT_FALSE(tov_ends_note(failed, thread, 0x100, kernel().now_us()));
}

// The end of its first thread is no end.
TEST_F(TovSuccessionStart, ChildThatLivesInItsThreadsIsTakenInTheEnd) {
  const tov_pid_t *record = executed();
  (void)kernel().start_thread(child());
  kernel().end_thread(child());
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, child(), 0}));
  search_on();
  expect_has(record, child());
}

TEST_F(TovSuccessionStart, OfTwoCopiesTheElderIsTaken) {
  const tov_pid_t *record = executed();
  kernel().set_next_pid(HIGH_ID);
  const pid_t elder = titled_copy_of(child());
  kernel().set_next_pid(LOW_ID);
  (void)copy_of(child());
  expect_becomes(record, elder);
}

TEST_F(TovSuccessionStart, OfTwoCopiesOfOneTickTheLowerIdIsTaken) {
  const tov_pid_t *record = executed();
  const pid_t one = copy_of(child()), other = copy_of(child());
  kernel().process(other).started = kernel().process(one).started;
  child_ends();
  EXPECT_EQ(found_among(*record, {one, other}).pid, one);
  EXPECT_EQ(found_among(*record, {other, one}).pid, one);
}

TEST_F(TovSuccessionStart, ChildComesBeforeItsCopies) {
  const tov_pid_t *record = executed();
  kernel().set_next_pid(LOWEST_ID);
  (void)copy_of(child());
  (void)copy_of(child());
  first_scan();
  expect_has(record, child());
}

TEST_F(TovSuccessionStart, WhatTheChildExecutedLastCounts) {
  const tov_pid_t *record = started();
  child_executes({"/opt/launcher"});
  child_executes(words());
  expect_becomes(record, daemon_of(child()), EXITED_WITH_1);
}

// By then nobody can tell what it was.
TEST_F(TovSuccessionStart, ExecutionThatIsHeardAfterTheChildsEndLeavesTheOtherSigns) {
  const tov_pid_t *record = started();
  const pid_t forked = child();
  kernel().exec(forked, words());
  const pid_t daemon = titled_copy_of(forked);
  kernel().end(forked);
  EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXEC, forked, 0}));
  child_ends();
  EXPECT_EQ(found_among(*record, {daemon}).sign, TOV_SIGN_SINCE);
  first_scan();
  expect_has(record, daemon);
}

// It has executed something since.
TEST_F(TovSuccessionStart, ChildOfTheChildThatRunsAnotherProgramDoesNotCount) {
  const tov_pid_t *record = started();
  const pid_t dead = record->pid;
  child_executes(words());
  kernel().exec(copy_of(child()), {"/opt/helper"});
  child_ends();
  first_scan();
  expect_not_found(record, dead);
}

TEST_F(TovSuccessionStart, WithoutDrawnPlacesACopyIsNotKnownUnderATitle) {
  kernel().write_file("/proc/sys/kernel/randomize_va_space", "0\n");
  const tov_pid_t *record = started();
  kernel().process(child()).session = child();
  child_executes(words());
  const pid_t copy = titled_copy_of(child()), untitled = copy_of(child());
  for (const pid_t pid : {copy, untitled})
    kernel().process(pid).session = copy;
  child_ends(EXITED_WITH_1);
  EXPECT_EQ(found_among(*record, {copy}).pid, 0);
  EXPECT_EQ(found_among(*record, {untitled}).sign, TOV_SIGN_TEXT);
  kernel().write_file("/proc/sys/kernel/randomize_va_space", "1\n");
  EXPECT_EQ(found_among(*record, {copy}).sign, TOV_SIGN_KIN);
  EXPECT_EQ(found_among(*record, {untitled}).sign, TOV_SIGN_KIN);
}
