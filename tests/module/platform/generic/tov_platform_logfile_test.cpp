// Log files of the generic platform: single appends, turning at the limit, pruning.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/tov_platform.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/text.h"
#include "util/owner.h"

using tov_test::read_file;
using tov_test::ScratchDir;
using tov_test::write_file;

namespace fs = std::filesystem;

static constexpr size_t KILOBYTE = 1024;

// Handles live to the end of the process; kept where the leak checker finds them.
static auto *const all_handles = new std::vector<void *>;

static void *open_log(const std::string &path, int limit_kb = 1000) {
  void *handle = nullptr;
  EXPECT_EQ(ras_logfile_init(path.c_str(), limit_kb, &handle, 0, 1), 0) << path;
  all_handles->push_back(handle);
  return handle;
}

static int append(void *handle, const std::string &text) {
  return ras_logfile_write_buf(handle, text.data(), static_cast<int>(text.size()));
}

// Brings a new file to its limit of `kb` kilobytes but for one byte.
static void fill(void *handle, size_t kb) {
  EXPECT_EQ(append(handle, std::string(kb * KILOBYTE - 1, '-')), 0);
}

// ---- opening --------------------------------------------------------------------------------

TEST(TovLogfileInit, MakesOrContinuesTheFile) {
  const ScratchDir dir;
  write_file(dir / "old", "before\n");
  for (const char *name : {"old", "new"}) {
    void *handle = open_log(dir / name);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(append(handle, "line\r\n"), 0);
  }
  EXPECT_EQ(read_file(dir / "old"), "before\nline\r\n");
  EXPECT_EQ(read_file(dir / "new"), "line\r\n");
}

TEST(TovLogfileInit, RefusalLeavesTheHandle) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  write_file(dir / "target", "");
  ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
  const size_t before = tov_test::open_descriptors();
  int marker = 0;
  void *handle = &marker;
  EXPECT_EQ(ras_logfile_init((dir / "no/dir").c_str(), 1000, &handle, 0, 1), ENOENT);
  EXPECT_EQ(ras_logfile_init((dir / "link").c_str(), 1000, &handle, 0, 1), ELOOP);
  EXPECT_EQ(ras_logfile_init((dir / "fifo").c_str(), 1000, &handle, 0, 1), ENXIO);
  EXPECT_EQ(ras_logfile_init(dir.path().c_str(), 1000, &handle, 0, 1), EISDIR);
  EXPECT_EQ(ras_logfile_init("/dev/null", 1000, &handle, 0, 1), EINVAL);
  EXPECT_EQ(ras_logfile_init(nullptr, 1000, &handle, 0, 1), EINVAL);
  EXPECT_EQ(ras_logfile_init((dir / "f").c_str(), -1, &handle, 0, 1), EINVAL);
  EXPECT_EQ(ras_logfile_init((dir / "f").c_str(), 1000, nullptr, 0, 1), EINVAL);
  EXPECT_EQ(ras_logfile_init(std::string(PATH_MAX, 'x').c_str(), 1000, &handle, 0, 1),
            ENAMETOOLONG);
  EXPECT_EQ(handle, &marker);
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

TEST(TovLogfileInit, DescriptorIsCloseOnExec) {
  const ScratchDir dir;
  const tov_fd_t next(dup(STDIN_FILENO));  // the number that the log will get
  const int number = next.n;
  close(number);
  (void)open_log(dir / "f");
  EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC);
  (void)dup2(STDIN_FILENO, number);  // for the owner to close
}

// ---- writing -------------------------------------------------------------------------------

TEST(TovLogfileWrite, LineIsReadableAtOnce) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f");
  EXPECT_EQ(append(handle, "one\r\n"), 0);
  EXPECT_EQ(read_file(dir / "f"), "one\r\n");
  EXPECT_EQ(append(handle, ""), 0);
  EXPECT_EQ(ras_logfile_write_buf(handle, "twothree", 3), 0);
  EXPECT_EQ(read_file(dir / "f"), "one\r\ntwo");
}

TEST(TovLogfileWrite, BadArgumentsAreRefused) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f");
  EXPECT_EQ(ras_logfile_write_buf(nullptr, "x", 1), -EINVAL);
  EXPECT_EQ(ras_logfile_write_buf(handle, nullptr, 1), -EINVAL);
  EXPECT_EQ(ras_logfile_write_buf(handle, "x", -1), -EINVAL);
  EXPECT_EQ(read_file(dir / "f"), "");
}

TEST(TovLogfileWrite, FlushAllowsNoHandle) {
  const ScratchDir dir;
  ras_logfile_flush_buf_in_emergency(nullptr);
  void *handle = open_log(dir / "f");
  EXPECT_EQ(append(handle, "x"), 0);
  ras_logfile_flush_buf_in_emergency(handle);
  EXPECT_EQ(append(handle, "y"), 0);
  EXPECT_EQ(read_file(dir / "f"), "xy");
}

TEST(TovLogfileWrite, FullDiskIsAnError) {
  const ScratchDir dir;
  ASSERT_EQ(mount("tov", dir.path().c_str(), "tmpfs", 0, "size=16k"), 0);
  void *handle = open_log(dir / "f");
  int res = 0;
  for (int i = 0; i < 100 && res == 0; i++)
    res = append(handle, std::string(1000, 'x'));
  EXPECT_EQ(res, -ENOSPC);
  EXPECT_EQ(append(handle, std::string(10000, 'x')), -ENOSPC);
  umount2(dir.path().c_str(), MNT_DETACH);
}

// ---- turning --------------------------------------------------------------------------------

TEST(TovLogfileTurn, FileThatReachesItsLimitIsBegunAnew) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  fill(handle, 1);
  EXPECT_EQ(tov_test::names_in(dir.path()), (std::set<std::string>{"f"}));
  EXPECT_EQ(append(handle, "e"), 0);
  EXPECT_EQ(read_file(dir / "f.1"), std::string(KILOBYTE - 1, '-') + "e");
  EXPECT_EQ(append(handle, "new\r\n"), 0);
  EXPECT_EQ(read_file(dir / "f"), "new\r\n");
}

TEST(TovLogfileTurn, OlderTurnIsReplaced) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  const size_t descriptors = tov_test::open_descriptors();
  for (const char letter : {'a', 'b', 'c'})
    EXPECT_EQ(append(handle, std::string(2000, letter)), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()), (std::set<std::string>{"f", "f.1"}));
  EXPECT_EQ(read_file(dir / "f.1"), std::string(2000, 'c'));
  EXPECT_EQ(read_file(dir / "f"), "");
  EXPECT_EQ(tov_test::open_descriptors(), descriptors);
}

TEST(TovLogfileTurn, LimitZeroNeverTurns) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 0);
  EXPECT_EQ(append(handle, std::string(100000, 'x')), 0);
  EXPECT_EQ(append(handle, std::string(100000, 'x')), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()), (std::set<std::string>{"f"}));
}

TEST(TovLogfileTurn, NewDescriptorIsCloseOnExecToo) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  EXPECT_EQ(append(handle, std::string(2000, 'x')), 0);
  for (const std::string &name : tov_test::names_in("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink("/proc/self/fd/" + name, gone) == dir / "f") {
      EXPECT_EQ(fcntl(std::stoi(name), F_GETFD), FD_CLOEXEC);
    }
  }
}

TEST(TovLogfileTurn, ForkedChildWritesButLeavesTheTurningToItsParent) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  tov_test::in_child([&] { EXPECT_EQ(append(handle, std::string(2000, 'c')), 0); });
  EXPECT_EQ(tov_test::names_in(dir.path()), (std::set<std::string>{"f"}));
  EXPECT_EQ(append(handle, "p"), 0);
  EXPECT_EQ(read_file(dir / "f.1"), std::string(2000, 'c') + "p");
  EXPECT_EQ(read_file(dir / "f"), "");
}

TEST(TovLogfileTurn, ObstacleLetsTheFileGrowUntilItIsGone) {
  const ScratchDir dir;
  fs::create_directories(dir / "f.1");
  void *handle = open_log(dir / "f", 1);
  EXPECT_EQ(append(handle, std::string(2000, 'a')), 0);
  EXPECT_EQ(append(handle, "b"), 0);
  EXPECT_EQ(read_file(dir / "f"), std::string(2000, 'a') + "b");
  fs::remove(dir / "f.1");
  EXPECT_EQ(append(handle, "c"), 0);
  EXPECT_EQ(read_file(dir / "f.1"), std::string(2000, 'a') + "bc");
}

TEST(TovLogfileTurn, NewFileThatCannotBeOpenedIsTriedAgain) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  rlimit before, none;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  none = before;
  none.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(append(handle, std::string(2000, 'a')), 0);
  EXPECT_EQ(append(handle, "b"), 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(append(handle, "c"), 0);
  EXPECT_EQ(read_file(dir / "f.1"), std::string(2000, 'a') + "bc");
  EXPECT_EQ(append(handle, "d"), 0);
  EXPECT_EQ(read_file(dir / "f"), "d");
}

TEST(TovLogfileTurn, PlantedLinkIsNotFollowed) {
  const ScratchDir dir;
  void *handle = open_log(dir / "f", 1);
  fs::remove(dir / "f");
  write_file(dir / "target", "keep");
  ASSERT_EQ(symlink("target", (dir / "f").c_str()), 0);
  EXPECT_EQ(append(handle, std::string(2000, 'a')), 0);
  EXPECT_EQ(append(handle, "b"), 0);
  EXPECT_EQ(read_file(dir / "target"), "keep");
}

// ---- several writers ------------------------------------------------------------------------

static constexpr int THREADS = 4;
static constexpr int LINES = 50;
static constexpr int LIMIT_KB = 8;

static std::string numbered_line(int thread, int line) {
  char text[80];
  snprintf(text, sizeof text, "thread %d line %03d %s\r\n", thread, line,
           std::string(38, '.').c_str());
  return text;
}

static void write_from_threads(void *handle, int lines) {
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int number = 0; number < THREADS; number++)
    threads.emplace_back([=] {
      for (int i = 0; i < lines; i++)
        EXPECT_EQ(append(handle, numbered_line(number, i)), 0);
    });
  for (std::thread &thread : threads)
    thread.join();
}

// Adds the lines of a file to `seen`. Every one of them must be whole.
static void collect_lines(const std::string &path, std::multiset<std::string> &seen) {
  for (const std::string &line : tov_test::split_lines(read_file(path))) {
    ASSERT_TRUE(tov_test::matches(line, "thread [0-3] line [0-9]{3} \\.{38}\r")) << line;
    seen.insert(line + "\n");
  }
}

TEST(TovLogfileThreads, NoLineIsLostOrTornWhileTheFileIsTurned) {
  const ScratchDir dir;
  for (int round = 0; round < 40; round++) {
    // 12 KB against a limit of 8: the file is turned exactly once, in the middle of it.
    const std::string path = dir / ("f" + std::to_string(round));
    write_from_threads(open_log(path, LIMIT_KB), LINES);
    ASSERT_TRUE(fs::exists(path + ".1"));
    EXPECT_GE(fs::file_size(path + ".1"), LIMIT_KB * KILOBYTE);
    std::multiset<std::string> seen;
    collect_lines(path + ".1", seen);
    collect_lines(path, seen);
    ASSERT_EQ(seen.size(), static_cast<size_t>(THREADS) * LINES);
    for (int number = 0; number < THREADS; number++)
      for (int i = 0; i < LINES; i++)
        ASSERT_EQ(seen.count(numbered_line(number, i)), 1u) << numbered_line(number, i);
  }
}

TEST(TovLogfileThreads, ManyTurnsLeaveWholeLinesOnly) {
  const ScratchDir dir;
  const size_t descriptors = tov_test::open_descriptors();
  write_from_threads(open_log(dir / "f", 1), 900);
  EXPECT_EQ(tov_test::names_in(dir.path()), (std::set<std::string>{"f", "f.1"}));
  std::multiset<std::string> seen;
  collect_lines(dir / "f.1", seen);
  collect_lines(dir / "f", seen);
  EXPECT_GE(fs::file_size(dir / "f.1"), KILOBYTE);
  EXPECT_EQ(tov_test::open_descriptors(), descriptors + 1);
}

// ---- pruning --------------------------------------------------------------------------------

static void make_old(const std::string &path, time_t changed, long nanoseconds = 0) {
  write_file(path, "x");
  const timespec times[2] = {{changed, nanoseconds}, {changed, nanoseconds}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

using Names = std::set<std::string>;

TEST(TovLogfilePrune, NewestByTimeStay) {
  const ScratchDir dir;
  make_old(dir / "log-9", 100);
  make_old(dir / "log-8", 200);
  make_old(dir / "log-7.1", 300);
  make_old(dir / "log", 400);
  EXPECT_EQ(ras_remove_obsolete_files(dir.path().c_str(), "log", 2, 1), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()), (Names{"log", "log-7.1"}));
}

TEST(TovLogfilePrune, SameTimeIsDecidedByName) {
  const ScratchDir dir;
  for (const char *name : {"log-3", "log-1", "log-4", "log-2"})
    make_old(dir / name, 100, 5);
  make_old(dir / "log-0", 100, 6);
  EXPECT_EQ(ras_remove_obsolete_files(dir.path().c_str(), "log", 3, 1), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()), (Names{"log-0", "log-3", "log-4"}));
}

TEST(TovLogfilePrune, OnlyRegularFilesOfThatNameAreTouched) {
  const ScratchDir dir;
  make_old(dir / "other-1", 1);
  make_old(dir / "alog", 1);
  make_old(dir / "log-1", 2);
  fs::create_directory(dir / "log-dir");
  ASSERT_EQ(symlink("other-1", (dir / "log-link").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "log-fifo").c_str(), 0777), 0);
  EXPECT_EQ(ras_remove_obsolete_files(dir.path().c_str(), "log", 0, 1), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()),
            (Names{"other-1", "alog", "log-dir", "log-link", "log-fifo"}));
}

TEST(TovLogfilePrune, NotMoreThanToBeKeptIsLeftAlone) {
  const ScratchDir dir;
  for (int i = 0; i < 10; i++)
    make_old(dir / ("log-" + std::to_string(i)), 100 + i);
  EXPECT_EQ(ras_remove_obsolete_files((dir.path() + "/").c_str(), "log", 10, 1), 0);
  EXPECT_EQ(tov_test::names_in(dir.path()).size(), 10u);
}

TEST(TovLogfilePrune, FailuresAreReported) {
  const ScratchDir dir;
  EXPECT_EQ(ras_remove_obsolete_files((dir / "missing").c_str(), "log", 1, 1), -ENOENT);
  EXPECT_EQ(ras_remove_obsolete_files(nullptr, "log", 1, 1), -EINVAL);
  EXPECT_EQ(ras_remove_obsolete_files(dir.path().c_str(), nullptr, 1, 1), -EINVAL);
  EXPECT_EQ(ras_remove_obsolete_files(dir.path().c_str(), "log", -1, 1), -EINVAL);
  make_old(dir / "log-1", 100);
  const char *path = dir.path().c_str();
  ASSERT_EQ(mount(path, path, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(ras_remove_obsolete_files(path, "log", 0, 1), -EROFS);
  umount2(path, MNT_DETACH);
  EXPECT_EQ(tov_test::names_in(dir.path()), (Names{"log-1"}));
}
