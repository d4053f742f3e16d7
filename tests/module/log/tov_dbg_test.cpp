// Diagnostic lines, the debug file that switches them, the path makers.
#include "log/tov_dbg.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_registry.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"
#include "tests/support/text.h"

using tov_test::matches;
using tov_test::printed_by;

namespace {

// Switches quiet before and after; a data directory of its own.
class TovDbg : public testing::Test {
 protected:
  void SetUp() override {
    quiet();
    setenv("DATA_QXOS_DIR", dir_.path().c_str(), 1);
    std::filesystem::create_directory(dir_ / "qx_utils");
  }
  void TearDown() override {
    quiet();
    unsetenv("DATA_QXOS_DIR");
  }
  static void quiet() { std::fill_n(g_tov_dbg_level, TOV_MODULE_END, TOV_DBG_END); }
  std::string file() const { return dir_ / "qx_utils/qx_utils_dbg_cfg.txt"; }

  // The three switches after reading a debug file of this text, beginning at 4, 4, 4.
  std::vector<int> levels_of(const std::string &text) const {
    tov_test::write_file(file(), text);
    std::vector<int> levels(TOV_MODULE_END, TOV_DBG_END);
    EXPECT_EQ(_tov_parse_dbg_file(levels.data()), 0);
    return levels;
  }

  tov_test::ScratchDir dir_;
};

using Levels = std::vector<int>;

}  // namespace

TEST(TovDbgTables, WordsAreTheAgreedOnes) {
  EXPECT_STREQ(tov_dbg_lvl_str_pre[TOV_MODULE_PUB], "g_tov_pub_dbg_level");
  EXPECT_STREQ(tov_dbg_lvl_str_pre[TOV_MODULE_ALIVE], "g_tov_alive_dbg_level");
  EXPECT_STREQ(tov_dbg_lvl_str_pre[TOV_MODULE_LIB], "g_tov_lib_dbg_level");
  EXPECT_STREQ(tov_dbg_lvl_str_pre[TOV_MODULE_END], "invlaid");
}

// ---- printing -------------------------------------------------------------------------------

TEST(TovDbgStart, EverythingIsQuietUntilAFileSaysOtherwise) {
  for (const tov_dbg_t level : g_tov_dbg_level)
    EXPECT_EQ(level, TOV_DBG_END);
  EXPECT_EQ(tov_is_open_pub_dbg(), 0);
  EXPECT_EQ(printed_by([] {
              TOV_DBG("x\n");
              TOV_DBG_ALIVE("x\n");
              TOV_DBG_CHILD("x\n");
            }),
            "");
}

TEST_F(TovDbg, LineCarriesFileAndLineNumber) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_ERROR;
  const int line = __LINE__ + 1;
  EXPECT_EQ(printed_by([] { TOV_DBG("tov restart %d %s\n", 7, "now"); }),
            "[TOV:tov_dbg_test.cpp:" + std::to_string(line) + "]tov restart 7 now\n");
}

TEST_F(TovDbg, EachModuleHasItsOwnSwitch) {
  auto print_all = [] {
    tov_dbg_is_open(TOV_MODULE_LIB);
    TOV_DBG("pub");
    TOV_DBG_ALIVE("alive");
  };
  g_tov_dbg_level[TOV_MODULE_LIB] = TOV_DBG_VERBOSE;
  EXPECT_EQ(printed_by(print_all), "");
  g_tov_dbg_level[TOV_MODULE_ALIVE] = TOV_DBG_VERBOSE;
  EXPECT_TRUE(matches(printed_by(print_all), "\\[TOV:tov_dbg_test.cpp:[0-9]+\\]alive"));
  quiet();
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  EXPECT_TRUE(matches(printed_by(print_all), "\\[TOV:tov_dbg_test.cpp:[0-9]+\\]pub"));
}

TEST_F(TovDbg, AnyLevelButTheEndIsOn) {
  for (const int level : {-1, 0, 1, 2, 3, 5, 1000}) {
    g_tov_dbg_level[TOV_MODULE_PUB] = level;
    EXPECT_NE(tov_is_open_pub_dbg(), 0) << level;
  }
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  EXPECT_EQ(tov_is_open_pub_dbg(), 0);
}

TEST_F(TovDbg, LongestCommandLineIsNotCut) {
  const std::string process(4095, 'p');
  const std::string text = printed_by(
      [&] { tov_dbg_print("f.cpp", 12, "%s--> %s/%d is running!\n", "f", process.c_str(), 5); });
  EXPECT_EQ(text, "[TOV:f.cpp:12]f--> " + process + "/5 is running!\n");
}

TEST_F(TovDbg, EndlessTextIsCutWithinTheBuffer) {
  const std::string endless(100000, 'e');
  const std::string text = printed_by([&] { tov_dbg_print("f.cpp", 1, "%s", endless.c_str()); });
  EXPECT_GT(text.size(), 4500u);
  EXPECT_LT(text.size(), endless.size());
  EXPECT_TRUE(matches(text.substr(0, 20), "\\[TOV:f.cpp:1\\]e+"));
}

TEST_F(TovDbg, ErrnoIsKept) {
  (void)printed_by([&] {
    errno = ENOSPC;
    tov_dbg_print("f.cpp", 1, "%s", std::string(9000, 'x').c_str());
    EXPECT_EQ(errno, ENOSPC);
    tov_dbg_print_raw("f.cpp", 1, std::vector<const char *>{"x", nullptr}.data());
    EXPECT_EQ(errno, ENOSPC);
  });
}

TEST_F(TovDbg, LinesOfThreadsDoNotMix) {
  constexpr int THREADS = 4, LINES = 300;
  const std::string text = printed_by([] {
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int number = 0; number < THREADS; number++)
      threads.emplace_back([number] {
        const std::string filling(100, static_cast<char>('a' + number));
        for (int i = 0; i < LINES; i++)
          tov_dbg_print("f.cpp", number, "%s\n", filling.c_str());
      });
    for (std::thread &thread : threads)
      thread.join();
  });
  const std::vector<std::string> lines = tov_test::split_lines(text);
  EXPECT_EQ(lines.size(), static_cast<size_t>(THREADS) * LINES);
  for (const std::string &line : lines)
    ASSERT_TRUE(matches(line, "\\[TOV:f.cpp:([0-3])\\](a{100}|b{100}|c{100}|d{100})")) << line;
}

// ---- printing from a forked child -----------------------------------------------------------

TEST_F(TovDbg, ChildsLineIsJoined) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const int line = __LINE__ + 2;
  const std::string text = printed_by([] {
    tov_test::in_child([] { TOV_DBG_CHILD("tov_spawn", "--> chdir failed, ret: ", "-1", "\n"); });
  });
  EXPECT_EQ(text, "[TOV:tov_dbg_test.cpp:" + std::to_string(line) +
                      "]tov_spawn--> chdir failed, ret: -1\n");
}

TEST_F(TovDbg, ChildsLineIsBounded) {
  const std::string process(4095, 'p'), endless(100000, 'e');
  const char *const fitting[] = {process.c_str(), "\n", nullptr};
  EXPECT_EQ(printed_by([&] { tov_dbg_print_raw("f.cpp", 0, fitting); }),
            "[TOV:f.cpp:0]" + process + "\n");
  const char *const too_much[] = {endless.c_str(), "x", nullptr};
  const std::string text = printed_by([&] { tov_dbg_print_raw("f.cpp", 1, too_much); });
  EXPECT_GT(text.size(), 4500u);
  EXPECT_LT(text.size(), endless.size());
}

// ---- debug file -----------------------------------------------------------------------------

TEST_F(TovDbg, FileTurnsSwitchesOnAndOff) {
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level 0\n"), (Levels{0, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level 3\n"), (Levels{3, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_alive_dbg_level 1\ng_tov_lib_dbg_level 2"), (Levels{4, 1, 2}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level 0\ng_tov_pub_dbg_level 4\n"), (Levels{4, 4, 4}));
}

TEST_F(TovDbg, ValuesAreTakenUnchecked) {
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level -3\n"), (Levels{-3, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level 1000000\n"), (Levels{1000000, 4, 4}));
  EXPECT_NE(levels_of("g_tov_pub_dbg_level 4294967300\n")[0], TOV_DBG_END);
}

TEST_F(TovDbg, OtherLinesAreIgnored) {
  EXPECT_EQ(levels_of("# comment\n\n g_tov_pub_dbg_level 0\nother 1\n"), (Levels{4, 4, 4}));
  EXPECT_EQ(levels_of(""), (Levels{4, 4, 4}));
  EXPECT_EQ(levels_of("invlaid 0\n"), (Levels{4, 4, 4}));
}

TEST_F(TovDbg, KeyFollowedByLettersLeavesTheSwitch) {
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level 1\ng_tov_pub_dbg_levels 2\n"), (Levels{1, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level\n"), (Levels{4, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level x\n"), (Levels{4, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level2\n"), (Levels{2, 4, 4}));
  EXPECT_EQ(levels_of("g_tov_pub_dbg_level \t 2 and more\r\n"), (Levels{2, 4, 4}));
}

TEST_F(TovDbg, LongLineIsReadInPieces) {
  // 127 characters are one piece: what follows begins a new one.
  EXPECT_EQ(levels_of(std::string(127, '#') + "g_tov_pub_dbg_level 0\n"), (Levels{0, 4, 4}));
  EXPECT_EQ(levels_of(std::string(126, '#') + "g_tov_pub_dbg_level 0\n"), (Levels{4, 4, 4}));
}

TEST_F(TovDbg, MissingFileLeavesTheSwitches) {
  Levels levels = {1, 2, 3};
  EXPECT_EQ(_tov_parse_dbg_file(levels.data()), -1);
  EXPECT_EQ(levels, (Levels{1, 2, 3}));
  EXPECT_EQ(tov_parse_dbg_file(), 0);
  EXPECT_EQ(tov_is_open_pub_dbg(), 0);
}

TEST_F(TovDbg, PlantedFifoIsAMissingFile) {
  ASSERT_EQ(mkfifo(file().c_str(), 0777), 0);
  Levels levels(TOV_MODULE_END, TOV_DBG_END);
  EXPECT_EQ(_tov_parse_dbg_file(levels.data()), -1);
}

TEST_F(TovDbg, GlobalSwitchesAreRead) {
  tov_test::write_file(file(), "g_tov_pub_dbg_level 0\ng_tov_lib_dbg_level 2\n");
  const size_t before = tov_test::open_descriptors();
  EXPECT_EQ(tov_parse_dbg_file(), 0);
  EXPECT_EQ(tov_test::open_descriptors(), before);
  EXPECT_NE(tov_is_open_pub_dbg(), 0);
  EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_ALIVE], TOV_DBG_END);
  EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_LIB], 2);
}

TEST_F(TovDbg, MissingVariableIsSaidThoughDiagnosticsAreOff) {
  unsetenv("DATA_QXOS_DIR");
  Levels levels = {1, 2, 3};
  const std::string text = printed_by([&] { EXPECT_EQ(_tov_parse_dbg_file(levels.data()), -1); });
  EXPECT_TRUE(matches(text,
                      "\\[RAS\\]<tov_dbg.cpp, ras_make_vsd_data_qxos_path, [0-9]+>:"
                      "get DATA_QXOS_DIR fail!\r\n"))
      << text;
  EXPECT_EQ(levels, (Levels{1, 2, 3}));
  EXPECT_NE(printed_by([] { EXPECT_EQ(tov_parse_dbg_file(), 0); }), "");
}

// ---- paths ----------------------------------------------------------------------------------

TEST(TovDbgPath, ExactFitSucceedsAndOneMoreFails) {
  char path[9] = "xxxxxxxx";
  EXPECT_EQ(ras_make_vsd_path("/abc", "/def", path, 9), path);
  EXPECT_STREQ(path, "/abc/def");
  std::string text =
      printed_by([&] { EXPECT_EQ(ras_make_vsd_path("/abcd", "/def", path, 9), nullptr); });
  EXPECT_TRUE(matches(text,
                      "\\[RAS\\]<tov_dbg.cpp, ras_make_vsd_path, [0-9]+>:"
                      "not enough path memory\\(prefix:/abcd, suffix:/def, len:9\\)!\n"))
      << text;
  EXPECT_STREQ(path, "/abc/def");
}

TEST(TovDbgPath, RoomToSpareIsTerminatedAtItsEndToo) {
  char path[16];
  std::fill_n(path, sizeof path, 'x');
  EXPECT_EQ(ras_make_vsd_path("", "/a", path, sizeof path), path);
  EXPECT_STREQ(path, "/a");
  EXPECT_EQ(path[sizeof path - 1], '\0');
}

TEST(TovDbgPath, NoRoomAtAll) {
  char path[1] = {'x'};
  (void)printed_by([&] {
    EXPECT_EQ(ras_make_vsd_path("", "", path, 0), nullptr);
    EXPECT_EQ(ras_make_vsd_path("", "", path, -1), nullptr);
    EXPECT_EQ(path[0], 'x');
    EXPECT_EQ(ras_make_vsd_path("", "", path, 1), path);
  });
  EXPECT_STREQ(path, "");
}

TEST_F(TovDbg, DataPathJoinsTheVariable) {
  setenv("DATA_QXOS_DIR", "/data/.qxos/vsd/3", 1);
  char path[64];
  EXPECT_EQ(ras_make_vsd_data_qxos_path("/x", path, sizeof path), path);
  EXPECT_STREQ(path, "/data/.qxos/vsd/3/x");
  EXPECT_TRUE(
      matches(printed_by([&] { EXPECT_EQ(ras_make_vsd_data_qxos_path("/x", path, 10), nullptr); }),
              "\\[RAS\\]<tov_dbg.cpp, ras_make_vsd_path, [0-9]+>:not enough path memory"
              "\\(prefix:/data/.qxos/vsd/3, suffix:/x, len:10\\)!\n"));
}

TEST_F(TovDbg, DataPathRefusesBadArguments) {
  char path[64];
  const std::string where = "\\[RAS\\]<tov_dbg.cpp, ras_make_vsd_data_qxos_path, [0-9]+>:";
  EXPECT_TRUE(matches(
      printed_by([&] { EXPECT_EQ(ras_make_vsd_data_qxos_path(nullptr, path, 64), nullptr); }),
      where + "argument err\\(suffix:\\(nil\\), path:0x[0-9a-f]+, len:64\\)!\r\n"));
  EXPECT_TRUE(matches(
      printed_by([&] { EXPECT_EQ(ras_make_vsd_data_qxos_path("/x", nullptr, 64), nullptr); }),
      where + "argument err\\(suffix:0x[0-9a-f]+, path:\\(nil\\), len:64\\)!\r\n"));
  for (const int len : {1, 0, -1})
    EXPECT_TRUE(matches(
        printed_by([&] { EXPECT_EQ(ras_make_vsd_data_qxos_path("/x", path, len), nullptr); }),
        where + "argument err\\(suffix:0x[0-9a-f]+, path:0x[0-9a-f]+, len:" + std::to_string(len) +
            "\\)!\r\n"));
}
