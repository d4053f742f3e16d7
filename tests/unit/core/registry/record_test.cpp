// The moves of a record's life that touch no file and no process.
#include "core/registry/record.h"

#include <gtest/gtest.h>
#include <time.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"

namespace {

class TovRecord : public testing::Test {
 protected:
  TovRecord() {
    tov_init_chains(&tov_chains);
    tov_init_chains(&tov_chains_delay);
  }
  ~TovRecord() override {
    tov_destroy_chains(&tov_chains);
    tov_destroy_chains(&tov_chains_delay);
  }
  // A task with starts in a burst that began at second `tm`.
  static tov_pid_t task(int count, time_t tm) {
    tov_pid_t record{};
    record.action = RESPAWN;
    record.count = count;
    record.tm = tm;
    record.first_tm = tm;
    return record;
  }
};

}  // namespace

TEST_F(TovRecord, FirstStartBeginsABurst) {
  const tov_burst_t burst = tov_burst_after_start(task(0, 0), true, 500);
  EXPECT_EQ(burst.count, 1);
  EXPECT_EQ(burst.tm, 500);
  EXPECT_EQ(burst.first_tm, 500);
}

TEST_F(TovRecord, StartsWithinTwoMinutesOfTheFirstBelongToItsBurst) {
  const tov_burst_t burst = tov_burst_after_start(task(3, 500), true, 619);
  EXPECT_EQ(burst.count, 4);
  EXPECT_EQ(burst.tm, 500);
  EXPECT_FALSE(tov_burst_is_over(burst.count));
  EXPECT_TRUE(tov_burst_is_over(5));
}

TEST_F(TovRecord, LaterStartBeginsAnotherBurst) {
  const tov_burst_t burst = tov_burst_after_start(task(4, 500), true, 620);
  EXPECT_EQ(burst.count, 1);
  EXPECT_EQ(burst.tm, 620);
  EXPECT_EQ(burst.first_tm, 620);
}

TEST_F(TovRecord, StartThatDoesNotCountLeavesTheBurst) {
  const tov_burst_t burst = tov_burst_after_start(task(2, 500), false, 900);
  EXPECT_EQ(burst.count, 2);
  EXPECT_EQ(burst.tm, 500);
}

TEST_F(TovRecord, ArithmeticHoldsInTheFirstSecondsOfAMachine) {
  const tov_burst_t burst = tov_burst_after_start(task(1, 1), true, 2);
  EXPECT_EQ(burst.count, 2);
  EXPECT_EQ(burst.tm, 1);
}

TEST_F(TovRecord, SuspensionShowsInBothFieldsAndForgetsTheMisses) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t record = task(5, 500);
  tov_record_missed(held, &record);
  EXPECT_FALSE(tov_record_is_suspended(record));
  tov_record_suspend(held, &record, 600);
  EXPECT_TRUE(tov_record_is_suspended(record));
  EXPECT_EQ(record.flags, TOV_FLAG_SELF_CHECK);
  EXPECT_EQ(record.alarm_wait_flag, 1);
  EXPECT_EQ(record.tm, 600);
  EXPECT_EQ(record.stat_check_cnt, 0);
}

TEST_F(TovRecord, ResumptionLeavesTheTimeOfTheFirstStart) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t record = task(5, 500);
  tov_record_suspend(held, &record, 600);
  tov_record_resume(held, &record);
  EXPECT_FALSE(tov_record_is_suspended(record));
  EXPECT_EQ(record.count, 0);
  EXPECT_EQ(record.tm, 0);
  EXPECT_EQ(record.first_tm, 500);
}

TEST_F(TovRecord, SelfChecksAreCountedUntilOneDoesNotCount) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t record = task(5, 500);
  tov_record_count_self_check(held, &record, true, 900);
  tov_record_count_self_check(held, &record, true, 1300);
  EXPECT_EQ(record.con_pull_flag, 2);
  EXPECT_EQ(record.con_tm, 1300);
  tov_record_count_self_check(held, &record, false, 1700);
  EXPECT_EQ(record.con_pull_flag, 0);
  EXPECT_EQ(record.con_tm, 0);
}

TEST_F(TovRecord, ParkedCopyHoldsWhatTheHandBackNeeds) {
  tov_pid_t record = task(5, 500);
  record.pid = 77;
  record.exit_signal = 9;
  record.force_restart = 1;
  {
    const tov_chains_guard_t held(tov_chains_delay);
    tov_record_defer(held, record, 600);
    tov_pid_t *parked = __tov_find_pid(&tov_chains_delay, 77);
    ASSERT_NE(parked, nullptr);
    EXPECT_EQ(parked->exit_signal, 9);
    EXPECT_EQ(parked->delay_tm, 600);
    EXPECT_EQ(parked->count, 0);
    EXPECT_EQ(parked->force_restart, 0);
    tov_record_force(held, parked);
    EXPECT_EQ(parked->force_restart, 1);
  }
  EXPECT_EQ(tov_chains_delay.node_num, 1);
}
