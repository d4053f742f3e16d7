// Programs in the private device: victims that tell about themselves, and the daemon's start.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <string>

#include "tests/support/device.h"
#include "tests/support/processes.h"

using testing::HasSubstr;
using tov_test::Device;
using tov_test::Millis;
using tov_test::unique_name;

static constexpr Millis LIMIT_MS = tov_test::PATIENT_MS;

TEST(PrivateDevicePrograms, VictimTellsHowItWasStarted) {
  Device device;
  const std::string name = unique_name("teller");
  const std::string program = device.install_program(name);
  const int64_t before = tov_test::monotonic_ns();
  const pid_t pid =
      device.spawn({program, "some", "words"}, {.env = {{"TMPDIR", "/tmp/vsd/3"}, {"OTHER", "1"}},
                                                .cwd = "/data",
                                                .groups = {{3300}},
                                                .limits = {{RLIMIT_NOFILE, 77, 77}}});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_EQ(birth->pid, pid);
  EXPECT_EQ(birth->ppid, getpid());
  EXPECT_EQ(birth->sid, pid);
  EXPECT_GT(birth->main_ns, before);
  EXPECT_LT(birth->main_ns, tov_test::monotonic_ns());
  EXPECT_EQ(birth->argv, program + " some words");
  EXPECT_EQ(birth->cwd, "/data");
  EXPECT_EQ(birth->groups, "3300");
  EXPECT_EQ(birth->nofile, 77);
  EXPECT_EQ(birth->env, (std::map<std::string, std::string>{{"TMPDIR", "/tmp/vsd/3"}}));
  EXPECT_EQ(birth->fds.size(), 3U) << "an inherited descriptor";
  EXPECT_EQ(birth->fds.at(0), "/dev/null");
  EXPECT_EQ(birth->blocked | birth->ignored | birth->caught, 0U);
}

TEST(PrivateDevicePrograms, VictimDiesAsTold) {
  Device device;
  const std::string program = device.install_program(unique_name("dying"));
  EXPECT_TRUE(device.run({program, "exit=7"}).exited_with(7));
  const auto aborted = device.run({program, "abort"}, {.limits = {{RLIMIT_CORE, 0, 0}}});
  EXPECT_TRUE(WIFSIGNALED(aborted.status) && WTERMSIG(aborted.status) == SIGABRT);
  EXPECT_FALSE(WCOREDUMP(aborted.status));
  EXPECT_EQ(device.run({program, "print=hello", "exec=/bin/true"}).output, "hello\n");
}

TEST(PrivateDevicePrograms, VictimLeavesACoreWhereCoresAreFiles) {
  if (tov_test::read_small_file("/proc/sys/kernel/core_pattern").starts_with("|"))
    GTEST_SKIP() << "cores go to a program";
  Device device;
  const std::string program = device.install_program(unique_name("core"));
  EXPECT_TRUE(WCOREDUMP(device.run({program, "abort", "core"}).status));
}

TEST(PrivateDevicePrograms, VictimHoldsItsRegistrationFile) {
  Device device;
  const std::string name = unique_name("holder");
  const std::string program = device.install_program(name);
  const pid_t pid = device.spawn({program, "lock=2", "vsd=4"});
  ASSERT_TRUE(device.wait_birth(name));
  const std::string file = Device::register_path(4, pid, program);
  EXPECT_EQ(file, "/tmp/vsd/4/tov/db/" + name + "." + std::to_string(pid));
  EXPECT_EQ(device.read(file), std::to_string(pid) + "\n2\n" + program + " lock=2 vsd=4");
  const int fd = open(device.path(file).c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  EXPECT_EQ(fcntl(fd, F_SETLK, &lock), -1) << "the victim does not hold the lock";
  device.kill(pid, SIGKILL);
  EXPECT_TRUE(device.wait(pid, LIMIT_MS));
  EXPECT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  close(fd);
}

TEST(PrivateDevicePrograms, SaysWhyAProgramCannotBeStarted) {
  Device device;
  try {
    device.spawn({"/no/such/program"});
    FAIL() << "started";
  } catch (const std::runtime_error &failure) {
    EXPECT_THAT(failure.what(), HasSubstr("exec: No such file"));
  }
}

TEST(PrivateDevicePrograms, ForksFailBeyondTheProcessLimit) {
  Device device;
  const std::string name = unique_name("limited");
  const pid_t shell = device.spawn(
      {"sh", "-c", "while ! test -e /tmp/go; do :; done; sleep 0 && touch /tmp/forked"});
  if (!device.limit_processes(shell, 1)) GTEST_SKIP() << "no version-1 pids controller";
  device.write("/tmp/go", "");
  const auto status = device.wait(shell, LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_NE(*status, 0);
  EXPECT_FALSE(device.exists("/tmp/forked"));
}

// A shell stands for the daemon here: this is about how it is started and watched.
TEST(PrivateDevicePrograms, DaemonOutputAndStatusAreKnown) {
  Device device;
  const pid_t pid = device.start_daemon({.env = {{"WORD", "hello"}},
                                         .args = {"-c", "echo $WORD; read x; exit 9"},
                                         .program = "/bin/sh"});
  EXPECT_EQ(device.daemon_pid(), pid);
  EXPECT_TRUE(device.wait_output("hello\n"));
  EXPECT_FALSE(device.wait_daemon_ready(LIMIT_MS)) << "it has ended";
  const auto status = device.wait_daemon(LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_EQ(WEXITSTATUS(*status), 9);
  device.start_daemon({.args = {"-c", "echo again; exec sleep 1000"}, .program = "/bin/sh"});
  EXPECT_TRUE(device.wait_output("hello\nagain\n"));
  const auto killed = device.kill_daemon(SIGTERM);
  ASSERT_TRUE(killed);
  EXPECT_EQ(WTERMSIG(*killed), SIGTERM);
}

TEST(PrivateDevicePrograms, DaemonMayRunOnAScaledClock) {
  Device device;
  const int64_t before = tov_test::monotonic_ns();
  device.start_daemon(
      {.args = {"-c", "sleep 60; echo done"}, .faketime = "+0 x60", .program = "/bin/sh"});
  EXPECT_TRUE(device.wait_output("done", Millis(20'000)));
  EXPECT_GT(tov_test::monotonic_ns() - before, 900'000'000);
}

TEST(PrivateDevicePrograms, ScaledClockDoesNotReachVictims) {
  Device device;
  const std::string name = unique_name("clock");
  const std::string program = device.install_program(name);
  const int64_t before = tov_test::monotonic_ns();
  device.start_daemon(
      {.args = {"-c", "sleep 6; exec " + program}, .faketime = "+0 x60", .program = "/bin/sh"});
  const auto birth = device.wait_birth(name);
  ASSERT_TRUE(birth);
  EXPECT_GT(birth->main_ns, before);
  EXPECT_LT(birth->main_ns, tov_test::monotonic_ns());
}
