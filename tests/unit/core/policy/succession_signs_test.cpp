// The signs by which a search knows the process of a listed program, and whose others are.
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <vector>

#include "core/policy/search.h"
#include "core/policy/succession.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/succession.h"
#include "tests/unit/waiting.h"

using tov_test::DEVICE_1;
using tov_test::EXITED_WITH_1;
using tov_test::kernel;
using tov_test::LISTED;
using tov_test::process_s;

namespace {

using TovSuccessionSigns = tov_test::SuccessionSearch;
using change_t = std::function<void(process_s &)>;

}  // namespace

// ---- without what the child executed --------------------------------------------------------

TEST_F(TovSuccessionSigns, WholeCommandLineIsFound) {
  const tov_pid_t *record = abandoned(EXITED_WITH_1);
  const pid_t daemon = starts(words());
  first_scan();
  expect_has(record, daemon);
}

TEST_F(TovSuccessionSigns, FirstWordIsFound) {
  const tov_pid_t *record = abandoned(EXITED_WITH_1);
  const pid_t daemon = starts({LISTED});
  first_scan();
  expect_has(record, daemon);
}

TEST_F(TovSuccessionSigns, OtherArgumentsAreNotFound) {
  const tov_pid_t *record = abandoned(EXITED_WITH_1);
  (void)starts({LISTED, "-x"});
  expect_not_found(record, child());
}

// The word alone is not searched for: what a start script starts is the whole command line.
TEST_F(TovSuccessionSigns, FirstWordIsNotFoundWhereAScriptWasRun) {
  const tov_pid_t *record = started(supervised(words(), 0, SHELL_RESTART));
  child_ends(EXITED_WITH_1);
  (void)starts({LISTED});
  expect_not_found(record, child());
}

TEST_F(TovSuccessionSigns, ProgramThatBelongsToNobodyIsFoundUnderATitle) {
  const tov_pid_t *record = abandoned();
  const pid_t daemon = titled();
  first_scan();
  expect_has(record, daemon);
}

TEST_F(TovSuccessionSigns, OrphansOfTheChildMayBeOurs) {
  const pid_t shell = starts({"/bin/sh"});
  kernel().process(kernel().SELF).parent = shell;
  const tov_pid_t *record = abandoned();
  const pid_t daemon = titled();
  for (const pid_t reaper : {1, kernel().SELF, shell}) {
    kernel().process(daemon).parent = reaper;
    EXPECT_EQ(found_among(*record, {daemon}).sign, TOV_SIGN_SINCE) << reaper;
  }
}

TEST_F(TovSuccessionSigns, TitledProgramOfTheSameTickAsTheChildCounts) {
  const tov_pid_t *record = abandoned();
  const pid_t daemon = titled();
  kernel().process(daemon).started = record->start.forked_started;
  EXPECT_EQ(found_among(*record, {daemon}).sign, TOV_SIGN_SINCE);
}

TEST_F(TovSuccessionSigns, TitledProgramThatDiffersInOneThingIsNotFound) {
  const tov_pid_t *record = abandoned();
  const uint64_t childs_start = record->start.forked_started;
  const pid_t parent = starts({"/opt/keeper"});
  const pid_t pid = titled();
  const process_s as_it_counts = kernel().process(pid);
  ASSERT_EQ(found_among(*record, {pid}).pid, pid);
  const change_t changes[] = {
      [parent](process_s &process) { process.parent = parent; },
      [childs_start](process_s &process) { process.started = childs_start - 1; },
      [](process_s &process) {
        kernel().exec(process.pid, {"/opt/other", "serving", "requests"});
      },
      [](process_s &process) { process.state = 'Z'; },
      [](process_s &process) { process.groups = DEVICE_1; },
  };
  for (size_t i = 0; i < std::size(changes); i++) {
    kernel().process(pid) = as_it_counts;
    changes[i](kernel().process(pid));
    EXPECT_EQ(found_among(*record, {pid}).pid, 0) << i;
  }
}

TEST_F(TovSuccessionSigns, TitledProgramIsNotFoundWhileTheChildRunsOrWhenItHasFailed) {
  const tov_pid_t *record = started();
  const pid_t pid = titled();
  EXPECT_EQ(found_among(*record, {pid}).pid, 0);
  child_ends(EXITED_WITH_1);
  EXPECT_EQ(found_among(*record, {pid}).pid, 0);
}

// ---- the strongest sign ---------------------------------------------------------------------

// Whatever the order in which they are asked.
TEST_F(TovSuccessionSigns, StrongestSignWins) {
  const tov_pid_t *record = executed();
  const pid_t kin = titled_copy_of(child());
  std::vector<pid_t> pids = {titled(), starts({LISTED}), starts(words()), kin};
  const std::vector<pid_t> weakest_first = pids;
  child_ends();
  for (int sign = TOV_SIGN_KIN; sign >= TOV_SIGN_SINCE; sign--) {
    const pid_t strongest = weakest_first[static_cast<size_t>(sign - TOV_SIGN_SINCE)];
    std::sort(pids.begin(), pids.end());
    do {
      const tov_successor_t found = found_among(*record, pids);
      EXPECT_EQ(found.pid, strongest);
      EXPECT_EQ(found.sign, sign);
      EXPECT_EQ(found.identity.started, kernel().process(strongest).started);
    } while (std::next_permutation(pids.begin(), pids.end()));
    std::erase(pids, strongest);
  }
}

TEST_F(TovSuccessionSigns, ChildIsTheStrongestSign) {
  const tov_pid_t *record = executed();
  std::vector<pid_t> pids = {child(), starts({LISTED}), starts(words()), copy_of(child())};
  std::sort(pids.begin(), pids.end());
  do {
    EXPECT_EQ(found_among(*record, pids).pid, child());
    EXPECT_EQ(found_among(*record, pids).sign, TOV_SIGN_CHILD);
  } while (std::next_permutation(pids.begin(), pids.end()));
}

// The scan does not end with the first that it finds.
TEST_F(TovSuccessionSigns, StrongestSignIsFoundBehindACrowd) {
  for (const bool is_last : {true, false}) {
    tov_pid_t *record = abandoned();
    kernel().set_next_pid(is_last ? LOW_ID : HIGH_ID);
    const pid_t weak = starts({LISTED});
    if (is_last) crowd();
    kernel().set_next_pid(is_last ? HIGH_ID + 100 : LOW_ID + 200);
    const pid_t strong = starts(words());
    first_scan();
    expect_has(record, strong);
    kernel().end(weak);
    kernel().end(strong);
    forget(record);
  }
}

// ---- what does not count --------------------------------------------------------------------

TEST_F(TovSuccessionSigns, SameTextInAnotherDeviceIsNotFound) {
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  (void)starts(words(), DEVICE_1);
  (void)starts({LISTED}, DEVICE_1);
  first_scan();
  expect_not_found(record, dead);
}

TEST_F(TovSuccessionSigns, CopyOfTheChildInAnotherDeviceIsNotFound) {
  const tov_pid_t *record = started();
  const pid_t dead = record->pid;
  child_executes(words());
  kernel().process(copy_of(child())).groups = DEVICE_1;
  child_ends();
  first_scan();
  expect_not_found(record, dead);
}

TEST_F(TovSuccessionSigns, ProgramOfADeviceIsFoundThereAlone) {
  const tov_pid_t *record = started(supervised(words(), 1));
  (void)starts(words());
  (void)starts(words(), "3200");
  const pid_t daemon = starts({LISTED}, DEVICE_1);
  child_ends();
  first_scan();
  expect_has(record, daemon, 1);
}

// Its member file says where the next start is made.
TEST_F(TovSuccessionSigns, ProgramThatWentToTheBackgroundInADeviceIsStartedThereNextTime) {
  tov_pid_t *record = supervised(words(), 1);
  kernel().write_file(member_file(record->pid), "");
  is_started_anew(record);
  EXPECT_EQ(record->start.vsd_no, 1);
  const pid_t daemon = starts(words(), DEVICE_1);
  child_ends();
  first_scan();
  ASSERT_EQ(record->pid, daemon);
  ends(record);
  EXPECT_EQ(record->start.vsd_no, 1);
}

TEST_F(TovSuccessionSigns, WhatTheDeadOneHasLeftBehindIsNotFound) {
  tov_pid_t *record = supervised();
  const pid_t worker = copy_of(record->pid);
  const pid_t elder = starts(words());
  kernel().process(elder).started = record->identity.started - 1;
  is_started_anew(record);
  child_ends(EXITED_WITH_1);
  EXPECT_EQ(found_among(*record, {worker, elder}).pid, 0);
  const pid_t daemon = starts(words());
  first_scan();
  expect_has(record, daemon);
}

TEST_F(TovSuccessionSigns, ProcessWithARecordOfItsOwnIsNotFound) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon TOV_RESTART\n");
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  const tov_pid_t *other = supervised({LISTED});
  const pid_t others = other->pid;
  first_scan();
  expect_not_found(record, dead);
  EXPECT_EQ(other->pid, others);
}

TEST_F(TovSuccessionSigns, WorkerOfAProcessWithARecordIsNotFound) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon TOV_RESTART\n");
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  const pid_t others = supervised({LISTED})->pid;
  EXPECT_EQ(found_among(*record, {copy_of(others), titled_copy_of(others)}).pid, 0);
  first_scan();
  expect_not_found(record, dead);
}

// Its own restart finds it.
TEST_F(TovSuccessionSigns, ChildOfAnotherRestartIsNotFound) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon -x TOV_RESTART\n");
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  const tov_pid_t *other = started_beside();
  kernel().exec(child(), {LISTED, "-x"});
  kernel().set_title(child(), {LISTED});
  EXPECT_EQ(found_among(*record, {child()}).pid, 0);
  search_on();
  EXPECT_EQ(other->pid, child());
  EXPECT_EQ(record->pid, dead);
}

// Its own restart knows it better.
TEST_F(TovSuccessionSigns, CopyOfAnotherRestartsChildIsNotFound) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon -x TOV_RESTART\n");
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  const tov_pid_t *other = started_beside();
  child_executes({LISTED, "-x"});
  const pid_t copy = titled_copy_of(child());
  child_ends();
  search_on();
  EXPECT_EQ(record->pid, dead);
  EXPECT_EQ(other->pid, copy);
}

TEST_F(TovSuccessionSigns, TwoSearchesDoNotShareAProcess) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon -x TOV_RESTART\n");
  const tov_pid_t *record = abandoned();
  const pid_t dead = record->pid;
  const tov_pid_t *other = started_beside();
  const pid_t others_dead = other->pid;
  child_ends();
  const pid_t daemon = starts({LISTED});
  search_on();
  EXPECT_NE(record->pid == daemon, other->pid == daemon);
  EXPECT_NE(record->pid == dead, other->pid == others_dead);
}

// By one scan, which serves both.
TEST_F(TovSuccessionSigns, ProcessThatTwoSearchesHaveFoundIsTheFirstOnes) {
  list("/opt/daemon -d TOV_RESTART\n/opt/daemon -x TOV_RESTART\n");
  tov_pid_t *first = abandoned(), *second = started(supervised({LISTED, "-x"}));
  child_ends();
  const pid_t daemon = starts({LISTED});
  const tov_succession_t firsts = asked_among(*first, {daemon});
  const tov_succession_t seconds = asked_among(*second, {daemon});
  ASSERT_EQ(firsts.found().pid, daemon);
  ASSERT_EQ(seconds.found().pid, daemon);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_search_ended(held, first, 1, firsts, &heard_);
    tov_search_ended(held, second, 1, seconds, &heard_);
  }
  EXPECT_EQ(first->pid, daemon);
  EXPECT_NE(second->pid, daemon);
  EXPECT_TRUE(waits_for(second, TOV_WAIT_SEARCH));
}
