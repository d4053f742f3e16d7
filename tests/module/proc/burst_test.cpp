// The limit on restarts in a burst, the suspension, and the reload that may follow it.
#include "proc/burst.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/module/seconds_ago.h"
#include "tests/module/self_healing.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/priority.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::GONE;
using tov_test::seconds_ago;
using tov_test::SelfHealing;
using tov_test::TemporaryFile;

static constexpr char DORVIK_MARKER[] = "/etc/tov/dorvik";

namespace {

class TovBurst : public tov_test::World {
 protected:
  // A task of which the given number of restarts came before, in a burst of the given age.
  static tov_pid_t *task(int restarts, time_t age_s = 0, int action = RESPAWN) {
    tov_pid_t *record = add(GONE, "/opt/foo", action);
    record->count = restarts;
    record->tm = restarts > 0 ? seconds_ago(age_s) : 0;
    return record;
  }
  static unsigned int pending_alarm() { return alarm(0); }
  // An alarm in `period_s` seconds, asked for at `begun_ns` at the earliest.
  static void expect_alarm_in(unsigned int period_s, int64_t begun_ns) {
    const unsigned int alarm_s = pending_alarm();
    EXPECT_LE(alarm_s, period_s);
    EXPECT_GE(alarm_s + (tov_test::monotonic_ns() - begun_ns) / 1'000'000'000 + 1, period_s);
  }
};

// One restart under the registry's lock.
bool allows(tov_pid_t *record, const tov_proc_how_t &how) {
  const tov_chains_guard_t held(tov_chains);
  return tov_burst_allows(held, record, how);
}

class TovCheckRestartSystem : public tov_test::World {
 protected:
  // A task whose self-check ended now. Later suspensions are told their time, so that a machine
  // may have been started a moment ago: the switch, on since second 0, counts as on before.
  static tov_pid_t *task() {
    tov_pid_t *record = add(GONE, "/opt/foo -a");
    record->con_pull_flag = 1;
    record->con_tm = tov_get_time();
    return record;
  }
  static size_t reloads() { return tov_test::reloads_in(notices()); }
};

}  // namespace

// ---- counting -------------------------------------------------------------------------------

TEST_F(TovBurst, FirstRestartBeginsABurst) {
  tov_pid_t *record = task(0);
  const time_t before = tov_get_time();
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->count, 1);
  EXPECT_GE(record->tm, before);
  EXPECT_EQ(record->first_tm, record->tm);
  EXPECT_EQ(record->flags, TOV_FLAG_STARTED);
  EXPECT_EQ(pending_alarm(), 0u);
}

TEST_F(TovBurst, FifthRestartIsNotMade) {
  tov_pid_t *record = task(0);
  for (int i = 1; i <= 4; i++) {
    EXPECT_TRUE(allows(record, tov_proc_by_exec)) << i;
    EXPECT_EQ(record->count, i);
  }
  const time_t before = tov_get_time();
  const int64_t begun_ns = tov_test::monotonic_ns();
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  expect_alarm_in(300, begun_ns);
  EXPECT_EQ(record->flags, TOV_FLAG_SELF_CHECK);
  EXPECT_GE(record->tm, before);
  EXPECT_EQ(record->alarm_wait_flag, 1);
  EXPECT_EQ(record->count, 5);
}

TEST_F(TovBurst, SpanIsMeasuredFromTheFirstRestart) {
  tov_pid_t *record = task(3, 100);
  const time_t begun = record->tm;
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->tm, begun);
  EXPECT_EQ(record->count, 4);
}

TEST_F(TovBurst, RestartAfter120SecondsBeginsANewBurst) {
  tov_pid_t *record = task(4, 120);
  const time_t before = tov_get_time();
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->count, 1);
  EXPECT_GE(record->tm, before);
  EXPECT_EQ(record->first_tm, record->tm);
}

TEST_F(TovBurst, RestartShortlyBeforeDoesNot) {
  tov_pid_t *record = task(4, 118);
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
}

TEST_F(TovBurst, OnlyItsOwnWayIsCounted) {
  tov_pid_t *script = task(4, 0, SHELL_RESTART);
  EXPECT_TRUE(allows(script, tov_proc_by_exec));
  EXPECT_EQ(script->count, 4);
  EXPECT_FALSE(allows(script, tov_proc_by_script));
  tov_pid_t *program = task(4, 0, RESPAWN);
  EXPECT_TRUE(allows(program, tov_proc_by_script));
  EXPECT_EQ(program->count, 4);
  tov_pid_t *other = task(4, 0, NORMAL_EXIT);
  EXPECT_TRUE(allows(other, tov_proc_by_exec));
  EXPECT_EQ(other->count, 4);
  EXPECT_EQ(other->flags, TOV_FLAG_STARTED);
}

TEST_F(TovBurst, MarkerOfTheOperatorsSuspendsNothing) {
  const TemporaryFile marker(TOV_DEV_MON_FILE);
  tov_pid_t *record = task(4);
  for (int i = 5; i <= 8; i++) {
    EXPECT_TRUE(allows(record, tov_proc_by_exec));
    EXPECT_EQ(record->count, i);
  }
  EXPECT_EQ(record->alarm_wait_flag, 0);
  EXPECT_TRUE(marker.exists());
}

// ---- the alarm ------------------------------------------------------------------------------

TEST_F(TovBurst, SoonerAlarmStaysInForce) {
  const int64_t begun_ns = tov_test::monotonic_ns();
  alarm(100);
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  expect_alarm_in(100, begun_ns);
}

TEST_F(TovBurst, LaterAlarmIsReplaced) {
  alarm(1000);
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_LE(pending_alarm(), 300u);
}

TEST_F(TovBurst, PeriodOfTheFileIsUsed) {
  const TemporaryFile period(TOV_DEBUG_TIME_FILE, "60");
  const int64_t begun_ns = tov_test::monotonic_ns();
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  expect_alarm_in(60, begun_ns);
  EXPECT_THAT(notices(), ElementsAre(HasSubstr("After 1 mimutes")));
}

TEST_F(TovBurst, PeriodThatCannotBeReadIsToldAndReplaced) {
  std::filesystem::create_directory(TOV_DEBUG_TIME_FILE);
  tov_pid_t *record = task(0);
  EXPECT_THAT(diagnostics([&] { EXPECT_TRUE(allows(record, tov_proc_by_script)); }),
              HasSubstr("]tov_shell_spawn: get disable time fail: Is a directory\n"));
}

// ---- what is said ---------------------------------------------------------------------------

TEST_F(TovBurst, SuspensionIsAnnouncedInThreeWays) {
  tov_pid_t *record = task(4);
  const std::string said = diagnostics([&] { EXPECT_FALSE(allows(record, tov_proc_by_exec)); });
  const std::string text =
      "Task: foo had checked more than 5 times. After 5 mimutes, task will finish self-checking.";
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_WAIT_SELF_CHECK: " + text));
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre("HA_WAIT_SELF_CHECK " + text));
  EXPECT_THAT(said, HasSubstr("]HA_WAIT_SELF_CHECK " + text + "\n"));
}

TEST_F(TovBurst, SuspensionOfAScriptHasItsOwnTag) {
  tov_pid_t *record = task(4, 0, SHELL_RESTART);
  const std::string said = diagnostics([&] { EXPECT_FALSE(allows(record, tov_proc_by_script)); });
  const std::string text =
      "Task: foo had checked more than 5 times. After 5 mimutes, task will finish self-checking.";
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_WAIT_SCRIPT_SELF_CHECK: " + text));
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre("HA_WAIT_SCRIPT_SELF_CHECK " + text));
  EXPECT_THAT(said, HasSubstr("]HA_WAIT_SCRIPT_SELF_CHECK " + text + "\n"));
}

TEST_F(TovBurst, ProductLineReadsTheSame) {
  const TemporaryFile marker(DORVIK_MARKER);
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_WAIT_SELF_CHECK: Task: foo had checked more than 5 "
                                     "times. After 5 mimutes, task will finish self-checking."));
}

TEST_F(TovBurst, NameIsWithoutTrailingBlanksAndTheKeyKeepsThem) {
  tov_pid_t *record = task(4);
  (void)snprintf(record->process, sizeof record->process, "/opt/foo -a \t");
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  EXPECT_THAT(notices(), ElementsAre(HasSubstr("Task: foo -a had checked")));
  EXPECT_STREQ(record->process, "/opt/foo -a \t");
}

TEST(TovTaskName, WhatFollowsTheLastSlash) {
  const auto name = [](const char *process) {
    tov_pid_t record{};
    (void)snprintf(record.process, sizeof record.process, "%s", process);
    return std::string(tov_task_name_s(record).text);
  };
  EXPECT_EQ(name("/opt/foo"), "foo");
  EXPECT_EQ(name("/opt/foo -c /etc/x"), "x");
  EXPECT_EQ(name("foo -c"), "foo -c");
  EXPECT_EQ(name("/opt/foo \t "), "foo");
  EXPECT_EQ(name("/opt/"), "");
  EXPECT_EQ(name(""), "");
}

// ---- reload ---------------------------------------------------------------------------------

TEST_F(TovCheckRestartSystem, SuspendedAgainWithinTenMinutesReloadsTheUnit) {
  const SelfHealing service;
  tov_pid_t *record = task();
  const time_t now = record->con_tm + 600;
  const int64_t begun = tov_test::monotonic_ns();
  const std::string said = diagnostics([&] { tov_check_restart_system(record, now); });
  EXPECT_GE(tov_test::monotonic_ns() - begun, int64_t{2} * 1'000'000'000);
  EXPECT_EQ(record->con_pull_flag, 0);
  const std::string sentence = "tov detect process /opt/foo -a can not restart, so restart system.";
  EXPECT_EQ(service.request(), "[3][0][tov][" + sentence + "]");
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), ElementsAre(sentence));
  EXPECT_THAT(said, HasSubstr("]" + sentence + "\n"));
  EXPECT_THAT(said, HasSubstr("]tov_check_restart_system--> /opt/foo -a/5000000 con_pull_flag=0 "
                              "con_tm=" +
                              std::to_string(record->con_tm) + " t=" + std::to_string(now) +
                              " tov_single_ps_ha_enable_time=0.\n"));
}

TEST_F(TovCheckRestartSystem, RequestIsCutTo199Characters) {
  const SelfHealing service;
  tov_pid_t *record = task();
  (void)snprintf(record->process, sizeof record->process, "/opt/%s", std::string(300, 'x').c_str());
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(service.request().size(), std::string("[3][0][tov][]").size() + 199);
}

TEST_F(TovCheckRestartSystem, LaterSuspensionKeepsTheFlag) {
  tov_pid_t *record = task();
  tov_check_restart_system(record, record->con_tm + 601);
  EXPECT_EQ(record->con_pull_flag, 1);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovCheckRestartSystem, TaskThatWasNotSelfCheckedReloadsNothing) {
  tov_pid_t *record = task();
  record->con_pull_flag = 0;
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovCheckRestartSystem, SwitchedOffItReloadsNothingButClearsTheFlag) {
  tov_flag_set(tov_single_ps_ha_enable, 0);
  tov_pid_t *record = task();
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovCheckRestartSystem, SelfCheckBeforeTheSwitchWentOnDoesNotCount) {
  tov_pid_t *record = task();
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(record->con_tm) + 1);
  tov_check_restart_system(record, record->con_tm + 10);
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovCheckRestartSystem, OperatorsAndTheLowMemoryKillerCanForbidIt) {
  {
    const TemporaryFile forbidden(TOV_NO_REBOOT_FILE);
    tov_pid_t *record = task();
    tov_check_restart_system(record, tov_get_time());
    EXPECT_EQ(record->con_pull_flag, 0);
  }
  const TemporaryFile status(TOV_LMK_REBOOT_FILE, "0");
  tov_check_restart_system(task(), tov_get_time());
  EXPECT_EQ(reloads(), 0u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), IsEmpty());
}

TEST_F(TovCheckRestartSystem, IsAskedByASuspension) {
  const TemporaryFile forbidden(TOV_NO_REBOOT_FILE);
  tov_pid_t *record = task();
  record->count = 4;
  record->tm = tov_get_time();
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->con_pull_flag, 0);
}
