// Event logs: opening, pruning, lines, lines of a forked child.
#include "log/tov_log.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libgen.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "tests/support/event_log.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"
#include "tests/support/text.h"

using tov_test::matches;
using tov_test::printed_by;
using tov_test::STAMP_LENGTH;

namespace fs = std::filesystem;

static const std::string LOG_DIR = tov_test::EVENT_LOG_DIR;
static const std::string STAMP = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{6} [0-9]{6} ";
static constexpr size_t LONGEST_LINE = 254;
static const std::vector<std::string> names(std::begin(tov_test::EVENT_LOGS),
                                            std::end(tov_test::EVENT_LOGS));

// Handles live to the end of the process; kept where the leak checker finds them.
static auto *const all_handles = new std::vector<void *>;

// Calls that hardly ever fail, made to fail. Only the thread of the tests sets the switch.
static const char *failing = "";

template <typename Function>
static Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// Says so, with errno, when `call` is the one that is to fail.
static bool fails(const char *call, int error) {
  if (strcmp(failing, call) != 0) return false;
  errno = error;
  return true;
}

extern "C" int chmod(const char *path, mode_t mode) noexcept {
  return fails("chmod", EPERM) ? -1 : real<int(const char *, mode_t)>("chmod")(path, mode);
}

extern "C" int closedir(DIR *dir) {
  const int res = real<int(DIR *)>("closedir")(dir);
  return fails("closedir", EIO) ? -1 : res;
}

extern "C" char *dirname(char *path) noexcept {
  return fails("dirname", 0) ? nullptr : real<char *(char *)>("dirname")(path);
}

namespace {

// Begins without a log directory and with closed logs.
class TovLog : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all("/qxos");
    fs::create_directories("/qxos/vsd_common");
    std::fill_n(tov_logfile_info, TOV_LOG_TYPE_NUM, nullptr);
    std::fill_n(g_tov_dbg_level, TOV_MODULE_END, TOV_DBG_END);
  }
  void TearDown() override {
    failing = "";
    all_handles->insert(all_handles->end(), tov_logfile_info, tov_logfile_info + TOV_LOG_TYPE_NUM);
  }

  // The content of the only file of a type.
  static std::string content(int type) { return tov_test::event_log_content(type); }
};

// The same with the six logs open.
class TovLogOpen : public TovLog {
 protected:
  void SetUp() override {
    TovLog::SetUp();
    tov_log_init();
  }

  // What a message becomes in the file, behind its stamp.
  static std::string line_of(const std::string &message) {
    const size_t before = content(TOV_LOG_ERROR).size();
    EXPECT_EQ(tov_log_with_type(TOV_LOG_ERROR, "%s", message.c_str()), 0);
    const std::string line = content(TOV_LOG_ERROR).substr(before);
    EXPECT_TRUE(matches(line.substr(0, STAMP_LENGTH), STAMP)) << line;
    return line.substr(STAMP_LENGTH);
  }
};

}  // namespace

// ---- opening --------------------------------------------------------------------------------

TEST_F(TovLog, DirectoryIsOpenToEverybodyWhateverTheUmask) {
  const mode_t before = umask(077);
  tov_log_init();
  umask(before);
  EXPECT_EQ(tov_test::mode_of(LOG_DIR), 0777u);
}

TEST_F(TovLog, ExistingDirectoryKeepsItsMode) {
  fs::create_directory(LOG_DIR);
  chmod(LOG_DIR.c_str(), 0711);
  tov_log_init();
  EXPECT_EQ(tov_test::mode_of(LOG_DIR), 0711u);
  EXPECT_EQ(tov_test::names_in(LOG_DIR).size(), names.size());
}

TEST_F(TovLog, EachTypeHasAStampedFile) {
  tov_log_init();
  const std::set<std::string> found = tov_test::names_in(LOG_DIR);
  ASSERT_EQ(found.size(), names.size());
  for (int type = 0; type < TOV_LOG_TYPE_NUM; type++) {
    EXPECT_NE(tov_logfile_info[type], nullptr);
    const std::string pattern =
        names[static_cast<size_t>(type)] + "-20[0-9]{12}-" + std::to_string(getpid());
    EXPECT_EQ(std::count_if(found.begin(), found.end(),
                            [&](const std::string &name) { return matches(name, pattern); }),
              1)
        << pattern;
    ASSERT_EQ(tov_log_with_type(type, "type %d", type), 0);
    EXPECT_TRUE(matches(content(type), STAMP + "type " + std::to_string(type) + "\r\n"));
  }
}

TEST_F(TovLog, ImpossibleDirectoryDisablesAllLogs) {
  fs::remove_all("/qxos/vsd_common");
  tov_test::write_file("/qxos/vsd_common", "");
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([] { tov_log_init(); });
  EXPECT_TRUE(matches(text,
                      "\\[TOV:tov_log.cpp:[0-9]+\\]tov_log mkdir /qxos/vsd_common/tov fail: "
                      "Not a directory.\n"
                      "\\[TOV:tov_log.cpp:[0-9]+\\]tov_log disable all new log.\n"))
      << text;
  for (int type = 0; type < TOV_LOG_TYPE_NUM; type++) {
    EXPECT_EQ(tov_logfile_info[type], nullptr);
    EXPECT_EQ(tov_log_with_type(type, "x"), -1);
  }
  tov_log_flush_emergency();  // nothing to flush is no reason to fail
}

TEST_F(TovLog, FileInThePlaceOfTheDirectoryDisablesAllLogs) {
  tov_test::write_file(LOG_DIR, "");
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([] { tov_log_init(); });
  EXPECT_NE(text.find("tov_log mkdir /qxos/vsd_common/tov fail: File exists.\n"),
            std::string::npos);
}

// What opening the logs prints while one call fails, without the tag in front of each line.
static std::string complaints_without(const char *call) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  failing = call;
  const std::string text = printed_by([] { tov_log_init(); });
  failing = "";
  std::string lines;
  for (const std::string &line : tov_test::split_lines(text)) {
    EXPECT_TRUE(matches(line, "\\[TOV:tov_log.cpp:[0-9]+\\].*")) << line;
    lines += line.substr(line.find(']') + 1) + "\n";
  }
  return lines;
}

TEST_F(TovLog, DirectoryThatCannotBeOpenedUpDisablesAllLogs) {
  EXPECT_EQ(complaints_without("chmod"),
            "tov_log chmod /qxos/vsd_common/tov fail: Operation not permitted.\n"
            "tov_log disable all new log.\n");
  EXPECT_EQ(tov_log_with_type(TOV_LOG_KILL, "x"), -1);
}

TEST_F(TovLog, DirectoryThatCannotBeClosedIsNoObstacle) {
  fs::create_directory(LOG_DIR);
  const std::string text = complaints_without("closedir");
  EXPECT_TRUE(text.starts_with("tov_log closedir /qxos/vsd_common/tov fail: Input/output error.\n"))
      << text;
  EXPECT_EQ(tov_log_with_type(TOV_LOG_KILL, "x"), 0);
}

TEST_F(TovLog, DirectoryIsCutByHandWhenItsNameCannotBeTold) {
  fs::create_directory(LOG_DIR);
  for (int i = 0; i < 12; i++)
    tov_test::write_file(LOG_DIR + "/tov_kill_process.log-" + std::to_string(i), "old");
  const std::string complaint =
      "tov_log_logfile_init fail to get dirname,path:/qxos/vsd_common/tov/";
  EXPECT_TRUE(
      matches(complaints_without("dirname"), "(" + complaint + "[a-z_.]+-[0-9]+-[0-9]+\n){6}"));
  const std::set<std::string> left = tov_test::names_in(LOG_DIR);
  EXPECT_EQ(std::count_if(
                left.begin(), left.end(),
                [](const std::string &name) { return name.starts_with("tov_kill_process.log"); }),
            10);  // older files are deleted all the same
}

TEST_F(TovLog, LogThatCannotBeOpenedStaysClosed) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text = printed_by([] { tov_log_logfile_init(TOV_LOG_KILL); });
  EXPECT_TRUE(matches(text, "\\[TOV:tov_log.cpp:[0-9]+\\]tov_log init restart process log fail:" +
                                std::to_string(ENOENT) + ".\n"))
      << text;
  EXPECT_EQ(tov_logfile_info[TOV_LOG_KILL], nullptr);
}

TEST_F(TovLog, UnknownTypeIsNotOpened) {
  fs::create_directory(LOG_DIR);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  for (const int type : {-1, 6, 1000}) {
    const std::string text = printed_by([&] { tov_log_logfile_init(type); });
    EXPECT_TRUE(matches(text,
                        "\\[TOV:tov_log.cpp:[0-9]+\\]\\[tov_log_logfile_init\\] error: unkown log "
                        "file type!\n"))
        << text;
  }
  EXPECT_TRUE(tov_test::names_in(LOG_DIR).empty());
}

TEST_F(TovLog, TenFilesOfATypeRemain) {
  fs::create_directory(LOG_DIR);
  for (int day = 10; day < 25; day++)
    for (const char *base : {"tov_kill_process.log", "tov_run_event.log"}) {
      const std::string path = LOG_DIR + "/" + base + "-202001" + std::to_string(day) + "000000-77";
      tov_test::write_file(path, "old");
      const timespec times[2] = {{day * 86400L, 0}, {day * 86400L, 0}};
      utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
  tov_log_logfile_init(TOV_LOG_KILL);
  std::map<std::string, int> count;
  for (const std::string &name : tov_test::names_in(LOG_DIR))
    count[name.substr(0, name.find('-'))]++;
  EXPECT_EQ(count["tov_kill_process.log"], 10);
  EXPECT_EQ(count["tov_run_event.log"], 15);  // another type's files are not looked at
  EXPECT_FALSE(fs::exists(LOG_DIR + "/tov_kill_process.log-20200115000000-77"));
  EXPECT_TRUE(fs::exists(LOG_DIR + "/tov_kill_process.log-20200116000000-77"));
  EXPECT_EQ(tov_log_with_type(TOV_LOG_KILL, "x"), 0);
}

// ---- stamps ---------------------------------------------------------------------------------

TEST(TovLogStamp, FileStampIsWholeOrCut) {
  char buf[64];
  const int n = tov_logfile_add_stamp(buf, sizeof buf);
  EXPECT_EQ(n, static_cast<int>(strlen(buf)));
  EXPECT_TRUE(matches(buf, "-20[0-9]{12}-" + std::to_string(getpid()))) << buf;
  EXPECT_EQ(tov_logfile_add_stamp(buf, 6), 5);
  EXPECT_EQ(strlen(buf), 5u);
  EXPECT_EQ(tov_logfile_add_stamp(buf, 1), 0);
}

TEST(TovLogStamp, FileStampWithoutRoomIsRefused) {
  char buf[4] = "abc";
  EXPECT_EQ(tov_logfile_add_stamp(nullptr, 64), -202);
  EXPECT_EQ(tov_logfile_add_stamp(buf, 0), -202);
  EXPECT_EQ(tov_logfile_add_stamp(buf, -1), -202);
  EXPECT_STREQ(buf, "abc");
}

TEST(TovLogStamp, LineStampIsLocalTime) {
  char buf[64], expected[64];
  const time_t before = time(nullptr);
  EXPECT_EQ(tov_log_get_timestr(buf, sizeof buf), static_cast<int>(STAMP_LENGTH));
  EXPECT_TRUE(matches(buf, STAMP)) << buf;
  bool found = false;
  // time() may lag behind the clock of the stamp by a tick, hence one second more.
  for (time_t second = before; second <= time(nullptr) + 1; second++) {
    struct tm local;
    localtime_r(&second, &local);
    strftime(expected, sizeof expected, "%Y-%m-%d %H%M%S ", &local);
    found = found || strncmp(buf, expected, strlen(expected)) == 0;
  }
  EXPECT_TRUE(found) << buf;
}

TEST(TovLogStamp, LineStampIsCutOrRefused) {
  char buf[8] = "abc";
  EXPECT_EQ(tov_log_get_timestr(nullptr, 64), -ENOENT);
  EXPECT_EQ(tov_log_get_timestr(buf, 0), -1);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(tov_log_get_timestr(buf, sizeof buf), 7);
  EXPECT_EQ(strlen(buf), 7u);
}

// ---- lines ----------------------------------------------------------------------------------

TEST_F(TovLogOpen, EveryLineEndsInOneCrLf) {
  EXPECT_EQ(line_of("text"), "text\r\n");
  EXPECT_EQ(line_of("text\n"), "text\r\n");
  EXPECT_EQ(line_of("text\r\n"), "text\r\n");
  EXPECT_EQ(line_of("text\r"), "text\r\n");
  EXPECT_EQ(line_of("text\n\n"), "text\n\r\n");
  EXPECT_EQ(line_of("text\n\r"), "text\n\r\n");
  EXPECT_EQ(line_of("\n"), "\r\n");
  EXPECT_EQ(line_of("\r\n"), "\r\n");
}

TEST_F(TovLogOpen, LongMessageIsCut) {
  const size_t room = LONGEST_LINE - STAMP_LENGTH - 2;
  EXPECT_EQ(line_of(std::string(300, 'x')), std::string(room, 'x') + "\r\n");
  EXPECT_EQ(line_of(std::string(room, 'x')), std::string(room, 'x') + "\r\n");
  EXPECT_EQ(line_of(std::string(room - 1, 'x')), std::string(room - 1, 'x') + "\r\n");
  EXPECT_EQ(line_of(std::string(room - 1, 'x') + "\nyyy"), std::string(room - 1, 'x') + "\r\n");
}

TEST_F(TovLogOpen, EmptyMessageWritesNothing) {
  EXPECT_EQ(tov_log_with_type(TOV_LOG_KILL, "%s", ""), -1);
  EXPECT_EQ(content(TOV_LOG_KILL), "");
}

TEST_F(TovLogOpen, UnknownTypeWritesNothing) {
  EXPECT_EQ(tov_log_with_type(-1, "x"), -1);
  EXPECT_EQ(tov_log_with_type(TOV_LOG_TYPE_NUM, "x"), -1);
  for (int type = 0; type < TOV_LOG_TYPE_NUM; type++)
    EXPECT_EQ(content(type), "");
}

TEST_F(TovLogOpen, ErrnoIsKept) {
  errno = ENOSPC;
  EXPECT_EQ(tov_log_with_type(TOV_LOG_KILL, "%s", "x"), 0);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(TovLogOpen, FlushLeavesTheLogsUsable) {
  tov_log_flush_emergency();
  EXPECT_EQ(line_of("after"), "after\r\n");
}

TEST_F(TovLogOpen, LinesOfThreadsAreWhole) {
  constexpr int THREADS = 4, LINES = 250;
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int number = 0; number < THREADS; number++)
    threads.emplace_back([number] {
      for (int i = 0; i < LINES; i++)
        (void)tov_log_with_type(TOV_LOG_RESTART, "thread %d line %03d %s\n", number, i,
                                std::string(100, '.').c_str());
    });
  for (std::thread &thread : threads)
    thread.join();
  const std::string text = content(TOV_LOG_RESTART);
  std::set<std::string> seen;
  for (const std::string &line : tov_test::split_lines(text)) {
    ASSERT_TRUE(matches(line, STAMP + "thread [0-9] line [0-9]{3} \\.{100}\r")) << line;
    seen.insert(line.substr(STAMP_LENGTH));
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(THREADS) * LINES);
}

TEST_F(TovLogOpen, DiagnosticAndEventCarryTheSameText) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  const std::string text =
      printed_by([] { TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> new pid: %d\n", "f", 5); });
  EXPECT_TRUE(matches(text, "\\[TOV:tov_log_test.cpp:[0-9]+\\]f--> new pid: 5\n")) << text;
  EXPECT_TRUE(matches(content(TOV_LOG_RUN_EVENT), STAMP + "f--> new pid: 5\r\n"));
}

// ---- lines of a forked child ----------------------------------------------------------------

// Writes the prepared line in a forked child. Returns what the write returned.
static int write_in_child(int type, const tov_log_child_line_t &line,
                          std::vector<const char *> rest) {
  rest.push_back(nullptr);
  return -WEXITSTATUS(
      tov_test::status_in_child([&] { return -tov_log_write_prepared(type, &line, rest.data()); }));
}

TEST_F(TovLogOpen, ChildAddsItsTextsToThePreparedLine) {
  tov_log_child_line_t line;
  tov_log_prepare(&line, "Tov execvp fail,error:");
  EXPECT_EQ(write_in_child(TOV_LOG_RUN_EVENT, line, {"No such file or directory", ".\n"}), 0);
  EXPECT_TRUE(matches(content(TOV_LOG_RUN_EVENT),
                      STAMP + "Tov execvp fail,error:No such file or directory.\r\n"));
}

TEST_F(TovLogOpen, ChildsLineFollowsTheSameRules) {
  const size_t room = LONGEST_LINE - STAMP_LENGTH - 2;
  const std::string endless(1000, 'x');
  const struct {
    std::string beginning;
    std::vector<const char *> rest;
    std::string expected;
  } cases[] = {
      {"a\n", {}, "a\r\n"},
      {"a", {"\r", "\n"}, "a\r\n"},
      {"a", {"\n\r"}, "a\n\r\n"},
      {"\n", {}, "\r\n"},
      {"a", {"", "b", ""}, "ab\r\n"},
      {"a", {endless.c_str(), "y"}, "a" + std::string(room - 1, 'x') + "\r\n"},
      {endless, {"y"}, std::string(room, 'x') + "\r\n"},
  };
  for (const auto &c : cases) {
    const size_t before = content(TOV_LOG_KILL).size();
    tov_log_child_line_t line;
    tov_log_prepare(&line, c.beginning.c_str());
    EXPECT_EQ(write_in_child(TOV_LOG_KILL, line, c.rest), 0);
    const std::string written = content(TOV_LOG_KILL).substr(before);
    EXPECT_TRUE(matches(written.substr(0, STAMP_LENGTH), STAMP));
    EXPECT_EQ(written.substr(STAMP_LENGTH), c.expected);
    EXPECT_LE(written.size(), LONGEST_LINE);
  }
}

TEST_F(TovLogOpen, NothingPreparedIsNotWritten) {
  tov_log_child_line_t line;
  tov_log_prepare(&line, "");
  EXPECT_EQ(write_in_child(TOV_LOG_KILL, line, {"x"}), -EINVAL);
  tov_log_prepare(&line, "x");
  EXPECT_EQ(write_in_child(-1, line, {}), -EINVAL);
  EXPECT_EQ(write_in_child(TOV_LOG_TYPE_NUM, line, {}), -EINVAL);
  void *const handle = std::exchange(tov_logfile_info[TOV_LOG_KILL], nullptr);
  EXPECT_EQ(write_in_child(TOV_LOG_KILL, line, {}), -EINVAL);
  tov_logfile_info[TOV_LOG_KILL] = handle;
  EXPECT_EQ(content(TOV_LOG_KILL), "");
}
