// Plain-file writers: reboot reasons, the ring of notifications, the text journal.
#include "log/plain_files.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "tests/support/files.h"
#include "tests/support/stdout.h"
#include "tests/support/text.h"

using tov_test::matches;
using tov_test::printed_by;
using tov_test::read_file;
using tov_test::ScratchDir;
using tov_test::write_file;

namespace fs = std::filesystem;

static const std::string COUNT_FILE = "/data/.tov_notify_count";
// "Sun Nov 15 10:25:41 2026 "
static const std::string WHEN = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4} ";

static std::vector<std::string> lines_of(const std::string &path) {
  return tov_test::split_lines(read_file(path));
}

// ---- reboot reasons -------------------------------------------------------------------------

TEST(TovRebootInfo, RecordsAreAppended) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  tov_log_record_reboot_info((dir / "f").c_str(), "%s, must be restart itself.\n", "one");
  tov_log_record_reboot_info((dir / "f").c_str(), "two %d", 2);
  EXPECT_TRUE(
      matches(read_file(dir / "f"), WHEN + "one, must be restart itself.\n\n" + WHEN + "two 2\n"))
      << read_file(dir / "f");
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

TEST(TovRebootInfo, WhatCannotBeOpenedIsPassedOver) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  write_file(dir / "target", "");
  ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
  for (const std::string &path : {dir / "fifo", dir / "link", dir / "no/dir", dir.path()})
    EXPECT_EQ(printed_by([&] { tov_log_record_reboot_info(path.c_str(), "x"); }), "");
  EXPECT_EQ(read_file(dir / "target"), "");
}

// ---- count file -----------------------------------------------------------------------------

TEST(TovNotifyCount, ReadsBackWhatWasWritten) {
  const ScratchDir dir;
  const std::string path = dir / "count";
  EXPECT_EQ(tov_log_notify_get_count(path.c_str()), -ENOENT);
  EXPECT_EQ(tov_log_notify_update_count(path.c_str(), 1234), 0);
  EXPECT_EQ(read_file(path), "1234");
  EXPECT_EQ(tov_log_notify_get_count(path.c_str()), 1234);
  EXPECT_EQ(tov_log_notify_update_count(path.c_str(), 5), 0);
  EXPECT_EQ(read_file(path), "5");
}

TEST(TovNotifyCount, UnparsableTextIsZero) {
  const ScratchDir dir;
  for (const char *text : {"", "x", "\n", "-"}) {
    write_file(dir / "count", text);
    EXPECT_EQ(tov_log_notify_get_count((dir / "count").c_str()), 0) << text;
  }
  write_file(dir / "count", " 7 8\n");
  EXPECT_EQ(tov_log_notify_get_count((dir / "count").c_str()), 7);
}

TEST(TovNotifyCount, WhatCannotBeReadIsAnError) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  EXPECT_EQ(tov_log_notify_get_count(dir.path().c_str()), -1);
  EXPECT_EQ(tov_log_notify_get_count((dir / "fifo").c_str()), -1);
  EXPECT_EQ(tov_log_notify_update_count(dir.path().c_str(), 1), -1);
  EXPECT_EQ(tov_log_notify_update_count((dir / "no/dir").c_str(), 1), -1);
}

// ---- ring of notifications ------------------------------------------------------------------

namespace {

class TovNotify : public testing::Test {
 protected:
  void SetUp() override {
    std::fill_n(g_tov_dbg_level, TOV_MODULE_END, TOV_DBG_END);
    fs::remove_all(COUNT_FILE);
  }
  void TearDown() override { SetUp(); }
  void notify(int number) const { tov_log_notify_info(path().c_str(), "record %02d\n", number); }
  std::string path() const { return dir_ / "notify"; }
  ScratchDir dir_;
};

}  // namespace

TEST_F(TovNotify, TenRecordsThenTheFirstIsOverwritten) {
  write_file(COUNT_FILE, "0");
  for (int number = 0; number < 10; number++) {
    EXPECT_EQ(read_file(COUNT_FILE), std::to_string(number));
    notify(number);
  }
  EXPECT_EQ(read_file(COUNT_FILE), "0");
  notify(10);
  EXPECT_EQ(read_file(COUNT_FILE), "1");
  const std::vector<std::string> lines = lines_of(path());
  ASSERT_EQ(lines.size(), 20u);  // the text's own line feed makes a record two lines
  for (size_t slot = 0; slot < 10; slot++) {
    const size_t number = slot == 0 ? 10 : slot;
    EXPECT_TRUE(matches(lines[2 * slot], WHEN + "record 0?" + std::to_string(number)))
        << lines[2 * slot];
    EXPECT_EQ(lines[2 * slot + 1], "");
  }
}

TEST_F(TovNotify, MissingCountFileEmptiesTheRing) {
  write_file(path(), "old\nold\nold\n");
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([&] { notify(1); });
  EXPECT_TRUE(matches(text,
                      "\\[TOV:plain_files.cpp:[0-9]+\\]file: /data/.tov_notify_count not "
                      "exist!\n\\[TOV:plain_files.cpp:[0-9]+\\]unlink file: " +
                          path() + "!\n"))
      << text;
  EXPECT_TRUE(matches(read_file(path()), WHEN + "record 01\n\n"));
  EXPECT_EQ(read_file(COUNT_FILE), "1");
}

TEST_F(TovNotify, NeitherFileBeginsARing) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([&] { notify(1); });
  EXPECT_EQ(text.find("unlink"), std::string::npos);
  EXPECT_TRUE(matches(read_file(path()), WHEN + "record 01\n\n"));
}

TEST_F(TovNotify, MissingNotificationFileBeginsAtTheFront) {
  write_file(COUNT_FILE, "4");
  notify(1);
  EXPECT_TRUE(matches(read_file(path()), WHEN + "record 01\n\n"));
  EXPECT_EQ(read_file(COUNT_FILE), "1");
}

TEST_F(TovNotify, OneLineRecordsFollowEachOther) {
  write_file(COUNT_FILE, "0");
  for (const char *text : {"a", "b", "c"})
    tov_log_notify_info(path().c_str(), "%s", text);
  EXPECT_TRUE(matches(read_file(path()), WHEN + "a\n" + WHEN + "b\n" + WHEN + "c\n"));
}

TEST_F(TovNotify, UnreadableCountFileStops) {
  fs::create_directory(COUNT_FILE);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([&] { notify(1); });
  EXPECT_TRUE(matches(text, "\\[TOV:plain_files.cpp:[0-9]+\\]tov_log_notify_get_count error!\n"))
      << text;
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(TovNotify, LinkedCountFileIsUnreadable) {
  ASSERT_EQ(symlink("nowhere", COUNT_FILE.c_str()), 0);
  notify(1);
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(TovNotify, CountThatCannotBeWrittenIsSaid) {
  write_file(COUNT_FILE, "0");
  const char *count = COUNT_FILE.c_str();
  ASSERT_EQ(mount(count, count, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, count, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([&] { notify(1); });
  ASSERT_EQ(umount(count), 0);
  EXPECT_TRUE(matches(text, "\\[TOV:plain_files.cpp:[0-9]+\\]tov_log_notify_update_count error!\n"))
      << text;
  EXPECT_TRUE(matches(read_file(path()), WHEN + "record 01\n\n"));
}

TEST_F(TovNotify, AnyNumberInTheCountFileIsSurvived) {
  for (const char *number : {"2147483647", "-5", "99999999999999", "9"}) {
    write_file(path(), "old\n");
    write_file(COUNT_FILE, number);
    notify(1);
    EXPECT_EQ(tov_log_notify_get_count(COUNT_FILE.c_str()) % 10,
              tov_log_notify_get_count(COUNT_FILE.c_str()))
        << number;
    EXPECT_NE(read_file(path()).find("record 01"), std::string::npos) << number;
  }
  EXPECT_EQ(read_file(COUNT_FILE), "0");
}

TEST_F(TovNotify, NotificationFileThatIsNoFileIsLeftAlone) {
  write_file(COUNT_FILE, "3");
  tov_log_notify_info(dir_.path().c_str(), "x");
  EXPECT_EQ(read_file(COUNT_FILE), "3");
}

// ---- text journal ---------------------------------------------------------------------------

TEST(TovJournal, NothingIsWrittenWhileItIsClosed) {
  const ScratchDir dir;
  tov_log("%s", "lost");
  tov_closelog();
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  tov_closelog();
  tov_log("%s", "lost");
  tov_closelog();
  EXPECT_EQ(read_file(dir / "log"), "");
}

TEST(TovJournal, LinesAreAppendedAtOnce) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  tov_log("%%HA-5-X: Process:[%s/%d]\n", "p", 3);
  EXPECT_TRUE(matches(read_file(dir / "log"), WHEN + "%HA-5-X: Process:\\[p/3\\]\n\n"));
  tov_closelog();
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  tov_log("%s", "second");
  tov_closelog();
  EXPECT_TRUE(
      matches(read_file(dir / "log"), WHEN + "%HA-5-X: Process:\\[p/3\\]\n\n" + WHEN + "second\n"));
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

TEST(TovJournal, FailedOpenClosesItAndTellsWhy) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  errno = 0;
  EXPECT_EQ(tov_openlog((dir / "no/dir").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  tov_log("%s", "lost");
  EXPECT_EQ(tov_openlog((dir / "fifo").c_str()), -1);
  EXPECT_EQ(tov_openlog(dir.path().c_str()), -1);
  EXPECT_EQ(read_file(dir / "log"), "");
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

TEST(TovJournal, ChildrenDoNotInheritIt) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  EXPECT_EQ(tov_test::open_descriptors(), before + 1);
  FILE *shell = popen("ls -l /proc/self/fd", "r");
  ASSERT_NE(shell, nullptr);
  std::string listing;
  for (int byte = fgetc(shell); byte != EOF; byte = fgetc(shell))
    listing += static_cast<char>(byte);
  pclose(shell);
  EXPECT_EQ(listing.find(dir / "log"), std::string::npos) << listing;
  tov_closelog();
}

TEST(TovJournal, LinesOfThreadsAreWhole) {
  constexpr int THREADS = 4, LINES = 100;
  const ScratchDir dir;
  ASSERT_EQ(tov_openlog((dir / "log").c_str()), 0);
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int number = 0; number < THREADS; number++)
    threads.emplace_back([number] {
      for (int i = 0; i < LINES; i++)
        tov_log("%s", std::string(100, static_cast<char>('a' + number)).c_str());
    });
  for (std::thread &thread : threads)
    thread.join();
  tov_closelog();
  const std::vector<std::string> lines = lines_of(dir / "log");
  EXPECT_EQ(lines.size(), static_cast<size_t>(THREADS) * LINES);
  const std::string whole = WHEN + "(a{100}|b{100}|c{100}|d{100})";
  for (const std::string &line : lines)
    ASSERT_TRUE(matches(line, whole)) << line;
}
