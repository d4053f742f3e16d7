// What would happen if a supervised process ended, and the table of rules behind it.
#include "core/policy/foresee.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <string>
#include <vector>

#include "core/policy/rules.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"

using testing::ElementsAre;

namespace {

constexpr int KILLED = SIGKILL;
constexpr int CORE_DUMP = 0x80;

tov_pid_t task(int action = RESPAWN) {
  tov_pid_t record{};
  record.pid = 100;
  record.action = action;
  return record;
}

std::vector<std::string> rules_asked(const tov_foreseen_t &foreseen) {
  std::vector<std::string> names;
  for (size_t i = 0; i < foreseen.steps_num; i++)
    names.emplace_back(foreseen.steps[i].rule->name);
  return names;
}

}  // namespace

TEST(TovForesee, LivingProcessIsAskedForFirstAndLeftAlone) {
  const tov_foreseen_t foreseen = tov_foresee_exit(task(), {.lives = true}, {KILLED});
  EXPECT_EQ(foreseen.act, TOV_EXIT_LEAVE);
  EXPECT_THAT(rules_asked(foreseen), ElementsAre("the process lives"));
  EXPECT_TRUE(foreseen.steps[0].applies);
}

TEST(TovForesee, VerdictOfTheSweepStandsInPlaceOfThatQuestion) {
  const tov_foreseen_t foreseen = tov_foresee_exit(task(), {.lives = true}, {.lost = true});
  EXPECT_EQ(foreseen.act, TOV_EXIT_RESTART);
}

TEST(TovForesee, AnotherRegistrationOfTheTaskStaysInCharge) {
  for (const tov_twin_e twin : {TOV_TWIN_IN_CHARGE, TOV_TWIN_LIVES})
    EXPECT_EQ(tov_foresee_exit(task(), {.twin = twin}, {KILLED}).act, TOV_EXIT_DROP);
  EXPECT_EQ(tov_foresee_exit(task(), {.twin = TOV_TWIN_DEAD}, {KILLED}).act, TOV_EXIT_RESTART);
}

TEST(TovForesee, SuspendedTaskWaitsForItsAlarm) {
  tov_pid_t record = task();
  record.flags = TOV_FLAG_SELF_CHECK;
  record.alarm_wait_flag = 1;
  EXPECT_EQ(tov_foresee_exit(record, {}, {SIGTERM}).act, TOV_EXIT_WAIT_FOR_ALARM);
}

TEST(TovForesee, RequestedEndIsAStopUnlessItDumpedCore) {
  EXPECT_EQ(tov_foresee_exit(task(), {.locked = true}, {SIGTERM}).act, TOV_EXIT_ACCEPT_STOP);
  EXPECT_EQ(tov_foresee_exit(task(NORMAL_EXIT), {}, {SIGTERM}).act, TOV_EXIT_ACCEPT_STOP);
  EXPECT_EQ(tov_foresee_exit(task(), {}, {SIGTERM | CORE_DUMP}).act, TOV_EXIT_RESTART);
}

TEST(TovForesee, LockedFileDefersUntilItIsForced) {
  EXPECT_EQ(tov_foresee_exit(task(), {.locked = true}, {KILLED}).act, TOV_EXIT_DEFER);
  EXPECT_EQ(tov_foresee_exit(task(NORMAL_EXIT), {.locked = true}, {KILLED}).act, TOV_EXIT_DEFER);
  EXPECT_EQ(tov_foresee_exit(task(), {.locked = true}, {KILLED, 1}).act, TOV_EXIT_RESTART);
}

TEST(TovForesee, OnlyTheTwoRestartingActionsBringAnythingBack) {
  for (const int action : {0, int{NORMAL_EXIT}, int{IGNORE_EXIT}, 7})
    EXPECT_EQ(tov_foresee_exit(task(action), {}, {KILLED}).act, TOV_EXIT_LEAVE_DEAD);
  for (const int action : {RESPAWN, SHELL_RESTART})
    EXPECT_EQ(tov_foresee_exit(task(action), {}, {KILLED}).act, TOV_EXIT_RESTART);
}

TEST(TovForesee, ListedProgramThatRunsAgainIsRegisteredInstead) {
  EXPECT_EQ(tov_foresee_exit(task(), {.runs_again = true}, {KILLED}).act, TOV_EXIT_HAND_OVER);
}

TEST(TovForesee, FifthRestartWithinTwoMinutesSuspends) {
  tov_pid_t record = task();
  record.count = 4;
  record.tm = 1000;
  EXPECT_TRUE(tov_foresee_exit(record, {.now = 1119}, {KILLED}).suspended);
  EXPECT_EQ(tov_foresee_exit(record, {.now = 1119}, {KILLED}).count, 5);
  EXPECT_FALSE(tov_foresee_exit(record, {.now = 1120}, {KILLED}).suspended);
  EXPECT_EQ(tov_foresee_exit(record, {.now = 1120}, {KILLED}).count, 1);
}

TEST(TovForesee, OperatorsMarkerSilencesOneRestartAndSuspendsNothing) {
  tov_pid_t record = task();
  record.count = 4;
  record.tm = 1000;
  const tov_foreseen_t foreseen =
      tov_foresee_exit(record, {.dev_mon = true, .now = 1001}, {KILLED});
  EXPECT_TRUE(foreseen.silent);
  EXPECT_FALSE(foreseen.suspended);
}

TEST(TovForesee, RestartTimeIsWaitedForFirst) {
  tov_pid_t record = task();
  record.restart_time = 3;
  EXPECT_EQ(tov_foresee_exit(record, {}, {KILLED}).wait_s, 3);
  record.restart_time = -3;
  EXPECT_EQ(tov_foresee_exit(record, {}, {KILLED}).wait_s, 0);
}

TEST(TovForesee, RulesAreAskedInTheTablesOrderUntilOneEnds) {
  const tov_foreseen_t foreseen =
      tov_foresee_exit(task(), {.twin = TOV_TWIN_DEAD, .locked = true}, {KILLED});
  const auto rules = tov_exit_rules();
  ASSERT_LE(foreseen.steps_num, rules.size());
  for (size_t i = 0; i < foreseen.steps_num; i++) {
    EXPECT_EQ(foreseen.steps[i].rule, &rules[i]);
    const bool last = i + 1 == foreseen.steps_num;
    EXPECT_EQ(foreseen.steps[i].applies && rules[i].ends, last) << rules[i].name;
  }
}

TEST(TovForesee, NothingIsWrittenIntoTheRecord) {
  tov_pid_t record = task();
  record.count = 4;
  record.tm = 1000;
  const tov_pid_t before = record;
  (void)tov_foresee_exit(record, {.now = 1001}, {KILLED});
  EXPECT_EQ(memcmp(&before, &record, sizeof record), 0);
}
