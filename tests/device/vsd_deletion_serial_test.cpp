// The end of virtual devices while the daemon watches: nobody is brought back, everything goes, and
// the neighbours do not notice.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vsd_tool.h"

using namespace tov_test;
using testing::IsEmpty;

static double seconds_since(int64_t start_ns) {
  return static_cast<double>(monotonic_ns() - start_ns) / 1e9;
}

// A member of the device must not be there any more: neither as a process nor in the daemon's eyes.
static void expect_gone_for_good(Device &device, const Task &task, Task &bystander) {
  EXPECT_FALSE(device.lives(task.pid));
  // A registration that were left would be acted on before the bystander's.
  device.kill(bystander.pid, SIGKILL);
  next_worker(device, bystander);
  EXPECT_EQ(worker_reports(device, task, "birth").size(), 1U);
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U);
}

// The one deletion in real time: members that ignore SIGTERM, the steps at their seconds.
TEST(VsdDeletion, MembersThatIgnoreSigtermAreKilledAndNotRestarted) {
  Device device({.data2 = true});
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander");
  std::vector<Task> stubborn;
  for (const char *name : {"stubborn_a", "stubborn_b"})
    stubborn.push_back(install_member(device, 3, name, "trap '' TERM"));
  Task polite = install_member(device, 3, "polite");
  run_tov(device, {"-c", "3"});
  for (Task &task : stubborn)
    wait_member(device, task, 3);
  wait_member(device, polite, 3);
  call_vsd(device, {"set_cgroups_all", "3"});
  EXPECT_EQ(traces(device, 3).size(), device.has_control_groups() ? 10U : 8U);

  const int64_t start_ns = monotonic_ns();
  SpawnOptions options = tool_options("");
  const pid_t tool = device.spawn({device.binary_dir() + "/tov", "-d", "3"}, options);
  ASSERT_TRUE(wait_until([&] { return !device.lives(polite.pid); }, Millis(3'000)));
  EXPECT_TRUE(device.exists("/tmp/vsd/3/delete_vsd"));
  // Registrations go as their programs die.
  const auto file_of = [](const Task &task) {
    return Device::register_path(3, task.pid, task.command);
  };
  EXPECT_TRUE(wait_until([&] { return !device.exists(file_of(polite)); }, Millis(2'000)));
  for (const Task &task : stubborn)
    EXPECT_TRUE(device.lives(task.pid)) << "it ignores the first signal";

  for (const Task &task : stubborn) {
    ASSERT_TRUE(wait_until([&] { return !device.lives(task.pid); }, Millis(6'000)));
    EXPECT_GE(seconds_since(start_ns), 5.0);
    EXPECT_TRUE(wait_until([&] { return !device.exists(file_of(task)); }, Millis(2'000)));
  }
  EXPECT_TRUE(device.exists("/tmp/vsd/3/delete_vsd"));
  EXPECT_EQ(device.wait(tool, Millis(20'000)), 0);
  EXPECT_GE(seconds_since(start_ns), 15.0);
  EXPECT_THAT(traces(device, 3), IsEmpty());
  EXPECT_EQ(traces(device, 2).size(), 8U) << "all but the control groups, which nobody made";

  expect_gone_for_good(device, polite, bystander);
  for (const Task &task : stubborn)
    EXPECT_EQ(worker_reports(device, task, "birth").size(), 1U);
}

TEST(VsdDeletion, DeviceWithoutProcesses) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_empty");
  run_tov(device, {"-c", "1"});
  EXPECT_EQ(traces(device, 1).size(), 6U);
  const RunResult deleted = run_tov(device, {"-d", "1"}, FAST);
  EXPECT_TRUE(deleted.exited_with(0));
  EXPECT_EQ(deleted.output, progress_of(1));
  EXPECT_THAT(traces(device, 1), IsEmpty());
  const pid_t before = bystander.pid;
  EXPECT_TRUE(device.lives(before));
  device.kill(before, SIGKILL);
  EXPECT_NE(next_worker(device, bystander), before) << "the daemon restarts again";
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
  EXPECT_EQ(run_tov(device, {"-d", "1"}, FAST).output, progress_of(1));
  EXPECT_THAT(traces(device, 1), IsEmpty());
  EXPECT_TRUE(device.lives(neighbour.pid));
  EXPECT_EQ(traces(device, 2), before);
  EXPECT_EQ(members(device, 2), recorded);
  EXPECT_TRUE(device.exists(Device::register_path(2, neighbour.pid, neighbour.command)));
  expect_gone_for_good(device, ended, neighbour);
}

// Members that keep dying while their device is deleted: whoever the daemon brings back just before
// the marker comes is in the group as well, and is killed with the others.
TEST(VsdDeletion, MembersThatAreBeingRestartedGoToo) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_worker(device, "bystander_restless");
  std::vector<Task> tasks;
  for (const char *name : {"restless_a", "restless_b", "restless_c", "restless_d"})
    tasks.push_back(install_member(device, 1, name));
  run_tov(device, {"-c", "1"});
  for (Task &task : tasks)
    wait_member(device, task, 1);
  for (const Task &task : tasks)
    device.kill(task.pid, SIGKILL);
  EXPECT_TRUE(run_tov(device, {"-d", "1"}, FAST).exited_with(0));
  EXPECT_THAT(traces(device, 1), IsEmpty());
  device.kill(bystander.pid, SIGKILL);
  next_worker(device, bystander);
  for (const Task &task : tasks)
    for (const pid_t pid : worker_reports(device, task, "birth"))
      EXPECT_FALSE(device.lives(pid));
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
  EXPECT_EQ(call_vsd(device, {"stop_vsd", "1"}, FAST), progress_of(1) + "stop_vsd 0\n");
  EXPECT_EQ(traces(device, 1), (std::set<std::string>{"/data/.qxos/vsd/1", "/data/var/run/vsd/1",
                                                      "/qx_cfg/vsd/1", "/qxos/vsd/1"}));
  EXPECT_EQ(device.read("/data/.qxos/vsd/1/settings"), "kept");
  expect_gone_for_good(device, task, bystander);
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
  EXPECT_EQ(call_vsd(device, {"reload_vsd", "1"}, FAST), progress_of(1) + "reload_vsd 0\n");
  wait_member(device, task, 1);
  EXPECT_NE(task.pid, first);
  EXPECT_FALSE(device.lives(first));
  EXPECT_EQ(traces(device, 1), before);
  EXPECT_EQ(device.read("/data/.qxos/vsd/1/settings"), "kept");
  EXPECT_THAT(members(device, 1), testing::ElementsAre(std::to_string(task.pid), "db"));
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U)
      << "the scripts did it, not the daemon";
}
