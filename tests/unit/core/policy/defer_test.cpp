// Deferring a restart while the registration file of the dead process is locked.
#include "core/policy/defer.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdio.h>

#include <string>

#include "client/tov_pidfile.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using testing::HasSubstr;
using tov_test::kernel;
using tov_test::kernel_s;

static constexpr char FILE_OF_A[] = "/tmp/vsd/0/tov/db/a.4711";

namespace {

class TovDefer : public tov_test::Simulated {
 protected:
  // A record whose registration file is locked by a process that still runs.
  tov_pid_t *locked() {
    tov_pid_t *record = add(4711, "/opt/a -x");
    kernel().write_file(FILE_OF_A, "4711\n2\n/opt/a -x");
    helper_ = kernel().start({"/opt/helper"});
    kernel().lock(FILE_OF_A, helper_);
    return record;
  }
  static tov_pid_t *parked(pid_t pid = 4711) {
    tov_chains_guard_t guard(tov_chains_delay);
    return __tov_find_pid(&tov_chains_delay, pid);
  }

  pid_t helper_ = 0;
};

}  // namespace

TEST_F(TovDefer, ExitIsParkedWhileTheFileIsLocked) {
  tov_pid_t *record = locked();
  EXPECT_EQ(tov_proc_is_exit(record), 0);
  EXPECT_EQ(tov_proc_restart_delay(record), 1);
  EXPECT_NE(parked(), nullptr);
  EXPECT_EQ(kernel().lock_holder(FILE_OF_A), helper_);
}

TEST_F(TovDefer, ExitGoesOnWhenTheHolderEnds) {
  tov_pid_t *record = locked();
  kernel().end(helper_);
  EXPECT_EQ(tov_proc_is_exit(record), 1);
  EXPECT_EQ(tov_proc_restart_delay(record), 0);
  EXPECT_EQ(parked(), nullptr);
}

TEST_F(TovDefer, QuestionLeavesNoLockOfOurs) {
  tov_pid_t *record = locked();
  kernel().end(helper_);
  const size_t before = kernel().descriptors();
  EXPECT_EQ(tov_proc_is_exit(record), 1);
  EXPECT_EQ(kernel().lock_holder(FILE_OF_A), 0);
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovDefer, FileThatTheDaemonLockedItselfIsFree) {
  tov_pid_t *record = add(4711, "/opt/a -x");
  kernel().make_dir("/tmp/vsd/0/tov/db");
  ASSERT_EQ(tov_db_create(0, 4711, RESPAWN, "/opt/a -x"), 0);
  EXPECT_EQ(tov_proc_is_exit(record), 1);
}

TEST_F(TovDefer, FileThatIsNoneOrGoneDefersNothing) {
  tov_pid_t *record = add(4711, "/opt/a -x");
  EXPECT_EQ(tov_proc_is_exit(record), 1);
  kernel().make_dir("/tmp/vsd/0/tov/db");
  kernel().make_fifo(FILE_OF_A);
  EXPECT_EQ(tov_proc_is_exit(record), 1);
}

TEST_F(TovDefer, QuestionThatCannotBeAskedDefersNothing) {
  tov_pid_t *record = locked();
  const size_t before = kernel().descriptors();
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(tov_proc_is_exit(record), 1);
  kernel().fail(tov_test::CALL_LOCK, 1, ENOLCK);
  EXPECT_THAT(diagnostics([&] { EXPECT_EQ(tov_proc_is_exit(record), 1); }),
              HasSubstr(std::string("]Failed to lock file ") + FILE_OF_A));
  EXPECT_EQ(kernel().descriptors(), before);
}

// The given function says no; the daemon waits, as for a lock that is held.
TEST_F(TovDefer, WhatCannotBeKnownIsAReasonToWait) {
  const tov_pid_t *record = locked();
  kernel().end(helper_);
  ASSERT_FALSE(tov_defer_has_reason(*record));
  for (const int error : {EMFILE, ENFILE, ENOMEM}) {
    kernel().fail(tov_test::CALL_OPEN, 1, error);
    EXPECT_TRUE(tov_defer_has_reason(*record)) << error;
  }
  kernel().fail(tov_test::CALL_LOCK, 1, ENOMEM);
  EXPECT_TRUE(tov_defer_has_reason(*record));
  kernel().fail(tov_test::CALL_LOCK, 1, ENOLCK);
  EXPECT_FALSE(tov_defer_has_reason(*record)) << "a file system that will never lock";
  kernel().fail(tov_test::CALL_OPEN, 1, EACCES);
  EXPECT_FALSE(tov_defer_has_reason(*record)) << "a file that will never be opened";
  EXPECT_FALSE(tov_defer_has_reason(*record));
}

TEST_F(TovDefer, WhoeverNeedNotWaitIsNotAskedFor) {
  tov_pid_t *record = locked();
  EXPECT_TRUE(tov_defer_is_needed(*record));
  record->force_restart = 1;
  const int before = kernel().calls();
  EXPECT_FALSE(tov_defer_is_needed(*record));
  EXPECT_EQ(kernel().calls(), before);
}

// Two processes that had the same id, one after the other.
TEST_F(TovDefer, ExitsOfTwoRestartsAreTwo) {
  tov_pid_t *first = locked();
  tov_pid_t *second = add(4711, "/opt/b");
  first->start.number = 1;
  second->start.number = 2;
  for (const tov_pid_t *record : {first, second, first, second})
    tov_defer(*record);
  EXPECT_EQ(tov_chains_delay.node_num, 2);
}

TEST_F(TovDefer, BothAnswersOfTheKernelMeanLocked) {
  tov_pid_t *record = locked();
  for (const int error : {EACCES, EAGAIN}) {
    kernel().fail(tov_test::CALL_LOCK, 1, error);
    EXPECT_EQ(tov_proc_is_exit(record), 0) << error;
  }
}

TEST_F(TovDefer, SecondExitOfTheSameIdIsParkedOnce) {
  tov_pid_t *record = locked();
  EXPECT_EQ(tov_proc_restart_delay(record), 1);
  const tov_pid_t *first = parked();
  kernel().pass(5'000'000);
  EXPECT_EQ(tov_proc_restart_delay(record), 1);
  EXPECT_EQ(parked(), first);
  EXPECT_EQ(tov_chains_delay.node_num, 1);
}

TEST_F(TovDefer, ForcedRestartIsNeverParked) {
  tov_pid_t *record = locked();
  record->force_restart = 1;
  EXPECT_EQ(tov_proc_restart_delay(record), 0);
  EXPECT_EQ(tov_proc_restart_delay(nullptr), 0);
  EXPECT_EQ(parked(), nullptr);
}

TEST_F(TovDefer, ParkedCopyHoldsWhatTheHandBackNeeds) {
  kernel().set_uptime(777);
  tov_pid_t *record = locked();
  record->alarm_wait_flag = 1;
  record->restart_time = 7;
  record->action = SHELL_RESTART;
  record->exit_signal = 11;
  record->count = 3;
  (void)snprintf(record->pathname, sizeof record->pathname, "/etc/a");
  ASSERT_EQ(tov_proc_restart_delay(record), 1);
  const tov_pid_t *copy = parked();
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->process, "/opt/a -x");
  EXPECT_STREQ(copy->pathname, "/etc/a");
  EXPECT_EQ(copy->alarm_wait_flag, 1);
  EXPECT_EQ(copy->restart_time, 7);
  EXPECT_EQ(copy->action, SHELL_RESTART);
  EXPECT_EQ(copy->exit_signal, 11);
  EXPECT_EQ(copy->delay_tm, 777);
  EXPECT_EQ(copy->count, 0);
}
