// The limit on restarts in a burst, the suspension, and the reload that may follow it.
#include "proc/burst.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#include <string>

#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/files.h"
#include "proc/how.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/simulated.h"
#include "util/clock.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using tov_test::kernel;
using tov_test::platform;

static constexpr int64_t US_PER_S = 1'000'000;
static constexpr pid_t GONE = 5'000'000;

namespace {

// Each of these tests is made right after the boot and long after it: the rules measure spans.
class TovBurst : public tov_test::Simulated, public testing::WithParamInterface<int64_t> {
 protected:
  TovBurst() { kernel().set_uptime(GetParam()); }

  // A task of which the given number of restarts came before, in a burst of the given age.
  static tov_pid_t *task(int restarts, time_t age_s = 0, int action = RESPAWN) {
    tov_pid_t *record = add(GONE, "/opt/foo", action);
    record->count = restarts;
    record->tm = restarts > 0 ? tov_get_time() - age_s : 0;
    return record;
  }
};
INSTANTIATE_TEST_SUITE_P(AfterBoot, TovBurst, testing::Values(600, 1'000'000, 3'000'000'000));

// One restart under the registry's lock.
bool allows(tov_pid_t *record, const tov_proc_how_t &how) {
  const tov_chains_guard_t held(tov_chains);
  return tov_burst_allows(held, record, how);
}

class TovCheckRestartSystem : public tov_test::Simulated {
 protected:
  // A task whose self-check ended `ago_s` seconds before it was suspended again.
  static tov_pid_t *task(time_t ago_s) {
    tov_pid_t *record = add(GONE, "/opt/foo -a");
    record->con_pull_flag = 1;
    record->con_tm = tov_get_time() - ago_s;
    return record;
  }
  // A task whose suspension calls for a reload.
  static void suspend(const std::string &process) {
    tov_pid_t *record = task(0);
    (void)snprintf(record->process, sizeof record->process, "%s", process.c_str());
    record->count = 4;
    record->tm = tov_get_time();
    EXPECT_FALSE(allows(record, tov_proc_by_exec));
  }
};

}  // namespace

// ---- counting -------------------------------------------------------------------------------

TEST_P(TovBurst, FirstRestartBeginsABurst) {
  tov_pid_t *record = task(0);
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->count, 1);
  EXPECT_EQ(record->tm, tov_get_time());
  EXPECT_EQ(record->first_tm, record->tm);
  EXPECT_EQ(record->flags, TOV_FLAG_STARTED);
  EXPECT_EQ(kernel().alarm_left_s(), 0u);
}

TEST_P(TovBurst, FifthRestartIsNotMade) {
  tov_pid_t *record = task(0);
  for (int i = 1; i <= 4; i++) {
    EXPECT_TRUE(allows(record, tov_proc_by_exec)) << i;
    EXPECT_EQ(record->count, i);
  }
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->flags, TOV_FLAG_SELF_CHECK);
  EXPECT_EQ(record->tm, tov_get_time());
  EXPECT_EQ(record->alarm_wait_flag, 1);
  EXPECT_EQ(record->count, 5);
  EXPECT_EQ(kernel().alarm_left_s(), 300u);
}

TEST_P(TovBurst, SpanIsMeasuredFromTheFirstRestart) {
  tov_pid_t *record = task(3, 100);
  const time_t begun = record->tm;
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->tm, begun);
  EXPECT_EQ(record->count, 4);
}

TEST_P(TovBurst, RestartAfter120SecondsBeginsANewBurst) {
  tov_pid_t *record = task(4, 120);
  EXPECT_TRUE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->count, 1);
  EXPECT_EQ(record->tm, tov_get_time());
  EXPECT_EQ(record->first_tm, record->tm);
}

TEST_P(TovBurst, RestartShortlyBeforeDoesNot) {
  tov_pid_t *record = task(4, 119);
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
}

TEST_P(TovBurst, OnlyItsOwnWayIsCounted) {
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

TEST_P(TovBurst, MarkerOfTheOperatorsSuspendsNothing) {
  kernel().write_file(TOV_DEV_MON_FILE, "");
  tov_pid_t *record = task(4);
  for (int i = 5; i <= 8; i++) {
    EXPECT_TRUE(allows(record, tov_proc_by_exec));
    EXPECT_EQ(record->count, i);
  }
  EXPECT_EQ(record->alarm_wait_flag, 0);
  EXPECT_TRUE(kernel().exists(TOV_DEV_MON_FILE));
}

// ---- the alarm ------------------------------------------------------------------------------

TEST_P(TovBurst, SoonerAlarmStaysInForce) {
  kernel().set_alarm(10);
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_EQ(kernel().alarm_left_s(), 10u);
}

TEST_P(TovBurst, LaterAlarmIsReplaced) {
  kernel().set_alarm(1000);
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_EQ(kernel().alarm_left_s(), 300u);
}

TEST_P(TovBurst, PeriodOfTheFileIsUsed) {
  kernel().write_file(TOV_DEBUG_TIME_FILE, "60");
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_EQ(kernel().alarm_left_s(), 60u);
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("After 1 mimutes")));
}

TEST_P(TovBurst, PeriodThatCannotBeReadIsToldAndReplaced) {
  kernel().make_dir(TOV_DEBUG_TIME_FILE);
  tov_pid_t *record = task(0);
  EXPECT_THAT(diagnostics([&] { EXPECT_TRUE(allows(record, tov_proc_by_script)); }),
              HasSubstr("]tov_shell_spawn: get disable time fail: Is a directory\n"));
}

TEST_P(TovBurst, AlarmRingsWhenThePeriodIsOver) {
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  kernel().pass(300 * US_PER_S - 1);
  EXPECT_EQ(kernel().alarms, 0);
  kernel().pass(1);
  EXPECT_EQ(kernel().alarms, 1);
}

// ---- the period -----------------------------------------------------------------------------

namespace {

class TovDebugTime : public tov_test::Simulated {};

}  // namespace

TEST_F(TovDebugTime, NumberAboveZeroIsTakenAndAnythingElseIsTheDefault) {
  EXPECT_EQ(debug_time(), 300);
  const struct {
    const char *text;
    int period_s;
  } cases[] = {
      {"60", 60},  {"60\n", 60}, {" 5 minutes", 5}, {"1", 1},      {"0", 300},
      {"-5", 300}, {"", 300},    {"ten", 300},      {"\n\n", 300}, {"2147483648", 2147483647}};
  for (const auto &c : cases) {
    kernel().write_file(TOV_DEBUG_TIME_FILE, c.text);
    EXPECT_EQ(debug_time(), c.period_s) << c.text;
  }
}

TEST_F(TovDebugTime, FileIsReadAnewEachTime) {
  kernel().write_file(TOV_DEBUG_TIME_FILE, "60");
  EXPECT_EQ(debug_time(), 60);
  kernel().write_file(TOV_DEBUG_TIME_FILE, "61");
  EXPECT_EQ(debug_time(), 61);
  kernel().remove(TOV_DEBUG_TIME_FILE);
  EXPECT_EQ(debug_time(), 300);
  EXPECT_FALSE(kernel().exists(TOV_DEBUG_TIME_FILE));
}

TEST_F(TovDebugTime, FifoInItsPlaceIsNotWaitedFor) {
  kernel().make_fifo(TOV_DEBUG_TIME_FILE);
  EXPECT_EQ(debug_time(), 300);
}

TEST_F(TovDebugTime, EveryCallMayFailAndLeavesNoDescriptor) {
  kernel().write_file(TOV_DEBUG_TIME_FILE, "60");
  const size_t open_before = kernel().descriptors();
  const int calls_before = kernel().calls();
  ASSERT_EQ(debug_time(), 60);
  const int calls = kernel().calls() - calls_before;
  for (int nth = 1; nth <= calls; nth++) {
    kernel().fail_any(nth, EACCES);
    const int period_s = debug_time();
    EXPECT_TRUE(period_s == 300 || period_s == 60 || period_s == -EACCES) << nth;
    EXPECT_EQ(kernel().descriptors(), open_before) << nth;
  }
}

// ---- what is said ---------------------------------------------------------------------------

TEST_P(TovBurst, SuspensionIsAnnouncedInThreeWays) {
  tov_pid_t *record = task(4);
  const std::string said = diagnostics([&] { EXPECT_FALSE(allows(record, tov_proc_by_exec)); });
  const std::string text =
      "Task: foo had checked more than 5 times. After 5 mimutes, task will finish self-checking.";
  EXPECT_THAT(platform().notices, ElementsAre("%HA-5-HA_WAIT_SELF_CHECK: " + text));
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], ElementsAre("HA_WAIT_SELF_CHECK " + text));
  EXPECT_THAT(said, HasSubstr("]HA_WAIT_SELF_CHECK " + text + "\n"));
}

TEST_P(TovBurst, SuspensionOfAScriptHasItsOwnTag) {
  tov_pid_t *record = task(4, 0, SHELL_RESTART);
  const std::string said = diagnostics([&] { EXPECT_FALSE(allows(record, tov_proc_by_script)); });
  const std::string text =
      "Task: foo had checked more than 5 times. After 5 mimutes, task will finish self-checking.";
  EXPECT_THAT(platform().notices, ElementsAre("%HA-5-HA_WAIT_SCRIPT_SELF_CHECK: " + text));
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], ElementsAre("HA_WAIT_SCRIPT_SELF_CHECK " + text));
  EXPECT_THAT(said, HasSubstr("]HA_WAIT_SCRIPT_SELF_CHECK " + text + "\n"));
}

TEST_P(TovBurst, ProductLineReadsTheSame) {
  platform().is_dorvik = true;
  EXPECT_FALSE(allows(task(4), tov_proc_by_exec));
  EXPECT_THAT(platform().notices,
              ElementsAre("%HA-5-HA_WAIT_SELF_CHECK: Task: foo had checked more than 5 "
                          "times. After 5 mimutes, task will finish self-checking."));
}

TEST_P(TovBurst, NameIsWithoutTrailingBlanksAndTheKeyKeepsThem) {
  tov_pid_t *record = task(4);
  (void)snprintf(record->process, sizeof record->process, "/opt/foo -a \t");
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("Task: foo -a had checked")));
  EXPECT_STREQ(record->process, "/opt/foo -a \t");
}

// ---- reload ---------------------------------------------------------------------------------

TEST_F(TovCheckRestartSystem, SuspendedAgainWithinTenMinutesReloadsTheUnit) {
  tov_pid_t *record = task(600);
  const time_t now = record->con_tm + 600;
  std::string said;
  EXPECT_EQ(span_us([&] { said = diagnostics([&] { tov_check_restart_system(record, now); }); }),
            2 * US_PER_S);
  EXPECT_EQ(record->con_pull_flag, 0);
  const std::string sentence = "tov detect process /opt/foo -a can not restart, so restart system.";
  EXPECT_THAT(platform().requests, ElementsAre("3 0 tov: " + sentence + "\n"));
  EXPECT_EQ(platform().flushes, TOV_LOG_TYPE_NUM);
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT], ElementsAre(sentence));
  EXPECT_THAT(said, HasSubstr("]" + sentence + "\n"));
  EXPECT_THAT(said, HasSubstr("]tov_check_restart_system--> /opt/foo -a/5000000 con_pull_flag=0 "
                              "con_tm=" +
                              std::to_string(record->con_tm) + " t=" + std::to_string(now) +
                              " tov_single_ps_ha_enable_time=0.\n"));
}

TEST_F(TovCheckRestartSystem, RequestIsCutTo199Characters) {
  tov_pid_t *record = task(0);
  (void)snprintf(record->process, sizeof record->process, "/opt/%s", std::string(300, 'x').c_str());
  tov_check_restart_system(record, tov_get_time());
  ASSERT_EQ(platform().requests.size(), 1u);
  EXPECT_EQ(platform().requests[0].size(), std::string("3 0 tov: ").size() + 199);
}

TEST_F(TovCheckRestartSystem, LaterSuspensionKeepsTheFlag) {
  tov_pid_t *record = task(0);
  tov_check_restart_system(record, record->con_tm + 601);
  EXPECT_EQ(record->con_pull_flag, 1);
  EXPECT_THAT(platform().requests, IsEmpty());
}

TEST_F(TovCheckRestartSystem, TaskThatWasNotSelfCheckedReloadsNothing) {
  tov_pid_t *record = task(0);
  record->con_pull_flag = 0;
  tov_check_restart_system(record, tov_get_time());
  EXPECT_THAT(platform().requests, IsEmpty());
}

TEST_F(TovCheckRestartSystem, SwitchedOffItReloadsNothingButClearsTheFlag) {
  tov_flag_set(tov_single_ps_ha_enable, 0);
  tov_pid_t *record = task(0);
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_THAT(platform().requests, IsEmpty());
}

TEST_F(TovCheckRestartSystem, SelfCheckBeforeTheSwitchWentOnDoesNotCount) {
  tov_pid_t *record = task(10);
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(record->con_tm) + 1);
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_THAT(platform().requests, IsEmpty());
}

TEST_F(TovCheckRestartSystem, OperatorsAndTheLowMemoryKillerCanForbidIt) {
  kernel().write_file(TOV_NO_REBOOT_FILE, "");
  tov_pid_t *record = task(0);
  tov_check_restart_system(record, tov_get_time());
  EXPECT_EQ(record->con_pull_flag, 0);
  kernel().remove(TOV_NO_REBOOT_FILE);
  kernel().write_file(TOV_LMK_REBOOT_FILE, "0");
  tov_check_restart_system(task(0), tov_get_time());
  EXPECT_THAT(platform().requests, IsEmpty());
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT], IsEmpty());
}

TEST_F(TovCheckRestartSystem, IsAskedByASuspension) {
  kernel().write_file(TOV_NO_REBOOT_FILE, "");
  tov_pid_t *record = task(0);
  record->count = 4;
  record->tm = tov_get_time();
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  EXPECT_EQ(record->con_pull_flag, 0);
}

// ---- the reload that a suspension notes -------------------------------------------------------

TEST_F(TovCheckRestartSystem, SuspensionNotesTheReloadForLater) {
  tov_pid_t *record = task(0);
  record->count = 4;
  record->tm = tov_get_time();
  EXPECT_EQ(span_us([&] { EXPECT_FALSE(allows(record, tov_proc_by_exec)); }), 0);
  EXPECT_THAT(platform().requests, IsEmpty());
  empty_registries();  // the task may be gone by then
  EXPECT_EQ(span_us([] { tov_ask_for_noted_reload(); }), 2 * US_PER_S);
  EXPECT_THAT(platform().requests,
              ElementsAre("3 0 tov: tov detect process /opt/foo -a can not restart, so restart "
                          "system.\n"));
}

TEST_F(TovCheckRestartSystem, EachNotedReloadIsAskedForOnce) {
  for (const char *process : {"/opt/a", "/opt/b"})
    suspend(process);
  tov_ask_for_noted_reload();
  EXPECT_THAT(platform().requests, UnorderedElementsAre(HasSubstr("process /opt/a can"),
                                                        HasSubstr("process /opt/b can")));
  EXPECT_EQ(span_us([] { tov_ask_for_noted_reload(); }), 0);
  EXPECT_THAT(platform().requests, SizeIs(2));
}

TEST_F(TovCheckRestartSystem, NinthTaskIsNotAskedFor) {
  for (int i = 1; i <= 9; i++)
    suspend("/opt/program" + std::to_string(i));
  tov_ask_for_noted_reload();
  EXPECT_THAT(platform().requests, SizeIs(8));
  EXPECT_THAT(platform().requests, Not(Contains(HasSubstr("/opt/program9"))));
  platform().requests.clear();
  suspend("/opt/program9");  // there is room again
  tov_ask_for_noted_reload();
  EXPECT_THAT(platform().requests, ElementsAre(HasSubstr("/opt/program9")));
}

TEST_F(TovCheckRestartSystem, SuspensionThatCallsForNoneNotesNone) {
  kernel().write_file(TOV_NO_REBOOT_FILE, "");
  tov_pid_t *record = task(0);
  record->count = 4;
  record->tm = tov_get_time();
  EXPECT_FALSE(allows(record, tov_proc_by_exec));
  kernel().remove(TOV_NO_REBOOT_FILE);
  EXPECT_EQ(span_us([] { tov_ask_for_noted_reload(); }), 0);
  EXPECT_THAT(platform().requests, IsEmpty());
}
