// The decision after the exit of a supervised process.
#include "core/policy/exit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#include <future>
#include <string>
#include <vector>

#include "core/policy/announce.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::Program;
using tov_test::TemporaryFile;
using tov_test::write_file;

static constexpr int KILLED = SIGKILL;
static constexpr int CLEAN = 0;

namespace {

using TovHandleExit = tov_test::NotesSleeps<tov_test::World>;

// Carries out a sweep's verdict about a record.
void decide_lost(tov_pid_t *record) {
  const tov_chains_guard_t held(tov_chains);
  tov_decide_lost_exit(held, record, 0);
}

}  // namespace

// ---- who is concerned -----------------------------------------------------------------------

TEST_F(TovHandleExit, UnregisteredProcessIsLeftAlone) {
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_THAT(notices(), IsEmpty());
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
}

TEST_F(TovHandleExit, LivingProcessIsLeftAlone) {
  const Program program("living");
  const pid_t pid = tov_test::start(program.path);
  tov_pid_t *record = add(pid, program.path);
  tov_handle_netlink_exit(pid, KILLED, 0);
  EXPECT_EQ(find(pid), record);
  EXPECT_EQ(record->exit_signal, 0);
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
}

TEST_F(TovHandleExit, OldestRecordOfTheProcessIsTheOneThatCounts) {
  const Program program("oldest");
  tov_pid_t *oldest = add(GONE, program.path);
  const tov_pid_t *newest = add(GONE, "/opt/other", NORMAL_EXIT);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(oldest->pid, program.birth().pid);
  EXPECT_EQ(newest->pid, GONE);
}

TEST_F(TovHandleExit, SuspendedTaskWaitsForItsAlarm) {
  tov_pid_t *record = add(GONE, "/opt/a");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_suspend(held, record, tov_get_time());
  }
  add(GONE + 1, "/opt/thread", RESPAWN, 0, tov_alive_chains)->ppid = GONE;
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(find(GONE), record);
  EXPECT_EQ(record->exit_signal, 0);
  EXPECT_EQ(count(tov_alive_chains), 1);  // not even that
}

TEST_F(TovHandleExit, ThreadRegistrationsOfTheProcessGo) {
  add(GONE, "/opt/a", NORMAL_EXIT);
  add(GONE + 1, "/opt/thread", RESPAWN, 0, tov_alive_chains)->ppid = GONE;
  add(GONE + 2, "/opt/thread", RESPAWN, 0, tov_alive_chains)->ppid = GONE;
  add(GONE + 3, "/opt/thread", RESPAWN, 0, tov_alive_chains)->ppid = GONE + 7;
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(count(tov_alive_chains), 1);
  EXPECT_NE(find(GONE + 3, tov_alive_chains), nullptr);
}

TEST_F(TovHandleExit, ExpectedAndIgnoredExitsChangeNothing) {
  for (const int action : {int{NORMAL_EXIT}, int{IGNORE_EXIT}, 0, 7}) {
    tov_pid_t *record = add(GONE + action, "/opt/a" + std::to_string(action), action);
    const std::string file = write_file_of(*record);
    tov_handle_netlink_exit(GONE + action, KILLED, 1);
    EXPECT_EQ(find(GONE + action), record);
    EXPECT_EQ(record->exit_signal, KILLED);
    EXPECT_EQ(record->force_restart, 1);
    EXPECT_TRUE(exists(file));
  }
  EXPECT_THAT(notices(), IsEmpty());
}

// ---- restart --------------------------------------------------------------------------------

TEST_F(TovHandleExit, CommandLineIsExecutedAgain) {
  const Program program("executed");
  tov_pid_t *record = add(GONE, program.path + " -a b");
  const std::string file = write_file_of(*record);
  tov_handle_netlink_exit(GONE, KILLED, 1);

  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " -a b");
  EXPECT_EQ(record->pid, birth.pid);
  EXPECT_EQ(find(birth.pid), record);  // in its new bucket
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(record->force_restart, 0);
  EXPECT_EQ(record->exit_signal, KILLED);
  EXPECT_EQ(record->count, 1);
}

TEST_F(TovHandleExit, AnnouncesBeforeAndAfter) {
  const Program program("announced");
  tov_pid_t *record = add(GONE, program.path + " -a");
  tov_handle_netlink_exit(GONE, KILLED, 0);
  // The name is what follows the last "/" of the whole command line.
  const std::string task = program.name + " -a";
  const std::string new_id = std::to_string(record->pid);
  EXPECT_THAT(notices(),
              ElementsAre("%HA-5-HA_SELF_CHECK: Task: " + task +
                              "/5000000 receives event:0009 and self-checking ...",
                          "%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 1 times and new id " + task +
                              "/" + new_id + "."));
  EXPECT_THAT(events(TOV_LOG_RESTART),
              ElementsAre("%HA-5-HA_SELF_CHECK: Task: " + task +
                              "/5000000 receives event:0009 and self-checking ...",
                          "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + task +
                              "/" + new_id + "."));
  EXPECT_THAT(
      events(TOV_LOG_RUN_EVENT),
      ElementsAre("tov_spawn--> tov_pid->process = " + program.path + ", new pid: " + new_id));
}

TEST_F(TovHandleExit, NameIsWhatFollowsTheLastSlashOfTheWholeCommandLine) {
  const Program program("slash");
  add(GONE, program.path + " -c /etc/x");
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_THAT(notices(), ElementsAre(HasSubstr("Task: x/5000000 receives"), HasSubstr("id x/")));
}

TEST_F(TovHandleExit, CleanExitIsAReinitialisation) {
  const Program program("clean");
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, CLEAN, 0);
  const std::string new_id = std::to_string(record->pid);
  EXPECT_EQ(program.birth().pid, record->pid);
  EXPECT_THAT(
      notices(),
      ElementsAre("%HA-5-HA_RE_INIT: Job " + program.name + "/5000000 will be re-initialized ...",
                  "%HA-5-HA_RE_INIT_INFO: Re-initialized OK: new job id: " + new_id + "."));
  EXPECT_THAT(
      events(TOV_LOG_RESTART),
      ElementsAre("%HA-5-HA_RE_INIT: Job " + program.name + "/5000000 will be re-initialized ...",
                  "%HA-5-HA_RE_INIT_INFO Re-initialized OK: 1 times and new id " + program.name +
                      "/" + new_id + "."));
}

TEST_F(TovHandleExit, ScriptIsRunAndAnnouncedAsOne) {
  const Program program("scripted");
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh",
                             "exec " + program.path + " \"$@\"\n");
  tov_pid_t *record = add(GONE, program.path + " -a", SHELL_RESTART);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " start");
  EXPECT_EQ(record->pid, birth.pid);
  EXPECT_THAT(notices(),
              ElementsAre(StartsWith("%HA-5-HA_SCRIPT_SELF_CHECK: Task: "),
                          StartsWith("%HA-5-HA_SCRIPT_SELF_CHECK_INFO: Self-checking ")));
}

TEST_F(TovHandleExit, RestartWaitsAsLongAsTheRecordSaysAndTheRegistryIsFree) {
  const Program program("waiting");
  add(GONE, program.path)->restart_time = 1;
  const int64_t begun = tov_test::monotonic_ns();
  auto handled = std::async(std::launch::async, [] { tov_handle_netlink_exit(GONE, KILLED, 0); });
  EXPECT_TRUE(
      tov_test::wait_until([] { return record_of(tov_chains, GONE).start.wait == TOV_WAIT_TIME; },
                           tov_test::PATIENT_MS));
  EXPECT_TRUE(program.births().empty());
  handled.wait();
  EXPECT_GE(tov_test::monotonic_ns() - begun, int64_t{1'000} * 1'000'000);
  EXPECT_NE(find(program.birth().pid), nullptr);
}

TEST_F(TovHandleExit, NewProcessIsOrdinaryForTheLowMemoryKiller) {
  const Program program("score");
  write_file("/proc/self/oom_score_adj", "500");  // stands in for the daemon's exemption
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(tov_test::read_file("/proc/" + std::to_string(record->pid) + "/oom_score_adj"), "0\n");
  write_file("/proc/self/oom_score_adj", "0");
}

TEST_F(TovHandleExit, RefusedStartLeavesTheRecordAndItsFile) {
  tov_pid_t *record = add(GONE, "/opt/a");
  record->count = 4;
  record->tm = tov_get_time();  // the fifth restart of a burst
  const std::string file = write_file_of(*record);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(find(GONE), record);
  EXPECT_EQ(record->alarm_wait_flag, 1);
  EXPECT_TRUE(exists(file));
  EXPECT_THAT(notices(), ElementsAre(StartsWith("%HA-5-HA_SELF_CHECK: "),
                                     StartsWith("%HA-5-HA_WAIT_SELF_CHECK: ")));
}

// ---- markers of the operators ---------------------------------------------------------------

TEST_F(TovHandleExit, MarkerMakesOneRestartSilent) {
  const Program program("silent");
  const TemporaryFile marker(TOV_DEV_MON_FILE), journal(TOV_DEBUG_LOG_FILE);
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(program.birth().pid, record->pid);
  EXPECT_THAT(notices(), IsEmpty());
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
  EXPECT_FALSE(marker.exists());

  tov_test::end_child(record->pid);
  tov_handle_netlink_exit(record->pid, KILLED, 0);
  EXPECT_THAT(notices(), testing::SizeIs(2));
  EXPECT_TRUE(exists(TOV_JOURNAL_1));
}

TEST_F(TovHandleExit, JournalHasTwoLinesForARestart) {
  const Program program("journalled");
  const TemporaryFile journal(TOV_DEBUG_LOG_FILE);
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  const std::string text = tov_test::read_file(TOV_JOURNAL_1);
  EXPECT_THAT(text, HasSubstr("%HA-5-HA_RESTART: Process:[" + program.name +
                              "/5000000] receives internal event:[0x0009] and restarts.\n"));
  EXPECT_THAT(text, HasSubstr("%HA-5-HA_RESTART_INFO: Process:" + program.name +
                              " restarts 1 times and new process is " + program.name + "/" +
                              std::to_string(record->pid) + ".\n"));
  EXPECT_EQ(tov_log_cnt, 1);
}

TEST_F(TovHandleExit, NoJournalWithoutItsMarker) {
  const Program program("unjournalled");
  add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
  EXPECT_EQ(tov_log_cnt, 0);
}

TEST_F(TovHandleExit, JournalThatCannotBeOpenedStopsTheRestart) {
  const Program program("stopped");
  const TemporaryFile journal(TOV_DEBUG_LOG_FILE);
  ASSERT_EQ(mkdir(TOV_JOURNAL_1, 0777), 0);
  tov_pid_t *record = add(GONE, program.path);
  const std::string file = write_file_of(*record);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(find(GONE), record);
  EXPECT_TRUE(exists(file));
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(notices(), testing::SizeIs(1));  // the announcement came first
}

// ---- verdict of the sweep -------------------------------------------------------------------

TEST_F(TovHandleExit, LostProcessIsRestartedAndTheStrangerUnderItsIdLives) {
  const Program program("lost"), stranger("stranger");
  const pid_t pid = tov_test::start(stranger.path);
  tov_pid_t *record = add(pid, program.path);
  decide_lost(record);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_NE(record->pid, pid);
  EXPECT_TRUE(tov_test::process_lives(pid));
  EXPECT_THAT(notices(),
              ElementsAre(StartsWith("%HA-5-HA_RE_INIT: "), StartsWith("%HA-5-HA_RE_INIT_INFO: ")));
}

TEST_F(TovHandleExit, LostProcessIsStillDeferredWhileItsFileIsLocked) {
  const Program program("holding");
  const pid_t pid = tov_test::start(program.path);
  tov_pid_t *record = add(pid, "/opt/" + program.name + " retitled");
  const auto holder = holder_of(write_file_of(*record));
  decide_lost(record);
  EXPECT_EQ(record->pid, pid);
  EXPECT_EQ(count(tov_chains_delay), 1);
}

TEST_F(TovHandleExit, LostProcessIsStillDroppedAsADuplicate) {
  const Program program("twin");
  const pid_t pid = tov_test::start(program.path);
  tov_pid_t *record = add(pid, "/opt/twin");
  const tov_pid_t *other = add(GONE + 1, "/opt/twin");
  decide_lost(record);
  EXPECT_EQ(find(pid), nullptr);
  EXPECT_EQ(find(GONE + 1), other);
}

TEST_F(TovHandleExit, VerdictConcernsItsOwnRecordAlone) {
  const Program program("healthy"), lost("lost");
  const pid_t pid = tov_test::start(program.path);
  program.birth();
  tov_pid_t *healthy = add(pid, program.path);  // the older one, which an exit event would take
  tov_pid_t *mistaken = add(pid, lost.path);
  decide_lost(mistaken);
  EXPECT_EQ(healthy->pid, pid);
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_EQ(mistaken->pid, lost.birth().pid);
}

TEST_F(TovHandleExit, VerdictThatDropsADuplicateLeavesOtherRecordsOfTheId) {
  const Program program("healthy");
  const pid_t pid = tov_test::start(program.path);
  const tov_pid_t *healthy = add(pid, program.path);
  tov_pid_t *mistaken = add(pid, "/opt/twin");
  add(GONE + 1, "/opt/twin");
  decide_lost(mistaken);
  EXPECT_EQ(find(pid), healthy);
  EXPECT_EQ(count(), 2);
}

TEST_F(TovHandleExit, RecordWithoutAProcessGoesAlone) {
  const Program program("started");
  tov_pid_t *record = add(GONE, program.path);
  record->flags = TOV_FLAG_STARTED;
  add(-1, program.path);  // its start failed, and it is dead
  const tov_pid_t *another = add(-1, "/opt/another");
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_EQ(find(-1), another);
  EXPECT_EQ(count(), 2);
}

TEST_F(TovHandleExit, MissesOfADeadProcessAreNotItsSuccessors) {
  const Program program("missed");
  tov_pid_t *record = add(GONE, program.path);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_missed(held, record);
  }
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_EQ(record->stat_check_cnt, 0);
}
