// Whose ends are heard: entered as often as left, and everybody while a fork is under way.
#include "core/run/known.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include "core/registry/deadlines.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/waiting.h"

static constexpr pid_t PID = 4711;

TEST(TovKnown, NobodyIsAtFirst) {
  for (const pid_t pid : {-1, 0, 1, PID, PID + 1})
    EXPECT_FALSE(tov_known_may_be(pid)) << pid;
}

TEST(TovKnown, WhoIsEnteredTwiceIsLeftTwice) {
  tov_known_enter(PID);
  tov_known_enter(PID);
  tov_known_leave(PID);
  EXPECT_TRUE(tov_known_may_be(PID));
  EXPECT_FALSE(tov_known_may_be(PID + 1));
  tov_known_leave(PID);
  EXPECT_FALSE(tov_known_may_be(PID));
}

TEST(TovKnown, IdsBelowOneAreNobody) {
  for (const pid_t pid : {0, -1, -11}) {
    tov_known_enter(pid);
    EXPECT_FALSE(tov_known_may_be(pid));
    tov_known_leave(pid);
  }
}

TEST(TovKnown, WhileAForkIsUnderWayEverybodyIs) {
  {
    const tov_known_all_t outer;
    { const tov_known_all_t inner; }
    EXPECT_TRUE(tov_known_may_be(PID));
  }
  EXPECT_FALSE(tov_known_may_be(PID));
}

// ---- records --------------------------------------------------------------------------------

namespace {

class TovKnownRecords : public tov_test::Waiting {
 protected:
  static tov_pid_t *enter(tov_chains_t *chains, pid_t pid) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    const tov_chains_guard_t held(*chains);
    tov_chain_insert(chains, record);
    return record;
  }
};

}  // namespace

TEST_F(TovKnownRecords, AreKnownFromTheirEntryToTheirRemoval) {
  tov_pid_t *record = enter(&tov_chains, PID);
  EXPECT_TRUE(tov_known_may_be(PID));
  const tov_chains_guard_t held(tov_chains);
  tov_chain_rekey(&tov_chains, record, PID + 1);
  EXPECT_FALSE(tov_known_may_be(PID));
  EXPECT_TRUE(tov_known_may_be(PID + 1));
  tov_chain_remove(&tov_chains, record);
  EXPECT_FALSE(tov_known_may_be(PID + 1));
}

TEST_F(TovKnownRecords, OfOneIdAreKnownUntilTheLastIsGone) {
  (void)enter(&tov_chains, PID);
  tov_pid_t *second = enter(&tov_chains, PID);
  const tov_chains_guard_t held(tov_chains);
  tov_chain_remove(&tov_chains, second);
  EXPECT_TRUE(tov_known_may_be(PID));
  __tov_del_pid(&tov_chains, PID);
  EXPECT_FALSE(tov_known_may_be(PID));
}

TEST_F(TovKnownRecords, OfOtherRegistriesAreNot) {
  for (tov_chains_t *chains : {&tov_alive_chains, &tov_chains_delay}) {
    tov_pid_t *record = enter(chains, PID);
    EXPECT_FALSE(tov_known_may_be(PID));
    const tov_chains_guard_t held(*chains);
    tov_chain_remove(chains, record);
    EXPECT_FALSE(tov_known_may_be(PID));
  }
}

TEST_F(TovKnownRecords, ChildOfARestartIsKnownUntilItIsOver) {
  static constexpr pid_t CHILD = PID + 5;
  tov_pid_t *record = enter(&tov_chains, PID);
  const tov_chains_guard_t held(tov_chains);
  tov_record_take_child(held, record, -11);  // a fork that failed
  tov_record_take_child(held, record, CHILD);
  EXPECT_TRUE(tov_known_may_be(CHILD));
  tov_record_take_child(held, record, CHILD + 1);
  EXPECT_FALSE(tov_known_may_be(CHILD));
  tov_record_wait(held, record, TOV_WAIT_SEARCH, 0);
  tov_record_end_wait(held, record);
  EXPECT_FALSE(tov_known_may_be(CHILD + 1));
  tov_record_wait(held, record, TOV_WAIT_SEARCH, 0);
  tov_record_take_child(held, record, CHILD);
  tov_chain_remove(&tov_chains, record);
  EXPECT_FALSE(tov_known_may_be(CHILD));
}
