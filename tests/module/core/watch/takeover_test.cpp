// Taking over the last daemon's threads: who still is the one of its row, who is not, and what a
// record then says. Real processes; a single-threaded one is a thread as any other.
#include "core/watch/takeover.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "core/registry/tov_chain.h"
#include "core/registry/watched.h"
#include "core/watch/watchdog.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "util/identity.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using tov_test::Child;
using tov_test::cmdline_of;
using tov_test::gone_process;
using tov_test::Zombie;

namespace {

constexpr char WATCHED_PATH[] = TOV_ROOT_RUN_DIR "/" TOV_WATCHED_NAME;
constexpr char PLANTED[] = "/run/planted";
constexpr unsigned int PERIOD_S = 180;
constexpr unsigned int BUDGET = 4;

class TakeOver : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    std::filesystem::remove_all(TOV_ROOT_RUN_DIR);
    begin();
  }
  void TearDown() override {
    end();
    World::TearDown();
  }

  // A daemon's file, without anything taken over.
  static std::vector<tov_watched_left_t> begin() {
    const tov_chains_guard_t guard(tov_alive_chains);
    return tov_watched_open();
  }
  static void end() {
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_close();
  }
  // The daemon is killed: nothing of its memory is left, the area stays.
  static void kill_daemon() {
    end();
    const tov_chains_guard_t guard(tov_alive_chains);
    for (tov_pid_t &record : tov_chain_records(&tov_alive_chains))
      tov_chain_remove(&tov_alive_chains, &record);
  }
  static void next_daemon() {
    kill_daemon();
    tov_watch_take_over();
  }

  // The last daemon's record of a thread.
  //   change  of what it has noted
  static void watch(pid_t tid, pid_t owner, const std::function<void(tov_pid_t &)> &change = {}) {
    tov_pid_t *record = add(tid, cmdline_of(tid), 0, 0, tov_alive_chains);
    tov_identity_t process{};
    EXPECT_EQ(tov_identity_take(owner, &process), 0);
    record->ppid = owner;
    record->owner_started = process.started;
    record->m_n_notify_time = PERIOD_S;
    record->m_n_counter = BUDGET;
    record->m_n_cur_counter = 1;
    if (change) change(*record);
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_write(record);
    ASSERT_NE(record->row, 0);
    if (tov_alive_has_slot(tid)) {
      ASSERT_EQ(tov_sys_reg_alive_info(tid), 0);
    }
  }
  static bool is_watched(pid_t tid) { return find(tid, tov_alive_chains) != nullptr; }

  // What the file says to a daemon after this one.
  static std::vector<pid_t> rows() {
    end();
    std::vector<pid_t> tids;
    for (const tov_watched_left_t &left : begin())
      tids.push_back(left.row.tid);
    return tids;
  }
};

TEST_F(TakeOver, LivingThreadIsWatchedWithAFullBudget) {
  const Child process;
  watch(process.pid(), process.pid());
  next_daemon();
  const tov_pid_t record = record_of(tov_alive_chains, process.pid());
  EXPECT_EQ(record.pid, process.pid());
  EXPECT_EQ(record.ppid, process.pid());
  EXPECT_EQ(record.m_n_notify_time, PERIOD_S);
  EXPECT_EQ(record.m_n_counter, BUDGET);
  EXPECT_EQ(record.m_n_cur_counter, BUDGET);
  EXPECT_EQ(record.m_n_cur_notify_time, 0U);
  EXPECT_EQ(record.inherited, 1);
  EXPECT_EQ(std::string(record.process), cmdline_of(process.pid()));
  EXPECT_THAT(events(TOV_LOG_REG_ALIVE), IsEmpty()) << "it has not registered";
}

TEST_F(TakeOver, EachDaemonAfterIt) {
  const Child process;
  watch(process.pid(), process.pid());
  for (int daemon = 0; daemon < 3; daemon++) {
    next_daemon();
    EXPECT_TRUE(is_watched(process.pid())) << daemon;
    tov_notifer_scan();
    EXPECT_TRUE(is_watched(process.pid())) << daemon;
  }
}

TEST_F(TakeOver, WorkerThreadBelongsToItsProcess) {
  const pid_t self = getpid();
  std::optional<pid_t> tid;
  watch(self, self);
  std::thread worker([&] {
    tid = gettid();
    watch(*tid, self);
    next_daemon();
    EXPECT_TRUE(is_watched(*tid));
  });
  worker.join();
  EXPECT_TRUE(is_watched(self));
  next_daemon();
  EXPECT_FALSE(is_watched(*tid)) << "it has ended";
  EXPECT_THAT(rows(), ElementsAre(self));
}

TEST_F(TakeOver, WhoIsNotTheThreadOfTheRowIsNotWatched) {
  const Child process;
  const Child other;
  const struct {
    const char *label;
    std::function<void(tov_pid_t &)> change;
  } cases[] = {
      {"id given out again", [](auto &record) { record.identity.started--; }},
      {"owner's id given out again", [](auto &record) { record.owner_started--; }},
      {"thread of another process", [&](auto &record) { record.ppid = other.pid(); }},
      {"owner ended", [](auto &record) { record.ppid = gone_process(); }},
      {"another program, by its stack", [](auto &record) { record.identity.stack += 4096; }},
      {"another program, by its file", [](auto &record) { record.identity.exe_ino++; }},
  };
  for (const auto &row : cases) {
    SCOPED_TRACE(row.label);
    watch(process.pid(), process.pid(), row.change);
    next_daemon();
    EXPECT_EQ(count(tov_alive_chains), 0);
    EXPECT_THAT(rows(), IsEmpty());
  }
}

TEST_F(TakeOver, WhoHasEndedIsNotWatched) {
  const Zombie zombie;
  watch(zombie.pid(), zombie.pid());
  const pid_t gone = [] {
    const Child process;
    watch(process.pid(), process.pid());
    return process.pid();
  }();
  next_daemon();
  EXPECT_FALSE(is_watched(zombie.pid()));
  EXPECT_FALSE(is_watched(gone));
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(TakeOver, WhoCannotBeJudgedIsLeftToTheWatchdog) {
  const Child process;
  watch(process.pid(), process.pid());
  kill_daemon();
  const auto left = begin();
  ASSERT_THAT(left, SizeIs(1));
  {
    const tov_test::NoMoreDescriptors none;
    EXPECT_FALSE(tov_watch_is_gone(left[0].row));
  }
  EXPECT_FALSE(tov_watch_is_gone(left[0].row));
}

TEST_F(TakeOver, WhoHasWithdrawnUnheardIsNotWatched) {
  const Child beside;
  const Child after;
  const Child stays;
  for (const Child *process : {&beside, &after, &stays})
    watch(process->pid(), process->pid());
  ASSERT_EQ(tov_sys_mark_withdrawn(beside.pid()), 0);
  ASSERT_EQ(tov_sys_unreg_alive_info(after.pid()), 0);  // as an end in order does
  ASSERT_EQ(tov_sys_mark_withdrawn(after.pid()), 0);
  ASSERT_EQ(tov_sys_unreg_alive_info(stays.pid()), 0);
  next_daemon();
  EXPECT_FALSE(is_watched(beside.pid()));
  EXPECT_FALSE(is_watched(after.pid()));
  EXPECT_TRUE(is_watched(stays.pid()));
  EXPECT_THAT(rows(), ElementsAre(stays.pid()));
}

TEST_F(TakeOver, AreaThatIsGoneWithdrawsNobody) {
  const Child process;
  watch(process.pid(), process.pid());
  ASSERT_EQ(rename(TOV_ALIVE_SHM_PATH, "/dev/shm/kept"), 0);
  next_daemon();
  ASSERT_EQ(rename("/dev/shm/kept", TOV_ALIVE_SHM_PATH), 0);
  EXPECT_TRUE(is_watched(process.pid()));
}

TEST_F(TakeOver, BitWithoutARowIsAStrangers) {
  const Child process;
  ASSERT_EQ(tov_sys_reg_alive_info(process.pid()), 0);
  next_daemon();
  EXPECT_EQ(count(tov_alive_chains), 0);
}

TEST_F(TakeOver, ThreadOfTwoRowsIsWatchedOnce) {
  const Child process;
  watch(process.pid(), process.pid());
  watch(process.pid(), process.pid());
  next_daemon();
  EXPECT_EQ(count(tov_alive_chains), 1);
  EXPECT_THAT(rows(), SizeIs(1));
}

TEST_F(TakeOver, WatchdogFreesTheRowOfWhoHasEnded) {
  const pid_t gone = [] {
    const Child process;
    watch(process.pid(), process.pid());
    next_daemon();
    EXPECT_TRUE(is_watched(process.pid()));
    return process.pid();
  }();
  tov_notifer_scan();
  EXPECT_FALSE(is_watched(gone));
  EXPECT_THAT(rows(), IsEmpty());
}

// ---- files that are not ours --------------------------------------------------------------------

TEST_F(TakeOver, DirectoryOfAnotherUserIsNotBelieved) {
  const Child process;
  watch(process.pid(), process.pid());
  ASSERT_EQ(chown(TOV_ROOT_RUN_DIR, 1000, 1000), 0);
  next_daemon();
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre(HasSubstr("the next daemon will not know the watched threads")));
}

TEST_F(TakeOver, LinkIsNotFollowedAndWhatItLeadsToIsLeftAlone) {
  const Child process;
  watch(process.pid(), process.pid());
  kill_daemon();
  std::filesystem::rename(WATCHED_PATH, PLANTED);
  ASSERT_EQ(symlink(PLANTED, WATCHED_PATH), 0);
  const auto planted_bytes = std::filesystem::file_size(PLANTED);
  next_daemon();
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_EQ(std::filesystem::file_size(PLANTED), planted_bytes);
  EXPECT_THAT(events(TOV_LOG_ERROR), ElementsAre(HasSubstr("moved to watched.wrong")));
  struct stat status;
  ASSERT_EQ(lstat(WATCHED_PATH, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  std::filesystem::remove(PLANTED);
}

}  // namespace
