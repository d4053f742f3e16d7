// Limits of virtual devices, with the kernel's own control groups and figures.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <sys/file.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/device/vsd_tool.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/worker.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_EX));

static constexpr int VSD = 1;

// One device with two members, a daemon, control groups.
class VsdLimits : public testing::Test {
 protected:
  void SetUp() override {
    if (!device.has_control_groups()) GTEST_SKIP() << "no version-1 memory and cpu hierarchies";
    device.start_ready_daemon();
    large = install_member(device, VSD, "large");
    small = install_member(device, VSD, "small");
    ASSERT_TRUE(run_tov(device, {"-c", "1"}).exited_with(0));
    wait_member(device, large, VSD);
    wait_member(device, small, VSD);
  }

  // Lets a member take so many megabytes.
  void grow(const Task &task, int megabytes) {
    device.write("/data/grow." + task.name, std::to_string(megabytes));
  }
  void grow_and_wait(const Task &task, int megabytes) {
    grow(task, megabytes);
    ASSERT_TRUE(
        wait_until([&] { return !worker_reports(device, task, "grown").empty(); }, Millis(30'000)));
  }

  std::vector<std::string> tasks_of(const std::string &hierarchy) {
    return device.lines("/" + hierarchy + "/vsd_1/tasks");
  }

  // The member was killed (by signal 9, as the daemon saw it) and is back inside its device.
  void expect_back(Task &task, pid_t dead) {
    EXPECT_FALSE(device.lives(dead));
    wait_back(device, task);
    EXPECT_TRUE(device.lives(task.pid));
    EXPECT_EQ(groups_of(task.pid), "3100");
    EXPECT_EQ(working_directory(device, task.pid), "/data/var/run/vsd/1");
    EXPECT_EQ(variable_of(task.pid, "TMPDIR"), "/tmp/vsd/1");
    EXPECT_TRUE(device.exists(member_file(VSD, task.pid)));
    EXPECT_FALSE(device.exists(member_file(VSD, dead)));
  }

  Device device;
  Task large, small;
};

// ---- groups and limits ----------------------------------------------------------------------

TEST_F(VsdLimits, MembersAreInTheGroupsAndTheKernelKnowsTheLimits) {
  EXPECT_EQ(call_vsd(device, {"set_cgroups_all", "1"}), "set_cgroups_all 0\n");
  for (const char *hierarchy : {"memory", "cpu"}) {
    EXPECT_EQ(device.mode("/" + std::string(hierarchy) + "/vsd_1"), 0777U);
    EXPECT_THAT(tasks_of(hierarchy),
                UnorderedElementsAre(std::to_string(large.pid), std::to_string(small.pid)));
  }
  EXPECT_EQ(call_vsd(device, {"set_mem_group", "1", "65536"}), "set_mem_group 0\n");
  EXPECT_EQ(device.read("/memory/vsd_1/memory.limit_in_bytes"), "67108864\n");
  EXPECT_EQ(device.read("/memory/vsd_1/memory.soft_limit_in_bytes"), "67108864\n");
  static constexpr struct {
    const char *weight;
    const char *shares;
  } cases[] = {
      {"5", "512\n"}, {"10", "1024\n"}, {"100", "10240\n"}, {"0", "2\n"}, {"1000000", "262144\n"}};
  for (const auto &one : cases) {
    EXPECT_EQ(call_vsd(device, {"set_cpu_group", "1", one.weight}), "set_cpu_group 0\n");
    EXPECT_EQ(device.read("/cpu/vsd_1/cpu.shares"), one.shares);
  }
}

// Nanoseconds that a process has run.
static uint64_t run_ns(pid_t pid) {
  std::istringstream text(read_small_file("/proc/" + std::to_string(pid) + "/schedstat"));
  uint64_t nanoseconds = 0;
  text >> nanoseconds;
  return nanoseconds;
}

// Two devices that both want the same processor all the time.
TEST(VsdWeight, KernelDividesTheProcessorByTheWeights) {
  Device device;
  if (!device.has_control_groups()) GTEST_SKIP() << "no version-1 memory and cpu hierarchies";
  pid_t spinning[2];
  for (int vsd : {1, 2}) {
    pid_t &pid = spinning[vsd - 1];
    pid = device.spawn({"/bin/sh", "-c", "while :; do :; done"});
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (sched_setaffinity(pid, sizeof first, &first) < 0) GTEST_SKIP() << "no processor 0";
    device.write(member_file(vsd, pid), "");
    call_vsd(device, {"set_cgroups_all", std::to_string(vsd)});
  }
  EXPECT_EQ(call_vsd(device, {"set_cpu_group", "1", "100"}), "set_cpu_group 0\n");
  EXPECT_EQ(call_vsd(device, {"set_cpu_group", "2", "5"}), "set_cpu_group 0\n");
  const uint64_t heavy = run_ns(spinning[0]), light = run_ns(spinning[1]);
  const auto gained = [&] {
    return std::pair(run_ns(spinning[0]) - heavy, run_ns(spinning[1]) - light);
  };
  ASSERT_TRUE(
      wait_until([&] { return gained().first + gained().second > 500'000'000; }, Millis(60'000)));
  const auto [heavy_ns, light_ns] = gained();
  EXPECT_GT(heavy_ns, 4 * light_ns) << "twenty times as much on the long run";
}

TEST_F(VsdLimits, RefusedLimitsAreTold) {
  EXPECT_EQ(call_vsd(device, {"set_mem_group", "2", "65536"}),
            "set_mem_group " + std::to_string(-ENOENT) + "\n");
  EXPECT_EQ(call_vsd(device, {"set_cpu_group", "2", "10"}),
            "set_cpu_group " + std::to_string(-ENOENT) + "\n");
  device.write(member_file(VSD, 999'999), "");  // no process: the kernel refuses it, the rest go in
  EXPECT_EQ(call_vsd(device, {"set_cgroups_all", "1"}), "set_cgroups_all 0\n");
  EXPECT_EQ(tasks_of("memory").size(), 2U);
}

TEST_F(VsdLimits, RemovalOfAGroupTellsThatItsFilesStayedButTheGroupGoes) {
  device.mkdir("/memory/vsd_7/below");
  EXPECT_EQ(call_vsd(device, {"delete_dir", "7"}), "delete_dir " + std::to_string(-EPERM) + "\n");
  EXPECT_FALSE(device.exists("/memory/vsd_7"));
  call_vsd(device, {"set_cgroups_all", "1"});
  EXPECT_EQ(call_vsd(device, {"delete_dir", "1"}), "delete_dir " + std::to_string(-EBUSY) + "\n");
  EXPECT_EQ(tasks_of("memory").size(), 2U);
}

// The kernel ends the member that leaks and no other; the daemon starts it again inside the device.
TEST_F(VsdLimits, LeakingMemberIsKilledByTheKernelAndComesBack) {
  call_vsd(device, {"set_cgroups_all", "1"});
  ASSERT_EQ(call_vsd(device, {"set_mem_group", "1", "49152"}), "set_mem_group 0\n");
  const pid_t leaking = large.pid;
  device.append("/memory/vsd_1/memory.swappiness", "0");  // no way out on a machine that swaps
  grow(large, 400);
  need_end(device, leaking);
  expect_back(large, leaking);
  EXPECT_THAT(worker_reports(device, large, "grown"), IsEmpty());
  EXPECT_TRUE(device.lives(small.pid));
  EXPECT_EQ(worker_reports(device, small, "registered").size(), 1U);

  // A child of the daemon, so it is outside the group until the members are put in again.
  EXPECT_THAT(tasks_of("memory"), ElementsAre(std::to_string(small.pid)));
  call_vsd(device, {"set_cgroups_all", "1"});
  EXPECT_THAT(tasks_of("memory"),
              UnorderedElementsAre(std::to_string(large.pid), std::to_string(small.pid)));
}

// ---- sweeps ---------------------------------------------------------------------------------

// Kilobytes by device as the caller prints them.
static std::map<int, uint64_t> sums(const std::string &printed) {
  std::map<int, uint64_t> found;
  std::istringstream lines(printed);
  int vsd = 0;
  uint64_t kilobytes = 0;
  while (lines >> vsd >> kilobytes)
    found[vsd] = kilobytes;
  return found;
}

// Workers are statically linked, so the kernel's sum over all mappings has no library's in it.
TEST_F(VsdLimits, SweepAgreesWithTheKernelsFigures) {
  device.mkdir("/memory/vsd_1");
  call_vsd(device, {"set_mem_group", "1", "1048576"});
  grow_and_wait(large, 30);
  for (const Task *task : {&large, &small})
    device.kill(task->pid, SIGSTOP);  // so that they touch no further page
  const auto expected = [&] { return resident_kb(large.pid) + resident_kb(small.pid); };
  EXPECT_GT(expected(), 30'000U);

  // Once with any pause, once at its own pace with the published figures. The kernel may take pages
  // away at any moment; then it is done again.
  for (const auto &[words, clock] :
       {std::pair<std::vector<std::string>, std::string>{{"poll_use_mem", "0"}, ""},
        {{"set_vsd_mem"}, "+0 x60"}}) {
    std::map<int, uint64_t> found;
    uint64_t before = 0;
    do {
      before = expected();
      found = sums(call_vsd(device, words, clock));
    } while (expected() != before);
    EXPECT_EQ(found.size(), 16U);
    EXPECT_EQ(found[1], before);
    EXPECT_GT(found[0], 0U);
    EXPECT_EQ(found[2], 0U) << "no device of that number";
  }
  EXPECT_TRUE(device.lives(large.pid) && device.lives(small.pid));
}

TEST_F(VsdLimits, SweepKillsTheLargestMemberOfADeviceBeyondItsLimit) {
  device.mkdir("/memory/vsd_1");  // no process is in the group: the kernel has no reason to act
  call_vsd(device, {"set_mem_group", "1", "20480"});
  grow_and_wait(large, 30);
  const pid_t dead = large.pid;
  EXPECT_EQ(sums(call_vsd(device, {"poll_use_mem", "0"}))[1], 20'480U);
  need_end(device, dead);
  expect_back(large, dead);
  EXPECT_TRUE(device.lives(small.pid));
  // Back at its usual size, the device is within its limit.
  EXPECT_LT(sums(call_vsd(device, {"poll_use_mem", "0"}))[1], 20'480U);
  EXPECT_TRUE(device.lives(large.pid));
}
