// Which process a record stands for: whether it has one, shares it, and which an exit concerns.
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include "core/registry/deadlines.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/identity.h"

using tov_test::kernel;

static constexpr pid_t ID = 4711;

namespace {

class TovRecordProcess : public tov_test::Simulated {
 protected:
  // A record of a new process that has the id.
  static tov_pid_t *started(const char *program = "/opt/a") {
    kernel().start_as(ID, {program});
    return add(ID, program);
  }
  static tov_pid_t *of_exit() {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_of_exit(held, ID);
  }
  static void wait(tov_pid_t *record, int what) {
    const tov_chains_guard_t held(tov_chains);
    if (what == TOV_WAIT_END) return tov_record_wait_end(held, record, 0, 0);
    tov_record_wait(held, record, what, 0);
  }
  static void ended(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, 0, 0);
  }
  static void suspend(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_suspend(held, record, 0);
  }
  static void renew(tov_pid_t *record, pid_t pid) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_renew(held, record, pid);
  }
};

}  // namespace

TEST_F(TovRecordProcess, EveryStateButTwoHasNone) {
  EXPECT_TRUE(tov_record_has_process(*started()));
  tov_pid_t *ending = add(ID, "/opt/b");
  wait(ending, TOV_WAIT_END);
  EXPECT_TRUE(tov_record_has_process(*ending));
  EXPECT_FALSE(tov_record_is_starting(*ending));
  for (const int what :
       {TOV_WAIT_TIME, TOV_WAIT_LOOK, TOV_WAIT_FORK, TOV_WAIT_SEARCH, TOV_WAIT_LOCK}) {
    tov_pid_t *waiting = add(ID, "/opt/c");
    wait(waiting, what);
    EXPECT_FALSE(tov_record_has_process(*waiting)) << what;
    EXPECT_TRUE(tov_record_is_starting(*waiting)) << what;
  }
  tov_pid_t *suspended = add(ID, "/opt/d");
  suspend(suspended);
  EXPECT_FALSE(tov_record_has_process(*suspended));
  tov_pid_t *over = add(ID, "/opt/e");
  ended(over);
  EXPECT_FALSE(tov_record_has_process(*over));
  for (const pid_t none : {0, -1})
    EXPECT_FALSE(tov_record_has_process(*add(none, "/opt/f"))) << none;
}

TEST_F(TovRecordProcess, IsSharedUnlessTheyStartedAtTwoMoments) {
  const tov_pid_t *one = started();
  tov_pid_t *other = add(ID, "/opt/b");
  EXPECT_TRUE(tov_record_shares_process(*one, *other));
  other->identity.started++;
  EXPECT_FALSE(tov_record_shares_process(*one, *other));
  other->identity = {};
  EXPECT_TRUE(tov_record_shares_process(*one, *other)) << "as far as is known";
  ended(other);
  EXPECT_FALSE(tov_record_shares_process(*one, *other));
  EXPECT_FALSE(tov_record_shares_process(*other, *one));
  EXPECT_FALSE(tov_record_shares_process(*one, *add(ID + 1, "/opt/a")));
}

TEST_F(TovRecordProcess, ExitConcernsTheOldestRecordOfOne) {
  const tov_pid_t *oldest = started();
  (void)add(ID, "/opt/b");
  (void)add(ID, "/opt/c");
  EXPECT_EQ(of_exit(), oldest);
}

TEST_F(TovRecordProcess, OnlyRecordOfAnIdIsNotAskedAbout) {
  const tov_pid_t *record = started();
  const int before = kernel().calls();
  EXPECT_EQ(of_exit(), record);
  EXPECT_EQ(kernel().calls(), before);
}

// Whoever has the id now may live: the exit is that of the one before.
TEST_F(TovRecordProcess, ExitConcernsTheOneThatHasEnded) {
  const tov_pid_t *dead = started();
  kernel().end(ID);
  const tov_pid_t *living = started("/opt/b");
  EXPECT_EQ(of_exit(), dead);
  EXPECT_TRUE(tov_life_is_over(tov_record_life(*dead)));
  EXPECT_EQ(tov_record_life(*living), TOV_LIFE_LIVES);
  kernel().end(ID);
  EXPECT_EQ(of_exit(), dead) << "the first that has ended";
}

TEST_F(TovRecordProcess, ExitConcernsTheOneThatHasEndedAlsoWhereItsRecordIsNewer) {
  (void)started("/opt/b");
  tov_pid_t *dead = add(ID, "/opt/a");
  dead->identity = {TOV_NEVER_STARTED, 0, 0, 0, 0};
  EXPECT_EQ(of_exit(), dead);
}

TEST_F(TovRecordProcess, ExitConcernsNoRecordWithoutAProcess) {
  tov_pid_t *dead = started();
  kernel().end(ID);
  ended(dead);
  EXPECT_EQ(of_exit(), nullptr);
  const tov_pid_t *living = started("/opt/b");
  EXPECT_EQ(of_exit(), living);
}

// Of a new process no more than its start is known: it executes what is registered only later.
TEST_F(TovRecordProcess, NewOneIsKnownByItsStartAlone) {
  tov_pid_t *record = started();
  ASSERT_EQ(record->seen, 1);
  kernel().end(ID);
  ended(record);
  const pid_t next = kernel().start({"/bin/sh"});
  renew(record, next);
  EXPECT_EQ(record->identity.started, kernel().process(next).started);
  EXPECT_EQ(record->identity.exe_ino, 0u);
  EXPECT_EQ(record->identity.stack, 0u);
  EXPECT_EQ(record->seen, 0);
  EXPECT_EQ(record->ended, 0);
  EXPECT_TRUE(tov_record_has_process(*record));
}

TEST_F(TovRecordProcess, NewOneThatCannotBeReadIsNotKnown) {
  tov_pid_t *record = started();
  const pid_t next = kernel().start({"/bin/sh"});
  kernel().descriptor_limit = kernel().descriptors();
  renew(record, next);
  kernel().descriptor_limit = SIZE_MAX;
  EXPECT_EQ(record->identity.started, 0u);
  EXPECT_EQ(tov_record_life(*record), TOV_LIFE_LIVES);
}

TEST_F(TovRecordProcess, RecordIsFoundByItsNumberUnderItsIdAlone) {
  tov_pid_t *record = started();
  const tov_pid_t *other = add(ID, "/opt/b");
  const tov_chains_guard_t held(tov_chains);
  EXPECT_NE(record->serial, other->serial);
  EXPECT_EQ(tov_record_of_serial(held, ID, record->serial), record);
  EXPECT_EQ(tov_record_of_serial(held, ID, other->serial), other);
  EXPECT_EQ(tov_record_of_serial(held, ID + TOV_PID_BUCKETS, record->serial), nullptr);
  EXPECT_EQ(tov_record_of_serial(held, ID, other->serial + 1), nullptr);
}
