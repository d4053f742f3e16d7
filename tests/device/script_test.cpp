// Programs that are started again by their script: which script that is, and what becomes of
// scripts that are missing or do not stay.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/worker.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;

static constexpr char RAN_FILE[] = "/data/ran";

// A start script that notes how it was called and becomes the worker.
static std::string script_text(const Task &task, const std::vector<std::string> &words) {
  std::string text = std::string("echo \"$0\" \"$@\" >> ") + RAN_FILE + "\nexec " + task.program;
  for (const std::string &word : words)
    text += " '" + word + "'";
  return text + "\n";
}

static Task start_scripted(Device &device, const std::string &prefix,
                           const std::vector<std::string> &words, const std::string &script) {
  Task task = install_worker(device, prefix, words);
  const std::string path = script.empty() ? "/etc/cmdmap/" + task.name + ".sh" : script;
  device.write(path, script_text(task, words));  // not executable: the shell is given its name
  start_worker(device, task, words, SHELL_RESTART);
  return task;
}

static void kill_and_register(Device &device, Task &task) {
  device.kill(task.pid, SIGKILL);
  next_worker(device, task);
  need_event(
      device, RESTART_LOG,
      "HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + named(task, task.pid));
}

TEST(StartScript, IsChosenByTheProgramsName) {
  Device device;
  device.start_ready_daemon();
  Task task = start_scripted(device, "named", {"script"}, "");
  kill_and_register(device, task);
  EXPECT_THAT(device.lines(RAN_FILE), ElementsAre("/etc/cmdmap/" + task.name + ".sh start"));
}

TEST(StartScript, IsChosenByTheRegisteredPathFirst) {
  Device device;
  device.start_ready_daemon();
  const std::vector<std::string> words = {"path=/opt/bin/daemon -x"};
  Task task = start_scripted(device, "pathed", words, "/etc/cmdmap/daemon.sh");
  kill_and_register(device, task);
  EXPECT_THAT(device.lines(RAN_FILE), ElementsAre("/etc/cmdmap/daemon.sh start"));
  EXPECT_EQ(device.count_events(RUN_LOG, "tov_shell_spawn--> tov_pid->process = " + task.command +
                                             ", new pid: " + std::to_string(task.pid)),
            1U);
}

TEST(StartScript, OfAPathWithoutSlashHasNoSuffix) {
  Device device;
  device.start_ready_daemon();
  Task task = start_scripted(device, "bare", {"path=svc arg"}, "/etc/cmdmap/svc");
  device.write("/etc/cmdmap/svc.sh", "echo wrong >> /data/ran\n");
  kill_and_register(device, task);
  EXPECT_THAT(device.lines(RAN_FILE), ElementsAre("/etc/cmdmap/svc start"));
}

TEST(StartScript, IsChosenByTheCommandLineAfterTheDaemonStartedAgain) {
  Device device;
  device.start_ready_daemon();
  const std::vector<std::string> words = {"path=/opt/bin/daemon"};
  Task task = start_scripted(device, "rebuilt", words, "/etc/cmdmap/daemon.sh");
  device.write("/etc/cmdmap/daemon.sh", "echo wrong >> /data/ran\n");
  // The registration file holds the command line and not the path.
  device.write("/etc/cmdmap/" + task.name + ".sh", script_text(task, words));
  ASSERT_TRUE(device.kill_daemon());
  device.start_ready_daemon();
  kill_and_register(device, task);
  EXPECT_THAT(device.lines(RAN_FILE), ElementsAre("/etc/cmdmap/" + task.name + ".sh start"));
}

TEST(StartScript, ThatIsMissingFailsLikeAnyProgram) {
  Device device;
  device.start_ready_daemon();
  Task task = start_scripted(device, "scriptless", {"script"}, "/etc/cmdmap/elsewhere.sh");
  device.kill(task.pid, SIGKILL);
  need_event(device, RESTART_LOG, "HA_WAIT_SCRIPT_SELF_CHECK " + suspended(task, 5));
  EXPECT_EQ(device.count_events(RUN_LOG, "tov_shell_spawn--> tov_pid->process = " + task.command),
            4U);
  EXPECT_EQ(worker_reports(device, task, "birth").size(), 1U);
}

TEST(StartScript, ThatFailsIsRunAgain) {
  Device device;
  device.start_ready_daemon();
  Task task = start_scripted(device, "stumbling", {"script"}, "");
  device.write(
      "/etc/cmdmap/" + task.name + ".sh",
      "test -e /data/tried || { touch /data/tried; exit 3; }\n" + script_text(task, {"script"}));
  device.kill(task.pid, SIGKILL);
  next_worker(device, task);
  need_event(device, RESTART_LOG, "receives event:0300 and self-checking");
  need_event(device, RESTART_LOG, self_check_ok(task, 2, task.pid));
}

// The shell was started and is supervised; its end must not be answered once the program that it
// left in the background has registered itself.
TEST(StartScript, ThatLeavesItsProgramInTheBackgroundIsNotMissed) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_bg");
  Task task = install_worker(device, "left_behind", {"script"});
  device.write("/etc/cmdmap/" + task.name + ".sh",
               task.program + " script &\nuntil test -e /data/go; do sleep 0.01; done\n");
  start_worker(device, task, {"script"}, SHELL_RESTART);
  for (int round = 0; round < 2; round++) {
    device.remove("/data/go");
    device.kill(task.pid, SIGKILL);
    next_worker(device, task);
    need_event(device, REGISTER_LOG, registered(task, SHELL_RESTART));
    device.write("/data/go", "");
    EXPECT_TRUE(wait_until(
        [&] {
          for (const auto &process : device.processes())
            if (process.command.find("/etc/cmdmap/" + task.name) != std::string::npos) return false;
          return true;
        },
        STORY_LIMIT_MS));
    device.kill(bystander.pid, SIGKILL);  // its exit is handled after the shell's
    next_worker(device, bystander);
    EXPECT_TRUE(device.lives(task.pid));
    EXPECT_EQ(worker_reports(device, task, "birth").size(), task.births);
  }
}

TEST(StartScript, OfAProgramThatWasStoppedDeliberatelyIsNotRun) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_15s");
  Task task = start_scripted(device, "stopped_s", {"script"}, "");
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(task, task.pid, -1));
  device.kill(bystander.pid, SIGKILL);
  next_worker(device, bystander);
  EXPECT_FALSE(device.exists(RAN_FILE));
}
