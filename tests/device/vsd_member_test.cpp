// Programs of a virtual device come back inside it, and are left dead while a device is deleted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/vsd_turn.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::IsEmpty;

static std::string member_dir(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/tov";
}

static std::string marker(int vsd, pid_t pid) {
  return member_dir(vsd) + "/" + std::to_string(pid);
}

static gid_t group_of(int vsd) {
  return static_cast<gid_t>(3000 + 100 * vsd);
}

// A task that was placed in a device: in its group, with its marker.
static Task start_member(Device &device, const std::string &prefix, int vsd,
                         TaskOptions options = {}) {
  device.mkdir("/data/var/run/vsd/" + std::to_string(vsd), 0777);
  options.vsd = vsd;
  options.spawn.groups = {{group_of(vsd)}};
  Task task = start_task(device, prefix, options);
  device.write(marker(vsd, task.pid), "");
  return task;
}

using Variables = std::map<std::string, std::string>;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_SH));

static Variables variables_of(const std::string &vsd) {
  return {{"QX_CFG_DIR", "/qx_cfg/vsd/" + vsd},
          {"QXOS_DIR", "/qxos/vsd/" + vsd},
          {"DATA_QXOS_DIR", "/data/.qxos/vsd/" + vsd},
          {"TMPDIR", "/tmp/vsd/" + vsd}};
}

TEST(DeviceMember, ComesBackInsideItsDevice) {
  Device device({.env = {{"TMPDIR", "/tmp/elsewhere"}}});
  Task task = start_member(device, "member", 3);
  const pid_t dead = task.pid;
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);

  EXPECT_EQ(birth.groups, "3300");
  EXPECT_EQ(birth.env, variables_of("3"));
  EXPECT_EQ(birth.cwd, "/data/var/run/vsd/3");
  EXPECT_FALSE(device.exists(marker(3, dead)));
  EXPECT_EQ(device.mode(marker(3, birth.pid)), 0754U);
  EXPECT_EQ(device.list(member_dir(3)),
            (std::vector<std::string>{std::to_string(birth.pid), "db"}));
  EXPECT_FALSE(device.exists(task.file));

  // And once more, by what the daemon itself has left.
  const pid_t second = task.pid;
  EXPECT_EQ(kill_and_return(device, task).groups, "3300");
  EXPECT_FALSE(device.exists(marker(3, second)));
}

TEST(DeviceMember, KnowsTheSecondDataTreeWhereThereIsOne) {
  Device device({.data2 = true});
  Task task = start_member(device, "member_data2", 12);
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);
  Variables expected = variables_of("12");
  expected["DATA_QXOS_DIR2"] = "/data2/.qxos/vsd/12";
  EXPECT_EQ(birth.env, expected);
  EXPECT_EQ(birth.groups, "4200");
}

TEST(DeviceMember, ComesBackByItsScriptInsideItsDevice) {
  Device device;
  Task task = start_member(device, "member_script", 4, {.action = SHELL_RESTART});
  device.install_start_script(task.name, "exec " + task.program + "\n");
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);
  EXPECT_EQ(birth.groups, "3400");
  EXPECT_EQ(birth.env, variables_of("4"));
  EXPECT_TRUE(device.exists(marker(4, birth.pid)));
}

// Without its run directory a device no longer stands: the program comes back, in no group.
TEST(DeviceMember, OfADeviceWithoutRunDirectoryGetsNeitherGroupNorMarker) {
  Device device;
  Task task = start_member(device, "member_lost", 5);
  device.start_ready_daemon();
  device.remove("/data/var/run/vsd/5");
  const Birth birth = kill_and_return(device, task);
  EXPECT_EQ(birth.groups, "");
  EXPECT_EQ(birth.env, variables_of("5"));
  EXPECT_FALSE(device.exists(marker(5, birth.pid)));
}

TEST(DeviceMember, StoppedBySignal15LeavesItsDevice) {
  Device device;
  Task task = start_member(device, "member_stopped", 6);
  Task bystander = start_task(device, "bystander_member");
  device.write(marker(6, 1), "");  // another member's
  device.start_ready_daemon();
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(task, task.pid, 6));
  pass_events(device, bystander);
  EXPECT_THAT(device.list(member_dir(6)), ElementsAre("1", "db"));
  EXPECT_THAT(device.list(member_dir(6) + "/db"), IsEmpty());
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_EQ(
      device.run({"readlink", "/proc/" + std::to_string(device.daemon_pid()) + "/cwd"}).output,
      "/\n");
}

// An entry that cannot be opened is none that the daemon understands: it stops there, and the
// registration stays.
TEST(DeviceMember, WhoseMarkersCannotBeReadStaysRegistered) {
  Device device;
  Task task = start_member(device, "member_blocked", 7);
  Task bystander = start_task(device, "bystander_blocked");
  device.remove(marker(7, task.pid));
  device.symlink("/etc/passwd", marker(7, task.pid));
  device.start_ready_daemon();
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(task, task.pid, 7));
  pass_events(device, bystander);
  EXPECT_TRUE(device.exists(task.file));
  EXPECT_TRUE(device.exists(marker(7, task.pid)));
}

// ---- a device that is being deleted -----------------------------------------------------------

struct DeleteMarker {
  int vsd;
  bool drops;
};

// Names the case; without it the test's name would show its bytes.
static void PrintTo(const DeleteMarker &row, std::ostream *out) {
  *out << row.vsd;
}

class DeletedDevice : public testing::TestWithParam<DeleteMarker> {};

TEST_P(DeletedDevice, DropsWhoeverDies) {
  const std::string number = std::to_string(GetParam().vsd);
  Device device;
  Task task = start_task(device, "deleted" + number + "_");
  Task bystander = start_task(device, "bystander_deleted" + number + "_");
  device.start_ready_daemon();
  const std::string delete_marker = "/tmp/vsd/" + number + "/delete_vsd";
  device.write(delete_marker, "");
  device.kill(task.pid, SIGKILL);
  if (!GetParam().drops) {
    next_birth(device, task);
    return;
  }
  // The file goes with the registration; then the marker may go, too.
  ASSERT_TRUE(wait_until([&] { return !device.exists(task.file); }, STORY_LIMIT_MS));
  device.remove(delete_marker);
  const pid_t dead = bystander.pid;
  const Birth back = kill_and_return(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_EQ(all_events(device),
            (Events{{RUN_LOG, {"TOV start.", spawned(bystander, back.pid)}},
                    {RESTART_LOG,
                     {"%HA-5-HA_SELF_CHECK: " + self_checking(bystander, dead, 9),
                      "%HA-5-HA_SELF_CHECK_INFO " + self_check_ok(bystander, 1, back.pid)}}}));
}

static const DeleteMarker delete_markers[] = {{0, false}, {1, true}, {16, true}, {17, false}};
INSTANTIATE_TEST_SUITE_P(Marker, DeletedDevice, testing::ValuesIn(delete_markers),
                         [](const auto &row) { return "Of" + std::to_string(row.param.vsd); });
