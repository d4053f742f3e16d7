// Look-ups in small text files, and the open-file watch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "tests/support/files.h"
#include "util/tov_utils.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using tov_test::ScratchDir;

namespace {

class TovXtachFile : public testing::Test {
 protected:
  int has(const std::string &content, const std::string &text) {
    tov_test::write_file(file_, content);
    return string_exist_in_file(text.c_str(), file_.c_str());
  }
  int counter(const std::string &content, const std::string &key) {
    tov_test::write_file(file_, content);
    return get_pid_notify_counter(key.c_str(), file_.c_str());
  }
  ScratchDir dir_;
  std::string file_ = dir_ / "list";
};

TEST_F(TovXtachFile, WholeLinesAreCompared) {
  EXPECT_EQ(has("12\n345\n", "345"), 1);
  EXPECT_EQ(has("12\n345\n", "34"), 0);
  EXPECT_EQ(has("12\n345\n", "3456"), 0);
  EXPECT_EQ(has("12 345\n", "345"), 0);
  EXPECT_EQ(has("", "345"), 0);
  EXPECT_EQ(has("\n", ""), 1);
}

TEST_F(TovXtachFile, LastCharacterOfALineGoesEvenIfItIsNoLineFeed) {
  EXPECT_EQ(has("345", "345"), 0);
  EXPECT_EQ(has("3457", "345"), 1);
  EXPECT_EQ(has("345\r\n", "345\r"), 1);
}

TEST_F(TovXtachFile, LongLinesComeInPiecesOf1023Characters) {
  const std::string piece(1022, 'a');
  EXPECT_EQ(has(piece + "x" + "345\n", "345"), 1);
  EXPECT_EQ(has(piece + "x" + "345\n", piece), 1);
  EXPECT_EQ(has(std::string(5000, 'a') + "\n345\n", "345"), 1);
}

TEST_F(TovXtachFile, WhatCannotBeReadHoldsNothing) {
  EXPECT_EQ(string_exist_in_file("1", (dir_ / "absent").c_str()), 0);
  EXPECT_EQ(string_exist_in_file("1", dir_.path().c_str()), 0);
  EXPECT_EQ(string_exist_in_file(nullptr, file_.c_str()), 0);
  EXPECT_EQ(string_exist_in_file("1", nullptr), 0);
  EXPECT_EQ(get_pid_notify_counter("1", (dir_ / "absent").c_str()), 0);
  EXPECT_EQ(get_pid_notify_counter(nullptr, nullptr), 0);
}

TEST_F(TovXtachFile, FifoIsNotWaitedFor) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  alarm(20);
  EXPECT_EQ(string_exist_in_file("1", fifo.c_str()), 0);
  EXPECT_EQ(get_pid_notify_counter("1", fifo.c_str()), 0);
  alarm(0);
}

TEST_F(TovXtachFile, BytesOfNoTextAreSurvived) {
  EXPECT_EQ(has(std::string("\0\0\n345\n", 7), "345"), 1);
  EXPECT_EQ(counter(std::string("\0 5\n7 8\n", 8), "7"), 8);
}

TEST_F(TovXtachFile, PidsAreLookedUpInDecimal) {
  tov_test::write_file(file_, "12\n-2147483648\n");
  EXPECT_EQ(pid_exist_in_file(12, file_.c_str()), 1);
  EXPECT_EQ(pid_exist_in_file(INT_MIN, file_.c_str()), 1);
  EXPECT_EQ(pid_exist_in_file(1, file_.c_str()), 0);
  tov_test::write_file(file_, "12 34\n13 35\n");
  EXPECT_EQ(pid_reset_counter_in_file(13, file_.c_str()), 35);
  EXPECT_EQ(pid_reset_counter_in_file(14, file_.c_str()), 0);
}

TEST_F(TovXtachFile, CounterFollowsItsKeyAndABlank) {
  EXPECT_EQ(counter("100 3\n200 4\n", "200"), 4);
  EXPECT_EQ(counter("100 3\n100 4\n", "100"), 3) << "the first line decides";
  EXPECT_EQ(counter("100\n100 4\n", "100"), 4) << "a line without a blank is passed over";
  EXPECT_EQ(counter("1000 3\n", "100"), 0);
  EXPECT_EQ(counter("100 x\n", "100"), 0);
  EXPECT_EQ(counter("100 7 8\n", "100"), 7);
  EXPECT_EQ(counter("100 45", "100"), 4) << "the last character is dropped";
}

TEST_F(TovXtachFile, KeysAndValuesAreCutAt15Characters) {
  EXPECT_EQ(counter("1234567890123456 5\n", "123456789012345"), 5);
  EXPECT_EQ(counter("1234567890123456 5\n", "1234567890123456"), 0);
  EXPECT_EQ(counter("1 000000000000001234\n", "1"), 1);
}

// ---- limits and the open-file watch
// ---------------------------------------------------------------------

TEST(TovResourceLimit, SoftLimitComesAsAnInt) {
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(get_resource_limit(RLIMIT_NOFILE), static_cast<int>(now.rlim_cur));
}

TEST(TovResourceLimit, UnlimitedIsTheLargestInt) {
  rlimit before{};
  getrlimit(RLIMIT_CPU, &before);
  ASSERT_EQ(before.rlim_cur, RLIM_INFINITY);
  EXPECT_EQ(get_resource_limit(RLIMIT_CPU), INT_MAX);
}

TEST(TovResourceLimit, UnknownResourceIsAFailure) {
  CaptureStdout();
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  EXPECT_EQ(get_resource_limit(9999), -1);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  EXPECT_NE(GetCapturedStdout().find("]get_resource_limit: Invalid argument\n"), std::string::npos);
}

// Runs `body` in a child and returns its wait status: the watch ends its process.
template <typename Body>
int status_of(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    body();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

// Leaves the standard streams open and allows `limit` descriptors.
void limit_files(rlim_t limit) {
  close_range(STDERR_FILENO + 1, ~0U, 0);
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  now.rlim_cur = limit;
  setrlimit(RLIMIT_NOFILE, &now);
}

// Every number below the limit in use.
void open_all() {
  while (dup(STDIN_FILENO) >= 0)
    continue;
}

constexpr int EXITED_WITH_1 = 1 << 8;
constexpr int EXITED_WITH_7 = 7 << 8;

void watch(int times) {
  for (int i = 0; i < times; i++)
    tov_client_watch_process_fd(getpid());
}

TEST(TovWatchFd, FourthCheckInARowEndsTheProcessWithStatus1) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(3);
              _exit(7);
            }),
            EXITED_WITH_7);
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(4);
              _exit(7);
            }),
            EXITED_WITH_1);
}

TEST(TovWatchFd, CheckBelowTheLimitStartsTheCountAnew) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(3);
              for (int fd = 10; fd < 20; fd++)
                close(fd);
              watch(1);
              open_all();
              watch(3);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, DescriptorOfTheCheckItselfCounts) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              close(31);  // one is free: the listing takes it, and 32 are open
              watch(4);
              _exit(7);
            }),
            EXITED_WITH_1);
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              close(31);
              close(30);
              watch(8);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, OrdinaryProcessIsLeftAlone) {
  EXPECT_EQ(status_of([] {
              watch(20);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, VanishedProcessIsToldAndPassedOver) {
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  CaptureStdout();
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  for (int i = 0; i < 5; i++)
    tov_client_watch_process_fd(gone);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  EXPECT_NE(GetCapturedStdout().find("]tov_client_watch_process_fd: No such file or directory\n"),
            std::string::npos);
}

TEST(TovWatchFd, CheckOverTheLimitIsTold) {
  CaptureStdout();
  const int status = status_of([] {
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
    limit_files(32);
    open_all();
    watch(1);
    fflush(stdout);
  });
  EXPECT_EQ(status, 0);
  const std::string printed = GetCapturedStdout();
  EXPECT_NE(printed.find(": open files exceed the system upper limit.\n"), std::string::npos)
      << printed;
}

}  // namespace
