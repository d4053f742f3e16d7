// Requests about watched threads and the rows for the next daemon: what is written when, and in
// which order beside the thread's bit in the shared area.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/registry/tov_chain.h"
#include "core/registry/watched.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tov_test::kernel;

namespace {

class WatchedThreads : public tov_test::Simulated {
 protected:
  WatchedThreads() : process(kernel().start({"/bin/x"})), thread(kernel().start_thread(process)) {
    g_tov_alive_info.info = &area;
    (void)open();
  }
  ~WatchedThreads() override {
    {
      const tov_chains_guard_t guard(tov_alive_chains);
      tov_watched_close();
    }
    empty_registries();
    g_tov_alive_info.info = nullptr;
  }

  // The file as the next daemon opens it.
  static std::vector<tov_watched_left_t> open() {
    const tov_chains_guard_t guard(tov_alive_chains);
    return tov_watched_open();
  }
  tov_msg_xtach_t payload(unsigned int period_s = 120, unsigned int budget = 5) const {
    tov_msg_xtach_t payload{};
    payload.pid = thread;
    payload.ppid = process;
    payload.m_n_notify_time = period_s;
    payload.m_n_counter = payload.m_n_cur_counter = budget;
    return payload;
  }
  void start(unsigned int period_s = 120, unsigned int budget = 5) const {
    tov_msg_xtach_t request = payload(period_s, budget);
    EXPECT_EQ(tov_notifier_start(&request), 0);
  }
  void reset(unsigned int period_s, unsigned int budget) const {
    tov_msg_xtach_t request = payload(period_s, budget);
    EXPECT_EQ(tov_notifier_reset(&request), 0);
  }
  bool has_bit() const { return (area.map[thread / 8] >> (thread % 8) & 1) != 0; }
  static int writes() { return kernel().calls(tov_test::CALL_PWRITE); }

  tov_sys_alive_info_t area{};
  pid_t process;
  pid_t thread;
};

TEST_F(WatchedThreads, RegistrationIsWrittenBeforeTheBitIsSet) {
  bool bit = true;
  kernel().before(tov_test::CALL_PWRITE, 1, [&] { bit = has_bit(); });
  start(180, 4);
  EXPECT_FALSE(bit);
  EXPECT_TRUE(has_bit());
  const auto left = open();
  ASSERT_THAT(left, SizeIs(1));
  EXPECT_EQ(left[0].row.tid, thread);
  EXPECT_EQ(left[0].row.owner, process);
  EXPECT_EQ(left[0].row.started, kernel().process(thread).started);
  EXPECT_EQ(left[0].row.owner_started, kernel().process(process).started);
  EXPECT_EQ(left[0].row.period_s, 180U);
  EXPECT_EQ(left[0].row.budget, 4U);
}

TEST_F(WatchedThreads, EndOfAWatchIsWrittenBeforeTheBitIsCleared) {
  start();
  bool bit = false;
  kernel().before(tov_test::CALL_PWRITE, 1, [&] { bit = has_bit(); });
  tov_notifier_stop(thread);
  EXPECT_TRUE(bit);
  EXPECT_FALSE(has_bit());
  EXPECT_THAT(open(), IsEmpty());
}

TEST_F(WatchedThreads, EndOfTheOwnerIsWrittenBeforeTheBitIsCleared) {
  start();
  tov_pid_t owner{};
  owner.pid = process;
  bool bit = false;
  kernel().before(tov_test::CALL_PWRITE, 1, [&] { bit = has_bit(); });
  tov_del_node_chain_safe(&owner, &tov_alive_chains);
  EXPECT_TRUE(bit);
  EXPECT_FALSE(has_bit());
  EXPECT_THAT(open(), IsEmpty());
}

TEST_F(WatchedThreads, EndOfTheirProcessForgetsItsThreadsAlone) {
  start();
  tov_pid_t owner{};
  owner.pid = process;
  owner.identity.started = kernel().process(process).started + 1;
  tov_del_threads_of(owner);
  EXPECT_THAT(open(), SizeIs(1)) << "those of another process that had the id";
  owner.identity.started--;
  bool bit = false;
  kernel().before(tov_test::CALL_PWRITE, 1, [&] { bit = has_bit(); });
  tov_del_threads_of(owner);
  EXPECT_TRUE(bit);
  EXPECT_FALSE(has_bit());
  EXPECT_THAT(open(), IsEmpty());
}

TEST_F(WatchedThreads, ThreadThatGotTheIdOfAnotherOneIsANewOne) {
  start(180, 4);
  tov_pid_t *record = find(thread, tov_alive_chains);
  record->m_n_cur_counter = 1;
  kernel().process(thread).started += 3;
  start(120, 5);
  EXPECT_EQ(count(tov_alive_chains), 1);
  record = find(thread, tov_alive_chains);
  EXPECT_EQ(record->m_n_cur_counter, 5U);
  EXPECT_EQ(record->m_n_notify_time, 120U);
  EXPECT_EQ(record->identity.started, kernel().process(thread).started);
  EXPECT_TRUE(has_bit());
  const auto left = open();
  ASSERT_THAT(left, SizeIs(1));
  EXPECT_EQ(left[0].row.started, kernel().process(thread).started);
}

TEST_F(WatchedThreads, RemovalById) {
  start();
  {
    const tov_chains_guard_t guard(tov_alive_chains);
    __tov_del_pid(&tov_alive_chains, thread);
  }
  EXPECT_THAT(open(), IsEmpty());
}

TEST_F(WatchedThreads, NewTermsAreWrittenAndKnownOnesAreNot) {
  start();
  const int before = writes();
  start();
  reset(120, 5);
  EXPECT_EQ(writes(), before);
  reset(180, 5);
  EXPECT_EQ(writes(), before + 1);
  reset(180, 50);
  EXPECT_EQ(writes(), before + 2);
  const auto left = open();
  ASSERT_THAT(left, SizeIs(1));
  EXPECT_EQ(left[0].row.period_s, 180U);
  EXPECT_EQ(left[0].row.budget, 50U);
}

TEST_F(WatchedThreads, EndInOrderHandsOver) {
  start();
  tov_destroy_chains(&tov_alive_chains);
  EXPECT_FALSE(has_bit());
  EXPECT_THAT(open(), SizeIs(1));
}

TEST_F(WatchedThreads, EndInOrderHandsNobodyOverWhoHasWithdrawnUnheard) {
  start();
  area.seq[thread] = 0;  // the mark, which the end takes away
  tov_destroy_chains(&tov_alive_chains);
  EXPECT_THAT(open(), IsEmpty());
}

TEST_F(WatchedThreads, SpeakingAgainReplacesWhatWasTakenOver) {
  start();
  tov_pid_t *record = find(thread, tov_alive_chains);
  record->inherited = 1;
  record->m_n_cur_counter = 1;
  record->m_n_cur_notify_time = 60;
  start(180, 4);
  EXPECT_EQ(count(tov_alive_chains), 1);
  record = find(thread, tov_alive_chains);
  EXPECT_EQ(record->inherited, 0);
  EXPECT_EQ(record->m_n_cur_counter, 4U);
  EXPECT_EQ(record->m_n_cur_notify_time, 0U);
  EXPECT_TRUE(has_bit());
  EXPECT_THAT(open(), SizeIs(1));
}

}  // namespace
