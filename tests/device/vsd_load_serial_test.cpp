// Virtual devices on a busy machine: while their members are killed and come back, devices are
// created and deleted around them. Who belongs to a device stays in it, who belongs to a device
// that is being deleted stays dead, and the neighbours notice nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/vsd_tool.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/worker.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_EX));

static constexpr int DEVICES = 3;
static constexpr int MEMBERS_EACH = 3;
static constexpr int SPINNERS = 3;
// A task that is restarted five times within two minutes is suspended; two deaths a round.
static constexpr int ROUNDS = 2;

class VsdLoad : public testing::Test {
 protected:
  void SetUp() override {
    device.start_ready_daemon();
    bystander = start_worker(device, "bystander_load");
    for (int i = 0; i < SPINNERS; i++)
      device.spawn({"/bin/sh", "-c", "while :; do :; done"});
    for (int vsd = 1; vsd <= DEVICES; vsd++)
      for (int i = 0; i < MEMBERS_EACH; i++)
        tasks[vsd].push_back(install_once(vsd, "load" + std::to_string(i) + "_"));
    ASSERT_TRUE(run_tov(device, {"-c", std::to_string(DEVICES)}).exited_with(0));
    for (int vsd = 1; vsd <= DEVICES; vsd++)
      wait_members(vsd);
  }

  // A member that its device starts at its first creation only, not when it is created over itself.
  Task install_once(int vsd, const std::string &prefix) {
    const std::string once = "$TMPDIR/started." + prefix;
    return install_member(device, vsd, prefix, "test ! -e " + once + " || exit; : > " + once);
  }
  void wait_members(int vsd) {
    for (Task &task : tasks[vsd])
      wait_member(device, task, vsd);
  }

  void kill_all(int vsd) {
    for (const Task &task : tasks[vsd])
      device.kill(task.pid, SIGKILL);
  }
  void wait_all_back(int vsd) {
    for (Task &task : tasks[vsd])
      wait_back(device, task);
  }
  // Every member lives inside its device and is recorded there. (So may others be: a creation
  // records whatever has the group at that moment, a dead member that was not waited for included.)
  void expect_inside(int vsd) {
    for (const Task &task : tasks[vsd]) {
      EXPECT_TRUE(device.lives(task.pid)) << task.name;
      EXPECT_EQ(groups_of(task.pid), std::to_string(3000 + 100 * vsd)) << task.name;
      EXPECT_EQ(working_directory(device, task.pid), "/data/var/run/vsd/" + std::to_string(vsd));
      EXPECT_EQ(variable_of(task.pid, "TMPDIR"), "/tmp/vsd/" + std::to_string(vsd));
      EXPECT_TRUE(device.exists(member_file(vsd, task.pid))) << task.name;
      EXPECT_TRUE(device.exists(Device::register_path(vsd, task.pid, task.command)));
    }
  }

  Device device;
  Task bystander;
  std::vector<Task> tasks[DEVICES + 1];
};

TEST_F(VsdLoad, MembersDieWhileDevicesComeAndGo) {
  for (int round = 0; round < ROUNDS; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    // All devices are created once more while the members of all of them die.
    for (int vsd = 1; vsd <= DEVICES; vsd++)
      kill_all(vsd);
    ASSERT_TRUE(run_tov(device, {"-c", std::to_string(DEVICES)}).exited_with(0));
    for (int vsd = 1; vsd <= DEVICES; vsd++) {
      wait_all_back(vsd);
      expect_inside(vsd);
    }

    // Device 1 goes, its neighbours stay.
    SteppedCommand deletion(device, {tov_program(device), "-d", "1"});
    deletion.need_sleep(5);
    deletion.wake();
    deletion.need_sleep(10);
    EXPECT_TRUE(device.exists("/tmp/vsd/1/delete_vsd"));
    for (const Task &task : tasks[1]) {
      need_end(device, task.pid);
      const std::string file = Device::register_path(1, task.pid, task.command);
      EXPECT_TRUE(wait_until([&] { return !device.exists(file); }, STORY_LIMIT_MS));
    }
    deletion.wake();
    EXPECT_EQ(deletion.finish(), progress_of(1));
    EXPECT_THAT(traces(device, 1), IsEmpty());

    // The daemon restarts again at once, and no member of the deleted device.
    for (int vsd = 2; vsd <= DEVICES; vsd++) {
      const std::vector<Task> dead = tasks[vsd];
      kill_all(vsd);
      wait_all_back(vsd);
      expect_inside(vsd);
      for (const Task &task : dead)
        EXPECT_FALSE(device.exists(member_file(vsd, task.pid))) << task.name;
    }
    for (const Task &task : tasks[1])
      EXPECT_EQ(worker_reports(device, task, "birth").size(), task.births) << task.name;

    // It comes back with new members.
    ASSERT_TRUE(run_tov(device, {"-c", "1"}).exited_with(0));
    wait_members(1);
    for (int vsd = 1; vsd <= DEVICES; vsd++)
      expect_inside(vsd);
  }
  const pid_t before = bystander.pid;
  EXPECT_TRUE(device.lives(before)) << "nobody has signalled it";
}
