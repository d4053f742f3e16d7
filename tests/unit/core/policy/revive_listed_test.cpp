// Listed programs: the look whether one runs again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "client/requests/tov_msg.h"
#include "core/policy/revive.h"
#include "core/policy/waits.h"
#include "core/registry/deadlines.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using tov_test::kernel;
using tov_test::LISTED;
using tov_test::LOOK_PAUSE_US;
using tov_test::platform;
using tov_test::US_PER_S;

namespace {

class TovLook : public tov_test::Waiting {
 protected:
  // A program that died and is looked for by a scan that has begun.
  tov_pid_t *scanned() {
    crowd();
    tov_pid_t *record = listed();
    die(record);
    kernel().pass(LOOK_PAUSE_US);
    (void)go_on();  // it asks
    (void)go_on();  // the first portion
    EXPECT_TRUE(waits_for(record, TOV_WAIT_LOOK));
    EXPECT_EQ(record->start.looked, TOV_LOOKED_NOT_YET);
    return record;
  }
  // The processes that records stand for.
  static std::vector<pid_t> supervised() {
    std::vector<pid_t> pids;
    const tov_chains_guard_t held(tov_chains);
    for (const tov_pid_t &record : tov_chain_records(&tov_chains))
      if (tov_record_has_process(record)) pids.push_back(record.pid);
    return pids;
  }
};

}  // namespace

// ---- the look -------------------------------------------------------------------------------

// What the dead program has left behind ends, too, and is not to be taken for its successor.
TEST_F(TovLook, FirstLookWaitsForWhatIsLeftBehind) {
  const tov_pid_t *record = listed();
  const pid_t left_behind = kernel().start({LISTED});
  die(record);
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run(LOOK_PAUSE_US - 1);
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), before);
  kernel().end(left_behind);
  const pid_t stays = kernel().start({LISTED});
  run(1);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised(), ElementsAre(stays));
}

TEST_F(TovLook, ProgramThatRunsAgainIsHandedOver) {
  tov_pid_t *record = listed();
  const pid_t again = kernel().start({LISTED});
  die(record);
  run_first_look();
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(kernel().exists(file_of(record))) << "a daemon that is killed now loses nothing";
  EXPECT_THAT(platform().events[TOV_LOG_REG_RESTART],
              ElementsAre("register - process:/opt/daemon pid:" + std::to_string(again) +
                          ", vsd_id:0, action:2"));
  EXPECT_THAT(supervised(), ElementsAre(again));
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovLook, ProgramOfAScriptIsHandedOverAsSuch) {
  tov_pid_t *record = listed(0, SHELL_RESTART);
  const pid_t again = kernel().start({LISTED});
  die(record);
  run_first_look();
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, ProgramThatDoesNotRunIsStarted) {
  const tov_pid_t *record = listed();
  die(record);
  run_first_look();
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(supervised(), IsEmpty());
}

TEST_F(TovLook, WholeCommandLineIsLookedFor) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/daemon -d TOV_RESTART\n");
  (void)kernel().start({"/opt/daemon"});
  const pid_t again = kernel().start({"/opt/daemon", "-d"});
  die(task("/opt/daemon -d"));
  run_first_look();
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, LookThatIsSpoiledIsMadeAgain) {
  tov_pid_t *record = listed();
  die(record);
  const pid_t again = kernel().start({LISTED});
  spoil_scans(9);
  run_first_look();
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, TenthSpoiledLookIsTheLast) {
  const tov_pid_t *record = listed();
  die(record);
  (void)kernel().start({LISTED});
  spoil_scans(10);
  kernel().pass(LOOK_PAUSE_US);
  const int before = kernel().calls(tov_test::CALL_FSTATAT);
  for (int steps = 0; forks() == 0 && steps < 100; steps++)
    (void)go_on();
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(kernel().calls(tov_test::CALL_FSTATAT), before + 10);
}

TEST_F(TovLook, ProgramIsLookedForAgainAfterItsRestartTime) {
  tov_pid_t *record = listed(3);
  die(record);
  run_first_look();
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  run(3 * US_PER_S - 1);
  const pid_t again = kernel().start({LISTED});
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  run(1);  // without the pause of the first look
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, ProgramIsLookedForAgainAfterThePauseOfForks) {
  fail_forks(1);
  die(task("/opt/a"));
  tov_pid_t *record = listed();
  die(record);
  run_first_look();
  EXPECT_TRUE(waits_for(record, TOV_WAIT_FORK));
  const pid_t again = kernel().start({LISTED});
  run(5 * US_PER_S - LOOK_PAUSE_US);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, again);
}

TEST_F(TovLook, OneScanServesAllThatAsk) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/x TOV_RESTART\n/opt/y TOV_RESTART\n");
  const pid_t y = kernel().start({"/opt/y"});
  const pid_t x = kernel().start({"/opt/x"});
  die(task("/opt/x"));
  die(task("/opt/y"));
  kernel().pass(LOOK_PAUSE_US);
  (void)go_on();
  (void)go_on();
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run();
  EXPECT_LE(kernel().calls(tov_test::CALL_OPENDIR) - before, 2 * 2);
  EXPECT_THAT(supervised(), UnorderedElementsAre(x, y));
}

TEST_F(TovLook, RecordThatComesDuringAScanWaitsForTheNext) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/x TOV_RESTART\n/opt/daemon TOV_RESTART\n");
  crowd();
  die(task("/opt/x"));
  kernel().pass(1);
  tov_pid_t *late = task(LISTED);
  die(late);
  kernel().pass(LOOK_PAUSE_US - 1);
  (void)go_on();  // the first asks
  kernel().pass(1);
  (void)go_on();  // the first portion, and the late one asks
  EXPECT_EQ(next_due_us(), INT64_MAX);
  EXPECT_EQ(forks(), 0u);
  const pid_t again = kernel().start({LISTED});  // behind the scan that is under way
  run();
  EXPECT_EQ(forks(), 1u);  // of the first
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, ScanIsMadeInPortions) {
  crowd();
  die(listed());
  kernel().pass(LOOK_PAUSE_US);
  (void)go_on();  // it asks
  const int before = kernel().calls(tov_test::CALL_READLINK);
  EXPECT_LE(go_on().next_us, kernel().now_us());  // the rest is to follow at once
  EXPECT_EQ(kernel().calls(tov_test::CALL_READLINK) - before, 64);
  EXPECT_EQ(forks(), 0u);
  (void)go_on();
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovLook, OtherRestartsGoOnDuringAScan) {
  (void)scanned();
  tov_pid_t *other = task("/opt/a");
  die(other);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(other->pid, child());
}

// ---- answers that come too late -------------------------------------------------------------

TEST_F(TovLook, AnswerForARecordThatIsGoneIsDropped) {
  tov_pid_t *record = scanned();
  forget(record);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised(), IsEmpty());
}

TEST_F(TovLook, AnswerForAWithdrawnRecordIsDropped) {
  const tov_pid_t *record = scanned();
  tov_process_dump_all_msg(record->pid);
  EXPECT_EQ(count(), 0);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLook, AnswerForAnEarlierRestartIsNotTaken) {
  tov_pid_t *record = scanned();
  const uint64_t first = record->start.number;
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_end_wait(held, record);
    tov_revive_look(held, record);
  }
  EXPECT_GT(record->start.number, first);
  const pid_t again = kernel().start({LISTED});  // behind the scan that is under way
  run_first_look();
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised(), ElementsAre(again));
}

TEST_F(TovLook, RegistrationDuringALookIsFoundByTheRules) {
  const tov_pid_t *record = scanned();
  const pid_t daemon = kernel().start({LISTED});
  registers(daemon);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_LOOK));
  run();
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 1);
  EXPECT_NE(find(daemon), nullptr);
}
