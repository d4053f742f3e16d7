// The main job: a registered program that ends comes back, and everything that is said about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/collector.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

// ---- ways to end ----------------------------------------------------------------------------

struct Ending {
  const char *label;
  std::vector<std::string> words;  // of the program
  int signal;                      // sent by the test; 0: the program is told to end itself
  unsigned int code;               // as messages print it
};

// Names the case; without it the test's name would show its bytes.
static void PrintTo(const Ending &row, std::ostream *out) {
  *out << row.label;
}

static const Ending failures[] = {
    {"Signal9", {}, SIGKILL, 0x0009},
    {"Signal10", {}, SIGUSR1, 0x000a},
    {"Status3", {"until-told", "exit=3"}, 0, 0x0300},
    {"Status255", {"until-told", "exit=255"}, 0, 0xff00},
    {"CoreDump", {"until-told", "abort", "core"}, 0, 0x0086},
};

static void end(Device &device, const Task &task, const Ending &ending) {
  if (ending.signal != 0) {
    device.kill(task.pid, ending.signal);
  } else {
    tell(device, task);
  }
}

class FailedProgram : public testing::TestWithParam<Ending> {};

TEST_P(FailedProgram, IsStartedAgainAndAnnounced) {
  if ((GetParam().code & 0x80) != 0 &&
      read_small_file("/proc/sys/kernel/core_pattern").starts_with("|"))
    GTEST_SKIP() << "cores go to a program, which may refuse them";
  Device device;
  Task task =
      start_task(device, std::string("fails") + GetParam().label, {.words = GetParam().words});
  const pid_t dead = task.pid;
  device.start_ready_daemon();
  end(device, task, GetParam());
  const Birth birth = next_birth(device, task);
  EXPECT_NE(birth.pid, dead);
  EXPECT_EQ(birth.argv, task.command);
  EXPECT_EQ(birth.ppid, device.daemon_pid());

  const std::string before = self_checking(task, dead, GetParam().code);
  const std::string after = self_check_ok(task, 1, birth.pid);
  need_event(device, RESTART_LOG, after);
  EXPECT_EQ(all_events(device),
            (Events{{RUN_LOG, {"TOV start.", spawned(task, birth.pid)}},
                    {RESTART_LOG,
                     {"%HA-5-HA_SELF_CHECK: " + before, "%HA-5-HA_SELF_CHECK_INFO " + after}}}));
  EXPECT_THAT(notice_texts(device),
              ElementsAre("%HA-5-HA_SELF_CHECK: " + before, "%HA-5-HA_SELF_CHECK_INFO: " + after));
  EXPECT_THAT(device.list("/tmp/vsd/0/tov/db"), IsEmpty()) << "the old registration stays";
  EXPECT_TRUE(device.lives(birth.pid));
}

INSTANTIATE_TEST_SUITE_P(Endings, FailedProgram, testing::ValuesIn(failures),
                         [](const auto &row) { return std::string(row.param.label); });

TEST(Restart, CleanExitIsAnnouncedAsANewBeginning) {
  Device device;
  Task task = start_task(device, "clean", {.words = {"until-told", "exit=0"}});
  const pid_t dead = task.pid;
  device.start_ready_daemon();
  tell(device, task);
  const Birth birth = next_birth(device, task);

  const std::string before = "Job " + named(task, dead) + " will be re-initialized ...";
  const std::string after = "Re-initialized OK: 1 times and new id " + named(task, birth.pid) + ".";
  need_event(device, RESTART_LOG, after);
  EXPECT_EQ(
      all_events(device),
      (Events{{RUN_LOG, {"TOV start.", spawned(task, birth.pid)}},
              {RESTART_LOG, {"%HA-5-HA_RE_INIT: " + before, "%HA-5-HA_RE_INIT_INFO " + after}}}));
  EXPECT_THAT(notice_texts(device),
              ElementsAre("%HA-5-HA_RE_INIT: " + before,
                          "%HA-5-HA_RE_INIT_INFO: Re-initialized OK: new job id: " +
                              std::to_string(birth.pid) + "."));
}

TEST(Restart, EndBySignal15IsADeliberateStop) {
  Device device;
  Task task = start_task(device, "stopped");
  Task bystander = start_task(device, "bystander_15");
  device.start_ready_daemon();
  device.kill(task.pid, SIGTERM);
  need_event(device, RUN_LOG, killed_by_15(task, task.pid, -1));
  EXPECT_TRUE(wait_until([&] { return !device.exists(task.file); }, STORY_LIMIT_MS));

  const pid_t dead = bystander.pid;
  const Birth back = kill_and_return(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_EQ(
      all_events(device),
      (Events{
          {RUN_LOG, {"TOV start.", killed_by_15(task, task.pid, -1), spawned(bystander, back.pid)}},
          {RESTART_LOG,
           {"%HA-5-HA_SELF_CHECK: " + self_checking(bystander, dead, 9),
            "%HA-5-HA_SELF_CHECK_INFO " + self_check_ok(bystander, 1, back.pid)}}}));
}

TEST(Restart, ActionsThatExpectTheExitStartNothing) {
  Device device;
  Task normal = start_task(device, "normal", {.action = NORMAL_EXIT});
  Task ignored = start_task(device, "ignored", {.action = IGNORE_EXIT});
  Task bystander = start_task(device, "bystander_i");
  device.start_ready_daemon();
  device.kill(normal.pid, SIGKILL);
  device.kill(ignored.pid, SIGKILL);
  pass_events(device, bystander);
  for (const Task &task : {normal, ignored}) {
    EXPECT_EQ(device.births(task.name).size(), 1U);
    EXPECT_TRUE(device.exists(task.file));
    EXPECT_EQ(count_texts(device, RESTART_LOG, task.name), 0U);
  }
}

TEST(Restart, UnregisteredProgramIsNotStartedAgain) {
  Device device;
  Task bystander = start_task(device, "bystander_s");
  Task stranger = start_task(device, "stranger", {.registered = false});
  device.start_ready_daemon();
  device.kill(stranger.pid, SIGKILL);
  pass_events(device, bystander);
  EXPECT_EQ(device.births(stranger.name).size(), 1U);
  EXPECT_EQ(device.count_events(RESTART_LOG, stranger.name), 0U);
}

// ---- counting -------------------------------------------------------------------------------

TEST(Restart, EveryRestartOfABurstIsCounted) {
  Device device;
  Task task = start_task(device, "counted");
  device.start_ready_daemon();
  for (int count = 1; count <= 4; count++) {
    const pid_t dead = task.pid;
    const Birth birth = kill_and_return(device, task);
    need_event(device, RESTART_LOG, self_checking(task, dead, 9));
    need_event(device, RESTART_LOG, self_check_ok(task, count, birth.pid));
  }
}

// ---- the new process ------------------------------------------------------------------------

TEST(NewProcess, FindsACleanPlaceToRun) {
  Device device;
  Task task = start_task(device, "placed", {.words = {"print=hello"}, .spawn = {.cwd = "/data"}});
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);

  EXPECT_EQ(birth.sid, birth.pid);
  EXPECT_EQ(birth.pgrp, birth.pid);
  EXPECT_EQ(birth.cwd, "/");
  EXPECT_EQ(birth.fds, (std::map<int, std::string>{
                           {0, "/dev/console"}, {1, "/dev/console"}, {2, "/dev/console"}}));
  EXPECT_TRUE(device.wait_console("hello\n"));
  EXPECT_EQ(birth.blocked, 0U);
  EXPECT_EQ(birth.ignored, 0U);
  EXPECT_EQ(birth.caught, 0U);
  EXPECT_EQ(birth.policy, SCHED_OTHER);
  EXPECT_EQ(birth.priority, 0);
  EXPECT_EQ(birth.nice, getpriority(PRIO_PROCESS, 0)) << "as the daemon, and so as the test";
  EXPECT_EQ(birth.nofile, 2304) << "the daemon's own limit";
  EXPECT_EQ(birth.env, (std::map<std::string, std::string>{})) << "variables of no device";
}

TEST(NewProcess, HasNoControllingTerminal) {
  Device device;
  Task task = start_task(device, "terminal");
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);
  const std::string stat = read_small_file("/proc/" + std::to_string(birth.pid) + "/stat");
  // Behind the name: state, parent, group, session, terminal.
  EXPECT_THAT(stat.substr(stat.rfind(')') + 2), MatchesRegex("[A-Z] [0-9]+ [0-9]+ [0-9]+ 0 .*"));
}

TEST(NewProcess, IsAnOrdinaryVictimOfTheMemoryKiller) {
  Device device;
  Task task = start_task(device, "oom");
  device.start_ready_daemon();
  // What the daemon itself is set to is inherited at the fork.
  const std::string daemon_adj = "/proc/" + std::to_string(device.daemon_pid()) + "/oom_score_adj";
  device.append(daemon_adj, "500");
  ASSERT_EQ(read_small_file(daemon_adj), "500\n");
  const Birth birth = kill_and_return(device, task);
  EXPECT_EQ(read_small_file("/proc/" + std::to_string(birth.pid) + "/oom_score_adj"), "0\n");
}

TEST(NewProcess, InheritsTheDaemonsEnvironmentAndNoDescriptor) {
  Device device({.env = {{"QXOS_DIR", "/somewhere"}}});
  Task task = start_task(device, "heir");
  device.start_ready_daemon();
  const Birth birth = kill_and_return(device, task);
  EXPECT_EQ(birth.env, (std::map<std::string, std::string>{{"QXOS_DIR", "/somewhere"}}));
  EXPECT_EQ(birth.fds.size(), 3U);
}

TEST(NewProcess, GetsAtMostFourteenWords) {
  Device device;
  Task task = start_task(device, "wordy", {.registered = false});
  task.command = task.program + "  b\tc d  e f g h i j k l m n o p ";
  task.file = device.register_file(0, task.pid, RESPAWN, task.command);
  device.start_ready_daemon();
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_EQ(birth.argv, task.program + " b c d e f g h i j k l m n");
}

TEST(NewProcess, ThatCannotBeExecutedDiesAsAnyOther) {
  Device device;
  Task task = start_task(device, "vanished");
  device.start_ready_daemon();
  ASSERT_TRUE(device.remove(task.program));
  device.kill(task.pid, SIGKILL);
  // Four tries, then the burst is over.
  need_event(device, RESTART_LOG, suspended(task, 5));
  EXPECT_EQ(device.count_events(RUN_LOG, "Tov execvp fail,error:No such file or directory."), 4U);
  EXPECT_EQ(device.count_events(RESTART_LOG, "receives event:0100 and self-checking"), 4U);
}

TEST(NewProcess, FlushesTheLowMemoryKiller) {
  static constexpr char SWITCH[] = "/sys/kernel/qx_lowmem_killer/flush_tlb";
  Device device;
  device.write(SWITCH, "0\n");
  Task task = start_task(device, "flusher");
  device.start_ready_daemon();
  EXPECT_EQ(device.read(SWITCH), "0\n");
  kill_and_return(device, task);
  EXPECT_EQ(device.read(SWITCH), "1\n");
}

// ---- registration files ---------------------------------------------------------------------

TEST(RegistrationFile, OfALivingProgramIsLeftUntouched) {
  Device device;
  Task task = start_task(device, "untouched", {.words = {"lock=2"}, .registered = false});
  const auto before = device.status(task.file);
  const std::string content = device.read(task.file);
  device.start_ready_daemon();
  const auto after = device.status(task.file);
  ASSERT_TRUE(before && after);
  EXPECT_EQ(after->st_ino, before->st_ino);
  EXPECT_EQ(after->st_mtim.tv_nsec, before->st_mtim.tv_nsec);
  EXPECT_EQ(device.read(task.file), content);
  EXPECT_EQ(device.births(task.name).size(), 1U);
}

TEST(RegistrationFile, OfTheDeadIsReplacedByThatOfTheNewProcess) {
  Device device;
  Task task = start_task(device, "replaced", {.words = {"lock=2"}, .registered = false});
  device.start_ready_daemon();
  const pid_t dead = task.pid;
  const Birth birth = kill_and_return(device, task);
  EXPECT_THAT(device.list("/tmp/vsd/0/tov/db"),
              ElementsAre(task.name + "." + std::to_string(birth.pid)));
  EXPECT_EQ(device.read(Device::register_path(0, birth.pid, task.command)),
            std::to_string(birth.pid) + "\n2\n" + task.command);
  EXPECT_FALSE(device.exists(Device::register_path(0, dead, task.command)));
}

TEST(RegistrationFile, OfAProgramThatDiedBeforeTheStartBringsItBack) {
  Device device;
  std::vector<Task> tasks;
  for (const int action : {RESPAWN, NORMAL_EXIT, IGNORE_EXIT})
    tasks.push_back(start_task(device, "early" + std::to_string(action),
                               {.action = action, .vsd = action == IGNORE_EXIT ? 15 : 0}));
  for (const Task &task : tasks) {
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(device.wait(task.pid, STORY_LIMIT_MS));
  }
  device.start_ready_daemon();
  for (Task &task : tasks) {
    next_birth(device, task);
    need_event(device, RUN_LOG, spawned(task, task.pid));
    EXPECT_FALSE(device.exists(task.file));
  }
  const auto run = event_texts(device, RUN_LOG);
  EXPECT_EQ(run.size(), 4U);
  EXPECT_EQ(run.back(), "TOV start.") << "the rebuild comes first";
  EXPECT_THAT(event_texts(device, RESTART_LOG), IsEmpty()) << "a rebuild announces nothing";
  EXPECT_THAT(device.notices(), IsEmpty());

  const Birth again = kill_and_return(device, tasks[0]);
  need_event(device, RESTART_LOG, self_check_ok(tasks[0], 2, again.pid));
}

// ---- by script ------------------------------------------------------------------------------

TEST(ScriptRestart, RunsTheStartScriptOfTheProgram) {
  Device device;
  Task task = start_task(device, "scripted", {.words = {"-d"}, .action = SHELL_RESTART});
  device.install_start_script(task.name, "exec " + task.program + " from script $0 \"$@\"\n");
  const pid_t dead = task.pid;
  device.start_ready_daemon();
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task);
  EXPECT_EQ(birth.argv, task.program + " from script /etc/cmdmap/" + task.name + ".sh start");
  EXPECT_EQ(birth.ppid, device.daemon_pid());

  const std::string before = self_checking(task, dead, 9);
  const std::string after = self_check_ok(task, 1, birth.pid);
  need_event(device, RESTART_LOG, after);
  EXPECT_EQ(all_events(device),
            (Events{{RUN_LOG,
                     {"TOV start.", "tov_shell_spawn--> tov_pid->process = " + task.command +
                                        ", new pid: " + std::to_string(birth.pid)}},
                    {RESTART_LOG,
                     {"%HA-5-HA_SCRIPT_SELF_CHECK: " + before,
                      "%HA-5-HA_SCRIPT_SELF_CHECK_INFO " + after}}}));
  EXPECT_THAT(notice_texts(device), ElementsAre("%HA-5-HA_SCRIPT_SELF_CHECK: " + before,
                                                "%HA-5-HA_SCRIPT_SELF_CHECK_INFO: " + after));
}

// ---- notices --------------------------------------------------------------------------------

TEST(Notices, DropProductWordsWhichTheEventLogKeeps) {
  Device device;
  Task task = start_task(device, "qx_filtered");
  device.start_ready_daemon();
  const pid_t dead = task.pid;
  kill_and_return(device, task);
  const std::string kept = self_checking(task, dead, 9);
  need_event(device, RESTART_LOG, kept);
  std::string filtered = kept;
  filtered.erase(filtered.find("qx_"), 3);
  EXPECT_EQ(notice_texts(device).at(0), "%HA-5-HA_SELF_CHECK: " + filtered);
}

TEST(Notices, AreUnfilteredOnTheProductThatAsksForIt) {
  Device device;
  device.write("/etc/tov/dorvik", "");
  Task task = start_task(device, "qx_unfiltered");
  device.start_ready_daemon();
  const pid_t dead = task.pid;
  kill_and_return(device, task);
  EXPECT_EQ(notice_texts(device).at(0), "%HA-5-HA_SELF_CHECK: " + self_checking(task, dead, 9));
}

TEST(Notices, TakeAProgramsNameForTextAndNotForAFormat) {
  Device device;
  Task task = start_task(device, "percent%n%s%d");
  device.start_ready_daemon();
  const pid_t dead = task.pid;
  const Birth birth = kill_and_return(device, task);
  EXPECT_THAT(notice_texts(device),
              ElementsAre("%HA-5-HA_SELF_CHECK: " + self_checking(task, dead, 9),
                          "%HA-5-HA_SELF_CHECK_INFO: " + self_check_ok(task, 1, birth.pid)));
}

TEST(Notices, ComeAtNoticeLevelFromTheDaemonFacility) {
  Device device;
  Task task = start_task(device, "levelled");
  device.start_ready_daemon();
  kill_and_return(device, task);
  for (const Notice &notice : device.notices())
    EXPECT_THAT(notice.text, HasSubstr("<29>"));  // facility daemon (3), level notice (5)
}

TEST(EventLog, StampsEachLineAndEndsItOnce) {
  Device device;
  Task task = start_task(device, "stamped");
  device.start_ready_daemon();
  kill_and_return(device, task);
  for (const char *log : {RUN_LOG, RESTART_LOG}) {
    for (const std::string &line : device.event_log(log))
      EXPECT_THAT(line, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{6} [0-9]{6} [^ ].*"));
    for (const std::string &file : device.list(EVENT_LOG_DIR)) {
      const std::string text = device.read(std::string(EVENT_LOG_DIR) + "/" + file);
      EXPECT_THAT(text, Not(HasSubstr("\r\r")));
      EXPECT_THAT(text, Not(HasSubstr("\n\r")));
      EXPECT_TRUE(text.empty() || text.ends_with("\r\n")) << file;
    }
  }
}
