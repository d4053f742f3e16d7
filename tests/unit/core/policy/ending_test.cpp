// A reported end that is not certain: the record keeps the report, its process, and asks again.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "client/requests/tov_msg.h"
#include "core/policy/exit.h"
#include "core/policy/sweep.h"
#include "core/policy/waits.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::CALL_OPEN;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

// Between two questions at the most.
static constexpr int64_t LONGEST_PAUSE_US = 1'024 * US_PER_MS;

namespace {

class TovEnding : public tov_test::Waiting {
 protected:
  TovEnding() { children_execute("/opt/a"); }

  // A registered process of two threads.
  tov_pid_t *of_two_threads() {
    const pid_t pid = kernel().start({"/opt/a"});
    worker_ = kernel().start_thread(pid);
    return add(pid, "/opt/a");
  }
  // Its first thread ends, which is reported.
  tov_pid_t *leaderless(int exit_code = 0) {
    tov_pid_t *record = of_two_threads();
    kernel().end_thread(record->pid);
    die(record, exit_code);
    return record;
  }
  static bool is_ending(const tov_pid_t *record) { return waits_for(record, TOV_WAIT_END); }
  static void go_blind() { kernel().descriptor_limit = kernel().descriptors(); }
  static void see() { kernel().descriptor_limit = SIZE_MAX; }
  static void sweep() {
    for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS; bucket++)
      tov_sweep_bucket(bucket);
  }

  pid_t worker_ = 0;
};

}  // namespace

// ---- a process lives as long as one of its threads does -------------------------------------

TEST_F(TovEnding, FirstThreadThatEndsStartsNothing) {
  tov_pid_t *record = leaderless();
  EXPECT_TRUE(is_ending(record));
  EXPECT_TRUE(tov_record_has_process(*record));
  EXPECT_FALSE(tov_record_is_starting(*record));
  run(3'600 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(is_ending(record));
  EXPECT_THAT(platform().notices, IsEmpty());
}

TEST_F(TovEnding, LastThreadsCodeDecidesAtOnce) {
  for (const int code : {SIGSEGV, SIGKILL, 0}) {
    tov_pid_t *record = leaderless(SIGTERM);  // which would have stopped it
    run(10 * US_PER_S);
    const size_t before = forks();
    kernel().end_thread(worker_);
    EXPECT_EQ(span_us([&] { die(record, code); }), 0);
    ASSERT_EQ(forks(), before + 1) << code;
    EXPECT_EQ(record->pid, kernel().forks.back());
    EXPECT_EQ(record->exit_signal, code);
    EXPECT_FALSE(is_ending(record));
    forget(record);
  }
}

TEST_F(TovEnding, StopOfTheLastThreadIsAStop) {
  tov_pid_t *record = leaderless(0);
  run(10 * US_PER_S);
  kernel().end_thread(worker_);
  die(record, SIGTERM);
  run(10 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT], ElementsAre(HasSubstr("killed by signal 15")));
}

TEST_F(TovEnding, LaterReportReplacesTheEarlierOne) {
  tov_pid_t *record = leaderless(SIGTERM);
  die(record, SIGSEGV);  // another of its threads
  kernel().end_thread(worker_);
  run(LONGEST_PAUSE_US);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->exit_signal, SIGSEGV);
}

TEST_F(TovEnding, EndOfWhichNobodyTellsIsFoundWithinASecond) {
  tov_pid_t *record = leaderless(SIGABRT);
  run(60 * US_PER_S);
  kernel().end_thread(worker_);
  run(LONGEST_PAUSE_US);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_EQ(record->exit_signal, SIGABRT);
}

TEST_F(TovEnding, PausesDoubleUpToASecond) {
  const tov_pid_t *record = leaderless();
  for (const int64_t pause_ms : {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1'024, 1'024, 1'024}) {
    const int64_t due_us = next_due_us();
    EXPECT_EQ(due_us - kernel().now_us(), pause_ms * US_PER_MS);
    kernel().pass(due_us - kernel().now_us());
    EXPECT_FALSE(go_on().handled) << "a question takes no slot";
  }
  EXPECT_TRUE(is_ending(record));
}

TEST_F(TovEnding, EndsTheSameWithTheWholeProcess) {
  tov_pid_t *record = of_two_threads();
  kernel().end(record->pid);
  die(record, SIGKILL);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(next_due_us(), INT64_MAX);
}

// ---- what it executes -----------------------------------------------------------------------

TEST_F(TovEnding, ProcessThatGoesOnInAnotherProgramIsRegisteredAgain) {
  tov_pid_t *record = leaderless();
  const pid_t pid = record->pid;
  kernel().exec(worker_, {"/opt/a"});
  run(LONGEST_PAUSE_US);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_NONE));
  EXPECT_EQ(next_due_us(), INT64_MAX);
  EXPECT_EQ(forks(), 0u);
  kernel().end(pid);
  die(record);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovEnding, ReportOfOneThatLivesIsNone) {
  tov_pid_t *record = of_two_threads();
  die(record, SIGKILL);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_NONE));
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovEnding, QuestionsBeginAnewAtTheNextEnd) {
  tov_pid_t *record = leaderless();
  run(60 * US_PER_S);
  kernel().exec(worker_, {"/opt/a"});
  run(LONGEST_PAUSE_US);
  worker_ = kernel().start_thread(record->pid);
  kernel().end_thread(record->pid);
  die(record);
  EXPECT_EQ(next_due_us() - kernel().now_us(), US_PER_MS);
}

// ---- what cannot be known -------------------------------------------------------------------

TEST_F(TovEnding, ReportIsKeptWhileNothingCanBeKnown) {
  tov_pid_t *dead = of_two_threads();
  tov_pid_t *living = add(kernel().start({"/opt/b"}), "/opt/b");
  const pid_t pid = living->pid;
  go_blind();
  kernel().end(dead->pid);
  die(dead, SIGSEGV);
  die(living, SIGSEGV);
  run(3 * 60 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(is_ending(dead));
  EXPECT_TRUE(is_ending(living));
  see();
  run(LONGEST_PAUSE_US);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(dead->pid, kernel().forks[0]);
  EXPECT_EQ(dead->exit_signal, SIGSEGV);
  EXPECT_EQ(living->pid, pid);
  EXPECT_TRUE(waits_for(living, TOV_WAIT_NONE));
}

TEST_F(TovEnding, ReportIsKeptWithItsHaste) {
  tov_pid_t *record = of_two_threads();
  kernel().write_file(file_of(record), "");
  kernel().lock(file_of(record), kernel().start({"/opt/helper"}));
  kernel().end(record->pid);
  go_blind();
  die(record, SIGKILL, 1);
  see();
  run(LONGEST_PAUSE_US);
  EXPECT_EQ(forks(), 1u) << "it does not wait for the lock";
}

TEST_F(TovEnding, EndIsCertainWhenAnotherProcessHasTheId) {
  tov_pid_t *record = of_two_threads();
  const pid_t pid = record->pid;
  kernel().end(pid);
  kernel().start_as(pid, {"/opt/a"});
  go_blind();
  die(record);
  EXPECT_EQ(forks(), 0u);
  see();
  run(LONGEST_PAUSE_US);
  EXPECT_EQ(forks(), 1u);
  EXPECT_TRUE(kernel().has(pid));
}

// Otherwise a second copy might be started beside the twin.
TEST_F(TovEnding, TwinOfWhichNothingIsKnownIsAskedForAgain) {
  enum { QUESTIONS_ABOUT_ITSELF = 2 };
  for (const bool twin_lives : {true, false}) {
    tov_pid_t *twin = add(kernel().start({"/opt/t"}), "/opt/t");
    if (!twin_lives) kernel().end(twin->pid);
    tov_pid_t *record = task("/opt/t");
    record->flags = TOV_FLAG_STARTED;
    kernel().fail(CALL_OPEN, QUESTIONS_ABOUT_ITSELF + 1, EMFILE);
    die(record);
    EXPECT_TRUE(is_ending(record));
    EXPECT_EQ(forks(), 0u);
    EXPECT_EQ(count(), 2);
    run(LONGEST_PAUSE_US);
    EXPECT_EQ(forks(), twin_lives ? 0u : 1u);
    EXPECT_EQ(count(), 1);
    empty_registries();
  }
}

TEST_F(TovEnding, RestartThatHasWaitedAsksForItsTwinAgainAfterASecond) {
  tov_pid_t *record = task("/opt/t", 3);
  record->flags = TOV_FLAG_STARTED;
  die(record);
  ASSERT_TRUE(waits_for(record, TOV_WAIT_TIME));
  const tov_pid_t *twin = add(kernel().start({"/opt/t"}), "/opt/t");
  go_blind();
  run(5 * US_PER_S);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_EQ(forks(), 0u);
  see();
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_registered(twin));
}

// ---- it has its process ---------------------------------------------------------------------

TEST_F(TovEnding, WithdrawalEndsTheWait) {
  const pid_t pid = leaderless()->pid;
  tov_process_dump_all_msg(pid);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(next_due_us(), INT64_MAX);
  kernel().end_thread(worker_);
  tov_handle_netlink_exit(pid, SIGKILL, 0);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovEnding, SweepMissesNothing) {
  const tov_pid_t *record = leaderless();
  for (int sweeps = 0; sweeps < 3; sweeps++)
    sweep();
  run();
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], IsEmpty());
  EXPECT_TRUE(is_ending(record));
}

TEST_F(TovEnding, SweepBringsBackOneOfWhoseEndNobodyTold) {
  tov_pid_t *record = leaderless();
  kernel().end_thread(worker_);
  sweep();
  sweep();
  EXPECT_EQ(forks(), 1u);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_NONE));
  run(60 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovEnding, SameTaskElsewhereGivesWayToIt) {
  const tov_pid_t *record = leaderless();
  const tov_pid_t *other = task("/opt/a");
  die(other);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_ending(record));
}

TEST_F(TovEnding, ItsWatchedThreadsStay) {
  const tov_pid_t *record = leaderless();
  add(worker_, "/opt/a", NORMAL_EXIT, 0, tov_alive_chains)->ppid = record->pid;
  run(60 * US_PER_S);
  EXPECT_EQ(count(tov_alive_chains), 1);
  kernel().end_thread(worker_);
  die(record);
  EXPECT_EQ(count(tov_alive_chains), 0);
}

// It may never end, and is no restart.
TEST_F(TovEnding, WhoFinishesWhatWaitsItselfDoesNotWaitForIt) {
  tov_waits_leave_to_handler(false);
  kernel().after(US_PER_S, [] { tov_flag_set(quit, 1); });
  EXPECT_EQ(span_us([&] { leaderless(); }), 0);
  EXPECT_EQ(forks(), 0u);
}
