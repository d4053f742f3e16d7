// Small files around starting a program: self-check period, console, fork record.
#include "proc/files.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <string>

#include "include/tov_ras_comp_config.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "util/owner.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using tov_test::read_file;
using tov_test::write_file;

// Takes the place of usleep(3): the pauses between two tries are counted and take no time.
static int pauses = 0;
static useconds_t longest_pause_us = 0, shortest_pause_us = 0;
static void (*in_each_pause)() = nullptr;

extern "C" int usleep(useconds_t span_us) {
  longest_pause_us = pauses == 0 ? span_us : std::max(longest_pause_us, span_us);
  shortest_pause_us = pauses == 0 ? span_us : std::min(shortest_pause_us, span_us);
  pauses++;
  if (in_each_pause != nullptr) in_each_pause();
  return 0;
}

namespace {

class DebugTime : public tov_test::World {
 protected:
  void TearDown() override {
    tov_test::clear_path(TOV_DEBUG_TIME_FILE);
    World::TearDown();
  }
  static int with(const std::string &text) {
    write_file(TOV_DEBUG_TIME_FILE, text);
    return debug_time();
  }
};

// The private root's console is a null device over a plain file.
class ConsoleOpen : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(umount(TOV_CONSOLE), 0); }
  void SetUp() override {
    write_file(TOV_CONSOLE, "");
    pauses = 0;
  }
  void TearDown() override { in_each_pause = nullptr; }
};

class AbnormalFork : public tov_test::World {};

}  // namespace

// ---- self-check period ----------------------------------------------------------------------

TEST_F(DebugTime, ThreeHundredSecondsWithoutTheFile) {
  EXPECT_EQ(debug_time(), 300);
  EXPECT_FALSE(fs::exists(TOV_DEBUG_TIME_FILE));
}

TEST_F(DebugTime, NumberOfTheFileIsReadAnewEachTime) {
  EXPECT_EQ(with("60"), 60);
  EXPECT_EQ(with(" 7\n"), 7);
  EXPECT_EQ(with("12 and words"), 12);
}

TEST_F(DebugTime, WhatIsNotAboveZeroGivesTheDefault) {
  for (const char *text : {"", "0", "-5", "soon", "\n"}) {
    int period = 0;
    const std::string said = diagnostics([&] { period = with(text); });
    EXPECT_EQ(period, 300) << text;
    EXPECT_THAT(said, HasSubstr("]debug_time: atio fail or file is null: ")) << text;
  }
}

TEST_F(DebugTime, NumberBeyondTheRangeIsNoNegativeOne) {
  EXPECT_EQ(with("99999999999"), INT_MAX);
}

TEST_F(DebugTime, OnlyTheFirst256BytesCount) {
  EXPECT_EQ(with(std::string(255, ' ') + "7"), 7);
  EXPECT_EQ(with(std::string(256, ' ') + "7"), 300);
}

TEST_F(DebugTime, FailedReadIsToldAndGivesTheDefault) {
  ASSERT_EQ(symlink("/proc/self/mem", TOV_DEBUG_TIME_FILE), 0);  // nothing is mapped at 0
  int period = 0;
  const std::string said = diagnostics([&] { period = debug_time(); });
  EXPECT_EQ(period, 300);
  EXPECT_THAT(said, HasSubstr("]debug_time: read fail: Input/output error\n"));
}

TEST_F(DebugTime, FileThatCannotBeOpenedIsTheCallersMatter) {
  fs::create_directory(TOV_DEBUG_TIME_FILE);
  EXPECT_EQ(debug_time(), -EISDIR);
}

// ---- console --------------------------------------------------------------------------------

TEST_F(ConsoleOpen, OpensWithTheModeThatWasAskedFor) {
  const tov_fd_t blocking(console_open(O_RDWR | O_NOCTTY));
  ASSERT_GE(blocking.n, 0);
  EXPECT_EQ(fcntl(blocking.n, F_GETFL) & (O_NONBLOCK | O_ACCMODE), O_RDWR);
  const tov_fd_t other(console_open(O_WRONLY | O_NONBLOCK));
  ASSERT_GE(other.n, 0);
  EXPECT_EQ(fcntl(other.n, F_GETFL) & (O_NONBLOCK | O_ACCMODE), O_WRONLY | O_NONBLOCK);
}

TEST_F(ConsoleOpen, ChildKeepsItOverTheExecution) {
  const tov_fd_t fd(console_open(O_RDWR | O_NOCTTY));
  EXPECT_EQ(fcntl(fd.n, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ConsoleOpen, GivesUpAfterFiveTries) {
  ASSERT_EQ(unlink(TOV_CONSOLE), 0);
  EXPECT_EQ(console_open(O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(pauses, 4) << "between five tries";
  EXPECT_EQ(shortest_pause_us, 10'000U);
  EXPECT_EQ(longest_pause_us, 10'000U);
}

TEST_F(ConsoleOpen, LaterTryMaySucceed) {
  ASSERT_EQ(unlink(TOV_CONSOLE), 0);
  in_each_pause = [] {
    if (pauses == 2) write_file(TOV_CONSOLE, "");
  };
  const tov_fd_t fd(console_open(O_RDWR));
  EXPECT_GE(fd.n, 0);
  EXPECT_EQ(pauses, 2);
}

// ---- fork record ----------------------------------------------------------------------------

TEST_F(AbnormalFork, EachFailureAddsItsText) {
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0);
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0);
  EXPECT_EQ(read_file(TOV_FORK_FILE), "aa");
}

TEST_F(AbnormalFork, FileIsMadeForItsOwnerToWrite) {
  const mode_t before = umask(0);
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0);
  umask(before);
  EXPECT_EQ(tov_test::mode_of(TOV_FORK_FILE), 0755u);
}

TEST_F(AbnormalFork, FailureIsANegativeErrorNumber) {
  EXPECT_EQ(tov_record_abnormal_fork("a", "/no/such/directory/file"), -ENOENT);
  fs::create_directories(TOV_FORK_FILE "/full");
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), -EISDIR);
}

// Whatever another user puts there, the failure is counted, and in a file that is read.
TEST_F(AbnormalFork, LinkMakesWayForTheRecordAndItsTargetIsLeftAlone) {
  write_file("/tmp/elsewhere", "kept");
  for (const char *target : {"/tmp/elsewhere", "/tmp/nowhere", TOV_FORK_FILE, "/dev/null"}) {
    fs::remove(TOV_FORK_FILE);
    fs::create_symlink(target, TOV_FORK_FILE);
    EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0) << target;
    EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0) << target;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(TOV_FORK_FILE))) << target;
    EXPECT_EQ(read_file(TOV_FORK_FILE), "aa");
  }
  EXPECT_EQ(read_file("/tmp/elsewhere"), "kept");
  EXPECT_FALSE(fs::exists("/tmp/nowhere"));
  fs::remove("/tmp/elsewhere");
}

TEST_F(AbnormalFork, FifoOrEmptyDirectoryMakesWayForTheRecord) {
  ASSERT_EQ(mkfifo(TOV_FORK_FILE, 0666), 0);
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0);
  EXPECT_EQ(read_file(TOV_FORK_FILE), "a");
  fs::remove(TOV_FORK_FILE);
  fs::create_directory(TOV_FORK_FILE);
  EXPECT_EQ(tov_record_abnormal_fork("a", TOV_FORK_FILE), 0);
  EXPECT_EQ(read_file(TOV_FORK_FILE), "a");
}

TEST_F(AbnormalFork, RecordIsRemovedAndItsAbsenceIsFine) {
  write_file(TOV_FORK_FILE, "aaa");
  const std::string said = diagnostics([] {
    tov_remove_abnormal_fork_file(TOV_FORK_FILE);
    tov_remove_abnormal_fork_file(TOV_FORK_FILE);
  });
  EXPECT_FALSE(fs::exists(TOV_FORK_FILE));
  EXPECT_EQ(said, "");
}

TEST_F(AbnormalFork, RecordThatCannotBeRemovedIsToldAbout) {
  fs::create_directory(TOV_FORK_FILE);
  EXPECT_THAT(diagnostics([] { tov_remove_abnormal_fork_file(TOV_FORK_FILE); }),
              HasSubstr("]unlink file /tmp/tov/forkfile error, reason is Is a directory\n"));
}
