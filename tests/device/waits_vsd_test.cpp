// A member of a virtual device waits before it is started again, and meanwhile its device goes: the
// member goes with it. Which device it belongs to was asked at its death.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <memory>
#include <ostream>
#include <string>

#include "include/tov_wire.h"
#include "tests/device/lock_holder.h"
#include "tests/device/searched.h"
#include "tests/device/story.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_SH));

namespace {

constexpr int VSD = 3;
constexpr int NEIGHBOUR = 4;

std::string directory(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/tov";
}

std::string delete_marker(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/delete_vsd";
}

enum class Wait { TIME, FILE, FORKS };

struct Row {
  Wait wait;
  const char *label;
};

// Names the case; without it the test's name would show its bytes.
void PrintTo(const Row &row, std::ostream *out) {
  *out << row.label;
}

class WaitingMember : public testing::TestWithParam<Row> {
 protected:
  static constexpr int WAIT_S = 1;

  // A daemon, a member of device 3, and two witnesses, members of device 4. The second one's wait
  // ends, where it has to be ended, after the first one is back: whatever is handed back one by one
  // has been by then.
  void SetUp() override {
    DaemonOptions options{.env = with_diagnostics(device)};
    if (is(Wait::FORKS)) options.faketime = pause_clock();
    daemon = device.start_ready_daemon(options);
    const std::string label = GetParam().label;
    bystander = start_delayed(device, "bystander_" + label, 0);
    task = start_member("member_" + label, VSD);
    witness = start_member("witness_" + label, NEIGHBOUR);
    second_witness = start_member("second_" + label, NEIGHBOUR);
    if (is(Wait::FILE)) {
      files[0] = std::make_unique<LockHolder>(device, task.file);
      files[1] = std::make_unique<LockHolder>(device, witness.file);
      files[2] = std::make_unique<LockHolder>(device, second_witness.file);
    }
    if (is(Wait::FORKS) && !device.limit_processes(daemon, 1))
      GTEST_SKIP() << "no version-1 pids controller";
  }
  static bool is(Wait wait) { return GetParam().wait == wait; }
  Task start_member(const std::string &prefix, int vsd) {
    device.mkdir("/data/var/run/vsd/" + std::to_string(vsd), 0777);
    TaskOptions options;
    options.vsd = vsd;
    options.spawn.groups = {{static_cast<gid_t>(3000 + 100 * vsd)}};
    Task member = start_delayed(device, prefix, is(Wait::TIME) ? WAIT_S * patience() : 0, options);
    device.write(directory(vsd) + "/" + std::to_string(member.pid), "");
    member.file = device.register_file(vsd, member.pid, RESPAWN, member.command);
    return member;
  }

  // Ends them, and returns when all of them wait.
  void begin() {
    dead = task.pid;
    for (const Task *member : {&task, &witness, &second_witness}) {
      device.kill(member->pid, SIGKILL);
      ASSERT_TRUE(device.wait_output("tov_proc_restart_delay " + member->command + "/" +
                                         std::to_string(member->pid) + " receives event:0009",
                                     PROMPT_MS))
          << "an exit is not answered";
      if (member != &task) continue;
      if (is(Wait::FORKS)) {
        need_event(device, RUN_LOG, "fork fail");
        ASSERT_TRUE(device.limit_processes(daemon, ANY_NUMBER));
      }
    }
    ASSERT_FALSE(is_back(device, task));
  }
  // Lets the waits pass: the witnesses come back inside their own device.
  void pass() {
    files[0].reset();
    files[1].reset();
    for (Task *member : {&witness, &second_witness}) {
      const Birth birth = next_birth(device, *member);
      EXPECT_EQ(birth.groups, "3400");
      EXPECT_TRUE(device.exists(directory(NEIGHBOUR) + "/" + std::to_string(birth.pid)));
      files[2].reset();
    }
    if (is(Wait::FILE)) {
      EXPECT_TRUE(device.wait_output("pid:" + std::to_string(dead) + ", exit_signal:"));
    }
  }
  // The same for a task that is not to come back: its record goes, and only then may the marker go.
  void pass_without_task() {
    pass();
    EXPECT_TRUE(wait_until([&] { return !device.exists(task.file); }, STORY_LIMIT_MS));
    device.remove(delete_marker(VSD));
    pass_events(device, bystander);
  }
  void expect_gone() {
    EXPECT_EQ(device.births(task.name).size(), 1U) << "it was started all the same";
    EXPECT_EQ(device.count_events(RESTART_LOG, "new id " + task.shown), 0U);
    EXPECT_FALSE(device.exists(task.file));
    EXPECT_FALSE(was_registered(device, dead));
  }

  Device device;
  Task task, witness, second_witness, bystander;
  std::unique_ptr<LockHolder> files[3];
  pid_t daemon = 0;
  pid_t dead = 0;
};

TEST_P(WaitingMember, ComesBackInsideItsDevice) {
  begin();
  files[0].reset();
  const Birth birth = next_birth(device, task);
  EXPECT_EQ(birth.groups, "3300");
  EXPECT_FALSE(device.exists(directory(VSD) + "/" + std::to_string(dead)));
  EXPECT_TRUE(device.exists(directory(VSD) + "/" + std::to_string(birth.pid)));
  pass();
}

class MemberOfALostDevice : public WaitingMember {};

TEST_P(MemberOfALostDevice, IsNotStartedWhileTheDeviceIsMarkedForDeletion) {
  begin();
  device.write(delete_marker(VSD), "");
  pass_without_task();
  expect_gone();
}

TEST_P(MemberOfALostDevice, IsNotStartedWhenTheMemberDirectoryIsGone) {
  begin();
  device.remove("/tmp/vsd/" + std::to_string(VSD));
  pass_without_task();
  expect_gone();
  EXPECT_THAT(device.list(directory(VSD) + "/db"), IsEmpty());
}

// A marker that stands no more when the wait ends concerns nobody.
TEST_P(WaitingMember, OfADeviceWhoseMarkerIsTakenAwayComesBack) {
  begin();
  device.write(delete_marker(VSD), "");
  device.remove(delete_marker(VSD));
  files[0].reset();
  EXPECT_EQ(next_birth(device, task).groups, "3300");
  pass();
}

// The program does not come, and its device goes while it is searched for.
TEST(SearchedMember, OfADeviceThatIsMarkedForDeletionIsForgotten) {
  Device device;
  device.mkdir("/data/var/run/vsd/" + std::to_string(VSD), 0777);
  SearchedProgram searched(device, "member_search");
  Task &task = searched.task;
  Task bystander = start_task(device, "bystander_search");
  device.start_ready_daemon({.faketime = "+0 x" + std::to_string(2.0 / patience())});
  searched.start(VSD);
  device.write(directory(VSD) + "/" + std::to_string(task.pid), "");
  searched.kill_into_search();
  device.write(delete_marker(VSD), "");
  searched.restore();  // for a start that must not be made
  searched.let_script_fail();
  wait_until([&] { return device.count_events(ERROR_LOG, searched.missed()) > 0; },
             2 * PROMPT_MS);  // that it is told is not asked for
  device.remove(delete_marker(VSD));
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_FALSE(was_registered(device, searched.dead));
  EXPECT_FALSE(was_registered(device, searched.script));
}

std::string label_of(const testing::TestParamInfo<Row> &row) {
  return row.param.label;
}

INSTANTIATE_TEST_SUITE_P(Waits, WaitingMember,
                         testing::Values(Row{Wait::TIME, "Time"}, Row{Wait::FILE, "File"},
                                         Row{Wait::FORKS, "Forks"}),
                         label_of);
INSTANTIATE_TEST_SUITE_P(Waits, MemberOfALostDevice,
                         testing::Values(Row{Wait::TIME, "Time"}, Row{Wait::FILE, "File"},
                                         Row{Wait::FORKS, "Forks"}),
                         label_of);

}  // namespace
