// The sweep: who counts as missing, who is only told about, and of whom nothing is said.
#include "core/policy/sweep.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_S;

static constexpr char PROGRAM[] = "/opt/a";
static constexpr int MANY = 3;  // sweeps; the second miss is a verdict
static constexpr size_t LINE_HOLDS = 200;

namespace {

class TovSweep : public tov_test::Waiting {
 protected:
  TovSweep() {
    // A restart's child is the daemon's copy until it executes.
    kernel().child_becomes = [](tov_test::process_s &child) { child.session = child.pid; };
  }

  // Returns how many could not be looked at.
  static int sweep(int times = 1) {
    int unknown = 0;
    for (int sweeps = 0; sweeps < times; sweeps++) {
      unknown = 0;
      for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS; bucket++)
        unknown += tov_sweep_bucket(bucket);
      kernel().pass(60 * US_PER_S);
    }
    return unknown;
  }
  static tov_pid_t *registered(const std::vector<std::string> &words = {PROGRAM, "-d"}) {
    std::string process;
    for (const std::string &word : words)
      process += (process.empty() ? "" : " ") + word;
    tov_pid_t *record = add(kernel().start(words), process);
    add(record->pid, process, NORMAL_EXIT, 0, tov_alive_chains)->ppid = record->pid;
    return record;
  }
  static std::vector<std::string> lines() {
    std::vector<std::string> taken;
    taken.swap(platform().events[TOV_LOG_RESTART]);
    return taken;
  }
  static std::string not_running(const tov_pid_t *record) {
    return "tov_proc_stat_check: tov_pid(" + std::string(record->process) + ", " +
           std::to_string(record->vsd_id) + ", " + std::to_string(record->pid) +
           ") is not running.";
  }
  // It lives, and that it differs is said at each sweep; nothing else happens.
  static void expect_told_about_alone(const tov_pid_t *record) {
    const pid_t pid = record->pid;
    EXPECT_EQ(sweep(MANY), 0);
    const auto said = StartsWith(not_running(record).substr(0, LINE_HOLDS));
    EXPECT_THAT(lines(), ElementsAre(said, said, said));
    expect_kept(record, pid);
  }
  static void expect_unmentioned(const tov_pid_t *record) {
    const pid_t pid = record->pid;
    EXPECT_EQ(sweep(MANY), 0);
    EXPECT_THAT(lines(), IsEmpty());
    expect_kept(record, pid);
  }
  static void expect_kept(const tov_pid_t *record, pid_t pid) {
    EXPECT_EQ(forks(), 0u);
    EXPECT_EQ(record->pid, pid);
    EXPECT_EQ(record->stat_check_cnt, 0);
    EXPECT_EQ(count(), 1);
    EXPECT_NE(find(pid, tov_alive_chains), nullptr) << "its watched thread is kept";
    EXPECT_TRUE(kernel().has(pid));
    EXPECT_THAT(kernel().kills, IsEmpty());
  }
  // Two misses and the verdict, and one more copy of it.
  void expect_brought_back(const tov_pid_t *record) {
    const std::string line = not_running(record);
    EXPECT_EQ(sweep(2), 0);
    run();
    ASSERT_EQ(forks(), 1u);
    EXPECT_EQ(record->pid, kernel().forks[0]);
    const std::vector<std::string> told = lines();
    ASSERT_GE(told.size(), 3u);
    EXPECT_EQ(told[0], line);
    EXPECT_EQ(told[1], line);
    EXPECT_THAT(told[2], HasSubstr("exit code lost, restart it."));
    EXPECT_THAT(kernel().kills, IsEmpty());
  }
  static void see() {
    kernel().proc_is_mounted = true;
    kernel().descriptor_limit = SIZE_MAX;
  }
};

}  // namespace

// ---- as registered, and gone ----------------------------------------------------------------

TEST_F(TovSweep, HealthyProcessIsNotMentioned) {
  expect_unmentioned(registered());
}

TEST_F(TovSweep, OneThatEndedUnheardComesBackAtTheSecondSweep) {
  const tov_pid_t *record = registered();
  kernel().end(record->pid);
  expect_brought_back(record);
}

// As where the event handler is held up, and somebody stops the program meanwhile.
TEST_F(TovSweep, StopThatWasHeardAndNotHandledYetIsAStop) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().pass(US_PER_S);
  kernel().end(pid);
  (void)tov_ends_note(pid, pid, SIGTERM, kernel().now_us());
  sweep(MANY);
  EXPECT_EQ(forks(), 0U);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT],
              Contains(HasSubstr("killed by signal 15 from others.")));
  tov_ends_forget();
}

TEST_F(TovSweep, OneWhoseRestartCameToNothingIsBroughtBackWhateverItsEndWas) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().pass(US_PER_S);
  kernel().end(pid);
  (void)tov_ends_note(pid, pid, SIGTERM, kernel().now_us());
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGTERM, 0);
  }
  expect_brought_back(record);
  tov_ends_forget();
}

TEST_F(TovSweep, OneWhoseIdAnotherHasComesBackAndTheOtherIsLeftAlone) {
  const tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().end(pid);
  kernel().start_as(pid, {PROGRAM, "-d"});
  expect_brought_back(record);
  EXPECT_TRUE(kernel().has(pid));
}

TEST_F(TovSweep, MissOfOneThatIsThereAfterAllIsForgotten) {
  tov_pid_t *record = registered();
  const tov_identity_t its = record->identity;
  const auto stand_for = [&](const tov_identity_t &identity) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_identify(held, record, identity, true);
  };
  for (int i = 0; i < MANY; i++) {
    stand_for({TOV_NEVER_STARTED, 0, 0, 0, 0});
    sweep();
    EXPECT_EQ(record->stat_check_cnt, 1);
    stand_for(its);
    sweep();
    EXPECT_EQ(record->stat_check_cnt, 0);
  }
  EXPECT_EQ(forks(), 0u);
}

// A miss is the process's: of the next one none counts.
TEST_F(TovSweep, NewProcessOfATaskBeginsWithoutMisses) {
  tov_pid_t *record = registered();
  kernel().end(record->pid);
  sweep();
  ASSERT_EQ(record->stat_check_cnt, 1);
  die(record);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->stat_check_cnt, 0);
  kernel().end(record->pid);
  kernel().reap(record->pid);
  sweep();
  EXPECT_EQ(forks(), 1u);
}

// ---- what lives and differs -----------------------------------------------------------------

TEST_F(TovSweep, UpgradedProgramIsToldAboutAlone) {
  const tov_pid_t *record = registered();
  kernel().replace_binary(PROGRAM);
  expect_told_about_alone(record);
}

TEST_F(TovSweep, RemovedProgramIsToldAboutAlone) {
  const tov_pid_t *record = registered();
  kernel().remove_binary(PROGRAM);
  expect_told_about_alone(record);
}

TEST_F(TovSweep, RewrittenTitleIsToldAboutAlone) {
  const tov_pid_t *record = registered();
  kernel().set_title(record->pid, {PROGRAM, "idle", "for", "an", "hour"});
  expect_told_about_alone(record);
}

TEST_F(TovSweep, CutTextIsToldAboutAlone) {
  const size_t longer_than_read = tov_reading_t::COMMAND_SIZE;
  expect_told_about_alone(registered({PROGRAM, std::string(longer_than_read, 'x')}));
}

TEST_F(TovSweep, TextThatAFileHasCutIsToldAboutAlone) {
  enum { FILE_HOLDS = 240 };
  const std::string text = PROGRAM + (" " + std::string(300, 'x'));
  const tov_pid_t *record =
      add(kernel().start({PROGRAM, text.substr(7)}), text.substr(0, FILE_HOLDS));
  add(record->pid, text, NORMAL_EXIT, 0, tov_alive_chains);
  expect_told_about_alone(record);
}

TEST_F(TovSweep, OtherDeviceIsToldAboutAlone) {
  tov_pid_t *record = registered();
  record->vsd_id = 5;
  expect_told_about_alone(record);
}

TEST_F(TovSweep, AllOfItAtOnceIsToldAboutAlone) {
  tov_pid_t *record = registered();
  kernel().replace_binary(PROGRAM);
  kernel().set_title(record->pid, {PROGRAM, "idle"});
  record->vsd_id = 5;
  expect_told_about_alone(record);
}

TEST_F(TovSweep, UpgradedProgramThatEndsLaterComesBack) {
  const tov_pid_t *record = registered();
  kernel().replace_binary(PROGRAM);
  sweep(MANY);
  (void)lines();
  kernel().end(record->pid);
  expect_brought_back(record);
}

// ---- what it executes -----------------------------------------------------------------------

TEST_F(TovSweep, OneThatExecutedAnotherProgramIsReplacedAndNotKilled) {
  const tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().exec(pid, {"/opt/other"});
  expect_brought_back(record);
  EXPECT_TRUE(kernel().has(pid));
}

TEST_F(TovSweep, OneThatExecutedItselfAnewIsNotMentioned) {
  const tov_pid_t *record = registered();
  kernel().replace_binary(PROGRAM);
  kernel().exec(record->pid, {PROGRAM, "-d"});
  expect_unmentioned(record);
  // What is then proven is measured from there.
  kernel().set_title(record->pid, {PROGRAM, "idle"});
  expect_told_about_alone(record);
}

TEST_F(TovSweep, UpgradeOfOneThatExecutedItselfIsNoOtherProgram) {
  const tov_pid_t *record = registered();
  kernel().exec(record->pid, {PROGRAM, "-d"});
  kernel().replace_binary(PROGRAM);
  expect_told_about_alone(record);
}

TEST_F(TovSweep, AnotherNameOfTheSameFileIsAnotherProgram) {
  const tov_pid_t *record = registered({"/bin/busybox", "httpd"});
  kernel().exec(record->pid, {"/bin/busybox", "sleep"});
  expect_brought_back(record);
}

// ---- a start that is not over ---------------------------------------------------------------

// Its shell runs for minutes before it executes the program.
TEST_F(TovSweep, StartScriptThatTakesMinutesIsNeitherRunAgainNorMentioned) {
  enum { SWEEPS = 7 };
  children_execute("/bin/sh");
  tov_pid_t *record = task(PROGRAM, 0, SHELL_RESTART);
  (void)snprintf(record->pathname, sizeof record->pathname, "/etc/a.sh");
  die(record);
  ASSERT_EQ(forks(), 1u);
  const pid_t shell = record->pid;
  ASSERT_EQ(shell, kernel().forks[0]);
  (void)lines();
  EXPECT_EQ(sweep(SWEEPS), 0);
  run();
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(lines(), IsEmpty());

  kernel().exec(shell, {PROGRAM});
  sweep(SWEEPS);
  EXPECT_EQ(record->seen, 1);
  EXPECT_THAT(lines(), IsEmpty());
  kernel().exec(shell, {"/opt/other"});
  sweep(2);
  run();
  EXPECT_EQ(forks(), 2u);
}

TEST_F(TovSweep, StartScriptWhoseShellEndsIsRunAgain) {
  children_execute("/bin/sh");
  tov_pid_t *record = task(PROGRAM, 0, SHELL_RESTART);
  die(record);
  (void)lines();
  sweep(MANY);
  kernel().end(record->pid);
  kernel().reap(record->pid);
  sweep(2);
  run();
  EXPECT_EQ(forks(), 2u);
}

TEST_F(TovSweep, ChildThatHasNotExecutedYetIsNotMentioned) {
  const tov_pid_t *record = task(PROGRAM);
  die(record);
  ASSERT_EQ(forks(), 1u);
  (void)lines();
  sweep(MANY);
  run();
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(lines(), IsEmpty());
}

// ---- what cannot be known -------------------------------------------------------------------

TEST_F(TovSweep, WithoutDescriptorsNothingIsConcludedAndTheDeadComeBackLater) {
  const tov_pid_t *living = registered();
  const tov_pid_t *dead = registered({"/opt/b"});
  const pid_t alive = living->pid;
  kernel().end(dead->pid);
  kernel().descriptor_limit = kernel().descriptors();
  EXPECT_EQ(sweep(MANY), 2);
  run();
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(lines(), IsEmpty());
  see();
  expect_brought_back(dead);
  EXPECT_EQ(living->pid, alive);
}

TEST_F(TovSweep, WithoutProcWhoIsThereIsNotMissed) {
  const tov_pid_t *living = registered();
  kernel().proc_is_mounted = false;
  EXPECT_EQ(sweep(MANY), 1);
  EXPECT_THAT(lines(), IsEmpty());
  see();
  expect_unmentioned(living);
}

TEST_F(TovSweep, MissStandsWhileNothingCanBeKnown) {
  const tov_pid_t *record = registered();
  kernel().end(record->pid);
  sweep();
  kernel().descriptor_limit = kernel().descriptors();
  EXPECT_EQ(sweep(MANY), 1);
  EXPECT_EQ(record->stat_check_cnt, 1);
  see();
  sweep();
  run();
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovSweep, FailureOfACallIsNeverAMiss) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  const unsigned int bucket = pidhash(pid);
  const int before = kernel().calls();
  tov_sweep_bucket(bucket);
  const int calls = kernel().calls() - before;
  ASSERT_GT(calls, 10);
  for (int nth = 1; nth <= calls; nth++) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO, EACCES}) {
      SCOPED_TRACE("call " + std::to_string(nth) + " fails with " + std::to_string(error));
      kernel().fail_any(nth, error);
      tov_sweep_bucket(bucket);
      EXPECT_EQ(record->stat_check_cnt, 0);
      EXPECT_THAT(lines(), IsEmpty());
    }
  }
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(record->pid, pid);
}

TEST_F(TovSweep, OneWhoseFirstThreadEndedIsNotMentioned) {
  const tov_pid_t *record = registered();
  (void)kernel().start_thread(record->pid);
  kernel().end_thread(record->pid);
  expect_unmentioned(record);
}

TEST_F(TovSweep, HowManyCouldNotBeLookedAtIsSaidOnceASweep) {
  (void)registered();
  (void)registered({"/opt/b"});
  kernel().descriptor_limit = kernel().descriptors();
  kernel().after(60 * US_PER_S - 1, [] { tov_flag_set(quit, 1); });
  (void)tov_proc_stat_check(nullptr);
  EXPECT_THAT(platform().events[TOV_LOG_ERROR],
              Contains("tov_proc_stat_check: 2 processes could not be looked at, nothing is "
                       "concluded."));
}

// ---- what happens during the look -----------------------------------------------------------

TEST_F(TovSweep, ReadingOfAProcessThatIsReplacedMeanwhileCountsForNothing) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().end(pid);
  // Between the reading and its use the exit is heard, and the task started again.
  kernel().before(tov_test::CALL_KILL, 2, [&] { die(record); });
  tov_sweep_bucket(pidhash(pid));
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_THAT(lines(), Each(Not(HasSubstr("is not running"))));
}

TEST_F(TovSweep, ReadingOfAProcessWhoseRestartWaitsByThenCountsForNothing) {
  tov_pid_t *record = registered();
  record->restart_time = 600;
  kernel().end(record->pid);
  kernel().before(tov_test::CALL_KILL, 2, [&] { die(record); });
  tov_sweep_bucket(pidhash(record->pid));
  ASSERT_TRUE(waits_for(record, TOV_WAIT_TIME));
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TovSweep, ReadingOfTheLastUserOfAnIdCountsForNothing) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().end(pid);
  kernel().before(tov_test::CALL_OPEN, 2, [&] {
    kernel().start_as(pid, {PROGRAM, "-d"});
    const tov_chains_guard_t held(tov_chains);
    tov_record_renew(held, record, pid);
  });
  tov_sweep_bucket(pidhash(pid));
  ASSERT_TRUE(kernel().has(pid));
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TovSweep, RecordThatGoesMeanwhileIsNotTouched) {
  tov_pid_t *record = registered();
  const pid_t pid = record->pid;
  kernel().before(tov_test::CALL_OPEN, 1, [&] { forget(record); });
  EXPECT_EQ(tov_sweep_bucket(pidhash(pid)), 0);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

// ---- one record, and no other of its id -----------------------------------------------------

TEST_F(TovSweep, VerdictFallsOnTheRecordThatWasMissed) {
  for (const bool dead_is_newer : {false, true}) {
    const pid_t pid = 300'000 + dead_is_newer;
    tov_pid_t *dead = nullptr, *living = nullptr;
    if (!dead_is_newer) dead = add(pid, "/opt/dead");  // of nobody
    kernel().start_as(pid, {PROGRAM});
    living = add(pid, PROGRAM);
    if (dead_is_newer) {
      dead = add(pid, "/opt/dead");
      dead->identity = {TOV_NEVER_STARTED, 0, 0, 0, 0};
    }
    const size_t before = forks();
    sweep(2);
    run();
    ASSERT_EQ(forks(), before + 1);
    EXPECT_EQ(dead->pid, kernel().forks.back());
    EXPECT_EQ(living->pid, pid);
    EXPECT_TRUE(is_registered(living));
    empty_registries();
  }
}
