// Listed services when more happens to them than a death: they are suspended, upgraded, several of
// one program, or die while no daemon is there.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/device/service.h"
#include "tests/device/story.h"
#include "tests/device/sweep_clock.h"
#include "tests/device/waits.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

// ---- suspended --------------------------------------------------------------------------------

class SuspendedService : public testing::TestWithParam<Manner> {
 protected:
  static constexpr int PERIOD_S = 60;
  static std::string fast() { return "+0 x" + std::to_string(20 / patience()); }

  // A burst of deaths, each of a process that the daemon knows.
  void suspend(Task &of) {
    const auto need_it_known = [&] {
      if (&of == &task) need_known(device, of);
    };
    kill_until_suspended(device, of, suspended(of, PERIOD_S / 60), 1, need_it_known);
  }

  Device device;
  Task task = install_service(device, "suspended", GetParam().words);
  Task witness = start_task(device, "witness");
};

INSTANTIATE_TEST_SUITE_P(Manner, SuspendedService,
                         testing::ValuesIn(manners_of({"Front", "TitledBackground",
                                                       "BackgroundWithWorkers"})),
                         label_of);

TEST_P(SuspendedService, ComesBackByTheAlarm) {
  device.write("/debug_time", std::to_string(PERIOD_S));
  device.start_ready_daemon({.faketime = fast()});
  start_by_hand(device, task);
  suspend(task);
  expect_start(device, task, STORY_LIMIT_MS);
  expect_alone(device, task);
}

// The alarm that starts the witness finds nobody else to start.
TEST_P(SuspendedService, ThatAnOperatorStartedIsNotStartedBesideByTheAlarm) {
  device.write("/debug_time", std::to_string(PERIOD_S));
  device.start_ready_daemon({.faketime = fast()});
  start_by_hand(device, task);
  suspend(task);
  start_by_hand(device, task);
  suspend(witness);
  next_birth(device, witness);
  expect_alone(device, task);
  expect_back(device, task);
}

// ---- with left workers ------------------------------------------------------------------------

class LeftWorkers : public testing::TestWithParam<Manner> {
 protected:
  void start_and_lose() {
    device.spawn(words_of(task));
    next_birth(device, task);
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(wait_until([&] { return !device.lives(task.pid); }, STORY_LIMIT_MS));
  }
  // Lets the daemon walk through all processes: it finds a service whose front has ended before it
  // could be asked what it executes.
  void let_it_walk(Task &witness) {
    const pid_t daemon = device.daemon_pid();
    device.kill(daemon, SIGSTOP);
    const pid_t front = device.spawn(words_of(witness));
    next_birth(device, witness);
    ASSERT_TRUE(device.wait(front, STORY_LIMIT_MS));
    device.kill(daemon, SIGCONT);
    need_event(device, REGISTER_LOG, entered(witness));
  }

  Device device;
  Task task = install_service(device, "left", GetParam().words);
};

INSTANTIATE_TEST_SUITE_P(
    Manner, LeftWorkers,
    testing::ValuesIn(manners_of({"FrontWithWorkers", "BackgroundWithWorkers"})), label_of);

// They are older than the program that runs, and show the same command line.
TEST_P(LeftWorkers, AreNotRegisteredInThePlaceOfTheProgram) {
  start_and_lose();
  device.spawn(words_of(task));
  next_birth(device, task);
  device.start_ready_daemon();
  need_event(device, REGISTER_LOG, entered(task));
  expect_back(device, task);
}

TEST_P(LeftWorkers, DoNotBecomeTheProgramWhenTheDaemonWalksOverThem) {
  std::vector<Task> witnesses;
  for (const char *prefix : {"witness1_", "witness2_", "witness3_"})
    witnesses.push_back(install_service(device, prefix, {"background"}));
  device.start_ready_daemon();
  start_by_hand(device, task);
  for (Task &witness : witnesses) {
    SCOPED_TRACE(witness.name);
    expect_back(device, task);
    let_it_walk(witness);
    expect_alone(device, task);
  }
}

// ---- upgraded ---------------------------------------------------------------------------------

class UpgradedService : public testing::TestWithParam<Manner> {
 protected:
  static std::string fast() { return "+0 x" + std::to_string(30 / patience()); }

  void upgrade() {
    const std::string file = device.path(task.program);
    std::filesystem::copy_file(file, file + ".new");
    std::filesystem::rename(file + ".new", file);
  }
  bool executes_the_new_file() const {
    return std::filesystem::equivalent("/proc/" + std::to_string(task.pid) + "/exe",
                                       device.path(task.program));
  }

  Device device;
  Task task = install_service(device, "upgraded", GetParam().words);
};

INSTANTIATE_TEST_SUITE_P(Manner, UpgradedService,
                         testing::ValuesIn(manners_of({"Front", "TitledBackground",
                                                       "BackgroundWithWorkers"})),
                         label_of);

TEST_P(UpgradedService, IsLeftAloneBySweepsAndComesBackAsTheNewFile) {
  SweepClock clock(device, "clock");
  device.start_ready_daemon({.faketime = fast()});
  clock.start();
  start_by_hand(device, task);
  upgrade();
  clock.wait(2);
  expect_alone(device, task);
  EXPECT_FALSE(executes_the_new_file());
  expect_back(device, task);
  EXPECT_TRUE(executes_the_new_file());
  clock.wait(1);
  expect_alone(device, task);
}

TEST_P(UpgradedService, IsSupervisedByTheNextDaemon) {
  device.start_ready_daemon();
  start_by_hand(device, task);
  upgrade();
  device.kill_daemon();
  device.start_ready_daemon();
  expect_alone(device, task);
  expect_back(device, task);
  EXPECT_TRUE(executes_the_new_file());
}

// ---- several of one program -------------------------------------------------------------------

class SeveralServices : public testing::TestWithParam<Manner> {
 protected:
  void install(int count) {
    const Task first = install_task(device, "several", {}, "service");
    for (int i = 1; i <= count; i++)
      tasks.push_back(install_another(device, first, "." + std::to_string(i), GetParam().words));
  }
  void start_all_by_hand() {
    for (Task &task : tasks)
      start_by_hand(device, task);
  }
  void expect_all_alone() const {
    for (const Task &task : tasks)
      expect_alone(device, task);
  }

  Device device;
  std::vector<Task> tasks;
};

INSTANTIATE_TEST_SUITE_P(Manner, SeveralServices,
                         testing::ValuesIn(manners_of({"Front", "Background", "TitledBackground",
                                                       "AnewWithAWordInTheBackground"})),
                         label_of);

TEST_P(SeveralServices, KilledAtOnceAreAllBackSoon) {
  install(4);
  device.start_ready_daemon();
  start_all_by_hand();
  for (int count = 1; count <= 2; count++) {
    SCOPED_TRACE(count);
    const int64_t killed_ns = monotonic_ns();
    for (const Task &task : tasks)
      device.kill(task.pid, SIGKILL);
    for (Task &task : tasks)
      expect_start(device, task);
    EXPECT_LE(milliseconds_since(killed_ns), RETURN_LIMIT_MS.count() * patience());
    expect_all_alone();
  }
}

// Which of them have died is told by their words alone.
TEST_P(SeveralServices, ThoseThatDiedWithoutADaemonAreBroughtBackBesideTheOther) {
  install(3);
  device.start_ready_daemon();
  start_all_by_hand();
  device.kill_daemon();
  const auto two_are_dead = [&] {
    return !device.lives(tasks[0].pid) && !device.lives(tasks[1].pid);
  };
  for (size_t i = 0; i <= 1; i++)
    device.kill(tasks[i].pid, SIGKILL);
  ASSERT_TRUE(wait_until(two_are_dead, STORY_LIMIT_MS));
  device.start_ready_daemon();
  for (size_t i = 0; i <= 1; i++)
    expect_start(device, tasks[i]);
  expect_all_alone();
  device.kill_daemon();
  device.start_ready_daemon();
  expect_all_alone();
  for (Task &task : tasks)
    expect_back(device, task);
  expect_all_alone();
}

}  // namespace
