// Deaths that no event has told: how long they are waited with, and which exit code they get.
#include "core/policy/late.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/policy/waits.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"
#include "util/identity.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

static constexpr int64_t GRACE_US = TOV_LATE_GRACE_MS * US_PER_MS;

namespace {

class TovLate : public tov_test::Waiting {
 protected:
  TovLate() { tov_ends_forget(); }
  ~TovLate() override { tov_ends_forget(); }

  // A record whose process has just died without an event.
  static tov_pid_t *dead(const std::string &process = "/opt/a", int restart_time = 0) {
    const pid_t pid = kernel().start({process});
    tov_pid_t *record = add(pid, process);
    record->restart_time = restart_time;
    kernel().pass(US_PER_S);
    kernel().end(pid);
    return record;
  }
  static void enter(const tov_pid_t *record, tov_late_e kind = TOV_LATE_LOST) {
    const tov_chains_guard_t held(tov_chains);
    tov_late_add(held, *record, kind, tov_late_born_us(record->identity));
  }
  static void note(pid_t pid, uint32_t code) {
    (void)tov_ends_note(pid, pid, code, kernel().now_us());
  }

  static const std::vector<std::string> &restarts() { return platform().events[TOV_LOG_RESTART]; }
};

}  // namespace

// ---- the grace ------------------------------------------------------------------------------

TEST_F(TovLate, NothingEnteredIsNothingToDo) {
  run();
  const tov_late_step_t step = tov_late_go_on();
  EXPECT_FALSE(step.handled);
  EXPECT_EQ(step.next_us, INT64_MAX);
}

TEST_F(TovLate, DeathWithoutAnEventIsDecidedAfterTheGrace) {
  const tov_pid_t *record = dead();
  enter(record);
  EXPECT_EQ(go_on().next_us, kernel().now_us() + GRACE_US);
  run(GRACE_US - 1);
  EXPECT_EQ(forks(), 0u);
  run(1);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_EQ(record->exit_signal, 0);
  run(US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovLate, EventOfTheGraceIsHandledAsAlways) {
  const tov_pid_t *record = dead();
  enter(record);
  run(GRACE_US / 2);
  die(record, SIGKILL);
  run(US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->exit_signal, SIGKILL);
  EXPECT_THAT(restarts(), Not(Contains(HasSubstr("is not running"))));
}

TEST_F(TovLate, StopOfTheGraceIsNoRestart) {
  const tov_pid_t *record = dead();
  enter(record);
  die(record, SIGTERM);
  EXPECT_EQ(count(), 0);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLate, EnteredTwiceIsDecidedOnce) {
  const tov_pid_t *record = dead("/opt/a", 2);
  enter(record);
  run(GRACE_US / 2);
  enter(record);
  run(GRACE_US);
  enter(record);  // it is being restarted by now
  run(3 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

// ---- the code -------------------------------------------------------------------------------

TEST_F(TovLate, NotedCodeIsTakenAtOnce) {
  const tov_pid_t *record = dead();
  note(record->pid, SIGSEGV);
  enter(record, TOV_LATE_ENTERED);
  run();
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->exit_signal, SIGSEGV);
}

// What was lost to the handler may still be in the ring, with the code.
TEST_F(TovLate, EventOfALostOneIsWaitedForAlthoughItsCodeIsNoted) {
  const tov_pid_t *record = dead();
  note(record->pid, SIGSEGV);
  enter(record);
  run(GRACE_US - 1);
  EXPECT_EQ(forks(), 0u);
  run(1);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovLate, CodeThatIsNotedInTheGraceCounts) {
  const tov_pid_t *record = dead();
  enter(record);
  note(record->pid, SIGSEGV);
  run(GRACE_US);
  EXPECT_EQ(record->exit_signal, SIGSEGV);
}

TEST_F(TovLate, NotedStopIsNotAnsweredByARestart) {
  const tov_pid_t *record = dead();
  note(record->pid, SIGTERM);
  enter(record);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 0);
}

TEST_F(TovLate, EndOfAnEarlierProcessOfTheIdDoesNotCount) {
  const pid_t pid = kernel().start({"/opt/a"});
  kernel().pass(US_PER_S);
  note(pid, SIGTERM);
  kernel().end(pid);
  kernel().pass(US_PER_S);
  kernel().set_next_pid(pid);
  ASSERT_EQ(kernel().start({"/opt/a"}), pid);
  const tov_pid_t *record = add(pid, "/opt/a");
  kernel().pass(US_PER_S);
  kernel().end(pid);
  enter(record);
  run(GRACE_US);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->exit_signal, 0);
}

TEST_F(TovLate, NotedCoreDumpCountsForTheMassRule) {
  const tov_pid_t *record = dead();
  note(record->pid, SIGSEGV | 0x80);
  enter(record);
  run(GRACE_US);
  EXPECT_NE(record->ill_tm, 0);
}

// ---- what is told ---------------------------------------------------------------------------

TEST_F(TovLate, LostOneIsToldAboutLikeBySweep) {
  const tov_pid_t *record = dead();
  const std::string named =
      "tov_proc_stat_check: tov_pid(/opt/a, 0, " + std::to_string(record->pid);
  enter(record);
  run(GRACE_US);
  ASSERT_GE(restarts().size(), 2u);
  EXPECT_EQ(restarts()[0], named + ") is not running.");
  EXPECT_EQ(restarts()[1], named + ") exit code lost, restart it.");
}

TEST_F(TovLate, EnteredOneIsNot) {
  const tov_pid_t *record = dead();
  enter(record, TOV_LATE_ENTERED);
  run(GRACE_US);
  EXPECT_EQ(forks(), 1u);
  EXPECT_THAT(restarts(), Not(Contains(HasSubstr("tov_proc_stat_check"))));
}

// ---- what has become of the record meanwhile ---------------------------------------------------

TEST_F(TovLate, WithdrawnRecordIsLeftAlone) {
  tov_pid_t *record = dead();
  enter(record);
  forget(record);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(restarts(), IsEmpty());
}

TEST_F(TovLate, RecordOfAnotherProcessIsLeftAlone) {
  tov_pid_t *record = dead();
  enter(record);
  const pid_t other = kernel().start({"/opt/a"});
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_renew(held, record, other);
  }
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(record->pid, other);
}

TEST_F(TovLate, RecordThatIsKnownBetterByNowIsLeftAlone) {
  tov_pid_t *record = dead();
  const pid_t pid = record->pid;
  enter(record);
  (void)kernel().start_as(pid, {"/opt/a"});
  tov_identity_t now;
  ASSERT_EQ(tov_identity_take(pid, &now), 0);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_identify(held, record, now, true);
  }
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLate, OtherRecordOfTheIdIsLeftAlone) {
  tov_pid_t *record = dead();
  const pid_t pid = record->pid;
  enter(record);
  forget(record);
  kernel().set_next_pid(pid);
  ASSERT_EQ(kernel().start({"/opt/b"}), pid);
  const tov_pid_t *other = add(pid, "/opt/b");
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(other->pid, pid);
}

TEST_F(TovLate, MarkedDeletionRemovesTheRecord) {
  const tov_pid_t *record = dead();
  kernel().write_file("/tmp/vsd/3/delete_vsd", "");
  enter(record);
  run(GRACE_US);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(forks(), 0u);
}

// ---- who decides ----------------------------------------------------------------------------

TEST_F(TovLate, WithoutAHandlerItIsDecidedBeforeTheCallerGoesOn) {
  tov_waits_leave_to_handler(false);
  const tov_pid_t *record = dead();
  enter(record);
  tov_waits_finish();
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

TEST_F(TovLate, NoFailedCallMakesTwoOfOne) {
  const auto story = [this](int nth) {
    const tov_pid_t *record = dead();
    note(record->pid, SIGKILL);
    const int before = kernel().calls();
    if (nth > 0) kernel().fail_any(nth, ENOMEM);
    enter(record);
    run(60 * US_PER_S);
    return kernel().calls() - before;
  };
  const int calls = story(0);
  for (int nth = 1; nth <= calls; nth++) {
    for (const pid_t child : kernel().forks)
      kernel().reap(child);
    kernel().forks.clear();
    empty_registries();
    init_registries();
    (void)story(nth);
    EXPECT_LE(forks(), 1u) << nth;
    EXPECT_EQ(count(), 1) << nth;
  }
}
