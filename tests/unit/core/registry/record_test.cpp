// The moves of a record's life, and the order in which waiting records go on.
#include "core/registry/record.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <string>

#include "core/registry/deadlines.h"
#include "core/registry/tov_chain.h"
#include "core/run/wake.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

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

class TovRecordWait : public tov_test::Simulated {
 protected:
  static void wait(tov_pid_t *record, int64_t due_us, int wait = TOV_WAIT_TIME) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_wait(held, record, wait, due_us);
  }
  static void end_wait(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_end_wait(held, record);
  }
  static void forget(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget(held, record);
  }
  static void forget_process(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget_process(held, record);
  }
  static void renew(tov_pid_t *record, pid_t new_pid) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_renew(held, record, new_pid);
  }
  static bool owns_file(const tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_owns_file(held, *record);
  }
  static tov_pid_t *due(int64_t now_us) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_due(held, now_us);
  }
  static int64_t next_due_us() {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_next_due_us(held);
  }
  // Takes the record that is due by then out of the order.
  static tov_pid_t *take_due(int64_t now_us) {
    tov_pid_t *record = due(now_us);
    if (record != nullptr) end_wait(record);
    return record;
  }
  static tov_pid_t *of_start(uint64_t number) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_of_start(held, number);
  }
  static tov_pid_t *of_child(pid_t child) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_of_child(held, child);
  }
  static tov_pid_t *newest_of(pid_t pid) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_newest_of(held, pid);
  }
  static tov_pid_t *of_exit(pid_t pid) {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_of_exit(held, pid);
  }
  // Whether the event handler was woken for a pass since it was last asked.
  static bool is_woken() { return tov_wake_wait(0); }
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

// ---- restarts under way -----------------------------------------------------------------------

TEST_F(TovRecordWait, NoneIsDueWhileNoneWaits) {
  (void)add(1, "/opt/a");
  EXPECT_EQ(next_due_us(), INT64_MAX);
  EXPECT_EQ(due(INT64_MAX - 1), nullptr);
}

TEST_F(TovRecordWait, RecordIsDueFromItsDeadlineOn) {
  tov_pid_t *record = add(1, "/opt/a");
  EXPECT_FALSE(tov_record_is_starting(*record));
  wait(record, 500);
  EXPECT_TRUE(tov_record_is_starting(*record));
  EXPECT_EQ(next_due_us(), 500);
  EXPECT_EQ(due(499), nullptr);
  EXPECT_EQ(due(500), record);
  EXPECT_EQ(due(501), record);
}

TEST_F(TovRecordWait, EarliestDeadlineComesFirst) {
  tov_pid_t *late = add(1, "/opt/a");
  tov_pid_t *early = add(2, "/opt/b");
  tov_pid_t *middle = add(3, "/opt/c");
  wait(late, 300);
  wait(early, 100);
  wait(middle, 200);
  EXPECT_EQ(take_due(400), early);
  EXPECT_EQ(take_due(400), middle);
  EXPECT_EQ(take_due(400), late);
  EXPECT_EQ(take_due(400), nullptr);
}

TEST_F(TovRecordWait, OfEqualDeadlinesTheOneThatBeganFirstComesFirst) {
  tov_pid_t *later = add(9, "/opt/z");
  wait(later, 200);
  tov_pid_t *first = add(3, "/opt/a");
  tov_pid_t *second = add(2, "/opt/b");
  tov_pid_t *third = add(1, "/opt/c");
  for (tov_pid_t *record : {first, second, third})
    wait(record, 100);
  EXPECT_EQ(take_due(300), first);
  EXPECT_EQ(take_due(300), second);
  EXPECT_EQ(take_due(300), third);
  EXPECT_EQ(take_due(300), later);
}

TEST_F(TovRecordWait, RecordThatWaitsAnewGoesBehindThoseOfItsDeadline) {
  tov_pid_t *first = add(1, "/opt/a");
  tov_pid_t *second = add(2, "/opt/b");
  wait(first, 100);
  wait(second, 100);
  wait(first, 100, TOV_WAIT_FORK);
  EXPECT_EQ(first->start.wait, TOV_WAIT_FORK);
  EXPECT_EQ(take_due(100), second);
  EXPECT_EQ(take_due(100), first);
  EXPECT_EQ(take_due(100), nullptr);
}

TEST_F(TovRecordWait, RecordThatWaitsAnewMovesToItsNewDeadline) {
  tov_pid_t *first = add(1, "/opt/a");
  tov_pid_t *second = add(2, "/opt/b");
  wait(first, 100);
  wait(second, 200);
  wait(first, 300);
  EXPECT_EQ(next_due_us(), 200);
  wait(first, 50);
  EXPECT_EQ(next_due_us(), 50);
  EXPECT_EQ(take_due(300), first);
  EXPECT_EQ(take_due(300), second);
}

TEST_F(TovRecordWait, WhatIsKnownOfTheRestartStaysWhileItWaitsAnew) {
  tov_pid_t *record = add(1, "/opt/a");
  wait(record, 100);
  const uint64_t number = record->start.number;
  record->start.slot = 7;
  wait(record, 200, TOV_WAIT_SEARCH);
  EXPECT_EQ(record->start.slot, 7);
  EXPECT_EQ(record->start.number, number);
  EXPECT_EQ(of_start(number), record);
}

TEST_F(TovRecordWait, EndOfTheWaitForgetsWhatWasKnown) {
  tov_pid_t *record = add(1, "/opt/a");
  wait(record, 100);
  const uint64_t number = record->start.number;
  record->start.forked = 77;
  record->start.announced = 1;
  end_wait(record);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(record->start.forked, 0);
  EXPECT_EQ(record->start.announced, 0);
  EXPECT_EQ(next_due_us(), INT64_MAX);
  EXPECT_EQ(of_start(number), nullptr);
  EXPECT_EQ(of_child(77), nullptr);
  end_wait(record);  // once more does nothing
}

TEST_F(TovRecordWait, RestartThatDidNotWaitIsForgottenToo) {
  tov_pid_t *record = add(1, "/opt/a");
  wait(add(2, "/opt/b"), 100);
  record->start.forked = 77;
  record->start.announced = 1;
  end_wait(record);
  EXPECT_EQ(record->start.forked, 0);
  EXPECT_EQ(record->start.announced, 0);
  EXPECT_EQ(next_due_us(), 100);
}

TEST_F(TovRecordWait, EachRestartHasANumberOfItsOwn) {
  tov_pid_t *first = add(1, "/opt/a");
  tov_pid_t *second = add(2, "/opt/b");
  wait(first, 100);
  wait(second, 100);
  const uint64_t number = first->start.number;
  EXPECT_NE(number, second->start.number);
  EXPECT_NE(number, 0u);
  end_wait(first);
  wait(first, 100);
  EXPECT_NE(first->start.number, number);
  EXPECT_NE(first->start.number, second->start.number);
  EXPECT_EQ(of_start(number), nullptr);
  EXPECT_EQ(of_start(first->start.number), first);
  EXPECT_EQ(of_start(second->start.number), second);
}

TEST_F(TovRecordWait, RemovalOfARecordEndsItsWait) {
  tov_pid_t *first = add(1, "/opt/a");
  tov_pid_t *second = add(2, "/opt/b");
  tov_pid_t *third = add(3, "/opt/c");
  wait(first, 100);
  wait(second, 200);
  wait(third, 300);
  const uint64_t number = second->start.number;
  forget(second);
  EXPECT_EQ(of_start(number), nullptr);
  EXPECT_EQ(take_due(400), first);
  EXPECT_EQ(take_due(400), third);
  EXPECT_EQ(take_due(400), nullptr);
}

// One whose restart waits shares the number with the process, and nothing else.
TEST_F(TovRecordWait, RemovalOfAProcessLeavesTheRestartsThatHaveItsId) {
  tov_pid_t *waiting = add(1, "/opt/a");
  tov_pid_t *one = add(1, "/opt/b");
  (void)add(1, "/opt/c");
  const tov_pid_t *stranger = add(2, "/opt/d");
  wait(waiting, 100);
  forget_process(one);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(find(1), waiting);
  EXPECT_EQ(find(2), stranger);
  EXPECT_EQ(due(100), waiting);
}

TEST_F(TovRecordWait, RemovalOfAProcessRemovesTheRecordThatAsksThoughItWaits) {
  tov_pid_t *asks = add(1, "/opt/a");
  tov_pid_t *waiting = add(1, "/opt/b");
  wait(asks, 100);
  wait(waiting, 200);
  forget_process(asks);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(next_due_us(), 200);
  EXPECT_EQ(due(200), waiting);
  forget_process(waiting);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(next_due_us(), INT64_MAX);
}

// ---- the registration file of a record that goes ------------------------------------------------

TEST_F(TovRecordWait, FileGoesWithTheLastRecordOfItsName) {
  const std::string file = "/tmp/vsd/0/tov/db/a.7";
  kernel().make_dir("/tmp/vsd/0/tov/db");
  kernel().write_file(file, "");
  tov_pid_t *dead = add(7, "/opt/a");
  tov_pid_t *other = add(7, "/usr/a");  // the directory is not part of the name
  wait(other, 100);
  EXPECT_FALSE(owns_file(dead));
  forget_process(dead);
  ASSERT_EQ(find(7), other);
  EXPECT_TRUE(kernel().exists(file));
  EXPECT_TRUE(owns_file(other));
  forget_process(other);
  EXPECT_FALSE(kernel().exists(file));
}

TEST_F(TovRecordWait, FileOfAnotherNameKeepsNone) {
  const std::string file = "/tmp/vsd/0/tov/db/a.7";
  kernel().make_dir("/tmp/vsd/0/tov/db");
  kernel().write_file(file, "");
  tov_pid_t *record = add(7, "/opt/a");
  (void)add(7, "/opt/b");
  (void)add(7, "/opt/a", RESPAWN, 1);  // of another device
  (void)add(8, "/opt/a");
  EXPECT_TRUE(owns_file(record));
  forget(record);
  EXPECT_FALSE(kernel().exists(file));
}

TEST_F(TovRecordWait, SuccessorLeavesTheFileToAnotherRecordOfItsName) {
  const std::string file = "/tmp/vsd/0/tov/db/a.7";
  kernel().make_dir("/tmp/vsd/0/tov/db");
  kernel().write_file(file, "");
  tov_pid_t *dead = add(7, "/opt/a");
  tov_pid_t *other = add(7, "/opt/a");
  renew(dead, 8);
  EXPECT_EQ(dead->pid, 8);
  EXPECT_TRUE(kernel().exists(file));
  renew(other, 9);
  EXPECT_FALSE(kernel().exists(file));
}

// ---- the order, and who is found ----------------------------------------------------------------

TEST_F(TovRecordWait, EmptiedRegistryLeavesNoneWaiting) {
  wait(add(1, "/opt/a"), 100);
  wait(add(2, "/opt/b"), 200);
  empty_registries();
  EXPECT_EQ(next_due_us(), INT64_MAX);
}

TEST_F(TovRecordWait, MissesAreForgottenWhenTheWaitBegins) {
  tov_pid_t *record = add(1, "/opt/a");
  record->stat_check_cnt = 1;
  wait(record, 100);
  EXPECT_EQ(record->stat_check_cnt, 0);
}

TEST_F(TovRecordWait, ChildIsFoundWhileItsRestartWaits) {
  tov_pid_t *other = add(1, "/opt/a");
  tov_pid_t *record = add(2, "/opt/b");
  record->start.forked = 77;
  EXPECT_EQ(of_child(77), nullptr);
  wait(other, 100);
  wait(record, 200, TOV_WAIT_SEARCH);
  EXPECT_EQ(of_child(77), record);
  EXPECT_EQ(of_child(78), nullptr);
}

TEST_F(TovRecordWait, NoChildIsNobodys) {
  tov_pid_t *record = add(2, "/opt/b");
  wait(record, 200);
  EXPECT_EQ(of_child(0), nullptr);
  record->start.forked = -11;  // the fork failed
  EXPECT_EQ(of_child(-11), nullptr);
}

TEST_F(TovRecordWait, NewestAndOldestPassOverRecordsThatWait) {
  tov_pid_t *oldest = add(1, "/opt/a");
  tov_pid_t *middle = add(1, "/opt/b");
  tov_pid_t *newest = add(1, "/opt/c");
  EXPECT_EQ(newest_of(1), newest);
  EXPECT_EQ(of_exit(1), oldest);
  wait(newest, 100);
  wait(oldest, 100);
  EXPECT_EQ(newest_of(1), middle);
  EXPECT_EQ(of_exit(1), middle);
  wait(middle, 100);
  EXPECT_EQ(newest_of(1), nullptr);
  EXPECT_EQ(of_exit(1), nullptr);
  end_wait(newest);
  EXPECT_EQ(newest_of(1), newest);
  EXPECT_EQ(of_exit(1), newest);
  EXPECT_EQ(newest_of(2), nullptr);
}

TEST_F(TovRecordWait, HandlerIsWokenForTheFirstDeadlineOnly) {
  ASSERT_EQ(tov_wake_open(), 0);
  (void)is_woken();
  wait(add(1, "/opt/a"), 200);
  EXPECT_TRUE(is_woken());
  EXPECT_FALSE(is_woken());
  tov_pid_t *second = add(2, "/opt/b");
  wait(second, 300);
  EXPECT_FALSE(is_woken());
  wait(add(3, "/opt/c"), 200);  // behind the equal one
  EXPECT_FALSE(is_woken());
  wait(second, 100);
  EXPECT_TRUE(is_woken());
  tov_wake_close();
}
