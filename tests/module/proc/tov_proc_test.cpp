// Starting a program again, seen from the daemon: what it is told, third-part programs, devices,
// scripts, forks that fail.
#include "proc/tov_proc.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/selfcheck/tov_signals.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/proc/spawning.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/priority.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::PlainConsole;
using tov_test::Program;
using tov_test::read_file;
using tov_test::refuse;
using tov_test::TemporaryFile;
using tov_test::write_file;

namespace {

class TovSpawn : public tov_test::Spawning {};
class TovSpawnFailure : public TovSpawn {};
class TovSpawnThirdPart : public TovSpawn {};
class TovSpawnDevice : public TovSpawn {};
class TovShellSpawn : public TovSpawn {};
class TovProcFork : public TovSpawn {};

void refuse_forks() {
  refuse({SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, EAGAIN);
}

// The first step of a start.
pid_t fork_task(tov_pid_t *record) {
  const tov_chains_guard_t held(tov_chains);
  return tov_proc_fork(held, record, 0, false);
}

}  // namespace

// ---- an ordinary program --------------------------------------------------------------------

TEST_F(TovSpawn, NewProcessIsToldInBothWays) {
  const Program program("told");
  tov_pid_t *record = add(GONE, program.path + " -a b");
  const pid_t result = tov_spawn(record, &res_);
  const Birth birth = program.birth();
  EXPECT_EQ(result, birth.pid);
  EXPECT_EQ(res_, birth.pid);
  EXPECT_EQ(birth.argv, program.path + " -a b");
  EXPECT_EQ(record->pid, GONE);  // the caller's matter
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_spawn--> tov_pid->process = " + program.path +
                          ", new pid: " + std::to_string(result)));
}

TEST_F(TovSpawn, SuspendedTaskIsNotStarted) {
  const Program program("suspended");
  tov_pid_t *record = add(GONE, program.path);
  for (int i = 1; i <= 4; i++) {
    EXPECT_GT(tov_spawn(record, &res_), 0) << i;
    program.birth(static_cast<size_t>(i));
  }
  EXPECT_EQ(tov_spawn(record, &res_), -1);
  EXPECT_EQ(res_, -1);
  EXPECT_EQ(record->alarm_wait_flag, 1);
  EXPECT_EQ(program.births().size(), 4u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), testing::SizeIs(4));

  const TemporaryFile marker(TOV_DEV_MON_FILE);
  EXPECT_GT(tov_spawn(record, &res_), 0);
  program.birth(5);
}

// ---- forks that fail ---------------------------------------------------------------------------

TEST_F(TovSpawnFailure, FailedForkIsRecordedAndTriedAgain) {
  const int64_t begun = tov_test::monotonic_ns();
  const tov_test::Child spawner([this] {
    if (fork() != 0) return;
    refuse_forks();
    tov_spawn(add(GONE, "/opt/a"), &res_);
    _exit(1);
  });
  ASSERT_TRUE(
      tov_test::wait_until([] { return read_file(TOV_FORK_FILE) == "aa"; }, tov_test::PATIENT_MS));
  EXPECT_GE(tov_test::monotonic_ns() - begun, int64_t{5'000} * 1'000'000);
  const auto lines = events(TOV_LOG_RUN_EVENT);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "tov_spawn--> tov_pid->process = /opt/a, new pid: -1");
  EXPECT_EQ(lines[1], "tov_spawn--> fork fail, err: Resource temporarily unavailable(11)");
  EXPECT_EQ(lines[2], lines[0]);
}

// ---- third-part programs --------------------------------------------------------------------

TEST_F(TovSpawnThirdPart, PlainProgramIsSupervisedItself) {
  const Program program("plain");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t result = tov_spawn(add(GONE, program.path), &res_);
  EXPECT_EQ(result, program.birth().pid);
  EXPECT_EQ(res_, result);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_spawn--> third part Normal[" + program.path +
                          "] new pid: " + std::to_string(result)));
}

TEST_F(TovSpawnThirdPart, ProgramThatForksItselfAwayIsFollowed) {
  const Program program("daemon");
  // The front is a script that puts the program in its own place: while the kernel executes a
  // program it shows no arguments, and a front of the same executable could be taken for it.
  const std::string moved = program.path + ".real";
  std::filesystem::rename(program.path, moved);
  write_file(program.path,
             "#!/bin/sh\nmv " + moved + " " + program.path + "\n" + program.path + " &\n");
  chmod(program.path.c_str(), 0755);
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t result = tov_spawn(add(GONE, program.path), &res_);
  const Birth daemon = program.birth();
  EXPECT_EQ(result, daemon.pid);
  EXPECT_EQ(res_, daemon.pid);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_spawn--> third part Daemon[" + program.path +
                          "] new pid: " + std::to_string(daemon.pid)));
}

TEST_F(TovSpawnThirdPart, ProgramThatIsNotFoundAgainGivesZero) {
  const Program program("vanished");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  std::filesystem::remove(program.path);  // the child ends before it is anything
  tov_test::note_sleeps(false);
  EXPECT_EQ(tov_spawn(add(GONE, program.path), &res_), 0);
  EXPECT_EQ(res_, -1);
  EXPECT_THAT(tov_test::fake_sleep.slept_us,
              ElementsAre(100'000, 200'000, 300'000, 400'000, 500'000, 600'000, 700'000, 800'000,
                          900'000, 1'000'000));
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("tov_spawn--> third part[" + program.path + "] Not Found new pid!"));
}

TEST_F(TovSpawnThirdPart, FailedForkStillFindsARunningInstance) {
  const Program program("running");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t running = tov_test::start(program.path);
  tov_test::in_child([&] {
    refuse_forks();
    EXPECT_EQ(tov_spawn(add(GONE, program.path), &res_), running);
    EXPECT_EQ(res_, running);
  });
  EXPECT_FALSE(exists(TOV_FORK_FILE));
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_spawn--> third part Daemon[" + program.path +
                          "] new pid: " + std::to_string(running)));
}

TEST_F(TovSpawnThirdPart, RecordKeepsItsCommandLine) {
  const Program program("blanks");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  tov_pid_t *record = add(GONE, program.path);
  tov_spawn(record, &res_);
  EXPECT_EQ(record->process, program.path);
}

// ---- devices --------------------------------------------------------------------------------

TEST_F(TovSpawnDevice, ProgramComesBackInsideItsDevice) {
  const Program program("inside");
  fs::create_directories("/data/var/run/vsd/3");
  write_file("/tmp/vsd/3/tov/5000000", "");  // of the dead instance
  const pid_t pid = tov_spawn(add(GONE, program.path, RESPAWN, 3), &res_);
  const Birth birth = program.birth();
  EXPECT_EQ(birth.cwd, "/data/var/run/vsd/3");
  EXPECT_EQ(birth.groups, "3300");
  EXPECT_EQ(birth.env.at("QX_CFG_DIR"), "/qx_cfg/vsd/3");
  EXPECT_EQ(birth.env.at("QXOS_DIR"), "/qxos/vsd/3");
  EXPECT_EQ(birth.env.at("DATA_QXOS_DIR"), "/data/.qxos/vsd/3");
  EXPECT_EQ(birth.env.at("TMPDIR"), "/tmp/vsd/3");
  EXPECT_EQ(birth.env.count("DATA_QXOS_DIR2"), 0u);
  EXPECT_FALSE(exists("/tmp/vsd/3/tov/5000000"));
  EXPECT_TRUE(exists("/tmp/vsd/3/tov/" + std::to_string(pid)));
  EXPECT_EQ(fs::current_path(), "/");
  EXPECT_STREQ(getenv("DATA_QXOS_DIR"), "/data/.qxos/vsd/0");  // the daemon's own stays
}

TEST_F(TovSpawnDevice, MarkerDecidesAndNotTheRecord) {
  const Program program("unmarked");
  fs::create_directories("/data/var/run/vsd/3");
  const pid_t pid = tov_spawn(add(GONE, program.path, RESPAWN, 3), &res_);
  const Birth birth = program.birth();
  EXPECT_EQ(birth.cwd, "/");
  EXPECT_NE(birth.groups, "3300");
  EXPECT_FALSE(exists("/tmp/vsd/3/tov/" + std::to_string(pid)));
}

TEST_F(TovSpawnDevice, DeviceWithoutItsRunDirectoryLeavesGroupsAndMarkers) {
  const Program program("half");
  tov_test::clear_path("/data/var/run/vsd/3");
  write_file("/tmp/vsd/3/tov/5000000", "");
  const pid_t pid = tov_spawn(add(GONE, program.path, RESPAWN, 3), &res_);
  const Birth birth = program.birth();
  EXPECT_EQ(birth.cwd, "/");
  EXPECT_NE(birth.groups, "3300");
  EXPECT_EQ(birth.env.at("TMPDIR"), "/tmp/vsd/3");
  EXPECT_TRUE(exists("/tmp/vsd/3/tov/5000000"));
  EXPECT_FALSE(exists("/tmp/vsd/3/tov/" + std::to_string(pid)));
}

// ---- scripts --------------------------------------------------------------------------------

namespace {

// A start script that hands its name and words to a victim.
std::string script_of(const Program &program) {
  return "exec " + program.path + " \"$0\" \"$@\"\n";
}

}  // namespace

TEST_F(TovShellSpawn, ScriptOfTheRegisteredPathIsRun) {
  const Program program("script");
  const TemporaryFile script("/etc/cmdmap/daemon.sh", script_of(program));
  tov_pid_t *record = add(GONE, "/usr/bin/other", SHELL_RESTART);
  (void)snprintf(record->pathname, sizeof record->pathname, "/opt/bin/daemon -x");
  const pid_t result = tov_shell_spawn(record, &res_);
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " /etc/cmdmap/daemon.sh start");
  EXPECT_EQ(result, birth.pid);
  EXPECT_EQ(res_, birth.pid);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_shell_spawn--> tov_pid->process = /usr/bin/other, new pid: " +
                          std::to_string(result)));
}

TEST_F(TovShellSpawn, WordWithoutASlashHasNoSuffix) {
  const Program program("bare");
  const TemporaryFile script("/etc/cmdmap/svc", script_of(program));
  const TemporaryFile other("/etc/cmdmap/svc.sh", "exit 3\n");
  tov_shell_spawn(add(GONE, "svc arg", SHELL_RESTART), &res_);
  EXPECT_EQ(program.birth().argv, program.path + " /etc/cmdmap/svc start");
}

TEST_F(TovShellSpawn, WithoutAPathTheCommandLineChooses) {
  const Program program("command");
  const TemporaryFile script("/etc/cmdmap/foo.sh", script_of(program));
  tov_shell_spawn(add(GONE, "/usr/sbin/foo -a /b", SHELL_RESTART), &res_);
  EXPECT_EQ(program.birth().argv, program.path + " /etc/cmdmap/foo.sh start");
}

TEST_F(TovShellSpawn, MissingScriptIsTheShellsFailure) {
  const pid_t pid = tov_shell_spawn(add(GONE, "/opt/none", SHELL_RESTART), &res_);
  EXPECT_GT(pid, 0);
  EXPECT_GT(status_of(pid), 0);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), testing::SizeIs(1));
}

TEST_F(TovShellSpawn, ChildStartsFromAnOrdinaryStateToo) {
  const Program program("state");
  const TemporaryFile script("/etc/cmdmap/state.sh", script_of(program));
  tov_pid_t *record = add(GONE, "/opt/state", SHELL_RESTART);
  std::thread worker([&] {
    tov_signals_block();
    EXPECT_EQ(tov_set_priority(TOV_RT_PRIORITY), 0);
    tov_shell_spawn(record, &res_);
  });
  worker.join();
  const Birth birth = program.birth();
  EXPECT_EQ(birth.sid, birth.pid);
  EXPECT_EQ(birth.blocked, 0u);
  EXPECT_EQ(birth.ignored, 0u);
  EXPECT_EQ(birth.policy, SCHED_OTHER);
  EXPECT_EQ(birth.cwd, "/");
}

TEST_F(TovShellSpawn, FailedExecutionHasItsOwnDiagnostic) {
  const PlainConsole console;
  tov_test::in_child([this] {
    refuse({SYS_execve}, ENOMEM);
    (void)diagnostics([&] {
      EXPECT_EQ(status_of(tov_shell_spawn(add(GONE, "/opt/foo", SHELL_RESTART), &res_)), 1);
    });
  });
  EXPECT_THAT(read_file(TOV_CONSOLE),
              HasSubstr("]HA_SCRIPT_RESTART execvp fail, error = Cannot allocate memory.\n"));
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              testing::Contains("Tov execvp fail,error:Cannot allocate memory."));
}

TEST_F(TovShellSpawn, FifthRestartSuspendsWithItsOwnTag) {
  tov_pid_t *record = add(GONE, "/opt/none", SHELL_RESTART);
  for (int i = 1; i <= 4; i++)
    EXPECT_GT(tov_shell_spawn(record, &res_), 0);
  EXPECT_EQ(tov_shell_spawn(record, &res_), -1);
  EXPECT_EQ(res_, -1);
  EXPECT_THAT(notices(), ElementsAre(HasSubstr("%HA-5-HA_WAIT_SCRIPT_SELF_CHECK: Task: none had")));
}

TEST_F(TovShellSpawn, ThirdPartSearchComparesTheWholeCommandLine) {
  const Program program("whole");
  const std::string command = program.path + " -a";
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh", "exec " + command + "\n");
  write_file(TOV_THIRD_PART_LIST, command + " TOV_SHELL_RESTART\n");
  const pid_t result = tov_shell_spawn(add(GONE, command, SHELL_RESTART), &res_);
  EXPECT_EQ(result, program.birth().pid);
  EXPECT_EQ(res_, result);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_shell_spawn--> third part Normal[" + command +
                          "] new pid: " + std::to_string(result)));
}

TEST_F(TovShellSpawn, DaemonOfAScriptIsFollowed) {
  const Program program("background");
  const std::string command = program.path + " -a";
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh", command + " &\nexit 0\n");
  write_file(TOV_THIRD_PART_LIST, command + " TOV_SHELL_RESTART\n");
  const pid_t result = tov_shell_spawn(add(GONE, command, SHELL_RESTART), &res_);
  const Birth daemon = program.birth();
  EXPECT_EQ(result, daemon.pid);
  EXPECT_NE(daemon.sid, daemon.pid);  // its session is that of the script, which has ended
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov_shell_spawn--> third part Daemon[" + command +
                          "] new pid: " + std::to_string(result)));
}

// ---- by the record's action -----------------------------------------------------------------

TEST_F(TovProcFork, ScriptForOneActionCommandLineForAllOthers) {
  const Program program("chosen");
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh", script_of(program));
  EXPECT_GT(fork_task(add(GONE, program.path, SHELL_RESTART)), 0);
  EXPECT_EQ(program.birth(1).argv, program.path + " /etc/cmdmap/" + program.name + ".sh start");
  EXPECT_GT(fork_task(add(GONE, program.path, RESPAWN)), 0);
  EXPECT_EQ(program.birth(2).argv, program.path);
  EXPECT_GT(fork_task(add(GONE, program.path, NORMAL_EXIT)), 0);
  EXPECT_EQ(program.birth(3).argv, program.path);
}

TEST_F(TovProcFork, ChildThatCannotGoToTheRootNeverComesBack) {
  tov_test::in_child([this] {
    refuse({SYS_chdir}, EIO);
    const pid_t self = getpid();
    const pid_t result = fork_task(add(GONE, "/bin/true"));
    if (getpid() != self) _exit(43);
    EXPECT_EQ(status_of(result), 1);
  });
  EXPECT_EQ(read_file(TOV_FORK_FILE), "a");
}
