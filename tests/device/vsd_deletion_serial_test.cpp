// The end of virtual devices while the daemon watches: no member is started again, everything
// goes, and the neighbours do not notice.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/file.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/vsd_tool.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/worker.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_EX));

static std::string registration(const Task &task, int vsd) {
  return Device::register_path(vsd, task.pid, task.command);
}

static bool goes(Device &device, const std::string &path) {
  return wait_until([&] { return !device.exists(path); }, STORY_LIMIT_MS);
}

// Members of the device must not be there any more: neither as processes nor in the daemon's eyes.
// None of them may have been restarted.
static void expect_gone_for_good(Device &device, const std::vector<Task> &gone, Task &bystander) {
  // A registration that were left would be acted on before the bystander's.
  const pid_t before = bystander.pid;
  device.kill(before, SIGKILL);
  EXPECT_NE(next_worker(device, bystander), before) << "the daemon restarts again";
  for (const Task &task : gone) {
    EXPECT_FALSE(device.lives(task.pid));
    EXPECT_EQ(worker_reports(device, task, "birth").size(), 1U);
    EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U);
  }
}

// ---- deletion -------------------------------------------------------------------------------

// Device 3 with a member that ends when asked and two that do not; two more devices beside it.
class VsdDeletionOfThree : public testing::Test {
 protected:
  void SetUp() override {
    device.start_ready_daemon();
    bystander = start_worker(device, "bystander");
    polite = install_member(device, 3, "polite");
    for (const char *name : {"stubborn_a", "stubborn_b"})
      stubborn.push_back(install_member(device, 3, name, "trap '' TERM"));
    ASSERT_TRUE(run_tov(device, {"-c", "3"}).exited_with(0));
    wait_member(device, polite, 3);
    for (Task &task : stubborn)
      wait_member(device, task, 3);
  }
  std::vector<Task> everybody() const { return {polite, stubborn[0], stubborn[1]}; }

  Device device{{.data2 = true}};
  Task bystander, polite;
  std::vector<Task> stubborn;
};

TEST_F(VsdDeletionOfThree, MembersThatIgnoreSigtermAreKilledAndNotRestarted) {
  call_vsd(device, {"set_cgroups_all", "3"});
  EXPECT_EQ(traces(device, 3).size(), device.has_control_groups() ? 10U : 8U);
  const auto before = traces(device, 3);

  SteppedCommand deletion(device, {tov_program(device), "-d", "3"});
  deletion.need_sleep(5);  // the first signal is on its way
  need_end(device, polite.pid);
  EXPECT_TRUE(goes(device, registration(polite, 3))) << "the daemon drops who dies";
  EXPECT_TRUE(device.exists("/tmp/vsd/3/delete_vsd"));
  for (const Task &task : stubborn) {
    EXPECT_TRUE(device.lives(task.pid));
    EXPECT_TRUE(device.exists(registration(task, 3)));
  }

  deletion.wake();
  deletion.need_sleep(10);  // the second one, too
  for (const Task &task : stubborn) {
    need_end(device, task.pid);
    EXPECT_TRUE(goes(device, registration(task, 3)));
  }
  EXPECT_TRUE(device.exists("/tmp/vsd/3/delete_vsd"));
  EXPECT_EQ(traces(device, 3), before);
  EXPECT_EQ(deletion.output(), progress_of(3)) << "the end is announced before it comes";

  deletion.wake();
  EXPECT_EQ(deletion.finish(), progress_of(3));
  EXPECT_THAT(traces(device, 3), IsEmpty());
  EXPECT_EQ(traces(device, 2).size(), 8U) << "all but the control groups, which nobody made";
  expect_gone_for_good(device, everybody(), bystander);
}

// The one deletion in real time. How late things happen is the machine's affair, so only the
// earliest moments are judged.
TEST_F(VsdDeletionOfThree, TakesItsTime) {
  const int64_t start_ns = monotonic_ns();
  const auto seconds_since_start = [&] {
    return static_cast<double>(monotonic_ns() - start_ns) / 1e9;
  };
  const pid_t tool = device.spawn({tov_program(device), "-d", "3"}, tool_options(""));
  for (const Task &task : stubborn)
    need_end(device, task.pid);
  EXPECT_GE(seconds_since_start(), 5.0);
  EXPECT_EQ(device.wait(tool, Millis(60'000)), 0);
  EXPECT_GE(seconds_since_start(), 15.0);
  EXPECT_THAT(traces(device, 3), IsEmpty());
  expect_gone_for_good(device, everybody(), bystander);
}

TEST(VsdDeletion, DeviceWithoutProcesses) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_empty");
  run_tov(device, {"-c", "1"});
  EXPECT_EQ(traces(device, 1).size(), 6U);
  EXPECT_EQ(end_device(device, {tov_program(device), "-d", "1"}, {}), progress_of(1))
      << "the waits are as long as ever";
  EXPECT_THAT(traces(device, 1), IsEmpty());
  expect_gone_for_good(device, {}, bystander);
}

TEST(VsdDeletion, NeighbourLivesOnUntouched) {
  Device device;
  device.start_ready_daemon();
  Task ended = install_member(device, 1, "ended"), neighbour = install_member(device, 2, "near");
  run_tov(device, {"-c", "2"});
  wait_member(device, ended, 1);
  wait_member(device, neighbour, 2);
  const auto before = traces(device, 2);
  const auto recorded = members(device, 2);
  EXPECT_EQ(end_device(device, {tov_program(device), "-d", "1"}, {ended.pid}), progress_of(1));
  EXPECT_THAT(traces(device, 1), IsEmpty());
  EXPECT_TRUE(device.lives(neighbour.pid));
  EXPECT_EQ(traces(device, 2), before);
  EXPECT_EQ(members(device, 2), recorded);
  EXPECT_TRUE(device.exists(registration(neighbour, 2)));
  expect_gone_for_good(device, {ended}, neighbour);
}

// Members that keep dying while their device is deleted: whoever the daemon brings back just before
// the marker comes is in the group as well, and is killed with the others.
TEST(VsdDeletion, MembersThatAreBeingRestartedGoToo) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_restless");
  Task canary = start_worker(device, "canary_restless");
  std::vector<Task> tasks;
  for (const char *name : {"restless_a", "restless_b", "restless_c", "restless_d"})
    tasks.push_back(install_member(device, 1, name));
  run_tov(device, {"-c", "1"});
  for (Task &task : tasks)
    wait_member(device, task, 1);
  for (const Task &task : tasks)
    device.kill(task.pid, SIGKILL);

  SteppedCommand deletion(device, {tov_program(device), "-d", "1"});
  deletion.need_sleep(5);
  // When the canary's death has been dealt with, so have those before it; whatever was started is a
  // member by the time it is a worker.
  device.kill(canary.pid, SIGKILL);
  ASSERT_TRUE(goes(device, registration(canary, 0)));
  const std::string daemon = command_line(device.daemon_pid());
  ASSERT_TRUE(wait_until(
      [&] {
        size_t copies = 0;
        for (const auto &process : device.processes())
          if (process.command == daemon) copies++;
        return copies == 1;
      },
      STORY_LIMIT_MS));
  deletion.wake();
  deletion.need_sleep(10);
  const auto is_worker = [](const Device::Process &process) {
    return process.command.find("restless_") != std::string::npos &&
           process.command.find("bystander") == std::string::npos;
  };
  EXPECT_TRUE(wait_until(
      [&] {
        const auto living = device.processes();
        return std::none_of(living.begin(), living.end(), is_worker);
      },
      STORY_LIMIT_MS));
  deletion.wake();
  deletion.finish();
  EXPECT_THAT(traces(device, 1), IsEmpty());
  device.kill(bystander.pid, SIGKILL);
  next_worker(device, bystander);
  const auto living = device.processes();
  EXPECT_TRUE(std::none_of(living.begin(), living.end(), is_worker)) << "nobody came back";
}

TEST(VsdDeletion, DeviceThatIsNotThere) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_missing");
  const RunResult deleted = run_tov(device, {"-d", "16"});
  EXPECT_TRUE(deleted.exited_with(0));
  EXPECT_THAT(deleted.output,
              testing::EndsWith("]delete 16 vsd fail, error =No such file or directory.\n"));
  device.kill(bystander.pid, SIGKILL);
  next_worker(device, bystander);
}

// ---- stop and reload ------------------------------------------------------------------------

TEST(VsdStop, KeepsTheDataAndEndsTheRest) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_stop");
  Task task = install_member(device, 1, "stopped");
  run_tov(device, {"-c", "1"});
  wait_member(device, task, 1);
  device.write("/data/.qxos/vsd/1/settings", "kept");
  call_vsd(device, {"set_cgroups_all", "1"});
  EXPECT_EQ(end_device(device, {caller_program(device), "stop_vsd", "1"}, {task.pid}),
            progress_of(1) + "stop_vsd 0\n");
  EXPECT_EQ(traces(device, 1), (std::set<std::string>{"/data/.qxos/vsd/1", "/data/var/run/vsd/1",
                                                      "/qx_cfg/vsd/1", "/qxos/vsd/1"}));
  EXPECT_EQ(device.read("/data/.qxos/vsd/1/settings"), "kept");
  expect_gone_for_good(device, {task}, bystander);
}

TEST(VsdReload, MembersEndAndTheScriptsRunAgain) {
  Device device;
  device.start_ready_daemon();
  Task task = install_member(device, 1, "reloaded");
  run_tov(device, {"-c", "1"});
  wait_member(device, task, 1);
  device.write("/data/.qxos/vsd/1/settings", "kept");
  call_vsd(device, {"set_cgroups_all", "1"});
  const auto before = traces(device, 1);
  const pid_t first = task.pid;
  EXPECT_EQ(end_device(device, {caller_program(device), "reload_vsd", "1"}, {first}),
            progress_of(1) + "reload_vsd 0\n");
  wait_member(device, task, 1);
  EXPECT_NE(task.pid, first);
  EXPECT_FALSE(device.lives(first));
  EXPECT_EQ(traces(device, 1), before);
  EXPECT_EQ(device.read("/data/.qxos/vsd/1/settings"), "kept");
  EXPECT_THAT(members(device, 1), testing::ElementsAre(std::to_string(task.pid), "db"));
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U)
      << "the scripts did it, not the daemon";
}
