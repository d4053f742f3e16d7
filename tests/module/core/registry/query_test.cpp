// Questions to the registries: is another instance registered, is a process what it was.
#include "core/registry/query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"

using testing::HasSubstr;
using tov_test::GONE;
using tov_test::Program;

namespace {

class TovProcIsRunning : public tov_test::World {
 protected:
  static tov_pid_t *ask(tov_pid_t *record) {
    tov_chains_guard_t guard(tov_chains);
    return tov_proc_is_running(record);
  }
};

class TovCheckProcessAlive : public tov_test::World {};
class TovIsRegAliveInlock : public tov_test::World {};

}  // namespace

// ---- another instance -----------------------------------------------------------------------

TEST_F(TovProcIsRunning, NoOtherRecord) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  EXPECT_EQ(ask(record), nullptr);
}

TEST_F(TovProcIsRunning, OtherRecordWhenFlagsAreSet) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  tov_pid_t *other = add(GONE + 1, "/opt/a -x");
  record->flags = TOV_FLAG_STARTED;
  EXPECT_EQ(ask(record), other);
}

TEST_F(TovProcIsRunning, RecordItselfWhenItWasNeverStartedByUs) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  add(GONE + 1, "/opt/a -x");
  EXPECT_EQ(ask(record), record);
}

TEST_F(TovProcIsRunning, OtherDeviceIsNoInstance) {
  tov_pid_t *record = add(GONE, "/opt/a -x", RESPAWN, 1);
  add(GONE + 1, "/opt/a -x", RESPAWN, 2);
  EXPECT_EQ(ask(record), nullptr);
}

TEST_F(TovProcIsRunning, OtherArgumentsAreNoInstance) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  add(GONE + 1, "/opt/a -y");
  add(GONE + 2, "/opt/a");
  EXPECT_EQ(ask(record), nullptr);
}

TEST_F(TovProcIsRunning, SecondRecordOfTheSameProcessIsNoInstance) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  add(GONE, "/opt/a -x");
  EXPECT_EQ(ask(record), nullptr);
}

TEST_F(TovProcIsRunning, FirstInTheOrderOfTheBuckets) {
  tov_pid_t *record = add(GONE, "/opt/a");
  record->flags = TOV_FLAG_STARTED;
  const tov_pid_t *first = nullptr;
  for (int i = 1; i <= 8; i++) {
    const tov_pid_t *other = add(GONE + i, "/opt/a");
    if (first == nullptr || pidhash(other->pid) < pidhash(first->pid)) first = other;
  }
  EXPECT_EQ(ask(record), first);
}

TEST_F(TovProcIsRunning, ThreeLinesAreTold) {
  tov_pid_t *record = add(GONE, "/opt/a", RESPAWN, 3);
  add(GONE + 1, "/opt/a", RESPAWN, 3);
  const std::string said = diagnostics([&] { (void)ask(record); });
  EXPECT_THAT(said, HasSubstr("]ptov_pid pid 5000000 vsd 3 process /opt/a!\n"));
  EXPECT_THAT(said, HasSubstr("]tov_pid pid 5000001 vsd 3 process /opt/a!\n"));
  EXPECT_THAT(said, HasSubstr("]/opt/a is running!\n"));
}

// ---- still what was registered --------------------------------------------------------------

TEST_F(TovCheckProcessAlive, LivingProcessOfTheRegisteredCommandLine) {
  const Program program("same");
  const pid_t pid = tov_test::start(program.path + " -a b");
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path + " -a b")), 0);
}

TEST_F(TovCheckProcessAlive, DeadProcess) {
  EXPECT_EQ(tov_check_process_alive(add(GONE, "/opt/a")), -1);
}

TEST_F(TovCheckProcessAlive, IdsThatNameNoProcess) {
  EXPECT_EQ(tov_check_process_alive(add(0, "/opt/a")), -1);
  EXPECT_EQ(tov_check_process_alive(add(-1, "/opt/a")), -1);
}

TEST_F(TovCheckProcessAlive, ZombieIsNotAlive) {
  const Program program("zombie");
  const pid_t pid = tov_test::start(program.path + " exit=0");
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path + " exit=0")), -1);
}

TEST_F(TovCheckProcessAlive, OtherProgramUnderTheSameId) {
  const Program program("before"), other("after");
  const pid_t pid = tov_test::start(program.path + " exec=" + other.path);
  tov_pid_t *record = add(pid, program.path + " exec=" + other.path);
  other.birth();
  EXPECT_EQ(tov_check_process_alive(record), -1);
}

TEST_F(TovCheckProcessAlive, OtherArguments) {
  const Program program("arguments");
  const pid_t pid = tov_test::start(program.path + " -a");
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path + " -a -b")), -1);
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path)), -1);
}

// Records are made without trailing blanks; a process that was started with an empty last argument
// reads with one, and is the same process all the same.
TEST_F(TovCheckProcessAlive, EmptyLastArgumentIsNoDifference) {
  const Program program("blank");
  const pid_t pid = tov_test::start_program({program.path, "-a", ""});
  program.birth();
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path + " -a")), 0);
}

TEST_F(TovCheckProcessAlive, OnlyTheFirst511BytesAreCompared) {
  const Program program("long");
  std::string command = program.path + " ";
  command += std::string(520 - command.size(), 'x');
  const pid_t pid = tov_test::start(command);
  EXPECT_EQ(tov_check_process_alive(add(pid, command)), -1);
  EXPECT_EQ(tov_check_process_alive(add(pid, command.substr(0, 511))), 0);
}

TEST_F(TovCheckProcessAlive, ProcessThatJoinedAnotherDevice) {
  const Program program("device");
  const pid_t pid = tov_test::start_program({program.path}, {{3200}});
  program.birth();
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path, RESPAWN, 2)), 0);
  EXPECT_EQ(tov_check_process_alive(add(pid, program.path, RESPAWN, 0)), -1);
}

// ---- thread registrations -------------------------------------------------------------------

TEST_F(TovIsRegAliveInlock, OnlyTheThreadsOfTheRegistry) {
  add(GONE, "/opt/a", RESPAWN, 0, tov_alive_chains);
  add(GONE + 1, "/opt/a");
  tov_chains_guard_t guard(tov_alive_chains);
  EXPECT_TRUE(tov_is_reg_alive_inlock(GONE));
  EXPECT_FALSE(tov_is_reg_alive_inlock(GONE + 1));
  EXPECT_THAT(diagnostics([] { (void)tov_is_reg_alive_inlock(GONE + 1); }),
              HasSubstr("]pid:5000001 not reg alive!\n"));
}
