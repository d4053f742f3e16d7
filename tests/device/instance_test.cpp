// The daemon as one process of its system: single instance, limits, directories, log files, signals
// and its own sudden death.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/spawn.h"

using namespace tov_test;
using testing::Contains;
using testing::ContainsRegex;
using testing::MatchesRegex;

// ---- single instance --------------------------------------------------------------------------

TEST(SecondInstance, RefusesAndLeavesTheFirstAlone) {
  Device device;
  Task task = start_task(device, "first_instance");
  const pid_t first = device.start_ready_daemon();
  const auto logs = device.list(EVENT_LOG_DIR);
  const auto socket = device.status("/tmp/tov/.tov");
  const std::string pid_file = device.read("/tmp/tov/tov.pid");

  const pid_t second = device.start_daemon();
  const auto status = device.wait_daemon(STORY_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 255) << *status;
  EXPECT_NE(second, first);

  EXPECT_EQ(device.read("/tmp/tov/tov.pid"), pid_file);
  EXPECT_EQ(device.list(EVENT_LOG_DIR), logs);
  EXPECT_EQ(device.status("/tmp/tov/.tov")->st_ino, socket->st_ino);
  const Birth birth = kill_and_return(device, task);
  EXPECT_EQ(birth.ppid, first);
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

TEST(SecondInstance, SaysWhyWhenAsked) {
  Device device;
  device.start_ready_daemon();
  device.start_daemon({.env = with_diagnostics(device)});
  ASSERT_TRUE(device.wait_daemon(STORY_LIMIT_MS));
  EXPECT_THAT(device.daemon_output(), ContainsRegex("\\[TOV:tov_core.cpp:[0-9]+\\]tov is already "
                                                    "running\n"));
}

TEST(PidFile, HoldsTheNumberAndOneNul) {
  Device device;
  device.write("/tmp/tov/tov.pid", "longer than any number");  // of a daemon that was killed
  const pid_t pid = device.start_ready_daemon();
  EXPECT_EQ(device.read("/tmp/tov/tov.pid"), std::to_string(pid) + std::string(1, '\0'));
}

TEST(PidFile, IsMadeForItsOwnerAlone) {
  Device device;
  device.start_ready_daemon();
  EXPECT_EQ(device.mode("/tmp/tov/tov.pid"), 0700U);
}

// ---- limit of open files ------------------------------------------------------------------------

static std::string open_files_limit(pid_t pid) {
  const std::string limits = read_small_file("/proc/" + std::to_string(pid) + "/limits");
  const size_t at = limits.find("Max open files");
  return limits.substr(at, limits.find('\n', at) - at);
}

struct FileLimit {
  const char *label;
  Limit given;
  const char *expected;
};

// Names the case; without it the test's name would show its bytes.
static void PrintTo(const FileLimit &row, std::ostream *out) {
  *out << row.label;
}

class FileLimitTest : public testing::TestWithParam<FileLimit> {};

TEST_P(FileLimitTest, SoftLimitBecomesTheDaemonsOwn) {
  Device device;
  const pid_t pid = device.start_ready_daemon({.limits = {GetParam().given}});
  EXPECT_THAT(open_files_limit(pid), MatchesRegex(GetParam().expected));
}

static const FileLimit file_limits[] = {
    {"LowSoft", {RLIMIT_NOFILE, 256, 4096}, "Max open files +2304 +4096 +files *"},
    {"HighSoft", {RLIMIT_NOFILE, 4096, 4096}, "Max open files +2304 +4096 +files *"},
    {"Exact", {RLIMIT_NOFILE, 1024, 2304}, "Max open files +2304 +2304 +files *"},
};
INSTANTIATE_TEST_SUITE_P(Limits, FileLimitTest, testing::ValuesIn(file_limits),
                         [](const auto &row) { return std::string(row.param.label); });

static bool may_raise_hard_limits() {
  const std::string mask = status_field(getpid(), "CapEff");
  return (strtoull(mask.c_str(), nullptr, 16) & (1ULL << CAP_SYS_RESOURCE)) != 0;
}

TEST(FileLimit, LowHardLimitIsRaised) {
  if (!may_raise_hard_limits()) GTEST_SKIP() << "no privilege to raise hard limits here";
  Device device;
  const pid_t pid = device.start_ready_daemon({.limits = {{RLIMIT_NOFILE, 512, 1024}}});
  EXPECT_THAT(open_files_limit(pid), MatchesRegex("Max open files +2304 +2304 +files *"));
}

TEST(FileLimit, ThatCannotBeRaisedEndsTheDaemonWithAWord) {
  Device device;
  device.start_daemon({.args = {"--bounding-set=-sys_resource", device.binary_dir() + "/tov"},
                       .limits = {{RLIMIT_NOFILE, 512, 1024}, {RLIMIT_CORE, 0, 0}},
                       .program = "/usr/bin/setpriv"});
  const auto status = device.wait_daemon(STORY_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
  EXPECT_THAT(device.daemon_output(), testing::EndsWith("[TOV]ULIMIT: Set ulimit error.\r"));
}

// ---- directories ----------------------------------------------------------------------------

static std::vector<std::string> expected_directories() {
  std::vector<std::string> all = {
      "/tmp/tov",           "/qx_cfg",
      "/qx_cfg/vsd_common", "/qx_cfg/vsd",
      "/qx_cfg/vsd/0",      "/qxos",
      "/qxos/vsd_common",   "/qxos/vsd_common/tov",
      "/qxos/vsd",          "/qxos/vsd/0",
      "/qxos/vsd/0/tov",    "/data",
      "/data/.qxos",        "/data/.qxos/vsd_common",
      "/data/.qxos/vsd",    "/data/.qxos/vsd/0",
      "/tmp/vsd_common",    "/tmp/vsd",
      "/tmp/vsd/0",         "/etc/vsd",
      "/etc/vsd/0",         "/data/var",
      "/data/var/run",      "/data/var/run/vsd",
      "/tmp/vsd/%d",        "/tmp/vsd/%d/tov",
      "/tmp/vsd/%d/tov/db",
  };
  for (int vsd = 0; vsd <= 15; vsd++)
    for (const char *below : {"", "/tov", "/tov/db"})
      all.push_back("/tmp/vsd/" + std::to_string(vsd) + below);
  return all;
}

static const std::vector<std::string> data2_directories = {
    "/data2/.qxos", "/data2/.qxos/vsd", "/data2/.qxos/vsd/0",
    "/data2/var",   "/data2/var/run",   "/data2/var/run/vsd"};

static DaemonOptions with_umask_077(const Device &device) {
  return {.args = {"-c", "umask 077; exec " + device.binary_dir() + "/tov"}, .program = "/bin/sh"};
}

TEST(Directories, AreOpenToEverybodyWhateverTheUmask) {
  Device device;
  device.start_ready_daemon(with_umask_077(device));
  for (const std::string &directory : expected_directories()) {
    const auto status = device.status(directory);
    ASSERT_TRUE(status) << directory;
    EXPECT_TRUE(S_ISDIR(status->st_mode)) << directory;
    EXPECT_EQ(status->st_mode & 07777, 0777U) << directory;
  }
  EXPECT_FALSE(device.exists("/tmp/vsd/16"));
}

TEST(Directories, ThatStandAlreadyAreOpenedToo) {
  Device device;
  for (const char *closed : {"/tmp/tov", "/qx_cfg/vsd/0", "/tmp/vsd/7/tov/db"})
    device.mkdir(closed, 0700);
  device.start_ready_daemon();
  for (const char *opened : {"/tmp/tov", "/qx_cfg/vsd/0", "/tmp/vsd/7/tov/db"})
    EXPECT_EQ(device.mode(opened), 0777U) << opened;
}

TEST(Directories, OfTheSecondDataTreeAreMadeWhereItStands) {
  Device device({.data2 = true});
  device.start_ready_daemon(with_umask_077(device));
  for (const std::string &directory : data2_directories)
    EXPECT_EQ(device.mode(directory), 0777U) << directory;
}

TEST(Directories, OfTheSecondDataTreeAreLeftOutWhereItIsMissing) {
  Device device;
  device.start_ready_daemon();
  EXPECT_FALSE(device.exists("/data2"));
}

// ---- event logs -----------------------------------------------------------------------------

TEST(EventLogs, OfAllKindsAreOpenedAnewAtEachStart) {
  Device device;
  device.start_ready_daemon();
  const auto files = device.list(EVENT_LOG_DIR);
  ASSERT_EQ(files.size(), std::size(EVENT_LOGS));
  for (const char *log : EVENT_LOGS)
    EXPECT_THAT(files, Contains(MatchesRegex(std::string(log) + "-[0-9]{14}-" +
                                             std::to_string(device.daemon_pid()))));
  device.kill_daemon();
  device.start_ready_daemon();
  EXPECT_EQ(device.list(EVENT_LOG_DIR).size(), 2 * std::size(EVENT_LOGS));
}

TEST(EventLogs, AreKeptForTenStarts) {
  Device device;
  device.mkdir(EVENT_LOG_DIR, 0777);
  for (int i = 10; i < 30; i++)
    device.write(
        std::string(EVENT_LOG_DIR) + "/" + RUN_LOG + "-201001010000" + std::to_string(i) + "-1",
        "old\n");
  device.start_ready_daemon();
  size_t kept = 0;
  for (const std::string &file : device.list(EVENT_LOG_DIR))
    if (file.starts_with(RUN_LOG)) kept++;
  EXPECT_EQ(kept, 10U);
  EXPECT_EQ(device.count_events(RUN_LOG, "TOV start."), 1U) << "the new one is among them";
}

// ---- the daemon's own end ---------------------------------------------------------------------

TEST(DaemonKilled, AndStartedAgainKnowsWhatLivedAndWhatDied) {
  Device device;
  Task living = start_task(device, "survivor", {.words = {"lock=2"}, .registered = false});
  Task dying = start_task(device, "casualty", {.words = {"lock=2"}, .registered = false});
  Task stopped = start_task(device, "retired", {.words = {"lock=2"}, .registered = false});
  device.start_ready_daemon();
  kill_and_return(device, living);  // supervised by the first daemon, and its child
  const std::string file = Device::register_path(0, living.pid, living.command);
  const auto before = device.status(file);
  device.kill(stopped.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(stopped, stopped.pid, -1));
  ASSERT_TRUE(wait_until([&] { return !device.exists(stopped.file); }, STORY_LIMIT_MS));

  ASSERT_TRUE(device.kill_daemon(SIGKILL));
  device.kill(dying.pid, SIGKILL);
  ASSERT_TRUE(device.wait(dying.pid, STORY_LIMIT_MS));
  EXPECT_TRUE(device.lives(living.pid)) << "programs outlive their supervisor";

  device.start_ready_daemon();
  const Birth again = next_birth(device, dying);
  EXPECT_EQ(again.ppid, device.daemon_pid());
  EXPECT_EQ(device.births(living.name).size(), 2U);
  EXPECT_EQ(device.births(stopped.name).size(), 1U) << "it was stopped on purpose";
  const auto after = device.status(file);
  ASSERT_TRUE(before && after);
  EXPECT_EQ(after->st_ino, before->st_ino);
  EXPECT_EQ(after->st_mtim.tv_nsec, before->st_mtim.tv_nsec);

  // Both are supervised by the new one.
  EXPECT_EQ(kill_and_return(device, living).ppid, device.daemon_pid());
  EXPECT_EQ(kill_and_return(device, dying).ppid, device.daemon_pid());
}

TEST(DaemonSignals, InterruptEndsIt) {
  Device device;
  device.start_ready_daemon();
  const auto status = device.kill_daemon(SIGINT);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGINT) << *status;
}

TEST(DaemonSignals, AllOthersPassByIt) {
  Device device;
  Task task = start_task(device, "signalled");
  const pid_t pid = device.start_ready_daemon();
  for (int signal = 1; signal <= SIGRTMAX; signal++) {
    const bool the_c_librarys = SIGSYS < signal && signal < SIGRTMIN;
    if (signal == SIGKILL || signal == SIGSTOP || signal == SIGINT || the_c_librarys) continue;
    device.kill(pid, signal);
  }
  kill_and_return(device, task);
  EXPECT_TRUE(device.lives(pid));
  EXPECT_FALSE(device.wait_daemon(Millis(0)));
}

TEST(Daemon, NeedsNothingOfTheDirectoryItWasStartedIn) {
  Device device;
  device.mkdir("/srv/gone");
  device.start_ready_daemon(
      {.args = {"-c", "cd /srv/gone; exec " + device.binary_dir() + "/tov"}, .program = "/bin/sh"});
  const std::string cwd = "/proc/" + std::to_string(device.daemon_pid()) + "/cwd";
  EXPECT_EQ(device.run({"readlink", cwd}).output, "/\n");
}

TEST(Daemon, KeepsInheritedDescriptorsFromItsPrograms) {
  Device device;
  Task task = start_task(device, "inherited");
  device.start_ready_daemon(
      {.args = {"-c", "exec 5</etc/passwd 77>/tmp/left; exec " + device.binary_dir() + "/tov"},
       .program = "/bin/bash"});
  EXPECT_EQ(kill_and_return(device, task).fds.size(), 3U);
}

TEST(Daemon, LeavesNoZombieOfItsChildren) {
  Device device;
  Task task = start_task(device, "reaped");
  device.start_ready_daemon();
  kill_and_return(device, task);
  const pid_t child = task.pid;
  kill_and_return(device, task);
  EXPECT_TRUE(wait_until([&] { return process_state(child) == 0; }, STORY_LIMIT_MS));
}
