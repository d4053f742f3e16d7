// The watcher under the shipped daemon: when nothing can be started any more the daemon makes way
// for a fresh one, and the switch for single processes follows its file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <thread>

#include "story.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

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
static void expect_gave_up(Device &device) {
  const auto status = device.wait_daemon(STORY_LIMIT_MS);
  ASSERT_TRUE(status) << device.dump();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
  EXPECT_THAT(device.read(FORK_REASON_FILE),
              HasSubstr("tov can not restart process, must be restart itself.\n"));
  EXPECT_EQ(event_texts(device, ERROR_LOG).back(),
            "Unable to restart the process, tov will be restart.");
  EXPECT_TRUE(
      device.wait_notice("self-healing action 1, process 0, asked by tov: Can not restart "
                         "process, must be restart itself."));
  EXPECT_TRUE(device.exists(FORK_FILE));
  EXPECT_EQ(device.read(FORK_FILE), "") << "the next daemon would give up at once";
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
  expect_gave_up(device);
  EXPECT_EQ(device.count_events(RUN_LOG, "fork fail, err: Resource temporarily unavailable(11)"),
            7U);
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
  device.append(FORK_FILE, "a");  // seen as every change is, and nothing follows
  kill_and_return(device, task);
  // The child removed the record, and the watcher made it again to watch it.
  ASSERT_TRUE(wait_until([&] { return device.exists(FORK_FILE) && device.read(FORK_FILE).empty(); },
                         STORY_LIMIT_MS));
  device.append(FORK_FILE, "aaaaaa");
  kill_and_return(device, task);
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
  ASSERT_TRUE(device.remove("/tmp/tov"));
  ASSERT_TRUE(wait_until([&] { return device.exists(FORK_FILE); }, STORY_LIMIT_MS));
  device.append(FORK_FILE, "aaaaaaa");
  expect_gave_up(device);
}

// ---- a watch that cannot be set up ------------------------------------------------------------

TEST(Watch, ThatCannotBeMadeEndsTheDaemon) {
  Device device;
  install_healer(device);
  device.symlink(FORK_FILE, FORK_FILE);  // a link to itself: neither there nor missing
  device.start_daemon();
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

TEST(Switch, StandsInNobodysWayOfComingBack) {
  Device device;
  device.write(CONFIG_FILE, OFF);
  Task task = start_task(device, "switched_off");
  start_watching_daemon(device);
  ASSERT_TRUE(mirror_becomes(device, OFF));
  kill_and_return(device, task);
}

// ---- no data file system ----------------------------------------------------------------------

TEST(DataMount, IsWaitedForAndUntilThenNothingIsWatched) {
  Device device;
  Task task = start_task(device, "dataless");
  device.write(FORK_FILE, "aaaaaaa");
  ASSERT_TRUE(device.run({"umount", "-l", "/data"}).exited_with(0));
  device.start_ready_daemon();
  std::this_thread::sleep_for(Millis(500));
  EXPECT_FALSE(device.exists(MIRROR_FILE));
  EXPECT_FALSE(device.exists(CONFIG_FILE));
  EXPECT_EQ(device.read(FORK_FILE), "aaaaaaa");
  EXPECT_FALSE(device.wait_daemon(Millis(0))) << "seven failures and nobody who looks";

  // Mounts elsewhere change nothing; that of the data does.
  device.mkdir("/elsewhere");
  ASSERT_TRUE(device.run({"mount", "-t", "tmpfs", "none", "/elsewhere"}).exited_with(0));
  std::this_thread::sleep_for(Millis(100));
  EXPECT_FALSE(device.exists(MIRROR_FILE));
  ASSERT_TRUE(device.run({"mount", "-t", "tmpfs", "none", "/data"}).exited_with(0));
  expect_gave_up(device);
  EXPECT_EQ(device.read(MIRROR_FILE), ON);
}

TEST(DataMount, ThatGoesAwayEndsItsWatchAndBeginsAnother) {
  Device device;
  device.write(CONFIG_FILE, OFF);
  start_watching_daemon(device);
  ASSERT_TRUE(mirror_becomes(device, OFF));
  ASSERT_TRUE(device.run({"umount", "/data"}).exited_with(0));
  EXPECT_TRUE(mirror_becomes(device, ON)) << "the directory below has no configuration";
  device.write(CONFIG_FILE, OFF);
  EXPECT_TRUE(mirror_becomes(device, OFF));
}
