// The registries: order in a bucket, removal, the lock and its order.
#include "core/registry/tov_chain.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "core/registry/links.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/registries.h"

namespace {

class TovChain : public testing::Test, protected tov_test::Registries {
 protected:
  void SetUp() override { init_registries(); }
  void TearDown() override { empty_registries(); }

  static tov_pid_t *add(tov_chains_t &chains, pid_t pid, pid_t ppid = 0) {
    tov_pid_t *record = Registries::add(pid, "", RESPAWN, 0, chains);
    record->ppid = ppid;
    return record;
  }

  static std::vector<pid_t> all_pids(tov_chains_t &chains) {
    std::vector<pid_t> pids;
    tov_chains_guard_t guard(chains);
    for (const tov_pid_t &record : tov_chain_records(&chains))
      pids.push_back(record.pid);
    return pids;
  }
};

// Another id in the same bucket as `pid`.
pid_t neighbour_of(pid_t pid) {
  pid_t other = pid + 1;
  while (pidhash(other) != pidhash(pid))
    other++;
  return other;
}

}  // namespace

// ---- hash and lists ------------------------------------------------------------------------

TEST(Pidhash, UpperEightBitsOfTheProduct) {
  EXPECT_EQ(pidhash(0), 0u);
  EXPECT_EQ(pidhash(1), 0x9Eu);
  EXPECT_EQ(pidhash(2), (2u * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(INT_MAX), (0x7FFFFFFFu * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(-1), (0xFFFFFFFFu * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(INT_MIN), (0x80000000u * 0x9E370001u) >> 24);
}

TEST(TovHlist, RemovedNodesCarryPoison) {
  tov_hlist_head_s head{};
  tov_hlist_node_s first{};
  tov_hlist_node_s second{};
  tov_hlist_add_head(&first, &head);
  tov_hlist_add_head(&second, &head);
  ASSERT_EQ(head.first, &second);
  ASSERT_EQ(second.next, &first);

  tov_hlist_del(&second);
  EXPECT_EQ(head.first, &first);
  EXPECT_EQ(first.pprev, &head.first);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(second.next), 0x100100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(second.pprev), 0x200200u);
  tov_hlist_del(&first);
  EXPECT_EQ(head.first, nullptr);
}

TEST(TovHlist, RemovalFromTheMiddleJoinsTheNeighbours) {
  tov_hlist_head_s head{};
  tov_hlist_node_s nodes[3] = {};
  for (auto &node : nodes)
    tov_hlist_add_head(&node, &head);
  tov_hlist_del(&nodes[1]);
  EXPECT_EQ(nodes[2].next, &nodes[0]);
  EXPECT_EQ(nodes[0].pprev, &nodes[2].next);
  EXPECT_EQ(nodes[0].next, nullptr);
}

TEST(TovHlist, UnlinkedNodeIsOnlyPoisoned) {
  tov_hlist_node_s node{};
  tov_hlist_init(&node);
  EXPECT_EQ(node.next, nullptr);
  EXPECT_EQ(node.pprev, nullptr);
  tov_hlist_del(&node);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.next), 0x100100u);
}

TEST(TovList, NodeOfItsOwnAndPoison) {
  tov_list_head_s node{};
  tov_list_init(&node);
  EXPECT_EQ(node.next, &node);
  EXPECT_EQ(node.prev, &node);
  tov_list_del(&node);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.next), 0x100100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.prev), 0x200200u);
}

TEST(TovList, RemovalJoinsTheNeighbours) {
  tov_list_head_s a{};
  tov_list_head_s b{};
  a = {&b, &b};
  b = {&a, &a};
  tov_list_del(&b);
  EXPECT_EQ(a.next, &a);
  EXPECT_EQ(a.prev, &a);
}

// ---- records -------------------------------------------------------------------------------

TEST_F(TovChain, NewRecordIsZeroed) {
  tov_pid_t *record = tov_chain_new_record();
  ASSERT_NE(record, nullptr);
  const std::vector<char> zeroes(sizeof *record, 0);
  EXPECT_EQ(memcmp(record, zeroes.data(), sizeof *record), 0);
  free(record);
}

TEST_F(TovChain, InsertedRecordStandsInItsBucket) {
  tov_pid_t *record = add(tov_chains, 4711);
  EXPECT_EQ(tov_chains.node_num, 1);
  EXPECT_EQ(tov_chains.pidchain[pidhash(4711)].first, &record->pidlink);
  EXPECT_EQ(record->pidlist.next, &record->pidlist);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 4711), record);
  EXPECT_EQ(__tov_find_pid(&tov_chains, neighbour_of(4711)), nullptr);
}

TEST_F(TovChain, FindGivesTheNewestAndOldestNodeTheOldest) {
  tov_pid_t *oldest = add(tov_chains, 100);
  add(tov_chains, neighbour_of(100));
  tov_pid_t *newest = add(tov_chains, 100);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 100), newest);
  EXPECT_EQ(tov_get_oldest_node(100), oldest);
  EXPECT_EQ(tov_get_oldest_node(neighbour_of(neighbour_of(100))), nullptr);
}

TEST_F(TovChain, OldestNodeLooksAtTheMainRegistryOnly) {
  add(tov_chains_delay, 100);
  EXPECT_EQ(tov_get_oldest_node(100), nullptr);
}

TEST_F(TovChain, DeletionByIdRemovesAllOfThatIdAndSaysSo) {
  add(tov_chains, 100);
  add(tov_chains, neighbour_of(100));
  add(tov_chains, 100);
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [] {
    tov_chains_guard_t guard(tov_chains);
    __tov_del_pid(&tov_chains, 100);
  });
  EXPECT_EQ(tov_chains.node_num, 1);
  EXPECT_EQ(all_pids(tov_chains), std::vector<pid_t>{neighbour_of(100)});
  const size_t first = said.find("]__tov_del_pid del pid 100");
  ASSERT_NE(first, std::string::npos) << said;
  EXPECT_NE(said.find("]__tov_del_pid del pid 100", first + 1), std::string::npos) << said;
}

TEST_F(TovChain, RekeyMovesTheRecordToTheHeadOfItsNewBucket) {
  tov_pid_t *moved = add(tov_chains, 100);
  add(tov_chains, neighbour_of(200));
  {
    tov_chains_guard_t guard(tov_chains);
    tov_chain_rekey(&tov_chains, moved, 200);
  }
  EXPECT_EQ(moved->pid, 200);
  EXPECT_EQ(tov_chains.pidchain[pidhash(200)].first, &moved->pidlink);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 100), nullptr);
  EXPECT_EQ(tov_chains.node_num, 2);
}

TEST_F(TovChain, IdsThatNoProcessHasCanBeKept) {
  add(tov_chains, -1);  // what a failed start leaves
  add(tov_chains, 0);
  EXPECT_NE(__tov_find_pid(&tov_chains, -1), nullptr);
  EXPECT_NE(__tov_find_pid(&tov_chains, 0), nullptr);
}

TEST_F(TovChain, WalkMayRemoveTheRecordItStandsOn) {
  for (pid_t pid = 1; pid <= 1000; pid++)
    add(tov_chains, pid);
  {
    tov_chains_guard_t guard(tov_chains);
    for (tov_pid_t &record : tov_chain_records(&tov_chains))
      if (record.pid % 2 == 0) tov_chain_remove(&tov_chains, &record);
  }
  EXPECT_EQ(tov_chains.node_num, 500);
  for (pid_t pid : all_pids(tov_chains))
    EXPECT_EQ(pid % 2, 1);
}

// ---- removal by parent ---------------------------------------------------------------------

TEST_F(TovChain, ChildrenOfARecordGoAndStrangersStay) {
  tov_pid_t *parent = add(tov_chains, 500, 1);
  for (pid_t pid = 1000; pid < 1010; pid++)
    add(tov_chains, pid, 500);
  add(tov_chains, 2000, 501);
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { tov_del_node_chain_safe(parent, &tov_chains); });
  EXPECT_EQ(tov_chains.node_num, 2);
  EXPECT_NE(__tov_find_pid(&tov_chains, 500), nullptr);
  EXPECT_NE(__tov_find_pid(&tov_chains, 2000), nullptr);
  EXPECT_NE(said.find("]tov_del_node_chain: delete pid (1003) ppid (500) from chain!"),
            std::string::npos)
      << said;
}

TEST_F(TovChain, RecordThatIsItsOwnParentGoesWithItsChildren) {
  tov_pid_t *self = add(tov_chains, 500, 500);
  for (pid_t pid = 1000; pid < 1300; pid++)
    add(tov_chains, pid, 500);
  tov_del_node_chain_safe(self, &tov_chains);
  EXPECT_EQ(tov_chains.node_num, 0);
}

TEST_F(TovChain, RecordWithoutChildrenRemovesNothing) {
  tov_pid_t *parent = add(tov_chains, 500, 1);
  add(tov_chains, 1000, 499);
  tov_del_node_chain_safe(parent, &tov_chains);
  EXPECT_EQ(tov_chains.node_num, 2);
}

TEST_F(TovChain, NullArgumentsAreNamedAndHarmless) {
  tov_pid_t *record = add(tov_chains, 500);
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] {
    tov_del_node_chain(nullptr, &tov_chains);
    tov_del_node_chain(record, nullptr);
    tov_del_node_chain_safe(nullptr, &tov_chains);
    tov_del_node_chain_safe(record, nullptr);
  });
  const std::string line = "]tov_del_node_chain: Invalid argument";
  size_t count = 0;
  for (size_t at = said.find(line); at != std::string::npos; at = said.find(line, at + 1))
    count++;
  EXPECT_EQ(count, 4u) << said;
  EXPECT_EQ(tov_chains.node_num, 1);
}

TEST_F(TovChain, RemovedThreadsLoseTheirSlotInTheSharedArea) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  for (pid_t tid : {1000, 163839})
    ASSERT_EQ(tov_sys_reg_alive_info(tid), 0);
  tov_pid_t *process = add(tov_chains, 500);
  for (pid_t tid : {1000, 163839, 163840, 200000})
    add(tov_alive_chains, tid, 500);

  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_ALIVE, [&] { tov_del_node_chain_safe(process, &tov_alive_chains); });
  EXPECT_EQ(tov_alive_chains.node_num, 0);
  EXPECT_FALSE(tov_sys_isreg_alive_info(1000));
  EXPECT_FALSE(tov_sys_isreg_alive_info(163839));
  EXPECT_EQ(said, "");  // large ids have no slot, so none was asked for
}

TEST_F(TovChain, OtherRegistriesLeaveTheSlotsAlone) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  ASSERT_EQ(tov_sys_reg_alive_info(1000), 0);
  tov_pid_t *process = add(tov_chains_delay, 500);
  add(tov_chains, 1000, 500);
  tov_del_node_chain_safe(process, &tov_chains);
  EXPECT_TRUE(tov_sys_isreg_alive_info(1000));
  tov_sys_unreg_alive_info(1000);
}

TEST_F(TovChain, DestroyEmptiesReleasesSlotsAndKeepsTheLock) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  ASSERT_EQ(tov_sys_reg_alive_info(1000), 0);
  add(tov_alive_chains, 1000, 500);
  for (pid_t pid = 1; pid <= 300; pid++)
    add(tov_chains, pid);
  tov_destroy_chains(&tov_alive_chains);
  tov_destroy_chains(&tov_chains);
  EXPECT_FALSE(tov_sys_isreg_alive_info(1000));
  EXPECT_EQ(tov_chains.node_num, 0);
  EXPECT_TRUE(all_pids(tov_chains).empty());
  add(tov_chains, 7);  // a detached thread that comes late
  EXPECT_EQ(tov_chains.node_num, 1);
}

// ---- the lock ------------------------------------------------------------------------------

TEST_F(TovChain, LockIsRecursiveAndInheritsPriority) {
  tov_chains_guard_t outer(tov_chains);
  {
    tov_chains_guard_t inner(tov_chains);
    add(tov_chains, 1);
  }
  std::thread other([] { EXPECT_EQ(pthread_mutex_trylock(&tov_chains.lock), EBUSY); });
  other.join();
  outer.release();
  std::thread third([] {
    EXPECT_EQ(pthread_mutex_trylock(&tov_chains.lock), 0);
    pthread_mutex_unlock(&tov_chains.lock);
  });
  third.join();
  outer.release();  // a second release does nothing
  EXPECT_NE(tov_chains.lock.__data.__kind & 0x20, 0) << "PTHREAD_MUTEX_PRIO_INHERIT_NP";
}

TEST_F(TovChain, ThreadsTakeTurns) {
  constexpr int THREADS = 4;
  constexpr int ROUNDS = 500;
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int t = 0; t < THREADS; t++)
    threads.emplace_back([t] {
      for (int i = 0; i < ROUNDS; i++) {
        const pid_t pid = t * ROUNDS + i + 1;
        add(tov_chains, pid);
        tov_chains_guard_t guard(tov_chains);
        EXPECT_NE(__tov_find_pid(&tov_chains, pid), nullptr);
        if (i % 2 == 0) __tov_del_pid(&tov_chains, pid);
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(tov_chains.node_num, THREADS * ROUNDS / 2);
}

TEST_F(TovChain, AllowedOrdersPass) {
  tov_chains_guard_t outer(tov_chains);
  {
    tov_chains_guard_t alive(tov_alive_chains);
    tov_chains_guard_t again(tov_chains);  // held already
    tov_chains_guard_t once_more(tov_alive_chains);
  }
  tov_chains_guard_t delay(tov_chains_delay);
  tov_chains_t own{};
  tov_init_chains(&own);
  tov_chains_guard_t no_part_in_the_order(own);
}

#ifndef NDEBUG
using TovChainDeathTest = TovChain;

TEST_F(TovChainDeathTest, WrongOrderIsFoundInDebugBuilds) {
  for (tov_chains_t *first : {&tov_alive_chains, &tov_chains_delay})
    EXPECT_DEATH(
        {
          tov_chains_guard_t inner(*first);
          tov_chains_guard_t outer(tov_chains);
        },
        "tov_chains first");
  EXPECT_DEATH(
      {
        tov_chains_guard_t alive(tov_alive_chains);
        tov_chains_guard_t delay(tov_chains_delay);
      },
      "tov_chains first");
}
#endif
