// Virtual devices from the command line, beside a running daemon: creation, the list, placement,
// and a member that comes back inside its device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/vsd_tool.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/worker.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_EX));

TEST(VsdCommands, ThreeDevicesAreCreatedAndListed) {
  Device device;
  device.start_ready_daemon();
  std::vector<Task> tasks;
  for (int vsd = 1; vsd <= 3; vsd++)
    tasks.push_back(install_member(device, vsd, "listed"));

  const RunResult created = run_tov(device, {"-c", "3"});
  EXPECT_TRUE(created.exited_with(0));
  EXPECT_EQ(created.output, "");
  for (int vsd = 1; vsd <= 3; vsd++) {
    Task &task = tasks[static_cast<size_t>(vsd) - 1];
    wait_member(device, task, vsd);
    EXPECT_THAT(members(device, vsd), ElementsAre(std::to_string(task.pid), "db"));
    EXPECT_EQ(groups_of(task.pid), std::to_string(3000 + 100 * vsd));
    EXPECT_EQ(working_directory(device, task.pid), "/data/var/run/vsd/" + std::to_string(vsd));
    EXPECT_TRUE(device.exists("/tmp/vsd/" + std::to_string(vsd) + "/starttime"));
    EXPECT_TRUE(device.exists(Device::register_path(vsd, task.pid, task.command)));
  }

  // The daemon has made the directories of all fifteen.
  const RunResult list = run_tov(device, {"-s"});
  EXPECT_TRUE(list.exited_with(0));
  for (int vsd = 1; vsd <= 15; vsd++) {
    char heading[64];
    (void)snprintf(heading, sizeof heading, "Vsd_%d: /tmp/vsd/%d/tov/\n", vsd, vsd);
    EXPECT_THAT(list.output, HasSubstr(heading));
  }
  for (const Task &task : tasks) {
    const std::string pid = std::to_string(task.pid);
    EXPECT_THAT(list.output, HasSubstr("\n" + pid + "\n"));
  }
  EXPECT_THAT(list.output, Not(HasSubstr("Vsd_16")));
}

TEST(VsdCommands, DevicesCanBeCreatedBeforeThereIsADaemon) {
  Device device({.data2 = true});
  const RunResult created = run_tov(device, {"-c", "2"});
  EXPECT_TRUE(created.exited_with(0));
  for (int vsd : {1, 2}) {
    const std::string n = std::to_string(vsd);
    EXPECT_EQ(device.mode("/tmp/vsd/" + n + "/tov/db"), 0777U);
    EXPECT_EQ(device.mode("/data2/.qxos/vsd/" + n), 0777U);
    EXPECT_EQ(device.mode("/data2/var/run/vsd/" + n), 0777U);
  }
  EXPECT_THAT(run_tov(device, {"-s"}).output,
              "Vsd_1: /tmp/vsd/1/tov/\ndb\nVsd_2: /tmp/vsd/2/tov/\ndb\n");
}

TEST(VsdCommands, MemberComesBackInsideItsDeviceAgainAndAgain) {
  Device device;
  device.start_ready_daemon();
  Task task = install_member(device, 2, "returning");
  run_tov(device, {"-c", "2"});
  wait_member(device, task, 2);
  for (int round = 0; round < 2; round++) {
    const pid_t dead = task.pid;
    device.kill(dead, SIGKILL);
    wait_back(device, task);
    EXPECT_FALSE(device.exists(member_file(2, dead)));
    EXPECT_EQ(groups_of(task.pid), "3200");
    EXPECT_EQ(working_directory(device, task.pid), "/data/var/run/vsd/2");
    EXPECT_EQ(variable_of(task.pid, "TMPDIR"), "/tmp/vsd/2");
    EXPECT_EQ(variable_of(task.pid, "QX_CFG_DIR"), "/qx_cfg/vsd/2");
    EXPECT_EQ(variable_of(task.pid, "DATA_QXOS_DIR"), "/data/.qxos/vsd/2");
    EXPECT_THAT(members(device, 2), ElementsAre(std::to_string(task.pid), "db"));
    EXPECT_THAT(device.list(member_dir(2) + "/db"),
                ElementsAre(task.name + "." + std::to_string(task.pid)));
  }
}

// ---- placement ------------------------------------------------------------------------------

// A victim that can be placed by its name.
static std::string install_placeable(Device &device, const std::string &prefix) {
  std::string name = unique_name(prefix);
  device.symlink(device.install_program(name), "/sbin/" + name);
  return name;
}

class VsdPlacement : public testing::Test {
 protected:
  void SetUp() override {
    device.start_ready_daemon();
    ASSERT_TRUE(run_tov(device, {"-c", "1"}).exited_with(0));
  }
  Device device;
};

TEST_F(VsdPlacement, ProgramFromSbin) {
  const std::string name = install_placeable(device, "placed");
  const RunResult added = run_tov(device, {"add", name, "1"});
  EXPECT_TRUE(added.exited_with(ADD_STATUS)) << "a daemon is running already";
  EXPECT_EQ(added.output, "");
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_EQ(birth->argv, "/sbin/" + name);
  EXPECT_EQ(birth->groups, "3100");
  EXPECT_EQ(birth->cwd, "/data/var/run/vsd/1");
  EXPECT_EQ(birth->env.at("TMPDIR"), "/tmp/vsd/1");
  EXPECT_EQ(birth->blocked | birth->ignored | birth->caught, 0U);
  EXPECT_EQ(birth->fds.size(), 3U) << "an inherited descriptor";
  EXPECT_TRUE(
      wait_until([&] { return device.exists(member_file(1, birth->pid)); }, STORY_LIMIT_MS));
  EXPECT_EQ(device.mode(member_file(1, birth->pid)), 0754U);
}

TEST_F(VsdPlacement, ScriptGoesBeforeTheProgram) {
  const std::string name = install_placeable(device, "scripted");
  device.install_start_script(name, "exec /opt/" + name + "/" + name + " by-script \"$@\"\n");
  run_tov(device, {"add", name, "1"});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_THAT(birth->argv, testing::EndsWith(" by-script start"));
  EXPECT_EQ(birth->groups, "3100");
  EXPECT_TRUE(
      wait_until([&] { return device.exists(member_file(1, birth->pid)); }, STORY_LIMIT_MS));
}

TEST_F(VsdPlacement, BaseSystem) {
  const std::string name = install_placeable(device, "based");
  const auto before = device.list("/tmp/vsd/0/tov");
  run_tov(device, {"add", name, "0"});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_EQ(birth->groups, groups_of(getpid()));
  EXPECT_EQ(birth->env, (std::map<std::string, std::string>{{"DATA_QXOS_DIR", "/nowhere"}}))
      << "the caller's";
  EXPECT_EQ(device.list("/tmp/vsd/0/tov"), before);
}

TEST_F(VsdPlacement, RefusedNumbersAndNames) {
  const std::string name = install_placeable(device, "refused");
  const auto before = members(device, 1);
  for (const char *number : {"16", "17", "-1", "99999999999"}) {
    const RunResult refused = run_tov(device, {"add", name, number});
    EXPECT_THAT(refused.output, MatchesRegex("vsd -?[0-9]+ is not exist\n"));
  }
  device.mkdir("/tmp/vsd/17");
  EXPECT_THAT(
      run_tov(device, {"add", name, "17"}).output,
      MatchesRegex(".TOV:tov_opt.cpp:[0-9]+.add proc = " + name + " to vsd = 17\n fail.\n"));
  for (const std::string &word : {"../sbin/" + name, "/sbin/" + name, name + "x"})
    EXPECT_EQ(run_tov(device, {"add", word, "1"}).output, "");
  EXPECT_EQ(members(device, 1), before);
  EXPECT_THAT(device.births(name), IsEmpty());
}

TEST_F(VsdPlacement, PlacedProgramThatRegistersComesBackInsideTheDevice) {
  Task task = install_worker(device, "placed_worker", {"exec"});
  device.install_start_script(task.name, "exec " + task.command + "\n");
  run_tov(device, {"add", task.name, "1"});
  wait_member(device, task, 1);
  EXPECT_TRUE(wait_until([&] { return device.exists(member_file(1, task.pid)); }, STORY_LIMIT_MS));
  device.kill(task.pid, SIGKILL);
  wait_back(device, task);
  EXPECT_EQ(groups_of(task.pid), "3100");
  EXPECT_TRUE(device.exists(member_file(1, task.pid)));
}

// The second data tree is made and named at creation; who joins later does without it, until the
// daemon starts it again.
TEST(VsdSecondDataTree, BelongsToCreationAndToRestarts) {
  Device device({.data2 = true});
  device.start_ready_daemon();
  Task created = install_member(device, 1, "data2_created");
  ASSERT_TRUE(run_tov(device, {"-c", "1"}).exited_with(0));
  wait_member(device, created, 1);
  EXPECT_EQ(variable_of(created.pid, "DATA_QXOS_DIR2"), "/data2/.qxos/vsd/1");
  Task placed = install_worker(device, "data2_placed", {"exec"});
  device.install_start_script(placed.name, "exec " + placed.command + "\n");
  run_tov(device, {"add", placed.name, "1"});
  wait_member(device, placed, 1);
  EXPECT_EQ(variable_of(placed.pid, "DATA_QXOS_DIR"), "/data/.qxos/vsd/1");
  EXPECT_EQ(variable_of(placed.pid, "DATA_QXOS_DIR2"), "");
  const std::string file = member_file(1, placed.pid);
  ASSERT_TRUE(wait_until([&] { return device.exists(file); }, STORY_LIMIT_MS));
  device.kill(placed.pid, SIGKILL);
  wait_back(device, placed);
  EXPECT_EQ(variable_of(placed.pid, "DATA_QXOS_DIR2"), "/data2/.qxos/vsd/1");
}

// ---- where the command line ends in the daemon ----------------------------------------------

struct Start {
  std::vector<std::string> words;
  const char *output;  // a pattern, without the file's name and line
};

// Without a daemon the command becomes one.
TEST(VsdDaemonStart, AfterAnAdditionOrWordsThatAreNoCommand) {
  static const std::string error = "]input error!!!input tov -h for help!!!\n";
  const std::vector<Start> starts = {
      {{}, ""},
      {{"word"}, "E"},
      {{"add", "program"}, "E"},
      {{"-c", "0"}, "EE"},
      {{"-d", "word"}, "EE"},
      {{"add", "nothing", "9"}, "vsd 9 is not exist\n"},
  };
  for (const Start &start : starts) {
    Device device;
    device.start_daemon({.env = {{"DATA_QXOS_DIR", "/nowhere"}}, .args = start.words});
    EXPECT_TRUE(device.wait_daemon_ready());
    std::string output = device.daemon_output();
    for (size_t at = 0; (at = output.find("[TOV:tov_opt.cpp:")) != std::string::npos;) {
      const size_t end = output.find(error, at);
      ASSERT_NE(end, std::string::npos) << output;
      output.replace(at, end + error.size() - at, "E");
    }
    EXPECT_EQ(output, start.output);
  }
}
