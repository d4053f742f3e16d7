// What the fork watcher does with the files that it watches: the record of failed forks, the
// switch, and the small files beside them.
#include "core/watch/watched_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>

#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/self_healing.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "util/clock.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using tov_test::read_file;
using tov_test::write_file;

namespace {

static constexpr char ON[] = "tov single-process-ha auto-restart enable\r\n";
static constexpr char OFF[] = "no tov single-process-ha auto-restart enable\r\n";

class Watcher : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    tov_test::clear_path("/data/written");
  }
  static bool is_on() { return tov_flag_get(tov_single_ps_ha_enable) != 0; }
};

}  // namespace

// ---- failing forks --------------------------------------------------------------------------

using TovDealForkfileChange = Watcher;

// Looks at the record in a forked child, as the daemon would; returns the child's wait status.
static int look_in_child() {
  return tov_test::status_in_child([] {
    tov_deal_forkfile_change();
    return 0;
  });
}

TEST_F(TovDealForkfileChange, SixFailuresAreNoAlarm) {
  write_file(TOV_FORK_FILE, "aaaaaa");
  const tov_test::SelfHealing healing;
  EXPECT_EQ(look_in_child(), 0);
  EXPECT_EQ(read_file(TOV_FORK_FILE), "aaaaaa");
  EXPECT_FALSE(fs::exists(TOV_FORK_REASON_FILE));
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovDealForkfileChange, SeventhFailureEndsTheProcessWithItsRecords) {
  write_file(TOV_FORK_FILE, "aaaaaaa");
  const tov_test::SelfHealing healing;
  const auto begin = std::chrono::steady_clock::now();
  const int status = look_in_child();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);

  EXPECT_EQ(healing.request(), "[1][0][tov][Can not restart process, must be restart itself.]");
  EXPECT_THAT(notices(),
              ElementsAre(HasSubstr("Can not restart process, must be restart itself.")));
  EXPECT_THAT(read_file(TOV_FORK_REASON_FILE),
              MatchesRegex("[A-Z][a-z]+ [A-Z][a-z]+ .* [0-9]{4} tov can not restart process, must "
                           "be restart itself.\n\n?"));
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Unable to restart the process, tov will be restart."));
  EXPECT_TRUE(fs::exists(TOV_FORK_FILE));
  EXPECT_EQ(read_file(TOV_FORK_FILE), "") << "the next daemon starts clean";
}

TEST_F(TovDealForkfileChange, EmptyRecordIsNoAlarm) {
  write_file(TOV_FORK_FILE, "");
  EXPECT_EQ(look_in_child(), 0);
}

TEST_F(TovDealForkfileChange, MissingRecordIsOnlyToldAbout) {
  EXPECT_THAT(diagnostics([] { tov_deal_forkfile_change(); }),
              HasSubstr("]open /tmp/tov/forkfile error, No such file or directory\n"));
}

TEST_F(TovDealForkfileChange, RecordThatIsNoFileDoesNotBlock) {
  ASSERT_EQ(mkfifo(TOV_FORK_FILE, 0666), 0);
  EXPECT_THAT(diagnostics([] { tov_deal_forkfile_change(); }), HasSubstr("forkfile error, "));
}

// ---- the switch -----------------------------------------------------------------------------

using TovUpdateCfg = Watcher;

TEST_F(TovUpdateCfg, SentenceTurnsTheSwitchOff) {
  write_file(TOV_HA_CONFIG_FILE, "no tov single-process-ha auto-restart enable");
  tov_update_cfg();
  EXPECT_FALSE(is_on());
  EXPECT_EQ(read_file(TOV_HA_MIRROR_FILE), OFF);
}

TEST_F(TovUpdateCfg, SentenceIsFoundAnywhere) {
  write_file(TOV_HA_CONFIG_FILE,
             "hostname x\r\n  no tov single-process-ha auto-restart enabled or not\r\n");
  tov_update_cfg();
  EXPECT_FALSE(is_on());
}

TEST_F(TovUpdateCfg, SentenceBehindThe255thByteIsNotSeen) {
  const std::string sentence = "no tov single-process-ha auto-restart enable";
  write_file(TOV_HA_CONFIG_FILE, std::string(255 - sentence.size(), '\n') + sentence);
  tov_update_cfg();
  EXPECT_FALSE(is_on());
  write_file(TOV_HA_CONFIG_FILE, std::string(256 - sentence.size(), '\n') + sentence);
  tov_update_cfg();
  EXPECT_TRUE(is_on());
}

TEST_F(TovUpdateCfg, AnyOtherTextTurnsTheSwitchOn) {
  for (const char *text : {"", "tov single-process-ha auto-restart enable\n",
                           "no tov single-process-ha auto-restart\n", "NO TOV"}) {
    tov_flag_set(tov_single_ps_ha_enable, 0);
    write_file(TOV_HA_CONFIG_FILE, text);
    tov_update_cfg();
    EXPECT_TRUE(is_on()) << text;
    EXPECT_EQ(read_file(TOV_HA_MIRROR_FILE), ON) << "nothing of a longer line is left";
  }
}

TEST_F(TovUpdateCfg, MissingFileTurnsTheSwitchOn) {
  tov_flag_set(tov_single_ps_ha_enable, 0);
  tov_update_cfg();
  EXPECT_TRUE(is_on());
  EXPECT_EQ(read_file(TOV_HA_MIRROR_FILE), ON);
  EXPECT_FALSE(fs::exists(TOV_HA_CONFIG_FILE)) << "making it is not this function's business";
}

TEST_F(TovUpdateCfg, LinkedFileIsReadLikeAnyOther) {
  write_file("/data/written", "no tov single-process-ha auto-restart enable\n");
  fs::create_symlink("/data/written", TOV_HA_CONFIG_FILE);
  tov_update_cfg();
  EXPECT_FALSE(is_on());
}

TEST_F(TovUpdateCfg, FifoInItsPlaceDoesNotBlock) {
  ASSERT_EQ(mkfifo(TOV_HA_CONFIG_FILE, 0666), 0);
  tov_flag_set(tov_single_ps_ha_enable, 0);
  alarm(10);  // ends the test program instead of waiting for a writer for ever
  tov_update_cfg();
  alarm(0);
  EXPECT_TRUE(is_on());
}

TEST_F(TovUpdateCfg, SwitchingOnIsStamped) {
  write_file(TOV_HA_CONFIG_FILE, OFF);
  tov_update_cfg();
  EXPECT_EQ(tov_flag_get(tov_single_ps_ha_enable_time), 0);
  write_file(TOV_HA_CONFIG_FILE, ON);
  const time_t before = tov_get_time();
  tov_update_cfg();
  EXPECT_GE(tov_flag_get(tov_single_ps_ha_enable_time), before);
  EXPECT_LE(tov_flag_get(tov_single_ps_ha_enable_time), tov_get_time());
}

TEST_F(TovUpdateCfg, StayingOnIsNotStamped) {
  tov_flag_set(tov_single_ps_ha_enable_time, 7);
  write_file(TOV_HA_CONFIG_FILE, ON);
  tov_update_cfg();
  EXPECT_EQ(tov_flag_get(tov_single_ps_ha_enable_time), 7);
}

TEST_F(TovUpdateCfg, LineIsToldInDiagnostics) {
  EXPECT_THAT(diagnostics([] { tov_update_cfg(); }),
              MatchesRegex("\\[TOV:watched_files.cpp:[0-9]+\\]tov_update_cfg buf tov "
                           "single-process-ha auto-restart enable\r\n\r\n"));
}

// ---- mounts ---------------------------------------------------------------------------------

// What the question is answered with when /proc/mounts holds `text`; no text: there is none.
static void expect_data_mount(const std::string *text, int expected) {
  tov_test::in_child([&] {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    if (text != nullptr) write_file("/proc/mounts", *text);
    EXPECT_EQ(tov_check_data_mount(), expected) << (text != nullptr ? *text : "no file");
  });
}

static void expect_data_mount(const std::string &text, int expected) {
  expect_data_mount(&text, expected);
}

TEST(TovCheckDataMount, FindsDataInAnyLine) {
  expect_data_mount("tmpfs / tmpfs rw 0 0\n/dev/sda3 /data ext4 rw 0 0\n", 1);
  expect_data_mount("tmpfs / tmpfs rw 0 0\nproc /proc proc rw 0 0\n", 0);
  expect_data_mount("", 0);
}

TEST(TovCheckDataMount, IsSatisfiedByAnyMention) {
  expect_data_mount("/dev/sda3 /mnt/data2 ext4 rw 0 0\n", 1);
  expect_data_mount("/database /mnt ext4 rw 0 0", 1);
}

TEST(TovCheckDataMount, ReadsLongLinesInPiecesOf254) {
  expect_data_mount(std::string(249, 'x') + "/data\n", 1);
  expect_data_mount(std::string(250, 'x') + "/data\n", 0);  // "/dat" and "a"
  expect_data_mount(std::string(254, 'x') + "/data\n", 1);
}

TEST(TovCheckDataMount, SaysNoWhenMountsCannotBeRead) {
  expect_data_mount(nullptr, 0);
}

TEST(TovCheckDataMount, KnowsTheMountOfThisRoot) {
  EXPECT_EQ(tov_check_data_mount(), 1);
}

// ---- small files ----------------------------------------------------------------------------

using TovWriteBufToFile = Watcher;

TEST_F(TovWriteBufToFile, ReplacesTheContent) {
  write_file("/data/written", "something much longer");
  EXPECT_EQ(tov_write_buf_to_file("short", 5, "/data/written"), 5);
  EXPECT_EQ(read_file("/data/written"), "short");
}

TEST_F(TovWriteBufToFile, CreatesForEverybodyButTheUmask) {
  const mode_t before = umask(022);
  EXPECT_EQ(tov_write_buf_to_file("x", 1, "/data/written"), 1);
  umask(before);
  EXPECT_EQ(tov_test::mode_of("/data/written"), 0755U);
}

TEST_F(TovWriteBufToFile, NothingToWriteEmptiesTheFile) {
  for (const auto &[buf, len] :
       {std::pair{static_cast<const char *>(nullptr), 5}, std::pair{"x", 0}, std::pair{"x", -1}}) {
    write_file("/data/written", "full");
    EXPECT_EQ(tov_write_buf_to_file(buf, len, "/data/written"), 0);
    EXPECT_TRUE(fs::exists("/data/written"));
    EXPECT_EQ(read_file("/data/written"), "");
  }
}

TEST_F(TovWriteBufToFile, WritesBytesAndNotText) {
  EXPECT_EQ(tov_write_buf_to_file("a\0b", 3, "/data/written"), 3);
  EXPECT_EQ(read_file("/data/written"), std::string("a\0b", 3));
}

TEST_F(TovWriteBufToFile, SaysWhichFileCannotBeOpened) {
  int result = 0;
  EXPECT_THAT(diagnostics([&] { result = tov_write_buf_to_file("x", 1, "/no/such/file"); }),
              HasSubstr("]tov_write_buf_to_file: file /no/such/file fd < 0: No such file or "
                        "directory\n"));
  EXPECT_EQ(result, -1);
}

TEST_F(TovWriteBufToFile, TouchesNothingThatIsNoFile) {
  ASSERT_EQ(mkfifo("/data/written", 0666), 0);
  EXPECT_EQ(tov_write_buf_to_file("x", 1, "/data/written"), -1);
  fs::remove("/data/written");
  write_file(TOV_FORK_REASON_FILE, "kept");
  fs::create_symlink(TOV_FORK_REASON_FILE, "/data/written");
  EXPECT_EQ(tov_write_buf_to_file("x", 1, "/data/written"), -1);
  EXPECT_EQ(read_file(TOV_FORK_REASON_FILE), "kept");
}

TEST_F(TovWriteBufToFile, TellsAboutAShortWrite) {
  fs::create_directory("/data/tiny");
  ASSERT_EQ(mount("none", "/data/tiny", "tmpfs", 0, "size=4096"), 0);
  const std::string much(8192, 'x');
  int result = 0;
  const std::string said = diagnostics([&] {
    result = tov_write_buf_to_file(much.data(), static_cast<int>(much.size()), "/data/tiny/file");
  });
  EXPECT_EQ(umount("/data/tiny"), 0);
  EXPECT_NE(result, static_cast<int>(much.size()));
  EXPECT_THAT(
      said,
      HasSubstr("]write buf to file /data/tiny/file fail. ret:" + std::to_string(result) + "\r\n"));
}

TEST_F(TovWriteBufToFile, LeavesNoDescriptorBehind) {
  const size_t before = tov_test::open_descriptors();
  for (int i = 0; i < 3; i++)
    (void)tov_write_buf_to_file("x", 1, i == 1 ? "/no/such/file" : "/data/written");
  EXPECT_EQ(tov_test::open_descriptors(), before);
}
