// The private device itself: what it contains, and that nothing of it stays behind.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/processes.h"
#include "tests/support/root_builder.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Device;
using tov_test::Millis;
using tov_test::process_lives;
using tov_test::unique_name;
using tov_test::wait_until;

namespace fs = std::filesystem;

static constexpr Millis LIMIT_MS = tov_test::PATIENT_MS;

static std::vector<std::string> device_groups(pid_t keeper) {
  std::vector<std::string> found;
  for (const char *controller : {"memory", "cpu"}) {
    const std::string group =
        std::string("/sys/fs/cgroup/") + controller + "/tov_device_" + std::to_string(keeper);
    if (fs::exists(group)) found.push_back(group);
  }
  return found;
}

TEST(PrivateDevice, ShowsTheMachinesProgramsAndItsOwnEmptyTrees) {
  Device device({.data2 = true});
  EXPECT_TRUE(device.run({"sh", "-c", "ls /bin/true && pwd"}).exited_with(0));
  EXPECT_THAT(device.list("/sys"), IsEmpty());
  EXPECT_THAT(device.list("/etc/tov"), IsEmpty());
  EXPECT_THAT(device.list("/etc/cmdmap"), IsEmpty());
  EXPECT_THAT(device.list("/data2"), IsEmpty());
  const std::string mounts = device.run({"cat", "/proc/self/mounts"}).output;
  for (const char *mounted : {" /data ", " /data2 ", " /tmp ", " /sys ", " /proc ", " /dev/shm "})
    EXPECT_THAT(mounts, HasSubstr(mounted));
}

TEST(PrivateDevice, HasNoSecondDataTreeUnlessAsked) {
  Device device;
  EXPECT_FALSE(device.exists("/data2"));
}

TEST(PrivateDevice, FilesAreSeenFromBothSidesAndVanish) {
  const std::string name = "/etc/" + unique_name("vanishing");
  {
    Device device;
    device.write(name, "one\r\ntwo\n", 0640);
    EXPECT_EQ(device.run({"cat", name}).output, "one\r\ntwo\n");
    EXPECT_THAT(device.lines(name), ElementsAre("one", "two"));
    EXPECT_EQ(device.mode(name), 0640U);
    EXPECT_TRUE(device.run({"sh", "-c", "echo three >> " + name}).exited_with(0));
    EXPECT_THAT(device.lines(name), ElementsAre("one", "two", "three"));
    EXPECT_TRUE(fs::exists(device.path(name)));
  }
  EXPECT_FALSE(fs::exists(name));
}

TEST(PrivateDevice, AbsoluteLinksStayInside) {
  const std::string name = unique_name("linked");
  Device device;
  device.mkdir("/srv/" + name);
  device.symlink("/srv/" + name, "/tmp/link");
  device.write("/tmp/link/file", "text");
  EXPECT_EQ(device.read("/srv/" + name + "/file"), "text");
  EXPECT_FALSE(fs::exists("/srv/" + name));
  EXPECT_TRUE(device.remove("/tmp/link"));
  EXPECT_TRUE(device.exists("/srv/" + name + "/file")) << "a link is removed, not its target";
  EXPECT_TRUE(device.remove("/srv/" + name));
}

TEST(PrivateDevice, SysIsOpenForAnything) {
  Device device;
  device.write("/sys/kernel/qx_lowmem_killer/flush_tlb", "0\n");
  EXPECT_TRUE(
      device.run({"sh", "-c", "echo 1 > /sys/kernel/qx_lowmem_killer/flush_tlb"}).exited_with(0));
  EXPECT_EQ(device.read("/sys/kernel/qx_lowmem_killer/flush_tlb"), "1\n");
}

TEST(PrivateDevice, CollectsTheConsole) {
  Device device;
  EXPECT_TRUE(device.run({"sh", "-c", "test -t 0 < /dev/console && echo hello > /dev/console"})
                  .exited_with(0));
  EXPECT_TRUE(device.wait_console("hello\n", LIMIT_MS));
}

TEST(PrivateDevice, TakesMoreConsoleTextThanATerminalHolds) {
  Device device;
  const auto result =
      device.run({"sh", "-c", "yes 0123456789 | head -c 1000000 > /dev/console; echo end"});
  EXPECT_EQ(result.output, "end\n");
  EXPECT_TRUE(wait_until([&] { return device.console().size() == 1000000; }, LIMIT_MS));
}

TEST(PrivateDevice, ConsoleMayBeAFile) {
  Device device({.console = tov_test::Console::FILE});
  EXPECT_TRUE(device.run({"sh", "-c", "echo hello >> /dev/console"}).exited_with(0));
  EXPECT_EQ(device.console(), "hello\n");
}

TEST(PrivateDevice, CollectsTheSystemLogWithArrivalTimes) {
  Device device;
  const int64_t before_ms = tov_test::monotonic_ns() / 1'000'000;
  const int status = device.call_inside([] {
    openlog("tester", 0, LOG_DAEMON);
    for (int i = 0; i < 200; i++)
      syslog(LOG_CRIT, "%%HA-2-TEST: line %d", i);
    return 0;
  });
  ASSERT_EQ(status, 0);
  const auto last = device.wait_notice("%HA-2-TEST: line 199", LIMIT_MS);
  ASSERT_TRUE(last);
  EXPECT_GE(last->time_ms, before_ms);
  EXPECT_EQ(device.count_notices("tester: %HA-2-TEST: line "), 200U);
}

TEST(PrivateDevice, HasItsOwnSemaphoresAndSharedMemory) {
  Device device;
  EXPECT_TRUE(device.run({"sh", "-c", "ipcmk -S 3 && echo x > /dev/shm/object"}).exited_with(0));
  EXPECT_THAT(device.run({"ipcs", "-s"}).output, HasSubstr("0x"));
  EXPECT_THAT(Device().run({"ipcs", "-s"}).output, testing::Not(HasSubstr("0x")));
  EXPECT_FALSE(fs::exists("/dev/shm/object"));
}

TEST(PrivateDevice, ControlGroupsAreItsOwn) {
  Device first, second;
  if (!first.has_control_groups()) GTEST_SKIP() << "no version-1 memory and cpu hierarchies";
  const pid_t pid = first.spawn({"sleep", "1000"});
  first.mkdir("/memory/vsd_1");
  first.mkdir("/cpu/vsd_1/deeper");
  first.append("/memory/vsd_1/tasks", std::to_string(pid));
  first.append("/memory/vsd_1/memory.limit_in_bytes", "8192K");
  EXPECT_EQ(first.read("/memory/vsd_1/tasks"), std::to_string(pid) + "\n");
  EXPECT_EQ(first.read("/memory/vsd_1/memory.limit_in_bytes"), "8388608\n");
  EXPECT_FALSE(second.exists("/memory/vsd_1"));
  EXPECT_EQ(device_groups(first.keeper_pid()).size(), 2U);
  first.close();
  EXPECT_THAT(device_groups(first.keeper_pid()), IsEmpty());
  EXPECT_TRUE(second.exists("/memory/tasks"));
}

TEST(PrivateDevice, TwoDevicesDoNotSeeEachOthersFiles) {
  Device first, second;
  first.write("/tmp/only", "first");
  EXPECT_FALSE(second.exists("/tmp/only"));
  const pid_t pid = first.spawn({"sleep", "1000"});
  EXPECT_TRUE(first.lives(pid));
  EXPECT_FALSE(second.lives(pid));
  second.close();
  EXPECT_TRUE(first.lives(pid));
  EXPECT_EQ(first.read("/tmp/only"), "first");
}

TEST(PrivateDevice, ProcessWhoseFirstThreadEndedCountsAsAliveAndIsEnded) {
  Device device;
  const std::string name = unique_name("leaderless");
  const pid_t pid = device.spawn({device.install_program(name), "leader-exit"});
  ASSERT_TRUE(device.wait_birth(name));
  ASSERT_TRUE(wait_until([&] { return tov_test::process_state(pid) == 'Z'; }, LIMIT_MS));
  EXPECT_TRUE(device.lives(pid));
  device.close();
  EXPECT_FALSE(process_lives(pid));
}

TEST(PrivateDevice, ClosingEndsWhateverLivesInIt) {
  Device device;
  const std::string name = unique_name("stubborn");
  const std::string program = device.install_program(name);
  device.spawn({program, "daemonise", "child", "ignore=15", "ignore=1"});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_TRUE(wait_until([&] { return device.processes().size() == 2; }, LIMIT_MS));
  device.close();
  EXPECT_FALSE(process_lives(birth->pid));
  EXPECT_THAT(tov_test::processes_in(device.namespace_id()), IsEmpty());
  EXPECT_FALSE(process_lives(device.keeper_pid()));
}

TEST(PrivateDevice, BuriesOrphansAtOnce) {
  Device device;
  const std::string name = unique_name("orphan");
  const std::string program = device.install_program(name);
  const pid_t unburied = device.spawn({"true"});  // a child that was not waited for yet
  device.spawn({program, "daemonise"});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  device.kill(birth->pid, SIGKILL);
  EXPECT_TRUE(wait_until([&] { return tov_test::process_state(birth->pid) == 0; }, LIMIT_MS));
  EXPECT_EQ(device.wait(unburied, LIMIT_MS), 0);
}

TEST(PrivateDevice, RefusesToSignalOutsiders) {
  Device device;
  EXPECT_THROW(device.kill(1, SIGCONT), std::runtime_error);
  EXPECT_THROW(device.kill(getpid(), SIGCONT), std::runtime_error);
  EXPECT_THROW(device.kill(0, SIGCONT), std::runtime_error);
}

TEST(PrivateDevice, StartsNothingOnceClosed) {
  Device device;
  device.close();
  EXPECT_THROW(device.spawn({"true"}), std::runtime_error);
  EXPECT_FALSE(device.exists("/tmp"));
}

TEST(PrivateDevice, EventLogsAreReadInTheOrderOfTime) {
  Device device;
  const std::string base = "/qxos/vsd_common/tov/tov_run_event.log-2026111510";
  device.write(base + "2600-9",
               "2026-11-15 102600 000001 second\r\n2026-11-15 102601 000000 third\r\n");
  device.write(base + "2541-8", "2026-11-15 102541 004512 first\r\n");
  device.write("/qxos/vsd_common/tov/tov_error_event.log-1", "other\r\n");
  const auto lines = device.event_log("tov_run_event.log");
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], testing::EndsWith("first"));
  EXPECT_THAT(lines[2], testing::EndsWith("third"));
  EXPECT_TRUE(device.wait_event("tov_run_event.log", "second"));
  EXPECT_FALSE(device.wait_event("tov_run_event.log", "fourth", Millis(0)));
}

TEST(PrivateDevice, SanitizerReportFailsTheTest) {
  Device device;
  device.write("/run/sanitizer/report.1", "ERROR: something bad\n");
  EXPECT_NONFATAL_FAILURE(device.close(), "something bad");
}

TEST(PrivateDevice, EndsItsProcessesEvenWithoutKeeper) {
  Device device;
  const pid_t pid = device.spawn({"sleep", "1000"});
  kill(device.keeper_pid(), SIGKILL);
  EXPECT_NONFATAL_FAILURE(device.close(), "the keeper is gone; 0 processes left");
  EXPECT_FALSE(process_lives(pid));
}

// --- What stays behind when the test itself ends badly.

struct Held {
  pid_t keeper;
  pid_t victim;
  tov_test::NamespaceId where;
};

// The other test: opens a device, starts stubborn programs in it, reports and never ends.
[[noreturn]] static void hold_device(int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // also where the test itself is ended by its time limit
  signal(SIGINT, SIG_DFL);           // a test run in the background of a shell inherits it ignored
  Device device;
  const std::string name = unique_name("held");
  const std::string program = device.install_program(name);
  device.spawn({program, "daemonise", "child", "ignore=15"});
  const auto birth = device.wait_birth(name);
  if (device.has_control_groups()) {
    device.mkdir("/memory/vsd_2");
    device.append("/memory/vsd_2/tasks", std::to_string(birth->pid));
  }
  const Held held{device.keeper_pid(), birth->pid, device.namespace_id()};
  (void)!write(report, &held, sizeof held);
  for (;;)
    pause();
}

class InterruptedTest : public testing::TestWithParam<int> {};

TEST_P(InterruptedTest, LeavesNothingBehind) {
  const std::string mounts_before = tov_test::read_small_file("/proc/self/mountinfo");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t other = fork();
  if (other == 0) hold_device(ends[1]);
  Held held{};
  ASSERT_EQ(read(ends[0], &held, sizeof held), static_cast<ssize_t>(sizeof held));
  ASSERT_TRUE(process_lives(held.victim));
  ASSERT_TRUE(process_lives(held.keeper));
  ASSERT_GE(tov_test::processes_in(held.where).size(), 3U);

  ASSERT_EQ(kill(other, GetParam()), 0);
  int status = 0;
  ASSERT_EQ(waitpid(other, &status, 0), other);
  EXPECT_TRUE(WIFSIGNALED(status));
  // No parent is left that would wait for them in turn.
  EXPECT_TRUE(wait_until([&] { return !process_lives(held.keeper); }, LIMIT_MS));
  EXPECT_TRUE(wait_until([&] { return !process_lives(held.victim); }, LIMIT_MS));
  EXPECT_TRUE(wait_until([&] { return tov_test::processes_in(held.where).empty(); }, LIMIT_MS));
  EXPECT_TRUE(wait_until([&] { return device_groups(held.keeper).empty(); }, LIMIT_MS));
  EXPECT_EQ(tov_test::read_small_file("/proc/self/mountinfo"), mounts_before);
  close(ends[0]);
  close(ends[1]);
}

INSTANTIATE_TEST_SUITE_P(Signals, InterruptedTest, testing::Values(SIGKILL, SIGINT, SIGABRT),
                         [](const auto &row) { return std::string(sigabbrev_np(row.param)); });
