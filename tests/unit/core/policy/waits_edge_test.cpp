// Restarts at the edge: what one leaves behind for the next, ids that are given out again while a
// record waits, and listed programs whose fork fails or whose device goes.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "client/requests/tov_msg.h"
#include "core/policy/exit.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"

using tov_test::CALL_FORK;
using tov_test::kernel;
using tov_test::US_PER_S;

namespace {

class WaitsAtTheEdge : public tov_test::Waiting {
 protected:
  static void gone(pid_t pid) {
    kernel().end(pid);
    kernel().reap(pid);
  }
};

}  // namespace

// ---- what a restart leaves behind ----------------------------------------------------------

TEST_F(WaitsAtTheEdge, LockIsAskedForAgainAfterARestartThatNeedNotWait) {
  tov_pid_t *record = task("/opt/a");
  die(record);
  ASSERT_EQ(forks(), 1u);
  gone(record->pid);
  const std::string path = "/tmp/vsd/0/tov/db/a." + std::to_string(record->pid);
  kernel().write_file(path, "");
  kernel().lock(path, kernel().start({"/opt/helper"}));
  die(record);
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(tov_chains_delay), 1);
}

TEST_F(WaitsAtTheEdge, RestartThatNeedNotWaitLeavesNothingBehind) {
  tov_pid_t *record = task("/opt/a");
  die(record);
  EXPECT_EQ(record->start.announced, 0);
  EXPECT_EQ(record->start.forked, 0);
}

TEST_F(WaitsAtTheEdge, RestartedTaskWhoseProcessIsDeadIsNoLivingTwin) {
  tov_pid_t *first = task("/opt/a");
  first->flags = TOV_FLAG_STARTED;
  die(first);
  ASSERT_EQ(forks(), 1u);
  gone(first->pid);  // its end is not heard of yet
  tov_pid_t *second = task("/opt/a");
  second->flags = TOV_FLAG_STARTED;
  die(second);
  EXPECT_EQ(forks(), 2u);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_registered(second));
}

TEST_F(WaitsAtTheEdge, RestartThatCannotBeJournalledLeavesNothingBehind) {
  tov_pid_t *record = task("/opt/a");
  keep_journal();
  kernel().make_dir(TOV_JOURNAL_1);
  die(record);
  EXPECT_EQ(record->start.announced, 0);
}

// ---- the dead process's id is given out again ----------------------------------------------

TEST_F(WaitsAtTheEdge, TaskRegisteredAnewUnderTheSameIdIsNotStartedOnceMore) {
  tov_pid_t *record = task("/opt/a", 3);
  const pid_t id = record->pid;
  die(record);
  kernel().set_next_pid(id);
  ASSERT_EQ(kernel().start({"/opt/a"}), id);
  tov_msg_xtach_t payload{};
  payload.pid = id;
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_EQ(count(), 2);
  kernel().set_next_pid(1000);
  run(4 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(), 1);
}

TEST_F(WaitsAtTheEdge, FileOfAnotherProcessThatHasTheDeadOnesIdStays) {
  tov_pid_t *record = task("/opt/a", 3);
  const pid_t id = record->pid;
  die(record);
  kernel().set_next_pid(id);
  ASSERT_EQ(kernel().start({"/usr/a"}), id);
  tov_msg_xtach_t payload{};
  payload.pid = id;
  const std::string path = "/tmp/vsd/0/tov/db/a." + std::to_string(id);
  kernel().write_file(path, "");
  EXPECT_EQ(tov_process_restart(&payload), 0);
  kernel().set_next_pid(1000);
  run(4 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
  EXPECT_TRUE(kernel().exists(path));
}

TEST_F(WaitsAtTheEdge, WithdrawalOfAStrangerWithTheDeadOnesIdLeavesTheRestart) {
  tov_pid_t *record = task("/opt/a", 3);
  const pid_t id = record->pid;
  die(record);
  kernel().set_next_pid(id);
  ASSERT_EQ(kernel().start({"/opt/b"}), id);
  tov_msg_xtach_t payload{};
  payload.pid = id;
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_EQ(count(), 2);
  tov_process_dump_all_msg(id);
  kernel().set_next_pid(1000);
  run(4 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(WaitsAtTheEdge, DeliberateStopOrDuplicateOfAStrangerWithTheDeadOnesIdLeavesTheRestart) {
  tov_pid_t *record = task("/opt/a", 3);
  const pid_t id = record->pid;
  die(record);
  (void)add(kernel().start({"/opt/b"}), "/opt/b");
  (void)add(id, "/opt/b");  // a duplicate under the dead one's id, which ends
  tov_handle_netlink_exit(id, SIGKILL, 0);
  EXPECT_EQ(count(), 2);
  run(4 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

// ---- listed programs -----------------------------------------------------------------------

TEST_F(WaitsAtTheEdge, FailedForkOfAListedProgramStopsTheOthersToo) {
  tov_pid_t *record = listed();
  fail_forks(1);
  die(record);
  run_first_look();
  EXPECT_EQ(kernel().calls(CALL_FORK), 1);
  tov_pid_t *other = task("/opt/b");
  die(other);
  EXPECT_EQ(kernel().calls(CALL_FORK), 1);
  EXPECT_EQ(fork_file(), "");  // it counts the failures of other tasks
  run(5 * US_PER_S - 1);
  EXPECT_TRUE(waits_for(other, TOV_WAIT_FORK));
  EXPECT_EQ(kernel().calls(CALL_FORK), 1);
  run(1);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(other->pid, kernel().forks[0]);
}

TEST_F(WaitsAtTheEdge, SearchEndsWithItsDevice) {
  tov_pid_t *record = listed();
  record->vsd_id = 1;
  kernel().make_dir("/tmp/vsd/1/tov/db");
  kernel().write_file("/tmp/vsd/1/tov/" + std::to_string(record->pid), "");
  die(record);
  run_first_look();
  ASSERT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  kernel().write_file("/tmp/vsd/1/delete_vsd", "");
  run(6 * US_PER_S);
  EXPECT_EQ(count(), 0);
}

TEST_F(WaitsAtTheEdge, TwinThatGivesWayTakesNoStrangerWithItsIdAlong) {
  tov_pid_t *waiting = task("/opt/a", 3);
  const pid_t id = waiting->pid;
  die(waiting);
  const tov_pid_t *stranger = add(id, "/opt/b");  // dead, too; its end is not heard of yet
  tov_pid_t *twin = task("/opt/a", 3);
  twin->flags = TOV_FLAG_STARTED;
  die(twin);
  EXPECT_TRUE(is_registered(stranger));
  EXPECT_TRUE(is_registered(twin));
  EXPECT_EQ(count(), 2);
}
