// The daemon's signals: dispositions, reaping, and the alarm that ends suspensions.
#include "proc/selfcheck/tov_signals.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/tov_proc.h"
#include "tests/module/program.h"
#include "tests/module/seconds_ago.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::Program;
using tov_test::TemporaryFile;

static constexpr char DORVIK_MARKER[] = "/etc/tov/dorvik";
static constexpr int PERIOD_S = 300;

#ifdef TOV_SANITIZE_THREAD
// The alarm's handler does what no handler may do in general; it is let in only where the thread
// that it interrupts holds nothing (tov_signals.h), which this remark cannot know.
extern "C" const char *__tsan_default_options() {
  return "report_signal_unsafe=0";
}
#endif

namespace {

class TovSetupSignals : public tov_test::World {};
class TovChldHandler : public tov_test::World {
 protected:
  static void end_some_children(int count) {
    for (int i = 0; i < count; i++) {
      const pid_t child = fork();
      if (child == 0) _exit(i);
      siginfo_t ended{};
      waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    }
  }
  static bool has_children() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }
};

class TovAlrmHandler : public tov_test::World {
 protected:
  // A task that was suspended the given number of seconds ago.
  static tov_pid_t *suspended(pid_t pid, const std::string &process, time_t ago_s,
                              int action = RESPAWN) {
    tov_pid_t *record = add(pid, process, action);
    record->flags = TOV_FLAG_SELF_CHECK;
    record->alarm_wait_flag = 1;
    record->count = 5;
    record->tm = tov_test::seconds_ago(ago_s);
    record->first_tm = record->tm - 60;
    return record;
  }

  // Calls the handler for what `suspend` suspends, both in the first moments of one second of the
  // clock. An attempt that took longer, on a machine that stalled, is cleared away and made again.
  // Returns what is left of the alarm that was set, which the kernel rounds to whole seconds.
  static unsigned int alarm_within_a_second(const std::function<void()> &suspend) {
    static constexpr int64_t FIRST_MOMENTS_NS = 400'000'000;
    for (;;) {
      const time_t before = tov_get_time();
      tov_test::wait_until([before] { return tov_get_time() != before; }, tov_test::Millis(2000));
      const time_t now = tov_get_time();
      const int64_t begun_ns = tov_test::monotonic_ns();
      suspend();
      tov_alrm_handler(SIGALRM);
      const unsigned int left_s = alarm(0);
      const bool in_time = tov_test::monotonic_ns() - begun_ns < FIRST_MOMENTS_NS;
      if (in_time && tov_get_time() == now) return left_s;
      tov_destroy_chains(&tov_chains);
      tov_test::end_children();
    }
  }
};

}  // namespace

// ---- dispositions ---------------------------------------------------------------------------

TEST_F(TovSetupSignals, EverythingIsIgnoredButThree) {
  tov_test::in_child([] {
    signal(SIGINT, SIG_IGN);
    tov_setup_signals();
    for (int number = 1; number <= 64; number++) {
      struct sigaction action {};
      if (sigaction(number, nullptr, &action) < 0) continue;  // the C library's own
      if (number == SIGKILL || number == SIGSTOP) continue;
      void (*expected)(int) = number == SIGINT    ? SIG_DFL
                              : number == SIGALRM ? tov_alrm_handler
                              : number == SIGCHLD ? tov_chld_handler
                                                  : SIG_IGN;
      EXPECT_EQ(action.sa_handler, expected) << number;
      EXPECT_NE(action.sa_flags & SA_RESTART, 0) << number;
#ifndef TOV_SANITIZE_THREAD  // its own handlers stand before ours and block everything
      for (int masked = 1; masked <= 64; masked++)
        EXPECT_NE(sigismember(&action.sa_mask, masked), 1) << number << " blocks " << masked;
#endif
    }
  });
}

TEST_F(TovSetupSignals, AlarmAndChildrenAreBlockedAndUnblockedTogether) {
  const auto blocked = [](int number) {
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, number) == 1;
  };
  tov_signals_block();
  EXPECT_TRUE(blocked(SIGALRM));
  EXPECT_TRUE(blocked(SIGCHLD));
  EXPECT_FALSE(blocked(SIGTERM));
  tov_signals_unblock();
  EXPECT_FALSE(blocked(SIGALRM));
  EXPECT_FALSE(blocked(SIGCHLD));
}

// ---- reaping --------------------------------------------------------------------------------

TEST_F(TovChldHandler, EveryChildThatEndedIsReaped) {
  end_some_children(5);
  tov_chld_handler(SIGCHLD);
  EXPECT_FALSE(has_children());
}

TEST_F(TovChldHandler, OldErrorNumberNeitherEndsNorProlongsTheLoop) {
  for (const int old : {ECHILD, EINTR, ENOMEM, 0}) {
    end_some_children(3);
    errno = old;
    tov_chld_handler(SIGCHLD);
    EXPECT_EQ(errno, old);  // kept for whom it interrupted
    EXPECT_FALSE(has_children()) << old;
    errno = old;
    tov_chld_handler(SIGCHLD);  // no child is left
    EXPECT_EQ(errno, old);
  }
}

TEST_F(TovChldHandler, LivingChildrenAreLeft) {
  const tov_test::Child living([] {});
  end_some_children(2);
  tov_chld_handler(SIGCHLD);
  EXPECT_TRUE(tov_test::process_lives(living.pid()));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0);
}

TEST_F(TovChldHandler, OneSignalMayStandForSeveralChildren) {
  tov_test::in_child([] {
    tov_setup_signals();
    tov_signals_block();
    end_some_children(4);
    tov_signals_unblock();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  });
}

// ---- no task is suspended -------------------------------------------------------------------

TEST_F(TovAlrmHandler, NoSuspendedTaskNoAlarm) {
  tov_pid_t *record = add(GONE, "/opt/a");
  record->flags = TOV_FLAG_STARTED;
  errno = EDOM;
  tov_alrm_handler(SIGALRM);
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(alarm(0), 0u);
  EXPECT_EQ(record->flags, TOV_FLAG_STARTED);
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovAlrmHandler, OtherActionsNeitherStartNorArm) {
  for (const int action : {int{NORMAL_EXIT}, int{IGNORE_EXIT}}) {
    suspended(GONE + action, "/opt/a" + std::to_string(action), 10, action);
    suspended(GONE + 10 + action, "/opt/b" + std::to_string(action), PERIOD_S + 10, action);
  }
  tov_alrm_handler(SIGALRM);
  EXPECT_EQ(alarm(0), 0u);
  EXPECT_EQ(count(), 4);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), IsEmpty());
}

// ---- the end of a suspension ----------------------------------------------------------------

TEST_F(TovAlrmHandler, TaskWhoseTimeIsOverIsStarted) {
  const Program program("over");
  tov_pid_t *record = suspended(GONE, program.path + " -a", PERIOD_S + 2);
  const std::string file = write_file_of(*record);
  const time_t before = tov_get_time();
  tov_alrm_handler(SIGALRM);

  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " -a");
  EXPECT_EQ(record->pid, birth.pid);
  EXPECT_EQ(find(birth.pid), record);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(record->flags, TOV_FLAG_STARTED);
  EXPECT_EQ(record->alarm_wait_flag, 0);
  EXPECT_EQ(record->count, 1);  // a new burst
  EXPECT_GE(record->tm, before);
  EXPECT_GE(record->first_tm, before);
  EXPECT_EQ(alarm(0), 0u);
}

TEST_F(TovAlrmHandler, ItIsAnnouncedInThreeWays) {
  const Program program("announced");
  tov_pid_t *record = suspended(GONE, program.path, PERIOD_S + 2);
  record->exit_signal = 0;  // not even a clean exit makes it a re-initialisation
  const std::string said = diagnostics([] { tov_alrm_handler(SIGALRM); });
  const std::string text = "Self-checking OK: 1 times and new id " + program.name + "/" +
                           std::to_string(program.birth().pid) + ".";
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_SELF_CHECK_INFO: " + text));
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre("%HA-5-HA_SELF_CHECK_INFO " + text));
  EXPECT_THAT(said, HasSubstr("]HA_SELF_CHECK_INFO " + text + "\n"));
}

TEST_F(TovAlrmHandler, ScriptTaskHasItsOwnTag) {
  const Program program("script");
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh",
                             "exec " + program.path + " \"$@\"\n");
  suspended(GONE, program.path, PERIOD_S + 2, SHELL_RESTART);
  const std::string said = diagnostics([] { tov_alrm_handler(SIGALRM); });
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " start");
  const std::string text = "Self-checking OK: 1 times and new id " + program.name + "/" +
                           std::to_string(birth.pid) + ".";
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_SCRIPT_SELF_CHECK_INFO: " + text));
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre("%HA-5-HA_SCRIPT_SELF_CHECK_INFO " + text));
  EXPECT_THAT(said, HasSubstr("]HA_SCRIPT_SELF_CHECK_INFO " + text + "\n"));
}

TEST_F(TovAlrmHandler, ProductLineReadsTheSame) {
  const Program program("product");
  const TemporaryFile marker(DORVIK_MARKER);
  suspended(GONE, program.path, PERIOD_S + 2);
  tov_alrm_handler(SIGALRM);
  EXPECT_THAT(notices(),
              ElementsAre("%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 1 times and new "
                          "id " +
                          program.name + "/" + std::to_string(program.birth().pid) + "."));
}

TEST_F(TovAlrmHandler, OperatorsMarkersAreNotItsMatter) {
  const Program program("markers");
  const TemporaryFile silent(TOV_DEV_MON_FILE), journal(TOV_DEBUG_LOG_FILE);
  suspended(GONE, program.path, PERIOD_S + 2);
  tov_alrm_handler(SIGALRM);
  program.birth();
  EXPECT_THAT(notices(), testing::SizeIs(1));
  EXPECT_TRUE(silent.exists());
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
}

TEST_F(TovAlrmHandler, NewProcessIsOrdinaryForTheLowMemoryKiller) {
  const Program program("score");
  suspended(GONE, program.path, PERIOD_S + 2);
  tov_test::write_file("/proc/self/oom_score_adj", "500");
  tov_alrm_handler(SIGALRM);
  tov_test::write_file("/proc/self/oom_score_adj", "0");
  const pid_t pid = program.birth().pid;
  EXPECT_EQ(tov_test::read_file("/proc/" + std::to_string(pid) + "/oom_score_adj"), "0\n");
}

// ---- deadlines ------------------------------------------------------------------------------

TEST_F(TovAlrmHandler, InTheVerySecondOfItsDeadlineATaskStillWaits) {
  std::optional<Program> program;
  const unsigned int left_s = alarm_within_a_second([&] {
    program.emplace("second");
    suspended(GONE, program->path, PERIOD_S);
  });
  EXPECT_EQ(left_s, 1u);
  EXPECT_EQ(find(GONE)->flags, TOV_FLAG_SELF_CHECK);
  EXPECT_THAT(program->births(), IsEmpty());
}

TEST_F(TovAlrmHandler, AlarmIsForTheLatestDeadline) {
  const unsigned int left_s = alarm_within_a_second([] {
    suspended(GONE, "/opt/a", PERIOD_S - 10);
    suspended(GONE + 1, "/opt/b", PERIOD_S - 100);
    suspended(GONE + 2, "/opt/c", PERIOD_S - 50, SHELL_RESTART);
  });
  EXPECT_EQ(left_s, 100u);
}

TEST_F(TovAlrmHandler, EarlierTaskIsStartedTogetherWithTheLatest) {
  const Program first("first"), second("second");
  // Suspended 90 s apart; the alarm came for the second one.
  suspended(GONE, first.path, PERIOD_S + 91);
  suspended(GONE + 1, second.path, PERIOD_S + 1);
  tov_alrm_handler(SIGALRM);
  first.birth();
  second.birth();
  EXPECT_EQ(alarm(0), 0u);
}

TEST_F(TovAlrmHandler, StartOfOneDoesNotForgetTheOthers) {
  const Program program("one");
  const unsigned int left_s = alarm_within_a_second([&] {
    suspended(GONE, program.path, PERIOD_S + 5);
    suspended(GONE + 1, "/opt/b", PERIOD_S - 20);
  });
  EXPECT_EQ(left_s, 20u);
  program.birth();
  EXPECT_EQ(find(GONE + 1)->flags, TOV_FLAG_SELF_CHECK);
}

TEST_F(TovAlrmHandler, PeriodIsReadAnewInEachRun) {
  const Program program("period");
  const TemporaryFile period(TOV_DEBUG_TIME_FILE, "60");
  suspended(GONE, program.path, 62);
  tov_alrm_handler(SIGALRM);
  program.birth();
}

TEST_F(TovAlrmHandler, PeriodThatCannotBeReadIsTold) {
  std::filesystem::create_directory(TOV_DEBUG_TIME_FILE);
  EXPECT_THAT(diagnostics([] { tov_alrm_handler(SIGALRM); }),
              HasSubstr("]tov_alrm_handler: get disable time fail: Is a directory\n"));
}

// ---- duplicates -----------------------------------------------------------------------------

TEST_F(TovAlrmHandler, TaskThatRegisteredAnewIsDropped) {
  const Program program("anew");
  tov_pid_t *record = suspended(GONE, program.path, PERIOD_S + 2);
  const std::string file = write_file_of(*record);
  const tov_pid_t *other = add(GONE + 1, program.path);
  const std::string others_file = write_file_of(*other);
  const std::string said = diagnostics([] { tov_alrm_handler(SIGALRM); });
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(find(GONE + 1), other);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(exists(others_file));
  EXPECT_THAT(said, HasSubstr("]tov_alrm_handler--> " + program.path + "/5000000 is running!\n"));
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovAlrmHandler, NotBeforeItsDeadline) {
  const tov_pid_t *record = nullptr;
  alarm_within_a_second([&] {
    record = suspended(GONE, "/opt/a", PERIOD_S);
    add(GONE + 1, "/opt/a");
  });
  EXPECT_EQ(find(GONE), record);
}

TEST_F(TovAlrmHandler, InstanceOfAnotherDeviceIsNoDuplicate) {
  const Program program("elsewhere");
  suspended(GONE, program.path, PERIOD_S + 2);
  add(GONE + 1, program.path, RESPAWN, 4);
  tov_alrm_handler(SIGALRM);
  program.birth();
  EXPECT_EQ(count(), 2);
}

TEST_F(TovAlrmHandler, DuplicateGoesWhateverItsAction) {
  suspended(GONE, "/opt/a", PERIOD_S + 2, NORMAL_EXIT);
  add(GONE + 1, "/opt/a");
  tov_alrm_handler(SIGALRM);
  EXPECT_EQ(find(GONE), nullptr);
}

// ---- towards a reload -----------------------------------------------------------------------

TEST_F(TovAlrmHandler, SelfChecksAreCountedTowardsAReload) {
  const Program program("counted");
  tov_pid_t *record = suspended(GONE, program.path, PERIOD_S + 2);
  record->con_pull_flag = 1;
  const time_t suspended_at = record->tm, begun_at = record->first_tm;
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(begun_at));
  const time_t before = tov_get_time();
  const std::string said = diagnostics([] { tov_alrm_handler(SIGALRM); });
  EXPECT_EQ(record->con_pull_flag, 2);
  EXPECT_GE(record->con_tm, before);
  const std::string task = "]tov_alrm_handler--> " + program.path + "/5000000 ";
  EXPECT_THAT(said, HasSubstr(task + "tm=" + std::to_string(suspended_at) +
                              ", first_tm=" + std::to_string(begun_at) +
                              ", t=300, con_pull_flag=1, tov_single_ps_ha_enable_time=" +
                              std::to_string(begun_at) + "\n"));
  EXPECT_THAT(said,
              HasSubstr(task + "con_pull_flag=2 con_tm=" + std::to_string(record->con_tm) + ".\n"));
}

TEST_F(TovAlrmHandler, SwitchedOffTheCountIsCleared) {
  const Program program("off");
  tov_flag_set(tov_single_ps_ha_enable, 0);
  tov_pid_t *record = suspended(GONE, program.path, PERIOD_S + 2);
  record->con_pull_flag = 3;
  record->con_tm = 99;
  tov_alrm_handler(SIGALRM);
  program.birth();  // the task comes back all the same
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_EQ(record->con_tm, 0);
}

TEST_F(TovAlrmHandler, BurstBeforeTheSwitchWentOnClearsTheCount) {
  const Program program("before");
  tov_pid_t *record = suspended(GONE, program.path, PERIOD_S + 2);
  record->con_pull_flag = 3;
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(record->first_tm) + 1);
  tov_alrm_handler(SIGALRM);
  EXPECT_EQ(record->con_pull_flag, 0);
  EXPECT_EQ(record->con_tm, 0);

  tov_pid_t *at_once = suspended(GONE + 1, program.path + " -2", PERIOD_S + 2);
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(at_once->first_tm));
  tov_alrm_handler(SIGALRM);
  EXPECT_EQ(at_once->con_pull_flag, 1);
}

// ---- as a signal ----------------------------------------------------------------------------

TEST_F(TovAlrmHandler, RealAlarmStartsTheTask) {
  const Program program("signal");
  suspended(GONE, program.path, PERIOD_S + 2);
  tov_test::in_child([&] {
    tov_setup_signals();
    tov_signals_block();
    raise(SIGALRM);
    EXPECT_THAT(program.births(), IsEmpty());  // not before it is let in
    tov_signals_unblock();
    EXPECT_EQ(find(GONE), nullptr);
  });
  EXPECT_EQ(program.birth().argv, program.path);
}

TEST_F(TovAlrmHandler, TaskComesBackFromItsSuspensionByItself) {
  const Program program("itself");
  const TemporaryFile period(TOV_DEBUG_TIME_FILE, "1");
  tov_pid_t *record = add(GONE, program.path);
  record->count = 4;
  record->tm = tov_get_time();
  tov_test::in_child([&] {
    tov_setup_signals();
    pid_t res = 0;
    EXPECT_EQ(tov_spawn(record, &res), -1);  // arms the alarm
    EXPECT_TRUE(tov_test::wait_until([&] { return program.births().size() == 1; },
                                     tov_test::Millis(30'000)));
    EXPECT_EQ(record->alarm_wait_flag, 0);
  });
}
