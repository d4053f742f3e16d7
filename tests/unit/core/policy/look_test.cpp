// The look at every record: when it begins, what it says, and whom it finds.
#include "core/policy/look.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/policy/late.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "core/run/loss.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

static constexpr int64_t GRACE_US = TOV_LATE_GRACE_MS * US_PER_MS;

namespace {

class TovLook : public tov_test::Waiting {
 protected:
  TovLook() {
    tov_ends_forget();
    (void)tov_loss_take();
  }
  ~TovLook() override { tov_ends_forget(); }

  void ask(uint32_t reasons = TOV_LOSS_EVENTS, uint64_t count = 1) { look_.ask({reasons, count}); }
  // Goes on until the look has nothing to do right now.
  int64_t look(bool heard_all = true) {
    enum { MANY = 1'000 };
    for (int steps = 0; steps < MANY; steps++) {
      const int64_t next_us = look_.go_on(heard_all);
      if (next_us > kernel().now_us()) return next_us;
    }
    ADD_FAILURE() << "the look does not come to an end";
    return 0;
  }
  // The whole of it, with what is decided after it.
  void look_and_decide() {
    ask();
    (void)look();
    run(GRACE_US);
  }

  static tov_pid_t *living(const std::string &process) {
    return add(kernel().start({process}), process);
  }
  // Its process is gone, and no event has told.
  static tov_pid_t *gone(const std::string &process) {
    tov_pid_t *record = living(process);
    kernel().pass(US_PER_S);
    kernel().end(record->pid);
    return record;
  }
  static const std::vector<std::string> &errors() { return platform().events[TOV_LOG_ERROR]; }

  tov_look_t look_;
};

}  // namespace

// ---- when -----------------------------------------------------------------------------------

TEST_F(TovLook, UnaskedItDoesNothing) {
  (void)gone("/opt/a");
  ask(0, 0);
  EXPECT_EQ(look(), INT64_MAX);
  run(US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLook, BeginsWhenWhatWasInTheRingIsHandled) {
  ask();
  const int64_t asked_us = kernel().now_us();
  EXPECT_EQ(look(false), asked_us + US_PER_S);
  EXPECT_THAT(errors(), IsEmpty());
  kernel().pass(100 * US_PER_MS);
  EXPECT_EQ(look(true), INT64_MAX);
  EXPECT_THAT(errors(), testing::SizeIs(1));
}

TEST_F(TovLook, WaitsForThatNoLongerThanASecond) {
  ask();
  kernel().pass(US_PER_S);
  EXPECT_EQ(look(false), INT64_MAX);
  EXPECT_THAT(errors(), testing::SizeIs(1));
}

TEST_F(TovLook, LossesOfHalfASecondAreOneLook) {
  ask(TOV_LOSS_EVENTS, 1);
  (void)look();
  const int64_t begun_us = kernel().now_us();
  for (int i = 0; i < 10; i++) {
    ask(TOV_LOSS_EVENTS, 10);
    EXPECT_EQ(look(), begun_us + 500 * US_PER_MS);
  }
  EXPECT_THAT(errors(), testing::SizeIs(1));
  kernel().pass(500 * US_PER_MS);
  (void)look();
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("TOV: 1 process"), HasSubstr("TOV: 100 process")));
}

// ---- what is said ---------------------------------------------------------------------------

TEST_F(TovLook, LossIsOneErrorLine) {
  ask(TOV_LOSS_EVENTS, 5918);
  (void)look();
  EXPECT_THAT(errors(), ElementsAre("TOV: 5918 process events were lost, every registered process "
                                    "is looked at."));
}

TEST_F(TovLook, LossOfUnknownSizeIsCalledSo) {
  ask(TOV_LOSS_EVENTS, 7);
  ask(TOV_LOSS_UNCOUNTED, 0);
  (void)look();
  EXPECT_THAT(errors(), ElementsAre("TOV: an unknown number of process events were lost, every "
                                    "registered process is looked at."));
}

TEST_F(TovLook, WhatMayHaveBeenMissedIsNoLoss) {
  const tov_pid_t *record = gone("/opt/a");
  ask(TOV_LOSS_SUBSCRIBED | TOV_LOSS_STOOD_STILL, 0);
  (void)look();
  run(GRACE_US);
  EXPECT_THAT(errors(), IsEmpty());
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

// ---- whom it finds --------------------------------------------------------------------------

TEST_F(TovLook, EveryDeadOneIsBroughtBackAndNobodyElse) {
  enum { TASKS = 100, DEAD = 30 };
  std::vector<const tov_pid_t *> records;
  std::vector<pid_t> ids;
  for (int i = 0; i < TASKS; i++) {
    records.push_back(living("/opt/task" + std::to_string(i)));
    ids.push_back(records.back()->pid);
  }
  kernel().pass(US_PER_S);
  for (int i = 0; i < DEAD; i++)
    kernel().end(ids[static_cast<size_t>(i)]);
  look_and_decide();
  EXPECT_EQ(forks(), size_t{DEAD});
  for (size_t i = 0; i < TASKS; i++)
    EXPECT_EQ(records[i]->pid == ids[i], i >= DEAD) << i;
  look_and_decide();
  EXPECT_EQ(forks(), size_t{DEAD});
}

TEST_F(TovLook, DeadOneWhoseIdHasAnotherProcessIsFound) {
  const tov_pid_t *record = gone("/opt/a");
  const pid_t pid = record->pid;
  (void)kernel().start_as(pid, {"/opt/stranger"});
  look_and_decide();
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
  EXPECT_TRUE(kernel().has(pid));
  EXPECT_THAT(kernel().kills, IsEmpty());
}

TEST_F(TovLook, OfTwoRecordsOfAnIdTheDeadOneIsBroughtBack) {
  tov_pid_t *first = gone("/opt/a");
  const pid_t pid = first->pid;
  (void)kernel().start_as(pid, {"/opt/b"});
  const tov_pid_t *second = add(pid, "/opt/b");
  look_and_decide();
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(first->pid, kernel().forks[0]);
  EXPECT_EQ(second->pid, pid);
}

TEST_F(TovLook, AnswerCountsForTheProcessThatWasAskedFor) {
  tov_pid_t *record = gone("/opt/a");
  const pid_t pid = record->pid;
  kernel().before(tov_test::CALL_KILL, 1, [&] {  // while it is asked for
    (void)kernel().start_as(pid, {"/opt/a"});
    record->identity.started++;
  });
  ask();
  (void)look();
  run(GRACE_US);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLook, ProcessWithoutItsFirstThreadLives) {
  const tov_pid_t *record = living("/opt/a");
  (void)kernel().start_thread(record->pid);
  kernel().end_thread(record->pid);
  look_and_decide();
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovLook, WhatCannotBeKnownIsNoDeath) {
  (void)gone("/opt/a");
  kernel().descriptor_limit = kernel().descriptors();
  look_and_decide();
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], IsEmpty());
  kernel().descriptor_limit = SIZE_MAX;
  kernel().proc_is_mounted = false;
  (void)living("/opt/b");
  kernel().pass(US_PER_S);
  ask();
  (void)look();
  run(GRACE_US);
  EXPECT_LE(forks(), 1u) << "the living one is none of the dead";
}

TEST_F(TovLook, SuspendedAndRestartedOnesHaveNoProcessToLookFor) {
  tov_pid_t *suspended = gone("/opt/a"), *waiting = gone("/opt/b");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, suspended, SIGKILL, 0);
    tov_record_suspend(held, suspended, 1);
  }
  waiting->restart_time = 60;
  die(waiting);
  look_and_decide();
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(tov_record_is_suspended(*suspended));
}

TEST_F(TovLook, NotedStopStaysAStop) {
  const tov_pid_t *record = gone("/opt/a");
  (void)tov_ends_note(record->pid, record->pid, SIGTERM, kernel().now_us());
  look_and_decide();
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(forks(), 0u);
}

// A listed program is searched for after its start, and the child's end was lost.
TEST_F(TovLook, EndOfASearchedChildIsTold) {
  tov_pid_t *record = listed();
  children_execute("/opt/other");
  die(record);
  run_first_look();
  ASSERT_EQ(forks(), 1u);
  ASSERT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  kernel().end(kernel().forks[0]);
  kernel().reap(kernel().forks[0]);
  EXPECT_EQ(record->start.child_ended, 0);
  ask();
  (void)look();
  EXPECT_EQ(record->start.child_ended, 1);
}

// ---- all that can fail ----------------------------------------------------------------------

TEST_F(TovLook, NoFailedCallKillsALivingOne) {
  const tov_pid_t *record = living("/opt/a");
  const pid_t pid = record->pid;
  const int before = kernel().calls();
  look_and_decide();
  const int calls = kernel().calls() - before;
  for (const int error : {ENOMEM, EMFILE, ENFILE, EINTR}) {
    for (int nth = 1; nth <= calls; nth++) {
      kernel().pass(US_PER_S);
      kernel().fail_any(nth, error);
      look_and_decide();
      EXPECT_EQ(forks(), 0u) << nth << " " << error;
      EXPECT_EQ(record->pid, pid);
    }
  }
}
