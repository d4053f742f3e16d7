// Listed programs that behave as real daemons do: in front and in the background, under a title of
// their own, with workers that outlive them, executing themselves anew. Each is brought back
// whenever it is killed, and never started beside itself. More manners: listed_manners_test.cpp.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/device/service.h"
#include "tests/device/story.h"
#include "tests/device/sweep_clock.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

class ListedService : public testing::TestWithParam<Manner> {
 protected:
  Device device;
  Task task = install_service(device, "service", GetParam().words);
};

INSTANTIATE_TEST_SUITE_P(Manner, ListedService,
                         testing::ValuesIn(manners_of({"Front", "TwiceForked", "TitledFront",
                                                       "TitledWithWorkers",
                                                       "AnewWithAWordInTheBackground"})),
                         label_of);

TEST_P(ListedService, ComesBackAloneEachTime) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  expect_alone(device, task);
  for (int count = 1; count <= 3; count++) {
    SCOPED_TRACE(count);
    expect_back(device, task);
  }
}

TEST_P(ListedService, IsSupervisedByTheNextDaemons) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  device.kill_daemon();
  device.start_ready_daemon();
  expect_alone(device, task);
  expect_back(device, task);
  device.kill_daemon();
  device.start_ready_daemon();
  expect_alone(device, task);
  expect_back(device, task);
}

TEST_P(ListedService, KilledTogetherWithTheDaemonComesBackOnce) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  for (int count = 1; count <= 2; count++) {
    SCOPED_TRACE(count);
    device.kill(device.daemon_pid(), SIGKILL);
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(device.wait_daemon(STORY_LIMIT_MS));
    device.start_ready_daemon();
    expect_start(device, task);
    expect_alone(device, task);
    expect_back(device, task);
  }
}

// Neither what it left behind when it died before nor a next daemon's walk changes that.
TEST_P(ListedService, StaysAwayWhenItWasStopped) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  expect_back(device, task);
  device.kill_daemon();
  device.start_ready_daemon();
  expect_alone(device, task);
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, ",pid:" + std::to_string(task.pid) + ",vsd_no:");
  const auto is_born = [&] { return device.births(task.name).size() > task.births; };
  EXPECT_FALSE(wait_until(is_born, SETTLE_MS));
  EXPECT_EQ(device.list("/tmp/vsd/0/tov/db"), std::vector<std::string>())
      << "nobody is supervised in its place";
}

// ---- on a fast clock --------------------------------------------------------------------------

class SweptService : public ListedService {
 protected:
  // A sweep takes some seconds. Faster, the daemon would give up its search for a service before
  // that has gone to the background.
  static std::string fast() { return "+0 x" + std::to_string(30 / patience()); }
};

INSTANTIATE_TEST_SUITE_P(Manner, SweptService,
                         testing::ValuesIn(manners_of({"Front", "TitledBackground",
                                                       "TitledWithWorkers",
                                                       "AnewWithAWordInTheBackground"})),
                         label_of);

TEST_P(SweptService, IsLeftAloneBySweeps) {
  SweepClock clock(device, "clock");
  device.start_ready_daemon({.faketime = fast()});
  clock.start();
  start_by_hand(device, task);
  clock.wait(1);
  expect_alone(device, task);
  expect_back(device, task);
  clock.wait(1);
  expect_alone(device, task);
}

}  // namespace
