// Files that are not what they should be: damaged, huge, unreadable, or something else than a file.
// None of them stops the daemon or keeps it from its work, and the trouble is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ContainsRegex;
using testing::HasSubstr;

static constexpr char DB_DIR[] = "/tmp/vsd/0/tov/db/";
static constexpr size_t HUGE_BYTES = 32 << 20;
static constexpr pid_t NOBODY = 5'000'000;  // the kernel gives out no such id

static void make_fifo(Device &device, const std::string &path) {
  if (const size_t parent = path.rfind('/'); parent > 0) device.mkdir(path.substr(0, parent));
  if (mkfifo(device.path(path).c_str(), 0666) < 0) throw std::runtime_error("no FIFO " + path);
}

// ---- registration files -----------------------------------------------------------------------

struct BadFile {
  std::string name;
  std::function<void(Device &, const std::string &)> make;
  std::string reason;  // part of the diagnostic before the one that names the file
};

static std::function<void(Device &, const std::string &)> text(const std::string &content) {
  return [content](Device &device, const std::string &path) { device.write(path, content); };
}

static const std::string NO_NUMBERS = "tov_read_pidfile: read pid fail: ";
static const std::string NOT_OPENED = "tov_read_pidfile: open pid file fail: ";

static const std::vector<BadFile> bad_files = {
    {"empty.1", text(""), NO_NUMBERS},
    {"one_number.2", text("2\n"), NO_NUMBERS},
    {"words.3", text("three\ntwo\n/opt/words"), NO_NUMBERS},
    {"zero.0", text("0\n2\n/opt/zero"), NO_NUMBERS},
    {"negative.-1", text("-1\n2\n/opt/negative"), NO_NUMBERS},
    {"overflow.9", text("99999999999999999999\n2\n/opt/overflow"), NO_NUMBERS},
    {"no_path.4", text(std::to_string(NOBODY) + "\n2\nno_path -x"), ""},
    {"binary.5", text(std::string("\0\1\2\377\n\n/", 7)), NO_NUMBERS},
    {"huge.6", text(std::string(HUGE_BYTES, 'x')), NO_NUMBERS},
    {"huge_number.7", text(std::string(HUGE_BYTES, '7')), NO_NUMBERS},
    {"a%n%s%s.8", text("?"), NO_NUMBERS},
    {std::string(255, 'n'), text("?"), NO_NUMBERS},
    {"link.10",
     [](Device &device, const std::string &path) {
       device.write("/tmp/elsewhere", std::to_string(NOBODY) + "\n2\n/bin/true");
       device.symlink("/tmp/elsewhere", path);
     },
     NOT_OPENED + "Too many levels of symbolic links"},
    {"dangling.11",
     [](Device &device, const std::string &path) { device.symlink("/nowhere", path); },
     NOT_OPENED + "Too many levels of symbolic links"},
    {"directory.12", [](Device &device, const std::string &path) { device.mkdir(path); },
     NOT_OPENED + "Invalid argument"},
    {"fifo.13", make_fifo, NOT_OPENED},
    {"device.14",
     [](Device &device, const std::string &path) {
       device.run({"mknod", path, "c", "1", "5"});
     },
     NOT_OPENED},
};

TEST(BadRegistration, IsNamedLeftInPlaceAndPassedOver) {
  Device device;
  Task task = start_task(device, "among_bad_files");
  for (const BadFile &bad : bad_files)
    bad.make(device, DB_DIR + bad.name);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const std::string output = device.daemon_output();
  for (const BadFile &bad : bad_files) {
    const size_t named = output.find("tov_read_pidfile " + bad.name + " fail\n");
    ASSERT_NE(named, std::string::npos) << bad.name;
    EXPECT_TRUE(device.exists(DB_DIR + bad.name)) << bad.name;
    if (bad.reason.empty()) continue;
    // The line before the one that names the file says why.
    const size_t end = output.rfind('\n', named);
    const size_t begin = output.rfind('\n', end - 1) + 1;
    EXPECT_THAT(output.substr(begin, end - begin), HasSubstr(bad.reason)) << bad.name;
  }
  EXPECT_EQ(event_texts(device, RUN_LOG), std::vector<std::string>{"TOV start."})
      << "nothing was started";
  kill_and_return(device, task);
}

TEST(BadRegistration, ThatCannotBeReadIsPassedOver) {
  Device device;
  Task task = start_task(device, "beside_unreadable");
  device.write(std::string(DB_DIR) + "unreadable.1", "1\n2\n/bin/true", 0);
  device.run({"chown", "nobody", std::string(DB_DIR) + "unreadable.1"});
  device.start_ready_daemon(
      {.env = with_diagnostics(device),
       .args = {"--bounding-set=-dac_override,-dac_read_search", device.binary_dir() + "/tov"},
       .program = "/usr/bin/setpriv"});
  EXPECT_THAT(device.daemon_output(), HasSubstr(NOT_OPENED + "Permission denied"));
  EXPECT_THAT(device.daemon_output(), HasSubstr("tov_read_pidfile unreadable.1 fail"));
  kill_and_return(device, task);
}

TEST(BadRegistration, LongerThanTheReaderTakesComesBackCut) {
  Device device;
  Task task = start_task(device, "overlong", {.registered = false});
  const std::string numbers = std::to_string(task.pid) + "\n2\n";
  device.write(task.file, numbers + task.program + " " + std::string(HUGE_BYTES, 'x'));
  device.start_ready_daemon();
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_EQ(birth.argv.size(), 256 - numbers.size());
  EXPECT_EQ(birth.argv,
            task.program + " " + std::string(birth.argv.size() - task.program.size() - 1, 'x'));
}

// What stands in the place of the file when its process has died carries no lock of that process.
struct Replacement {
  const char *label;
  std::function<void(Device &, const std::string &)> make;
};

// Names the case; without it the test's name would show its bytes.
static void PrintTo(const Replacement &row, std::ostream *out) {
  *out << row.label;
}

class ReplacedRegistration : public testing::TestWithParam<Replacement> {};

TEST_P(ReplacedRegistration, HoldsNoRestartBack) {
  Device device;
  Task task = start_task(device, std::string("replaced_") + GetParam().label);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  device.write("/tmp/precious", "untouched");
  device.remove(task.file);
  GetParam().make(device, task.file);
  kill_and_return(device, task);
  EXPECT_THAT(device.daemon_output(), HasSubstr("tov_proc_is_exit: " + task.file + " fd < 0: "));
  EXPECT_EQ(device.read("/tmp/precious"), "untouched");
}

static const Replacement replacements[] = {
    {"by_nothing", [](Device &, const std::string &) {}},
    {"by_link",
     [](Device &device, const std::string &path) { device.symlink("/tmp/precious", path); }},
    {"by_fifo", make_fifo},
    {"by_directory", [](Device &device, const std::string &path) { device.mkdir(path); }},
};
INSTANTIATE_TEST_SUITE_P(File, ReplacedRegistration, testing::ValuesIn(replacements),
                         [](const auto &row) { return std::string(row.param.label); });

// ---- list files -----------------------------------------------------------------------------

TEST(BadList, EntriesThatCannotBeReadAreNamedAndSkipped) {
  Device device;
  Task task = start_task(device, "listed_beside");
  device.mkdir("/etc/tov/proc/directory");
  device.symlink("/nowhere", "/etc/tov/proc/dangling");
  device.write("/etc/tov/proc/huge", std::string(HUGE_BYTES, 'h'));
  device.write("/etc/tov/proc/nul", std::string("/opt/a\0 TOV_RESTART", 19));
  make_fifo(device, "/etc/tov/proc/fifo");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  for (const char *reason : {"Is a directory", "No such file or directory"})
    EXPECT_THAT(device.daemon_output(),
                HasSubstr(std::string("tov_read_file_string failed, ret = -1, reason: ") + reason));
  const auto lines = device.lines("/etc/tov/third_part_proc");
  EXPECT_THAT(lines, testing::UnorderedElementsAre(std::string(1023, 'h'), "/opt/a", ""));
  kill_and_return(device, task);
}

TEST(BadList, DirectoryThatIsMissingLeavesTheListEmpty) {
  Device device;
  device.write("/etc/tov/third_part_proc", "from before TOV_RESTART\n");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  EXPECT_THAT(device.daemon_output(),
              HasSubstr("opendir failed, reason: No such file or directory\n"));
  EXPECT_TRUE(device.exists("/etc/tov/third_part_proc"));
  EXPECT_EQ(device.read("/etc/tov/third_part_proc"), "");
}

TEST(BadList, ThatCannotBeWrittenIsDoneWithout) {
  Device device;
  Task task = start_task(device, "unlisted");
  device.write("/etc/tov/proc/one", "/opt/one TOV_RESTART");
  device.mkdir("/etc/tov/third_part_proc");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  EXPECT_THAT(device.daemon_output(), HasSubstr("fopen failed, reason: Is a directory\n"));
  kill_and_return(device, task);
}

// Every program that is executed on the machine is looked up in it.
TEST(BadList, IsNoObstacleWhileTheDaemonRuns) {
  static constexpr char LIST[] = "/etc/tov/third_part_proc";
  Device device;
  Task task = start_task(device, "looked_up");
  device.start_ready_daemon();
  const std::function<void()> damages[] = {
      [&] { make_fifo(device, LIST); },
      [&] { device.mkdir(LIST); },
      [&] { device.symlink(LIST, LIST); },
      [&] { device.write(LIST, std::string(1 << 20, 'l')); },
  };
  for (const auto &damage : damages) {
    ASSERT_TRUE(device.remove(LIST));
    damage();
    device.run({"true"});
    kill_and_return(device, task);
  }
}

// ---- number files ---------------------------------------------------------------------------

struct BadPeriod {
  const char *label;
  std::function<void(Device &, const std::string &)> make;
  const char *diagnostic;
};

// Names the case; without it the test's name would show its bytes.
static void PrintTo(const BadPeriod &row, std::ostream *out) {
  *out << row.label;
}

class SelfCheckPeriod : public testing::TestWithParam<BadPeriod> {};

TEST_P(SelfCheckPeriod, FallsBackToFiveMinutes) {
  Device device;
  GetParam().make(device, "/debug_time");
  Task task = start_task(device, std::string("period_") + GetParam().label);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  for (int i = 0; i < 4; i++)
    kill_and_return(device, task);
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, suspended(task, 5));
  EXPECT_THAT(device.daemon_output(), HasSubstr(GetParam().diagnostic));
}

static constexpr char NO_PERIOD[] = "debug_time: atio fail or file is null: ";
static const BadPeriod bad_periods[] = {
    {"empty", text(""), NO_PERIOD},
    {"word", text("soon"), NO_PERIOD},
    {"zero", text("0"), NO_PERIOD},
    {"negative", text("-60"), NO_PERIOD},
    {"huge", text(std::string(HUGE_BYTES, 'p')), NO_PERIOD},
    {"directory", [](Device &device, const std::string &path) { device.mkdir(path); },
     "tov_spawn: get disable time fail: Is a directory\n"},
    {"fifo", make_fifo, "debug_time: read fail: "},
};
INSTANTIATE_TEST_SUITE_P(File, SelfCheckPeriod, testing::ValuesIn(bad_periods),
                         [](const auto &row) { return std::string(row.param.label); });

// Damaged limits of the mass-crash rule mean the usual ones, under which one crash is nothing.
TEST(BadNumbers, OfTheCrashRuleMeanItsDefaults) {
  static constexpr char CONFIG[] = "/etc/tov_config";
  if (read_small_file("/proc/sys/kernel/core_pattern").starts_with("|"))
    GTEST_SKIP() << "cores go to a program, which may refuse them";
  Device device;
  device.write("/debug_time", "1");  // the test makes more crashes than a burst allows
  Task task = start_task(device, "bad_limits", {.words = {"until-told", "abort", "core"}});
  device.start_ready_daemon();
  const std::function<void()> damages[] = {
      [&] { device.write(CONFIG, ""); },
      [&] { device.write(CONFIG, "one 1"); },
      [&] { device.write(CONFIG, "60,1"); },
      [&] { device.write(CONFIG, std::string(HUGE_BYTES, ' ') + "60 1"); },
      [&] { device.mkdir(CONFIG); },
      [&] { make_fifo(device, CONFIG); },
      [&] { device.symlink("/nowhere", CONFIG); },
  };
  for (const auto &damage : damages) {
    damage();
    tell(device, task);
    next_birth(device, task);
    need_event(device, RESTART_LOG, "new id " + named(task, task.pid));
    EXPECT_EQ(device.count_events(RUN_LOG, "tov detect more than"), 0U);
    device.remove(CONFIG);
  }
  device.write(CONFIG, "\n\t60\n1 and more");
  tell(device, task);
  need_event(device, RUN_LOG, "tov detect more than 1 process exit in shorttime[60]s");
}

TEST(BadNumbers, OfTheMemoryKillerForbidNothing) {
  static constexpr char STATUS[] = "/sys/kernel/qx_lowmem_killer/lmk_reboot_status";
  if (read_small_file("/proc/sys/kernel/core_pattern").starts_with("|"))
    GTEST_SKIP() << "cores go to a program, which may refuse them";
  Device device;
  device.write("/etc/tov_config", "60 1");
  Task task = start_task(device, "bad_status", {.words = {"until-told", "abort", "core"}});
  device.start_ready_daemon();
  const std::function<void()> damages[] = {
      [&] { device.write(STATUS, "none"); },
      [&] { device.mkdir(STATUS); },
      [&] { make_fifo(device, STATUS); },
  };
  size_t requests = 0;
  for (const auto &damage : damages) {
    damage();
    tell(device, task);
    next_birth(device, task);
    EXPECT_EQ(device.count_events(RUN_LOG, "tov detect more than"), ++requests);
    device.remove(STATUS);
  }
}

// ---- the daemon's own files in directories that are open to everybody ---------------------------

TEST(PlantedFile, InThePlaceOfThePidFileKeepsTheDaemonOutAndIsNotTouched) {
  const std::function<void(Device &)> plants[] = {
      [](Device &device) { device.symlink("/srv/precious", "/tmp/tov/tov.pid"); },
      [](Device &device) { make_fifo(device, "/tmp/tov/tov.pid"); },
      [](Device &device) { device.mkdir("/tmp/tov/tov.pid"); },
  };
  for (const auto &plant : plants) {
    Device device;
    device.write("/srv/precious", "untouched");
    device.mkdir("/tmp/tov", 0777);
    plant(device);
    device.start_daemon();
    const auto status = device.wait_daemon(STORY_LIMIT_MS);
    ASSERT_TRUE(status) << "it hangs";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 255) << *status;
    EXPECT_EQ(device.read("/srv/precious"), "untouched");
  }
}

TEST(PlantedFile, InThePlaceOfTheForkRecordIsRemovedAndNotFollowed) {
  Device device;
  Task task = start_task(device, "beside_plant");
  device.start_ready_daemon();
  device.write("/srv/precious", "untouched");
  // In one step: the daemon makes the file anew as soon as it is missed.
  device.symlink("/srv/precious", "/tmp/tov/planted");
  std::filesystem::rename(device.path("/tmp/tov/planted"), device.path("/tmp/tov/forkfile"));
  kill_and_return(device, task);
  EXPECT_EQ(device.read("/srv/precious"), "untouched");
  EXPECT_TRUE(wait_until(
      [&] {
        const auto status = device.status("/tmp/tov/forkfile");
        return !status || !S_ISLNK(status->st_mode);
      },
      STORY_LIMIT_MS));
}

TEST(PlantedFile, InThePlaceOfTheJournalIsNotWritten) {
  Device device;
  device.write("/etc/debug_log", "");
  device.write("/srv/precious", "untouched");
  Task task = start_task(device, "beside_journal");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  device.symlink("/srv/precious", "/tmp/tov/tov.log1");
  device.kill(task.pid, SIGKILL);
  EXPECT_TRUE(device.wait_output("fail to openlog: Too many levels of symbolic links"));
  EXPECT_EQ(device.read("/srv/precious"), "untouched");
}

TEST(PlantedFile, InThePlaceOfTheSwitchesDoesNotHoldTheStartUp) {
  Device device;
  Task task = start_task(device, "beside_switches");
  make_fifo(device, "/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt");
  device.start_ready_daemon({.env = {{"DATA_QXOS_DIR", "/data/.qxos/vsd/0"}}});
  kill_and_return(device, task);
  EXPECT_EQ(device.daemon_output(), "") << "diagnostics are off";
}

TEST(PlantedFile, InThePlaceOfTheLogDirectoryLeavesOnlyTheLogsOut) {
  Device device;
  Task task = start_task(device, "without_logs");
  device.write(EVENT_LOG_DIR, "a file\n");
  device.start_ready_daemon({.env = with_diagnostics(device)});
  EXPECT_THAT(device.daemon_output(),
              ContainsRegex(std::string("tov_log mkdir ") + EVENT_LOG_DIR + " fail: File exists"));
  EXPECT_THAT(device.daemon_output(), HasSubstr("tov_log disable all new log.\n"));
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_TRUE(device.wait_notice(self_check_ok(task, 1, birth.pid)));
  EXPECT_EQ(device.read(EVENT_LOG_DIR), "a file\n");
}
