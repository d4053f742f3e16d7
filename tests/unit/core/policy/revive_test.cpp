// Starting a task again in steps: what is kept from the beginning to the end, and forks that fail.
#include "core/policy/revive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

namespace {

class TovRevive : public tov_test::Waiting {
 protected:
  static void revive(tov_pid_t *record, tov_revive_e occasion) {
    const tov_chains_guard_t held(tov_chains);
    tov_revive(held, record, occasion);
  }
  static std::string journal(const char *path) {
    return kernel().exists(path) ? kernel().text_of(path) : "";
  }
};

using TovForkGate = TovRevive;

}  // namespace

// ---- occasions ------------------------------------------------------------------------------

TEST_F(TovRevive, RebuildWaitsForNoRestartTimeAndAsksForNoAction) {
  tov_pid_t *record = task("/opt/a", 60, NORMAL_EXIT);
  revive(record, TOV_REVIVE_AT_REBUILD);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovRevive, RebuildIsStillWantedAfterAFailedFork) {
  tov_pid_t *record = task("/opt/a", 60, NORMAL_EXIT);
  fail_forks(1);
  revive(record, TOV_REVIVE_AT_REBUILD);
  run(5 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

TEST_F(TovRevive, RebuildThatFindsNoProcessLeavesTheRecordAsItWas) {
  tov_pid_t *record = listed();
  const pid_t dead = record->pid;
  const std::string file = "/tmp/vsd/0/tov/db/daemon." + std::to_string(dead);
  kernel().write_file(file, "");
  revive(record, TOV_REVIVE_AT_REBUILD);
  run(5'500 * US_PER_MS);
  EXPECT_EQ(record->pid, dead);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(kernel().exists(file));
}

TEST_F(TovRevive, SuspendedTaskIsStartedWithoutItsRestartTimeAndAnnouncedAfterwards) {
  tov_pid_t *record = task("/opt/a", 60);
  record->exit_signal = SIGKILL;
  revive(record, TOV_REVIVE_AFTER_SUSPENSION);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("Self-checking OK")));
}

TEST_F(TovRevive, OccasionOfTheBeginningCounts) {
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  revive(record, TOV_REVIVE_AFTER_SUSPENSION);
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("Self-checking OK")));
}

TEST_F(TovRevive, FifthStartSuspendsAndDoesNotWait) {
  tov_pid_t *record = task("/opt/a", 3);
  record->count = 4;
  record->tm = tov_get_time();
  die(record);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(tov_record_is_suspended(*record));
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(go_on().next_us, INT64_MAX);
}

// ---- kept from the beginning ----------------------------------------------------------------

TEST_F(TovRevive, MarkerThatIsRemovedMeanwhileKeepsTheRestartSilent) {
  kernel().write_file(TOV_DEV_MON_FILE, "");
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  kernel().remove(TOV_DEV_MON_FILE);
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(platform().notices, IsEmpty());
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], IsEmpty());
}

TEST_F(TovRevive, MarkerThatIsMadeMeanwhileSilencesNothingAndStays) {
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  kernel().write_file(TOV_DEV_MON_FILE, "");
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(platform().notices, SizeIs(2));
  EXPECT_TRUE(kernel().exists(TOV_DEV_MON_FILE));
}

TEST_F(TovRevive, MarkerStandsForOneRestart) {
  kernel().write_file(TOV_DEV_MON_FILE, "");
  die(task("/opt/a"));
  EXPECT_EQ(forks(), 1u);
  EXPECT_FALSE(kernel().exists(TOV_DEV_MON_FILE));
  die(task("/opt/b"));
  EXPECT_THAT(platform().notices, SizeIs(2));
}

TEST_F(TovRevive, MarkerIsAskedForWhenTheRestartTimeIsOver) {
  kernel().write_file(TOV_DEV_MON_FILE, "");
  die(task("/opt/a", 3));
  kernel().remove(TOV_DEV_MON_FILE);
  run(3 * US_PER_S);
  EXPECT_THAT(platform().notices, SizeIs(2));
}

// The fourth restart ends last. Its lines go to its own slot's file although the count has gone on
// to the other file, and the fifth never ends.
TEST_F(TovRevive, JournalLinesGoByTheSlotOfTheBeginning) {
  keep_journal();
  count_journal_from(3);
  const tov_pid_t *slow = listed();
  die(slow);
  run_first_look();
  ASSERT_TRUE(waits_for(slow, TOV_WAIT_SEARCH));
  tov_pid_t *never = task("/opt/never");
  fail_forks(1);
  die(never);
  forget(never);
  EXPECT_THAT(journal(TOV_JOURNAL_1), HasSubstr("[never/"));
  EXPECT_EQ(journal(TOV_JOURNAL_2), "");

  const tov_pid_t *next = task("/opt/next");
  run(5 * US_PER_S);
  die(next);
  (void)kernel().start({tov_test::LISTED});
  run(US_PER_S);
  ASSERT_FALSE(tov_record_is_starting(*slow));
  ASSERT_FALSE(tov_record_is_starting(*next));
  EXPECT_THAT(journal(TOV_JOURNAL_1), HasSubstr("Process:daemon restarts 1 times"));
  EXPECT_THAT(journal(TOV_JOURNAL_1), Not(HasSubstr("next")));
  EXPECT_THAT(journal(TOV_JOURNAL_2), HasSubstr("Process:[next] restarts [1] times"));
  EXPECT_THAT(journal(TOV_JOURNAL_2), Not(HasSubstr("daemon")));
}

TEST_F(TovRevive, SlotBehindTheLastWritesNeitherLine) {
  keep_journal();
  count_journal_from(10);
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  EXPECT_EQ(record->start.slot, 11);
  count_journal_from(0);  // a full journal ends meanwhile
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(journal(TOV_JOURNAL_1), "");
  EXPECT_EQ(journal(TOV_JOURNAL_2), "");
}

TEST_F(TovRevive, JournalThatIsAskedForMeanwhileGetsNoSecondLineAlone) {
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  keep_journal();
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(journal(TOV_JOURNAL_1), "");
}

TEST_F(TovRevive, JournalThatIsForbiddenMeanwhileGetsNoSecondLine) {
  keep_journal();
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  kernel().remove(TOV_DEBUG_LOG_FILE);
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(journal(TOV_JOURNAL_1), HasSubstr("[a/"));
  EXPECT_THAT(journal(TOV_JOURNAL_1), Not(HasSubstr("times")));
}

TEST_F(TovRevive, RestartThatCannotBeJournalledIsNotMade) {
  keep_journal();
  kernel().make_dir(TOV_JOURNAL_1);
  tov_pid_t *record = task("/opt/a", 3);
  die(record);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(record->count, 0);
}

TEST_F(TovRevive, DeviceIsAskedOnceAtTheDeath) {
  kernel().make_dir("/data/var/run/vsd/1");
  const tov_pid_t *record = task_of_device(3);
  die(record);
  kernel().remove(member_file(record->pid));
  run(3 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_TRUE(kernel().exists(member_file(kernel().forks[0])));
}

// A daemon that follows this one goes on from the file.
TEST_F(TovRevive, TaskThatWaitsHasARegistrationFile) {
  const tov_pid_t *record = task("/opt/a", 3);
  const std::string file = file_of(record);
  die(record);
  ASSERT_TRUE(kernel().exists(file));
  EXPECT_THAT(kernel().text_of(file), HasSubstr("/opt/a"));
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_FALSE(kernel().exists(file));
}

TEST_F(TovRevive, FileThatIsThereIsLeftAsItIs) {
  const tov_pid_t *record = task("/opt/a", 3);
  kernel().write_file(file_of(record), "its own");
  die(record);
  EXPECT_EQ(kernel().text_of(file_of(record)), "its own");
}

TEST_F(TovRevive, TaskWaitsWithoutAFileWhereNoDirectoryIs) {
  kernel().remove("/tmp/vsd/0");
  const tov_pid_t *record = task("/opt/a", 3);
  die(record);
  EXPECT_FALSE(kernel().exists(file_of(record)));
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovRevive, RestartBeginsWithWhatIsKnownOfNone) {
  tov_pid_t *record = task("/opt/a", 3);
  fail_forks(1);
  die(record);
  run(8 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  kernel().end(record->pid);
  kernel().reap(record->pid);
  die(record);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_EQ(record->start.announced, 0);
  EXPECT_EQ(record->start.forked, 0);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 2u);
  EXPECT_EQ(record->count, 2);
}

// ---- forks that fail ------------------------------------------------------------------------

TEST_F(TovForkGate, FailedForkPausesTheOthersToo) {
  const tov_pid_t *first = task("/opt/a");
  fail_forks(1);
  die(first);
  EXPECT_EQ(kernel().calls(tov_test::CALL_FORK), 1);
  EXPECT_EQ(fork_file(), "a");
  for (const char *process : {"/opt/b", "/opt/c"})
    die(task(process));
  run(4'900 * US_PER_MS);
  EXPECT_EQ(kernel().calls(tov_test::CALL_FORK), 1);
  EXPECT_EQ(fork_file(), "a");
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT],
              ElementsAre(HasSubstr("/opt/a, new pid: -1"), HasSubstr("fork fail, err: ")));
}

TEST_F(TovForkGate, SuccessLetsAllGoOnInOnePassOfDeadlines) {
  std::vector<const tov_pid_t *> tasks;
  fail_forks(1);
  for (const char *process : {"/opt/a", "/opt/b", "/opt/c"})
    die(tasks.emplace_back(task(process)));
  run(5 * US_PER_S - 1);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(span_us([&] { run(1); }), 1);
  ASSERT_EQ(forks(), 3u);
  for (size_t i = 0; i < tasks.size(); i++)
    EXPECT_EQ(tasks[i]->pid, kernel().forks[i]);
  EXPECT_EQ(fork_file(), "a");
}

TEST_F(TovForkGate, RecordWhoseTurnItIsTriesAloneAfterThePause) {
  const tov_pid_t *first = task("/opt/a");
  fail_forks(2);
  die(first);
  die(task("/opt/b"));
  run(5 * US_PER_S);
  EXPECT_EQ(kernel().calls(tov_test::CALL_FORK), 2);
  EXPECT_EQ(fork_file(), "aa");
  run(5 * US_PER_S);
  ASSERT_EQ(forks(), 2u);
  EXPECT_EQ(first->pid, kernel().forks[0]);
}

TEST_F(TovForkGate, SevenFailuresTakeHalfAMinute) {
  fail_forks(7);
  die(task("/opt/a"));
  die(task("/opt/b"));
  const int64_t first_us = kernel().now_us();
  run(30 * US_PER_S - 1);
  EXPECT_EQ(fork_file(), "aaaaaa");
  run(1);
  EXPECT_EQ(kernel().now_us(), first_us + 30 * US_PER_S);
  EXPECT_EQ(fork_file(), "aaaaaaa");
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovForkGate, FiftyDeadCountAsOneFailure) {
  fail_forks(1);
  for (int i = 0; i < 50; i++)
    die(task("/opt/program" + std::to_string(i)));
  EXPECT_EQ(fork_file(), "a");
  run(5 * US_PER_S);
  EXPECT_EQ(fork_file(), "a");
  EXPECT_EQ(forks(), 50u);
}

TEST_F(TovForkGate, RemovalOfTheRecordWhoseTurnItIsGivesItToTheNext) {
  tov_pid_t *first = task("/opt/a");
  const tov_pid_t *second = task("/opt/b");
  fail_forks(1);
  die(first);
  die(second);
  forget(first);
  run(5 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(second->pid, kernel().forks[0]);
}

TEST_F(TovForkGate, AllOccasionsPause) {
  fail_forks(1);
  die(task("/opt/a"));
  revive(task("/opt/b"), TOV_REVIVE_AT_REBUILD);
  revive(task("/opt/c"), TOV_REVIVE_AFTER_SUSPENSION);
  EXPECT_EQ(kernel().calls(tov_test::CALL_FORK), 1);
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 3u);
}

TEST_F(TovForkGate, LateExitIsTriedAtOnceWhenForksSucceedAgain) {
  fail_forks(1);
  die(task("/opt/a"));
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  die(task("/opt/b"));
  EXPECT_EQ(forks(), 2u);
}
