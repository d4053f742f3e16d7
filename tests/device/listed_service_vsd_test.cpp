// One listed command line in two virtual devices: each device has its own service.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/file.h>
#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/service.h"
#include "tests/device/story.h"
#include "tests/device/vsd_turn.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

static const auto *const turn = testing::AddGlobalTestEnvironment(new VsdTurn(LOCK_SH));

namespace {

// The service of one device: `of.births` and `of.pid` are those of the device's.
struct Member {
  int vsd;
  Task of;
};

class ServiceOfTwoDevices : public testing::TestWithParam<Manner> {
 protected:
  void SetUp() override {
    device.start_ready_daemon();
    for (Member &member : members)
      start(member);
  }

  static gid_t group_of(const Member &member) {
    return static_cast<gid_t>(3000 + 100 * member.vsd);
  }
  // The births in its device.
  std::vector<Birth> births(const Member &member) const {
    std::vector<Birth> all = device.births(task.name);
    std::erase_if(
        all, [&](const Birth &birth) { return birth.groups != std::to_string(group_of(member)); });
    return all;
  }
  void next(Member &member, Millis limit = RETURN_LIMIT_MS) {
    if (!wait_until([&] { return births(member).size() > member.of.births; }, limit))
      throw std::runtime_error("not started in device " + std::to_string(member.vsd) + "\n" +
                               device.dump());
    const Birth birth = births(member)[member.of.births++];
    EXPECT_TRUE((birth.argv + " ").starts_with(task.command + " ")) << "started as " << birth.argv;
    member.of.pid = birth.pid;
  }
  void start(Member &member) {
    const std::string number = std::to_string(member.vsd);
    device.mkdir("/data/var/run/vsd/" + number, 0777);
    device.spawn(words_of(task), {.groups = {{group_of(member)}}});
    next(member, STORY_LIMIT_MS);
    need_event(device, REGISTER_LOG, entered(member.of, member.vsd));
    device.write("/tmp/vsd/" + number + "/tov/" + std::to_string(member.of.pid), "");
  }
  // The latest one of each device lives, and there is no other one, nor comes for a while.
  void expect_both_alone() const {
    size_t count = 0;
    for (const Member &member : members) {
      EXPECT_TRUE(device.lives(member.of.pid)) << "of device " << member.vsd;
      count += member.of.births;
    }
    EXPECT_FALSE(wait_until([&] { return device.births(task.name).size() != count; }, SETTLE_MS));
    EXPECT_EQ(living(device, task).size(), members.size());
  }
  void expect_member_back(Member &member) {
    device.kill(member.of.pid, SIGKILL);
    next(member);
    need_known(device, member.of, member.vsd);
    expect_both_alone();
  }

  Device device;
  Task task = install_service(device, "member", GetParam().words);
  std::vector<Member> members = {{1, task}, {2, task}};
};

INSTANTIATE_TEST_SUITE_P(Manner, ServiceOfTwoDevices,
                         testing::ValuesIn(manners_of({"Front", "Background", "TitledBackground",
                                                       "BackgroundWithWorkers",
                                                       "AnewInTheBackground"})),
                         label_of);

TEST_P(ServiceOfTwoDevices, ComesBackInItsOwnWhileTheOtherRuns) {
  expect_both_alone();
  expect_member_back(members[0]);
  expect_member_back(members[0]);
  expect_member_back(members[1]);
  expect_member_back(members[1]);
}

TEST_P(ServiceOfTwoDevices, KilledInBothAtOnceComesBackInBoth) {
  for (const Member &member : members)
    device.kill(member.of.pid, SIGKILL);
  for (Member &member : members)
    next(member);
  for (const Member &member : members)
    need_known(device, member.of, member.vsd);
  expect_both_alone();
}

TEST_P(ServiceOfTwoDevices, IsSupervisedByTheNextDaemonInBoth) {
  device.kill_daemon();
  device.kill(members[0].of.pid, SIGKILL);
  device.start_ready_daemon();
  next(members[0]);
  expect_both_alone();
  expect_member_back(members[1]);
  expect_member_back(members[0]);
}

}  // namespace
