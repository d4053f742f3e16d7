// Many registered programs that dump core within a short time: the unit is reloaded, which here
// means that the self-healing program is run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::EndsWith;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

class MassCrash : public testing::Test {
 protected:
  void SetUp() override {
    if (read_small_file("/proc/sys/kernel/core_pattern").starts_with("|"))
      GTEST_SKIP() << "cores go to a program, which may refuse them";
    install_healer(device);
  }

  std::vector<Task> start_tasks(const std::string &prefix, size_t count) {
    std::vector<Task> tasks;
    for (size_t i = 0; i < count; i++)
      tasks.push_back(start_task(device, prefix + std::to_string(i) + "_",
                                 {.words = {"until-told", "abort", "core"}}));
    return tasks;
  }

  // One core dump, and the restart behind it: the rule has been applied when it comes.
  void dump_core(Task &task) {
    tell(device, task);
    next_birth(device, task);
    need_event(device, RESTART_LOG, "new id " + named(task, task.pid));
  }

  size_t detected() const { return device.count_events(RUN_LOG, "tov detect more than"); }

  Device device;
};

static std::string detection(int threshold, int span_s) {
  return "tov detect more than " + std::to_string(threshold) + " process exit in shorttime[" +
         std::to_string(span_s) + "]s";
}

// Words of a blank-separated list.
static std::vector<std::string> commands_in(const std::string &list, const std::string &word) {
  std::vector<std::string> commands;
  size_t begin = 0;
  for (size_t at = list.find(word); at != std::string::npos; at = list.find(word, at + 1)) {
    if (at > begin) commands.push_back(list.substr(begin, at - 1 - begin));
    begin = at;
  }
  if (begin < list.size()) commands.push_back(list.substr(begin));
  return commands;
}

TEST_F(MassCrash, OfAsManyAsConfiguredAsksForAReload) {
  device.write("/etc/tov_config", "60 3\n");
  auto tasks = start_tasks("m", 3);
  device.start_ready_daemon();
  dump_core(tasks[0]);
  dump_core(tasks[1]);
  EXPECT_EQ(detected(), 0U);
  EXPECT_FALSE(device.exists(ASKED_FILE));
  dump_core(tasks[2]);

  // The reason's list has each command and a blank behind it; the final line end is cut.
  std::string request = asked(device);
  const std::string begin = "<3><0><tov><" + detection(3, 60) + "\n, ";
  ASSERT_THAT(request, StartsWith(begin));
  ASSERT_THAT(request, EndsWith(" >"));
  request = request.substr(begin.size(), request.size() - begin.size() - 2);
  EXPECT_THAT(commands_in(request, "/opt/"),
              UnorderedElementsAreArray({tasks[0].command, tasks[1].command, tasks[2].command}));

  EXPECT_EQ(device.count_events(RUN_LOG, detection(3, 60) + ", system reboot."), 1U);
  EXPECT_TRUE(
      device.wait_notice("self-healing action 3, process 0, asked by tov: " + detection(3, 60)));
  EXPECT_EQ(device.births(tasks[2].name).size(), 2U) << "the exit itself is handled as usual";
}

TEST_F(MassCrash, NeedsTenByDefaultAndCountsEachProgramOnce) {
  auto tasks = start_tasks("default_rule", 10);
  device.start_ready_daemon();
  for (size_t i = 0; i < 9; i++)
    dump_core(tasks[i]);
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 0U);
  dump_core(tasks[9]);
  const std::string request = asked(device);
  EXPECT_THAT(request, StartsWith("<3><0><tov><" + detection(10, 900) + "\n, /opt/"));
  EXPECT_EQ(request.size(), std::string("<3><0><tov><>").size() + 199) << "the reason's room";
  EXPECT_EQ(detected(), 1U);
}

TEST_F(MassCrash, FallsBackToTheDefaultsWhereOneNumberIsMissing) {
  device.write("/etc/tov_config", "1\n");
  auto tasks = start_tasks("one_number", 2);
  device.start_ready_daemon();
  for (Task &task : tasks)
    dump_core(task);
  EXPECT_EQ(detected(), 0U);
  device.write("/etc/tov_config", "60 2");
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 1U) << "the file is read at each crash";
}

TEST_F(MassCrash, IsForgottenAfterTheSpan) {
  device.write("/etc/tov_config", "60 2");
  auto tasks = start_tasks("forgotten", 2);
  device.start_ready_daemon({.faketime = "+0 x20"});
  dump_core(tasks[0]);
  // 60 full seconds by the daemon's clock, and two for its rounding.
  std::this_thread::sleep_for(Millis(3'100));
  int64_t latest_ns = monotonic_ns();
  dump_core(tasks[1]);
  EXPECT_EQ(detected(), 0U);
  // On a busy machine the next one may be as late itself; then the one after it counts.
  static constexpr int64_t SPAN_NS = 3'000'000'000;
  int64_t between_ns = SPAN_NS;
  for (size_t next = 0; detected() == 0 && between_ns >= SPAN_NS; next = 1 - next) {
    const int64_t previous_ns = std::exchange(latest_ns, monotonic_ns());
    dump_core(tasks[next]);
    between_ns = monotonic_ns() - previous_ns;
  }
  EXPECT_EQ(detected(), 1U);
}

TEST_F(MassCrash, IsNotMadeOfOtherEndings) {
  device.write("/etc/tov_config", "60 1");
  Task task = start_task(device, "no_core");
  auto crashing = start_tasks("with_core", 1);
  device.start_ready_daemon();
  kill_and_return(device, task);
  EXPECT_EQ(detected(), 0U);
  dump_core(crashing[0]);
  EXPECT_EQ(detected(), 1U);
  kill_and_return(device, task);
  EXPECT_EQ(detected(), 1U) << "the rule asks only when a core was dumped";
}

TEST_F(MassCrash, AsksForNoReloadWhereNoneIsWanted) {
  device.write("/etc/tov_config", "60 1");
  device.write("/tov_no_reboot", "");
  auto tasks = start_tasks("unwanted", 1);
  device.start_ready_daemon();
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 0U);
  ASSERT_TRUE(device.remove("/tov_no_reboot"));
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 1U);
}

TEST_F(MassCrash, AsksForNoReloadWhileTheMemoryKillerForbidsIt) {
  static constexpr char STATUS[] = "/sys/kernel/qx_lowmem_killer/lmk_reboot_status";
  device.write("/etc/tov_config", "60 1");
  device.write(STATUS, "0\n");
  auto tasks = start_tasks("forbidden", 1);
  device.start_ready_daemon();
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 0U);
  device.write(STATUS, "1\n");
  dump_core(tasks[0]);
  EXPECT_EQ(detected(), 1U);
  EXPECT_THAT(asked(device), StartsWith("<3><0><tov><" + detection(1, 60)));
}

TEST_F(MassCrash, OnAMachineWithoutAHealerIsOnlyLogged) {
  device.remove("/etc/tov/selfhealing");
  device.write("/etc/tov_config", "60 1");
  auto tasks = start_tasks("unhealed", 1);
  device.start_ready_daemon();
  dump_core(tasks[0]);
  EXPECT_TRUE(device.wait_notice("self-healing action 3"));
  EXPECT_TRUE(device.lives(device.daemon_pid()));
  dump_core(tasks[0]);
}
