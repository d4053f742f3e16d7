// The watcher under the shipped daemon: when nothing can be started any more the daemon makes way
// for a fresh one, and the switch for single processes follows its file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace fs = std::filesystem;

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";
static constexpr char FORK_REASON_FILE[] = "/data/.fork_error_file";
static constexpr char EXIT_REASON_FILE[] = "/qxos/vsd/0/tov/exit_reason";
static constexpr char CONFIG_FILE[] = "/data/.syshacfg";
static constexpr char MIRROR_FILE[] = "/tmp/vsd/0/tov/cfg.txt";
static constexpr char ON[] = "tov single-process-ha auto-restart enable\r\n";
static constexpr char OFF[] = "no tov single-process-ha auto-restart enable\r\n";
static constexpr char FAST[] = "+0 x20";

// The watcher has set itself up once its mirror is there.
static void start_watching_daemon(Device &device, const DaemonOptions &options = {}) {
  device.start_ready_daemon(options);
  if (!wait_until([&] { return device.exists(MIRROR_FILE) && device.exists(FORK_FILE); },
                  STORY_LIMIT_MS))
    throw std::runtime_error("nothing is watched\n" + device.dump());
}

// What must be true of a daemon that gave up: its status, and every record it leaves.
//   failing  forks may fail until the very end, so the record may have begun anew
static void expect_gave_up(Device &device, bool failing = false) {
  const auto status = device.wait_daemon(STORY_LIMIT_MS);
  ASSERT_TRUE(status) << device.dump();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
  EXPECT_THAT(device.read(FORK_REASON_FILE),
              HasSubstr("tov can not restart process, must be restart itself.\n"));
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              ElementsAre("Unable to restart the process, tov will be restart."));
  EXPECT_TRUE(
      device.wait_notice("self-healing action 1, process 0, asked by tov: Can not restart "
                         "process, must be restart itself."));
  EXPECT_TRUE(device.exists(FORK_FILE));
  EXPECT_LE(device.read(FORK_FILE).size(), failing ? 6U : 0U)
      << "the next daemon would give up at once";
}

// Waits until the watcher has dealt with every change before this call: it hears of changes in
// their order, and this one of the switch comes last.
static void pass_changes(Device &device) {
  for (const char *text : {OFF, ON}) {
    device.write(CONFIG_FILE, text);
    if (!wait_until([&] { return device.read(MIRROR_FILE) == text; }, STORY_LIMIT_MS))
      throw std::runtime_error("the switch is not followed\n" + device.dump());
  }
}

// ---- failing forks --------------------------------------------------------------------------

TEST(FailingForks, SevenEndTheDaemonAndAFreshOneGoesOn) {
  Device device;
  Task task = start_task(device, "unforkable");
  Task living = start_task(device, "living");
  // Where memory is checked, the look for leaks at the end needs a process that the limit forbids.
  const pid_t daemon =
      device.start_ready_daemon({.env = {{"LSAN_OPTIONS", "detect_leaks=0"}}, .faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(task.pid, SIGKILL);
  expect_gave_up(device, true);
  // The seventh is recorded, which may end the daemon, before it is told.
  EXPECT_GE(device.count_events(RUN_LOG, "fork fail, err: Resource temporarily unavailable(11)"),
            6U);
  EXPECT_EQ(device.births(task.name).size(), 1U);

  device.start_ready_daemon();
  next_birth(device, task);
  EXPECT_EQ(device.count_events(ERROR_LOG, "Unable to restart"), 1U);
  kill_and_return(device, task);
  kill_and_return(device, living);
}

TEST(FailingForks, SixAreNoReasonAndASuccessBeginsTheCountAnew) {
  Device device;
  Task task = start_task(device, "counted_forks");
  device.write(FORK_FILE, "aaaaa");
  start_watching_daemon(device);
  device.append(FORK_FILE, "a");
  pass_changes(device);
  kill_and_return(device, task);
  // The child removed the record, and the watcher made it again to watch it.
  ASSERT_TRUE(wait_until([&] { return device.exists(FORK_FILE) && device.read(FORK_FILE).empty(); },
                         STORY_LIMIT_MS));
  device.append(FORK_FILE, "aaaaaa");
  pass_changes(device);
  kill_and_return(device, task);
  pass_changes(device);
  EXPECT_FALSE(device.wait_daemon(Millis(0)));
  EXPECT_FALSE(device.exists(FORK_REASON_FILE));
  EXPECT_THAT(event_texts(device, ERROR_LOG), IsEmpty());
}

TEST(FailingForks, AskForHelpBeforeTheDaemonEnds) {
  Device device;
  install_healer(device);
  start_watching_daemon(device);
  device.append(FORK_FILE, "aaaaaa");
  device.append(FORK_FILE, "a");
  EXPECT_EQ(asked(device), "<1><0><tov><Can not restart process, must be restart itself.>");
  expect_gave_up(device);
}

TEST(FailingForks, FromBeforeTheWatchAreSeenToo) {
  Device device;
  device.write(FORK_FILE, "aaaaaaa");
  device.start_daemon();
  expect_gave_up(device);
}

TEST(FailingForks, AreCountedInAFileThatIsMadeAgain) {
  Device device;
  start_watching_daemon(device);
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(device.remove(FORK_FILE));
    ASSERT_TRUE(wait_until([&] { return device.exists(FORK_FILE); }, STORY_LIMIT_MS));
  }
  // The whole directory; moved first, so that no process makes a file in it while it goes.
  ASSERT_EQ(rename(device.path("/tmp/tov").c_str(), device.path("/tmp/tov.away").c_str()), 0);
  ASSERT_TRUE(device.remove("/tmp/tov.away"));
  ASSERT_TRUE(wait_until([&] { return device.exists(FORK_FILE); }, STORY_LIMIT_MS));
  device.append(FORK_FILE, "aaaaaaa");
  expect_gave_up(device);
}

// ---- what stands in the place of the record ---------------------------------------------------

static constexpr char ELSEWHERE[] = "/data/elsewhere";

TEST(ForkRecord, LinkInItsPlaceHidesNoFailure) {
  Device device;
  Task task = start_task(device, "linked_record");
  device.write(ELSEWHERE, "kept");
  device.symlink(ELSEWHERE, FORK_FILE);
  const pid_t daemon =
      device.start_ready_daemon({.env = {{"LSAN_OPTIONS", "detect_leaks=0"}}, .faketime = FAST});
  if (!device.limit_processes(daemon, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.kill(task.pid, SIGKILL);
  expect_gave_up(device, true);
  EXPECT_EQ(device.read(ELSEWHERE), "kept");
}

TEST(ForkRecord, LinkThatComesLaterIsReplaced) {
  Device device;
  device.write(ELSEWHERE, "kept");
  start_watching_daemon(device);
  for (const char *target : {ELSEWHERE, "/data/nowhere", FORK_FILE}) {
    device.symlink(target, "/tmp/planted");
    ASSERT_EQ(rename(device.path("/tmp/planted").c_str(), device.path(FORK_FILE).c_str()), 0);
    EXPECT_TRUE(wait_until(
        [&] {
          const auto status = device.status(FORK_FILE);
          return status && S_ISREG(status->st_mode);
        },
        STORY_LIMIT_MS))
        << target;
  }
  device.append(FORK_FILE, "aaaaaaa");
  expect_gave_up(device);
  EXPECT_EQ(device.read(ELSEWHERE), "kept");
  EXPECT_FALSE(device.exists("/data/nowhere"));
}

// The kernel tells of a file's removal only when its last user has closed it.
TEST(ForkRecord, IsFollowedThoughTheRemovedOneIsHeldOpen) {
  Device device;
  device.write(FORK_FILE, "a");
  start_watching_daemon(device, {.faketime = "+0 x60"});
  const tov_fd_t held(open(device.path(FORK_FILE).c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_GE(held.n, 0);
  ASSERT_TRUE(device.remove(FORK_FILE));
  device.append(FORK_FILE, "aaaaaaa");
  expect_gave_up(device);  // after a minute at the latest
}

// ---- a watch that cannot be set up ------------------------------------------------------------

TEST(Watch, ThatCannotBeMadeEndsTheDaemon) {
  Device device;
  install_healer(device);
  start_watching_daemon(device);
  // Neither there nor missing: the way to the record leads through a file.
  ASSERT_EQ(rename(device.path("/tmp/tov").c_str(), device.path("/tmp/tov.away").c_str()), 0);
  device.write("/tmp/tov", "");
  ASSERT_TRUE(device.remove("/tmp/tov.away/forkfile"));
  const auto status = device.wait_daemon(STORY_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;

  // The descriptor's number is the daemon's own business.
  static const std::string values =
      "\\(inotifyfd, wd_fork, wd_tov_cfg, fd_num\\)=\\([0-9]+, -1, -1, -1\\)\\.";
  EXPECT_THAT(device.read(EXIT_REASON_FILE),
              MatchesRegex(".* [0-9]{4} tov_inotify_fork_error!" + values + "\n"));
  EXPECT_THAT(asked(device), MatchesRegex("<1><0><tov><tov_inotify_fork_error!" + values + ">"));
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              ElementsAre(MatchesRegex(
                  "Thread \"tov_inotify_fork_error\" exit, tov will be restart. " + values)));
}

// ---- the switch -----------------------------------------------------------------------------

static testing::AssertionResult mirror_becomes(const Device &device, const std::string &text) {
  if (wait_until([&] { return device.read(MIRROR_FILE) == text; }, STORY_LIMIT_MS))
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "the mirror holds: " << device.read(MIRROR_FILE);
}

TEST(Switch, IsOnWithoutAConfiguration) {
  Device device;
  start_watching_daemon(device);
  EXPECT_TRUE(mirror_becomes(device, ON));
  EXPECT_TRUE(device.exists(CONFIG_FILE));
  EXPECT_EQ(device.read(CONFIG_FILE), "");
}

TEST(Switch, FollowsTheFileFromTheStart) {
  Device device;
  device.write(CONFIG_FILE, "hostname x\nno tov single-process-ha auto-restart enable\n");
  start_watching_daemon(device);
  EXPECT_TRUE(mirror_becomes(device, OFF));
}

TEST(Switch, FollowsTheFileWhenItIsEdited) {
  Device device;
  start_watching_daemon(device);
  for (int i = 0; i < 3; i++) {
    device.write(CONFIG_FILE, OFF);
    EXPECT_TRUE(mirror_becomes(device, OFF));
    device.write(CONFIG_FILE, ON);
    EXPECT_TRUE(mirror_becomes(device, ON));
  }
  device.append(CONFIG_FILE, OFF);
  EXPECT_TRUE(mirror_becomes(device, OFF));
  device.write(CONFIG_FILE, "");
  EXPECT_TRUE(mirror_becomes(device, ON));
}

TEST(Switch, FollowsTheFileWhenItIsReplaced) {
  Device device;
  start_watching_daemon(device);
  for (const char *text : {OFF, ON, OFF}) {
    device.write("/data/.syshacfg.new", text);
    ASSERT_EQ(rename(device.path("/data/.syshacfg.new").c_str(), device.path(CONFIG_FILE).c_str()),
              0);
    EXPECT_TRUE(mirror_becomes(device, text));
  }
  // And the replacement is watched in its turn.
  device.write(CONFIG_FILE, ON);
  EXPECT_TRUE(mirror_becomes(device, ON));
}

TEST(Switch, GoesOnWhenTheFileIsDeleted) {
  Device device;
  device.write(CONFIG_FILE, OFF);
  start_watching_daemon(device);
  ASSERT_TRUE(mirror_becomes(device, OFF));
  ASSERT_TRUE(device.remove(CONFIG_FILE));
  EXPECT_TRUE(mirror_becomes(device, ON));
  EXPECT_TRUE(wait_until([&] { return device.exists(CONFIG_FILE); }, STORY_LIMIT_MS));
  EXPECT_EQ(device.read(CONFIG_FILE), "");
  device.write(CONFIG_FILE, OFF);
  EXPECT_TRUE(mirror_becomes(device, OFF));
}

TEST(Switch, FollowsAFileThatLiesElsewhere) {
  Device device;
  device.write("/etc/syshacfg", OFF);
  device.symlink("/etc/syshacfg", CONFIG_FILE);
  start_watching_daemon(device);
  EXPECT_TRUE(mirror_becomes(device, OFF));
  device.write("/etc/syshacfg", ON);
  EXPECT_TRUE(mirror_becomes(device, ON));
}

TEST(Switch, IsOnWhereALinkLeadsNowhere) {
  Device device;
  device.symlink("/data/nowhere", CONFIG_FILE);
  start_watching_daemon(device);
  EXPECT_TRUE(mirror_becomes(device, ON));
  EXPECT_FALSE(device.exists("/data/nowhere"));
  device.write(CONFIG_FILE, OFF);
  EXPECT_TRUE(mirror_becomes(device, OFF));
}

TEST(Switch, OffHoldsNoRestartBack) {
  Device device;
  device.write(CONFIG_FILE, OFF);
  Task task = start_task(device, "switched_off");
  start_watching_daemon(device);
  ASSERT_TRUE(mirror_becomes(device, OFF));
  kill_and_return(device, task);
}

// ---- no data file system ----------------------------------------------------------------------

// How often the watcher has gone to sleep, as text.
static std::string wake_ups_of_watcher(const Device &device) {
  const fs::path tasks = "/proc/" + std::to_string(device.daemon_pid()) + "/task";
  for (const auto &task : fs::directory_iterator(tasks)) {
    if (read_small_file(task.path() / "comm") == "tov_inotify_for\n")
      return status_field(std::stoi(task.path().filename()), "voluntary_ctxt_switches");
  }
  return {};
}

TEST(DataMount, IsWaitedForAndUntilThenNothingIsWatched) {
  Device device;
  Task task = start_task(device, "dataless");
  device.write(FORK_FILE, "aaaaaaa");
  ASSERT_TRUE(device.run({"umount", "-l", "/data"}).exited_with(0));
  device.start_ready_daemon();
  // Mounts elsewhere change nothing.
  for (const char *elsewhere : {"/elsewhere", "/elsewhere/below"}) {
    const std::string before = wake_ups_of_watcher(device);
    device.mkdir(elsewhere);
    ASSERT_TRUE(device.run({"mount", "-t", "tmpfs", "none", elsewhere}).exited_with(0));
    ASSERT_TRUE(wait_until([&] { return wake_ups_of_watcher(device) != before; }, STORY_LIMIT_MS));
  }
  EXPECT_FALSE(device.exists(MIRROR_FILE));
  EXPECT_FALSE(device.exists(CONFIG_FILE));
  EXPECT_EQ(device.read(FORK_FILE), "aaaaaaa");
  EXPECT_FALSE(device.wait_daemon(Millis(0))) << "seven failures and nobody who looks";

  ASSERT_TRUE(device.run({"mount", "-t", "tmpfs", "none", "/data"}).exited_with(0));
  expect_gave_up(device);
  EXPECT_EQ(device.read(MIRROR_FILE), ON);
}

TEST(DataMount, ThatGoesAwayEndsItsWatchAndBeginsAnother) {
  Device device;
  device.write(CONFIG_FILE, OFF);
  start_watching_daemon(device);
  ASSERT_TRUE(mirror_becomes(device, OFF));
  ASSERT_TRUE(wait_until(
      [&] {
        return device.run({"umount", "/data"}).exited_with(0);
      },
      STORY_LIMIT_MS));
  EXPECT_TRUE(mirror_becomes(device, ON)) << "the directory below has no configuration";
  device.write(CONFIG_FILE, OFF);
  EXPECT_TRUE(mirror_becomes(device, OFF));
}
