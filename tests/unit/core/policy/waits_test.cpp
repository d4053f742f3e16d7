// Restarts that wait: their deadlines, the rules walked again, and who finishes them.
#include "core/policy/waits.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <string>
#include <vector>

#include "client/requests/tov_msg.h"
#include "core/policy/exit.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
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
using testing::SizeIs;
using tov_test::kernel;
using tov_test::LOOK_PAUSE_US;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

namespace {

class TovWaits : public tov_test::Waiting {
 protected:
  // The registration file of a task, locked by a process that still runs.
  static std::string lock_file_of(const tov_pid_t *record) {
    const std::string path = "/tmp/vsd/0/tov/db/a." + std::to_string(record->pid);
    kernel().write_file(path, std::to_string(record->pid) + "\n2\n/opt/a");
    kernel().lock(path, kernel().start({"/opt/helper"}));
    return path;
  }
};

using TovWaitsFinish = TovWaits;

}  // namespace

// ---- deadlines ------------------------------------------------------------------------------

TEST_F(TovWaits, NothingIsToBeDoneWithoutARestart) {
  const tov_waits_t::step_s step = go_on();
  EXPECT_FALSE(step.handled);
  EXPECT_EQ(step.next_us, INT64_MAX);
  EXPECT_THAT(step.heard, IsEmpty());
}

TEST_F(TovWaits, RestartTimeIsWaitedForToItsEnd) {
  tov_pid_t *record = task("/opt/a", 3);
  die(record);
  EXPECT_EQ(go_on().next_us, kernel().now_us() + 3 * US_PER_S);
  run(3 * US_PER_S - 1);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_THAT(platform().notices, IsEmpty());
  run(1);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("receives event:0009 and self-checking"),
                                              HasSubstr("Self-checking OK: 1 times")));
  EXPECT_EQ(go_on().next_us, INT64_MAX);
}

TEST_F(TovWaits, OthersAreRestartedMeanwhile) {
  const tov_pid_t *patient = task("/opt/a", 60);
  const tov_pid_t *hasty = task("/opt/b");
  const tov_pid_t *between = task("/opt/c", 2);
  die(patient);
  die(hasty);
  EXPECT_EQ(forks(), 1u);
  die(between);
  run(2 * US_PER_S);
  EXPECT_EQ(forks(), 2u);
  EXPECT_EQ(between->pid, kernel().forks[1]);
  run(58 * US_PER_S);
  EXPECT_EQ(forks(), 3u);
  EXPECT_EQ(patient->pid, kernel().forks[2]);
}

TEST_F(TovWaits, StepIsOfOneRecord) {
  std::vector<const tov_pid_t *> tasks;
  for (const char *process : {"/opt/a", "/opt/b", "/opt/c"})
    die(tasks.emplace_back(task(process, 1)));
  kernel().pass(2 * US_PER_S);
  for (size_t done = 0; done < tasks.size(); done++) {
    EXPECT_EQ(forks(), done);
    const tov_waits_t::step_s step = go_on();
    EXPECT_TRUE(step.handled);
    EXPECT_EQ(step.next_us <= kernel().now_us(), done + 1 < tasks.size());
    ASSERT_EQ(forks(), done + 1);
    EXPECT_EQ(tasks[done]->pid, kernel().forks[done]);
  }
  EXPECT_FALSE(go_on().handled);
}

TEST_F(TovWaits, FurtherReportOfTheDeadProcessChangesNothing) {
  tov_pid_t *record = task("/opt/a", 3);
  die(record);
  const int64_t due_us = next_due_us();
  kernel().pass(US_PER_S);
  die(record, SIGTERM, 1);
  EXPECT_EQ(next_due_us(), due_us);
  EXPECT_EQ(record->exit_signal, SIGKILL);
  EXPECT_EQ(record->force_restart, 0);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

// ---- removed meanwhile ----------------------------------------------------------------------

TEST_F(TovWaits, WithdrawalEndsTheWait) {
  const tov_pid_t *record = task("/opt/a", 3);
  die(record);
  tov_process_dump_all_msg(record->pid);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(go_on().next_us, INT64_MAX);
  run(10 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovWaits, RemovalOfTheFirstLeavesTheOthersTheirDeadlines) {
  tov_pid_t *first = task("/opt/a", 1);
  const tov_pid_t *second = task("/opt/b", 2);
  die(first);
  die(second);
  forget(first);
  run(3 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(second->pid, kernel().forks[0]);
}

// ---- the rules at the deadline --------------------------------------------------------------

// Whether or not it went through a start before.
TEST_F(TovWaits, TaskThatIsRegisteredAnewMeanwhileIsNotStarted) {
  int device = 0;
  for (const int flags : {0, static_cast<int>(TOV_FLAG_STARTED)}) {
    const std::string command = "/opt/a" + std::to_string(device++);
    tov_pid_t *record = task(command, 3);
    record->flags = flags;
    die(record);
    tov_pid_t *anew = add(kernel().start({command}), command);
    run(3 * US_PER_S);
    EXPECT_EQ(forks(), 0u) << flags;
    EXPECT_TRUE(is_registered(anew)) << flags;
    EXPECT_EQ(count(), device) << flags;
  }
}

TEST_F(TovWaits, OtherRegistrationOfADeadProcessGoesAndTheTaskIsStarted) {
  tov_pid_t *record = task("/opt/a", 3);
  record->flags = TOV_FLAG_STARTED;
  die(record);
  (void)task("/opt/a");
  run(3 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

TEST_F(TovWaits, OfTwoDeadRegistrationsThatWaitOneIsStarted) {
  tov_pid_t *first = task("/opt/a", 3);
  first->flags = TOV_FLAG_STARTED;
  die(first);
  tov_pid_t *second = task("/opt/a", 3);
  second->flags = TOV_FLAG_STARTED;
  die(second);
  run(10 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovWaits, TaskOfADeviceThatIsBeingDeletedIsRemoved) {
  const tov_pid_t *record = task_of_device(3);
  die(record);
  ASSERT_TRUE(waits_for(record, TOV_WAIT_TIME));
  kernel().write_file("/tmp/vsd/1/delete_vsd", "");
  run(3 * US_PER_S);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovWaits, TaskOfADeviceThatIsGoneIsRemoved) {
  const tov_pid_t *record = task_of_device(3);
  die(record);
  kernel().remove("/tmp/vsd/1/tov");
  run(3 * US_PER_S);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(forks(), 0u);
}

// That it cannot be looked for does not say that it is gone.
TEST_F(TovWaits, DeviceThatCannotBeLookedForIsNotGone) {
  enum { ALL = 20 };
  die(task_of_device(3));
  for (int nth = 1; nth <= ALL; nth++)
    kernel().fail(tov_test::CALL_ACCESS, nth, EACCES);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovWaits, TaskWithoutAMemberFileIsOfTheDeviceThatItRegisteredWith) {
  const tov_pid_t *record = task_of_device(3);
  kernel().remove(member_file(record->pid));
  die(record);
  kernel().write_file("/tmp/vsd/1/delete_vsd", "");
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 0);
}

TEST_F(TovWaits, RemovalWithItsDeviceTakesTheRegistrationFile) {
  const tov_pid_t *record = task_of_device(3);
  const std::string file = file_of(record);
  kernel().write_file(file, "");
  die(record);
  kernel().write_file("/tmp/vsd/1/delete_vsd", "");
  run(3 * US_PER_S);
  EXPECT_EQ(count(), 0);
  EXPECT_FALSE(kernel().exists(file));
}

TEST_F(TovWaits, DeletionOfAnotherDeviceConcernsNone) {
  const tov_pid_t *record = task_of_device(3);
  const tov_pid_t *of_base = task("/opt/b", 3);
  die(record);
  die(of_base);
  kernel().write_file("/tmp/vsd/2/delete_vsd", "");
  kernel().write_file("/tmp/vsd/0/delete_vsd", "");
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 2u);
}

TEST_F(TovWaits, ActionThatAsksForNothingByThenLeavesTheTaskDead) {
  tov_pid_t *record = task("/opt/a", 3);
  const pid_t dead = record->pid;
  die(record);
  record->action = NORMAL_EXIT;
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(record->pid, dead);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(record->exit_signal, SIGKILL);
}

TEST_F(TovWaits, ForcedExitStaysForced) {
  tov_pid_t *record = task("/opt/a", 3);
  (void)lock_file_of(record);
  die(record, SIGKILL, 1);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(tov_chains_delay), 0);
  EXPECT_EQ(record->force_restart, 0);  // of the successor
}

TEST_F(TovWaits, LockDefersTheExitWithoutADeadline) {
  tov_pid_t *record = task("/opt/a", 3);
  (void)lock_file_of(record);
  die(record);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_LOCK));
  EXPECT_EQ(go_on().next_us, INT64_MAX);
  EXPECT_EQ(count(tov_chains_delay), 1);
  run(600 * US_PER_S);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_LOCK));
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovWaits, ExitThatIsHandedBackBeginsTheRestart) {
  tov_pid_t *record = task("/opt/a", 3);
  const std::string path = lock_file_of(record);
  die(record);
  kernel().end(kernel().lock_holder(path));
  tov_hand_back_exit({record->start.number, record->pid, SIGTERM, 0});
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_EQ(record->exit_signal, SIGTERM);
  EXPECT_EQ(next_due_us(), kernel().now_us() + 3 * US_PER_S);
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovWaits, ExitThatIsHandedBackToALockWaitsOn) {
  tov_pid_t *record = task("/opt/a");
  (void)lock_file_of(record);
  die(record);
  tov_hand_back_exit({record->start.number, record->pid, SIGKILL, 0});
  EXPECT_TRUE(waits_for(record, TOV_WAIT_LOCK));
  EXPECT_EQ(forks(), 0u);
  tov_hand_back_exit({record->start.number, record->pid, SIGKILL, 1});  // by force
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovWaits, LockThatIsTakenDuringTheRestartTimeDefersNothing) {
  tov_pid_t *record = task("/opt/a", 3);
  die(record);
  (void)lock_file_of(record);
  run(3 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_EQ(count(tov_chains_delay), 0);
}

TEST_F(TovWaits, LockThatIsTakenAfterTheAnnouncementDefersNothing) {
  tov_pid_t *record = task("/opt/a");
  fail_forks(1);
  die(record);
  ASSERT_TRUE(waits_for(record, TOV_WAIT_FORK));
  (void)lock_file_of(record);
  run(5 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(tov_chains_delay), 0);
}

TEST_F(TovWaits, ExitIsNotNotedOnceMore) {
  tov_pid_t *record = task("/opt/a", 3);
  const auto watch_a_thread = [record] {
    add(77, "/opt/a", RESPAWN, 0, tov_alive_chains)->ppid = record->pid;
  };
  watch_a_thread();
  die(record);
  EXPECT_EQ(count(tov_alive_chains), 0);
  watch_a_thread();  // of another process that was given the id
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(tov_alive_chains), 1);
}

TEST_F(TovWaits, NothingIsSaidOrCountedTwice) {
  keep_journal();
  tov_pid_t *record = task("/opt/a", 3);
  fail_forks(3);
  die(record);
  run(18 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->count, 1);
  EXPECT_THAT(platform().notices, ElementsAre(HasSubstr("receives event:0009 and self-checking"),
                                              HasSubstr("Self-checking OK: 1 times")));
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], SizeIs(2));
  const std::string journal = kernel().text_of(TOV_JOURNAL_1);
  EXPECT_EQ(std::count(journal.begin(), journal.end(), '%'), 2) << journal;
}

// ---- who finishes ---------------------------------------------------------------------------

TEST_F(TovWaitsFinish, ReturnsAtOnceWhereAHandlerIs) {
  tov_pid_t *record = task("/opt/a", 3);
  EXPECT_EQ(span_us([&] { die(record); }), 0);
  EXPECT_EQ(span_us([] { tov_waits_finish(); }), 0);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovWaitsFinish, MakesTheRestartsWhereNoneIs) {
  tov_waits_leave_to_handler(false);
  tov_pid_t *record = task("/opt/a", 3);
  EXPECT_EQ(span_us([&] { die(record); }), 3 * US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

TEST_F(TovWaitsFinish, MakesThoseOfEverybody) {
  const tov_pid_t *patient = task("/opt/a", 3);
  const tov_pid_t *other = task("/opt/b", 2);
  die(patient);
  die(other);
  tov_waits_leave_to_handler(false);
  EXPECT_EQ(span_us([] { tov_waits_finish(); }), 3 * US_PER_S);
  EXPECT_EQ(forks(), 2u);
}

TEST_F(TovWaitsFinish, WaitsForForksAndSearches) {
  tov_waits_leave_to_handler(false);
  fail_forks(2);
  EXPECT_EQ(span_us([] { die(task("/opt/a")); }), 10 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  const tov_pid_t *program = listed();
  EXPECT_EQ(span_us([&] { die(program); }), LOOK_PAUSE_US + 5'500 * US_PER_MS);
  EXPECT_EQ(forks(), 2u);
  EXPECT_EQ(next_due_us(), INT64_MAX);
}

TEST_F(TovWaitsFinish, EndsWithTheDaemon) {
  tov_waits_leave_to_handler(false);
  const tov_pid_t *record = task("/opt/a", 3);
  kernel().after(US_PER_S, [] { tov_flag_set(quit, 1); });
  const int64_t span = span_us([&] { die(record); });
  EXPECT_LE(span, US_PER_S + 100 * US_PER_MS);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
}

TEST_F(TovWaitsFinish, AsksForTheReloadThatASuspensionCalledFor) {
  tov_pid_t *record = task("/opt/a");
  record->count = 4;
  record->tm = tov_get_time();
  record->con_pull_flag = 1;
  record->con_tm = tov_get_time();
  die(record);
  EXPECT_THAT(platform().requests, IsEmpty());  // that is not the handler's
  tov_waits_finish();
  EXPECT_THAT(platform().requests, IsEmpty());
  tov_waits_leave_to_handler(false);
  tov_waits_finish();
  EXPECT_THAT(platform().requests, ElementsAre(HasSubstr("tov detect process /opt/a")));
}
