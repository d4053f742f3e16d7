// The shared area of thread liveness, seen by its master, by clients, and by processes that
// damage it. A process maps the area once in its life, so each test acts in children of its own.
#include "alive/tov_sys_alive.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/child.h"
#include "tests/support/in_child.h"
#include "util/owner.h"

namespace {

constexpr off_t OBJECT_BYTES = 188416;  // 184356, up to pages of 4096
constexpr off_t MAP_OFFSET = 32;
constexpr off_t SEQ_OFFSET = 20513;
constexpr int LAST_ID = 163839;
constexpr uid_t NOBODY = 65534;

class TovSysAlive : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(system("rm -rf /dev/shm/UTILS-tov-shm-001"), 0); }
};

off_t object_length() {
  struct stat status {};
  return stat(TOV_ALIVE_SHM_PATH, &status) == 0 ? status.st_size : -1;
}

mode_t object_mode() {
  struct stat status {};
  return stat(TOV_ALIVE_SHM_PATH, &status) == 0 ? status.st_mode & 07777u : 0;
}

uint8_t object_byte(off_t at) {
  uint8_t value = 0xEE;
  const int fd = open(TOV_ALIVE_SHM_PATH, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(pread(fd, &value, 1, at), 1);
  close(fd);
  return value;
}

void write_object(off_t at, const void *bytes, size_t count) {
  const int fd = open(TOV_ALIVE_SHM_PATH, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
  EXPECT_EQ(pwrite(fd, bytes, count, at), static_cast<ssize_t>(count));
  close(fd);
}

void cut_object(off_t length) {
  ASSERT_EQ(truncate(TOV_ALIVE_SHM_PATH, length), 0);
}

// A living daemon's work as far as the area is concerned: made, `id` registered.
void register_as_daemon(int id) {
  tov_test::in_child([id] {
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    ASSERT_EQ(tov_sys_reg_alive_info(id), 0);
  });
}

}  // namespace

// ---- making and mapping --------------------------------------------------------------------

TEST_F(TovSysAlive, MasterMakesTheObjectForEverybody) {
  tov_test::in_child([] {
    umask(077);
    EXPECT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_EQ(static_cast<void *>(g_tov_alive_info.info), g_tov_alive_info.recordm.addr);
    EXPECT_EQ(g_tov_alive_info.recordm.size, static_cast<uint32_t>(OBJECT_BYTES));
    EXPECT_STREQ(g_tov_alive_info.recordm.name, "/UTILS-tov-shm-001");
    EXPECT_EQ(g_tov_alive_info.info->total_len, 184356u);
  });
  EXPECT_EQ(object_length(), OBJECT_BYTES);
  EXPECT_EQ(object_mode(), 0777u);
  EXPECT_EQ(object_byte(8), 184356 & 0xFF);
  EXPECT_EQ(object_byte(9), (184356 >> 8) & 0xFF);
  EXPECT_EQ(object_byte(10), 184356 >> 16);
}

TEST_F(TovSysAlive, SecondInitialisationChangesNothing) {
  tov_test::in_child([] {
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    void *const where = g_tov_alive_info.info;
    ASSERT_EQ(tov_sys_reg_alive_info(77), 0);
    EXPECT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_EQ(tov_sys_init_alive_info(false), 0);
    EXPECT_EQ(static_cast<void *>(g_tov_alive_info.info), where);
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
  });
}

TEST_F(TovSysAlive, ClientMayMakeTheObjectAndTheMasterClearsItLater) {
  tov_test::in_child([] {
    EXPECT_FALSE(tov_sys_isreg_alive_info(77));  // maps the area
    EXPECT_EQ(object_length(), OBJECT_BYTES);
    EXPECT_EQ(object_mode(), 0777u);
    EXPECT_EQ(object_byte(8), 0);  // the length is the master's to write
    ASSERT_EQ(tov_sys_reg_alive_info(77), 0);
    ASSERT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
  });
  tov_test::in_child([] {
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_FALSE(tov_sys_isreg_alive_info(77));
    EXPECT_EQ(tov_sys_get_alive_seq(77), 0);
    EXPECT_FALSE(tov_sys_isreg_alive_info(LAST_ID));
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 0);
  });
}

TEST_F(TovSysAlive, MasterClearsMapAndSequencesAndNothingElse) {
  const std::vector<uint8_t> dirt(static_cast<size_t>(OBJECT_BYTES), 0xAA);
  write_object(0, dirt.data(), dirt.size());
  tov_test::in_child([] { ASSERT_EQ(tov_sys_init_alive_info(true), 0); });
  EXPECT_EQ(object_byte(0), 0xAA);   // checksum
  EXPECT_EQ(object_byte(4), 0xAA);   // version
  EXPECT_EQ(object_byte(12), 0xAA);  // reserved
  EXPECT_EQ(object_byte(31), 0xAA);
  for (off_t at = MAP_OFFSET; at < SEQ_OFFSET + LAST_ID + 1; at += 509)
    ASSERT_EQ(object_byte(at), 0) << at;
  EXPECT_EQ(object_byte(MAP_OFFSET), 0);
  EXPECT_EQ(object_byte(SEQ_OFFSET + LAST_ID), 0);
  EXPECT_EQ(object_byte(SEQ_OFFSET + LAST_ID + 1), 0xAA);
}

TEST_F(TovSysAlive, FailedInitialisationIsToldAndTriedAgain) {
  ASSERT_EQ(mkdir(TOV_ALIVE_SHM_PATH, 0777), 0);
  tov_test::in_child([] {
    int result = 0;
    std::string said = tov_test::caught_diagnostics(
        TOV_MODULE_ALIVE, [&] { result = tov_sys_init_alive_info(true); });
    EXPECT_EQ(result, -EINTR);
    EXPECT_NE(
        said.find("]ras_os_init_record_memory err(path:/UTILS-tov-shm-001, ret:-4, err:22)!\r\n"),
        std::string::npos)
        << said;
    said = tov_test::caught_diagnostics(TOV_MODULE_ALIVE,
                                        [] { EXPECT_FALSE(tov_sys_isreg_alive_info(1)); });
    EXPECT_NE(said.find("]fail to init alive_info(ret:-4)!!!\n"), std::string::npos) << said;
    ASSERT_EQ(rmdir(TOV_ALIVE_SHM_PATH), 0);
    EXPECT_EQ(tov_sys_init_alive_info(true), 0);
  });
}

TEST_F(TovSysAlive, ForeignOwnerOnlyCostsADiagnostic) {
  register_as_daemon(77);
  tov_test::in_child([] {
    ASSERT_EQ(setuid(NOBODY), 0);
    int result = -1;
    const std::string said = tov_test::caught_diagnostics(
        TOV_MODULE_ALIVE, [&] { result = tov_sys_init_alive_info(false); });
    EXPECT_EQ(result, 0);
    EXPECT_NE(said.find("]change mode failed!\r\n"), std::string::npos) << said;
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    EXPECT_EQ(tov_sys_update_alive_seq(77), 0);
  });
}

TEST_F(TovSysAlive, ObjectOfAnotherUserServesTheMasterToo) {
  // In a sticky directory the kernel may refuse O_CREAT on it even to root.
  write_object(0, "x", 1);
  ASSERT_EQ(chown(TOV_ALIVE_SHM_PATH, NOBODY, NOBODY), 0);
  tov_test::in_child([] {
    EXPECT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_EQ(tov_sys_reg_alive_info(77), 0);
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
  });
}

TEST_F(TovSysAlive, NothingWorksBeforeTheAreaIsMapped) {
  tov_test::in_child([] {
    EXPECT_EQ(tov_sys_reg_alive_info(1), -1);
    EXPECT_EQ(tov_sys_unreg_alive_info(1), -1);
    EXPECT_EQ(tov_sys_update_alive_seq(1), -1);
    EXPECT_EQ(tov_sys_get_alive_seq(1), -1);
  });
}

TEST_F(TovSysAlive, ThreadsThatStartTogetherMapOnce) {
  register_as_daemon(77);
  tov_test::in_child([] {
    static constexpr int THREADS = 8;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int t = 0; t < THREADS; t++)
      threads.emplace_back([t] {
        for (int i = 0; i < 1000; i++) {
          EXPECT_TRUE(tov_sys_isreg_alive_info(77));
          EXPECT_EQ(tov_sys_update_alive_seq(1000 + t), 0);
          EXPECT_EQ(tov_sys_update_alive_seq(77), 0);
        }
      });
    for (auto &thread : threads)
      thread.join();
  });
}

TEST_F(TovSysAlive, ForkedChildGoesOnWithTheMapping) {
  register_as_daemon(77);
  tov_test::in_child([] {
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    tov_test::in_child([] {
      tov_sys_alive_renew_lock();
      EXPECT_EQ(tov_sys_init_alive_info(false), 0);
      EXPECT_EQ(tov_sys_update_alive_seq(77), 0);
    });
    EXPECT_EQ(tov_sys_get_alive_seq(77), 2);
  });
}

// ---- ids -----------------------------------------------------------------------------------

class TovSysAliveSides : public TovSysAlive, public testing::WithParamInterface<bool> {
 protected:
  // The same from both sides: the master's way to a byte and the clients'.
  static void map_it() { ASSERT_EQ(tov_sys_init_alive_info(GetParam()), 0); }
};

INSTANTIATE_TEST_SUITE_P(Sides, TovSysAliveSides, testing::Bool(),
                         [](const auto &side) { return side.param ? "Master" : "Client"; });

TEST_P(TovSysAliveSides, BitAndByteStandAtTheirOffsets) {
  for (int id : {0, 1, 7, 8, 4711, LAST_ID}) {
    tov_test::in_child([id] {
      map_it();
      EXPECT_FALSE(tov_sys_isreg_alive_info(id));
      EXPECT_EQ(tov_sys_reg_alive_info(id), 0);
      EXPECT_TRUE(tov_sys_isreg_alive_info(id));
      EXPECT_EQ(object_byte(MAP_OFFSET + id / 8), 1 << (id % 8));
      EXPECT_EQ(object_byte(SEQ_OFFSET + id), 1);
      EXPECT_EQ(tov_sys_get_alive_seq(id), 1);
      EXPECT_EQ(tov_sys_unreg_alive_info(id), 0);
      EXPECT_FALSE(tov_sys_isreg_alive_info(id));
      EXPECT_EQ(object_byte(MAP_OFFSET + id / 8), 0);
      EXPECT_EQ(object_byte(SEQ_OFFSET + id), 0);
    });
  }
}

TEST_P(TovSysAliveSides, ObjectOfAnyLengthBecomesOurs) {
  for (const off_t length : {off_t{0}, off_t{1}, off_t{4096}, OBJECT_BYTES + 1, off_t{1} << 20}) {
    write_object(0, "", 0);
    cut_object(length);
    tov_test::in_child([] {
      map_it();
      EXPECT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
      EXPECT_TRUE(tov_sys_isreg_alive_info(LAST_ID));
      EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 1);
      EXPECT_EQ(object_length(), OBJECT_BYTES);
    });
    ASSERT_EQ(unlink(TOV_ALIVE_SHM_PATH), 0);
  }
}

// Whatever another process has written there is read as what it says of one thread, nothing else.
TEST_P(TovSysAliveSides, ForeignContentIsOnlyBelieved) {
  tov_test::in_child([] {
    map_it();
    const std::vector<uint8_t> dirt(static_cast<size_t>(OBJECT_BYTES), 0xFF);
    write_object(0, dirt.data(), dirt.size());
    for (const int id : {0, 4711, LAST_ID}) {
      EXPECT_TRUE(tov_sys_isreg_alive_info(id));
      EXPECT_EQ(tov_sys_get_alive_seq(id), 255);
      EXPECT_EQ(tov_sys_update_alive_seq(id), 0);
      EXPECT_EQ(tov_sys_get_alive_seq(id), 1);
      EXPECT_EQ(tov_sys_unreg_alive_info(id), 0);
      EXPECT_FALSE(tov_sys_isreg_alive_info(id));
      EXPECT_EQ(tov_sys_get_alive_seq(id), 0);
    }
    EXPECT_FALSE(tov_sys_isreg_alive_info(LAST_ID + 1));
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID + 1), -1);
  });
}

TEST_P(TovSysAliveSides, NeighboursInAByteAreLeftAlone) {
  tov_test::in_child([] {
    map_it();
    for (int id = 8; id < 16; id++)
      EXPECT_EQ(tov_sys_reg_alive_info(id), 0);
    EXPECT_EQ(object_byte(MAP_OFFSET + 1), 0xFF);
    EXPECT_EQ(tov_sys_unreg_alive_info(11), 0);
    for (int id = 8; id < 16; id++)
      EXPECT_EQ(tov_sys_isreg_alive_info(id), id != 11);
    EXPECT_FALSE(tov_sys_isreg_alive_info(7));
    EXPECT_FALSE(tov_sys_isreg_alive_info(16));
  });
}

TEST_P(TovSysAliveSides, SequenceGoesRoundWithoutZero) {
  tov_test::in_child([] {
    map_it();
    ASSERT_EQ(tov_sys_reg_alive_info(77), 0);
    for (int expected = 2; expected <= 255; expected++) {
      ASSERT_EQ(tov_sys_update_alive_seq(77), 0);
      ASSERT_EQ(tov_sys_get_alive_seq(77), expected);
    }
    EXPECT_EQ(tov_sys_update_alive_seq(77), 0);  // the 255th
    EXPECT_EQ(tov_sys_get_alive_seq(77), 1);
  });
}

TEST_P(TovSysAliveSides, IdsOutOfRangeAreRefusedByName) {
  tov_test::in_child([] {
    map_it();
    EXPECT_EQ(tov_sys_update_alive_seq(LAST_ID), 0);
    for (int id : {LAST_ID + 1, -1, INT32_MAX, INT32_MIN}) {
      const std::string line = "]pid err(pid:" + std::to_string(id) + ")!\r\n";
      const std::string said = tov_test::caught_diagnostics(TOV_MODULE_ALIVE, [id] {
        EXPECT_EQ(tov_sys_reg_alive_info(id), -1);
        EXPECT_EQ(tov_sys_unreg_alive_info(id), -1);
        EXPECT_EQ(tov_sys_update_alive_seq(id), -1);
        EXPECT_EQ(tov_sys_get_alive_seq(id), -1);
        EXPECT_FALSE(tov_sys_isreg_alive_info(id));
      });
      int lines = 0;
      for (size_t at = said.find(line); at != std::string::npos; at = said.find(line, at + 1))
        lines++;
      EXPECT_EQ(lines, 5) << said;
    }
  });
}

// ---- withdrawals that nobody hears -----------------------------------------------------------

// What the next daemon finds in the area of the last one.
static bool was_withdrawn(int id) {
  const tov_fd_t area(tov_sys_open_left_area());
  EXPECT_GE(area.n, 0);
  return tov_sys_was_withdrawn(area.n, id);
}

TEST_F(TovSysAlive, MarkOfAWithdrawalIsFoundBesideAKilledDaemonAndAfterAnOrderlyEnd) {
  for (const bool in_order : {false, true}) {
    register_as_daemon(77);
    register_as_daemon(78);  // clears the first one's bit, as each daemon does
    if (in_order) {
      tov_test::in_child([] {
        ASSERT_EQ(tov_sys_init_alive_info(false), 0);
        ASSERT_EQ(tov_sys_unreg_alive_info(78), 0);
      });
    }
    EXPECT_FALSE(was_withdrawn(78));
    tov_test::in_child([] { EXPECT_EQ(tov_sys_mark_withdrawn(78), 0); });
    EXPECT_EQ(object_byte(SEQ_OFFSET + 78), in_order ? 255 : 0);
    EXPECT_TRUE(was_withdrawn(78));
    EXPECT_FALSE(was_withdrawn(77));
  }
}

TEST_F(TovSysAlive, NoByteOfARegisteredThreadIsTheMark) {
  register_as_daemon(77);
  tov_test::in_child([] {
    for (int i = 0; i < 600; i++) {
      ASSERT_TRUE(tov_sys_isreg_alive_info(77));
      ASSERT_EQ(tov_sys_update_alive_seq(77), 0);
      ASSERT_FALSE(was_withdrawn(77));
    }
  });
}

TEST_F(TovSysAlive, SignOfLifeTakesTheMarkAway) {
  register_as_daemon(77);
  tov_test::in_child([] {
    EXPECT_EQ(tov_sys_mark_withdrawn(77), 0);
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    EXPECT_EQ(tov_sys_update_alive_seq(77), 0);
  });
  EXPECT_FALSE(was_withdrawn(77));
}

TEST_F(TovSysAlive, MasterSeesTheMark) {
  tov_test::in_child([] {
    EXPECT_FALSE(tov_sys_is_withdrawn(77)) << "no area";
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_FALSE(tov_sys_is_withdrawn(77));
    ASSERT_EQ(tov_sys_reg_alive_info(77), 0);
    EXPECT_FALSE(tov_sys_is_withdrawn(77));
    const uint8_t mark = 0;
    write_object(SEQ_OFFSET + 77, &mark, 1);
    EXPECT_TRUE(tov_sys_is_withdrawn(77));
    EXPECT_FALSE(tov_sys_is_withdrawn(LAST_ID + 1));
    EXPECT_FALSE(tov_sys_is_withdrawn(-1));
  });
}

TEST_F(TovSysAlive, IdsOutOfRangeHaveNoMark) {
  register_as_daemon(77);
  tov_test::in_child([] {
    for (int id : {LAST_ID + 1, -1, INT32_MAX, INT32_MIN}) {
      EXPECT_EQ(tov_sys_mark_withdrawn(id), 0);
      EXPECT_FALSE(was_withdrawn(id));
    }
  });
}

TEST_F(TovSysAlive, MarkingACutAreaKillsNobodyAndACutAreaTellsNothing) {
  for (off_t length : {off_t{0}, MAP_OFFSET + 5, off_t{20480}}) {
    register_as_daemon(LAST_ID);
    tov_test::in_child([length] {
      EXPECT_TRUE(tov_sys_isreg_alive_info(LAST_ID));
      cut_object(length);
      EXPECT_FALSE(was_withdrawn(LAST_ID));
      EXPECT_EQ(tov_sys_mark_withdrawn(LAST_ID), 0);
      EXPECT_TRUE(was_withdrawn(LAST_ID));
    });
  }
}

TEST_F(TovSysAlive, LeftAreaThatIsNoneIsNotOpened) {
  ASSERT_EQ(mkfifo(TOV_ALIVE_SHM_PATH, 0777), 0);
  EXPECT_LT(tov_sys_open_left_area(), 0);
  ASSERT_EQ(unlink(TOV_ALIVE_SHM_PATH), 0);
  ASSERT_EQ(symlink("/etc/passwd", TOV_ALIVE_SHM_PATH), 0);
  EXPECT_LT(tov_sys_open_left_area(), 0);
  ASSERT_EQ(unlink(TOV_ALIVE_SHM_PATH), 0);
  EXPECT_EQ(tov_sys_open_left_area(), -ENOENT);
}

// ---- a damaged area ------------------------------------------------------------------------

TEST_P(TovSysAliveSides, CutObjectIsRestoredAndNoUserDies) {
  for (off_t length : {off_t{0}, MAP_OFFSET + 5, off_t{4096}, off_t{20480}}) {
    register_as_daemon(LAST_ID);
    tov_test::in_child([length] {
      map_it();
      ASSERT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
      cut_object(length);
      EXPECT_FALSE(tov_sys_isreg_alive_info(LAST_ID));
      EXPECT_EQ(object_length(), OBJECT_BYTES);
      EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 0);
      EXPECT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
      EXPECT_TRUE(tov_sys_isreg_alive_info(LAST_ID));
      EXPECT_EQ(tov_sys_update_alive_seq(LAST_ID), 0);
      EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 2);
    });
  }
}

TEST_P(TovSysAliveSides, CutBehindTheMapLosesTheSequencesOnly) {
  tov_test::in_child([] {
    map_it();
    ASSERT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
    cut_object(SEQ_OFFSET);
    EXPECT_TRUE(tov_sys_isreg_alive_info(LAST_ID));
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 0);
    EXPECT_EQ(object_length(), OBJECT_BYTES);
  });
}

TEST_F(TovSysAlive, MasterSurvivesACutBeforeEachOperation) {
  tov_test::in_child([] {
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    cut_object(0);
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 0);
    EXPECT_EQ(object_length(), OBJECT_BYTES);
    cut_object(0);
    EXPECT_EQ(tov_sys_reg_alive_info(LAST_ID), 0);
    EXPECT_EQ(object_length(), OBJECT_BYTES);
    cut_object(0);
    EXPECT_EQ(tov_sys_update_alive_seq(LAST_ID), 0);
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 1);
    cut_object(0);
    EXPECT_EQ(tov_sys_unreg_alive_info(5), 0);
    EXPECT_EQ(object_length(), OBJECT_BYTES);
  });
}

TEST_F(TovSysAlive, MasterSurvivesAProcessThatKeepsCutting) {
  tov_test::in_child([] {
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    tov_test::Child hostile([] {
      const pid_t parent = getpid();
      if (fork() != 0) return;
      while (getppid() == parent) {
        (void)!truncate(TOV_ALIVE_SHM_PATH, 0);
        sched_yield();
      }
      tov_test::leave_child(0);
    });
    for (int i = 0; i < 20000; i++) {
      tov_sys_reg_alive_info(i % TOV_ALIVE_ID_COUNT);
      (void)tov_sys_isreg_alive_info(LAST_ID - i);
      EXPECT_GE(tov_sys_get_alive_seq(LAST_ID - i), 0);
      tov_sys_unreg_alive_info(i);
    }
  });
}

TEST_F(TovSysAlive, AreaThatCannotBeRestoredIsNotTouched) {
  register_as_daemon(LAST_ID);
  tov_test::in_child([] {
    EXPECT_TRUE(tov_sys_isreg_alive_info(LAST_ID));
    signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing{0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
    cut_object(0);
    EXPECT_FALSE(tov_sys_isreg_alive_info(LAST_ID));
  });
}

TEST_F(TovSysAlive, LookLeavesSignalMaskAndErrnoAlone) {
  register_as_daemon(77);
  tov_test::in_child([] {
    sigset_t before;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR1);
    ASSERT_EQ(sigprocmask(SIG_SETMASK, &before, nullptr), 0);
    errno = 4711;
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    errno = 4711;
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    EXPECT_EQ(errno, 4711);
    sigset_t after;
    ASSERT_EQ(sigprocmask(SIG_SETMASK, nullptr, &after), 0);
    for (int signal = 1; signal < 32; signal++)
      EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR1);
  });
}

TEST_F(TovSysAlive, HostThatClosedOurDescriptorLosesNothingElse) {
  register_as_daemon(77);
  tov_test::in_child([] {
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    const int number = g_tov_alive_info.recordm.fd;
    close(number);  // what programs do that make themselves daemons
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    const int own = open("/tmp/hosts_own", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(own, number);
    EXPECT_TRUE(tov_sys_isreg_alive_info(77));
    EXPECT_EQ(tov_sys_update_alive_seq(77), 0);
    struct stat status {};
    ASSERT_EQ(fstat(own, &status), 0);
    EXPECT_EQ(status.st_size, 0);
    cut_object(0);
    EXPECT_FALSE(tov_sys_isreg_alive_info(77));
    ASSERT_EQ(fstat(own, &status), 0);
    EXPECT_EQ(status.st_size, 0);  // not taken for the area and lengthened
  });
}

TEST_F(TovSysAlive, FullFileSystemDoesNotKillTheMaster) {
  ASSERT_EQ(system("mount -o remount,size=16k /dev/shm 2>/dev/null"), 0);
  tov_test::in_child([] {
    EXPECT_EQ(tov_sys_init_alive_info(true), 0);
    EXPECT_FALSE(tov_sys_isreg_alive_info(LAST_ID));
    EXPECT_EQ(tov_sys_get_alive_seq(LAST_ID), 0);
    EXPECT_EQ(tov_sys_reg_alive_info(LAST_ID), -1);
  });
  ASSERT_EQ(system("mount -o remount,size=64m /dev/shm 2>/dev/null"), 0);
}
