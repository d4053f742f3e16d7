// What a listed service goes through in its life, told once for every manner of real daemons:
// deaths alone and together with the daemon, the next daemons, a stop.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/device/service.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

class ListedManner : public testing::TestWithParam<Manner> {
 protected:
  void lose_the_daemon() {
    device.kill_daemon();
    device.start_ready_daemon();
    expect_alone(device, task);
    expect_back(device, task);
  }
  void lose_both() {
    device.kill(device.daemon_pid(), SIGKILL);
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(device.wait_daemon(STORY_LIMIT_MS));
    device.start_ready_daemon();
    expect_start(device, task);
    expect_alone(device, task);
  }

  Device device;
  Task task = install_service(device, "manner", GetParam().words);
};

INSTANTIATE_TEST_SUITE_P(Manner, ListedManner, testing::ValuesIn(all_manners()), label_of);

TEST_P(ListedManner, IsSupervisedOnceAllItsLife) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  expect_alone(device, task);
  expect_back(device, task);
  expect_back(device, task);
  lose_the_daemon();
  lose_both();
  lose_the_daemon();
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, ",pid:" + std::to_string(task.pid) + ",vsd_no:");
  EXPECT_FALSE(
      wait_until([&] { return device.births(task.name).size() > task.births; }, SETTLE_MS));
  EXPECT_EQ(device.list("/tmp/vsd/0/tov/db"), std::vector<std::string>())
      << "nobody is supervised in its place";
}

}  // namespace
