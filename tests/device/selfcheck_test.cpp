// Minutes of self-checks on a fast clock: crash loops, the waiting time, who comes back when, and
// when a reload is asked for.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/worker.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

static constexpr size_t BURST = 4;  // restarts that are made; the next death suspends

// Seconds of the daemon's clock in one of ours. Slow builds take longer to die and come back, so
// their clock is slower.
static const int FAST = patience() > 1 ? 10 : 20;
static const int FASTER = 2 * FAST;

// For what comes after five minutes of that clock.
static constexpr Millis PERIOD_LIMIT_MS{30'000};

static DaemonOptions on_clock(int speed) {
  return {.faketime = "+0 x" + std::to_string(speed)};
}

static constexpr int64_t daemon_s(int64_t real_ns, int speed) {
  return real_ns * speed / 1'000'000'000;
}

static Millis real_ms(int daemon_seconds, int speed) {
  return Millis(daemon_seconds * 1000 / speed);
}

// The two ways to start a task again, as this file's stories tell them apart.
struct Way {
  const char *label;
  int action;
  const char *wait;  // mnemonics
  const char *check;
  const char *info;
};

static void PrintTo(const Way &way, std::ostream *out) {
  *out << way.label;
}

static const Way ways[] = {
    {"Program", RESPAWN, "HA_WAIT_SELF_CHECK", "HA_SELF_CHECK", "HA_SELF_CHECK_INFO"},
    {"Script", SHELL_RESTART, "HA_WAIT_SCRIPT_SELF_CHECK", "HA_SCRIPT_SELF_CHECK",
     "HA_SCRIPT_SELF_CHECK_INFO"},
};

// A registered victim; a script that starts it again is there if it needs one.
static Task start_way(Device &device, const std::string &prefix, const Way &way) {
  Task task = start_task(device, prefix, {.action = way.action});
  if (way.action == SHELL_RESTART)
    device.install_start_script(task.name, "exec " + task.command + "\n");
  return task;
}

static std::string says(const Task &task, const Way &way, int minutes) {
  return std::string(way.wait) + " " + suspended(task, minutes);
}

// Kills a task until it is suspended for the nth time. Returns a time shortly before that.
static int64_t suspend(Device &device, Task &task, const Way &way, int minutes, size_t nth = 1) {
  return kill_until_suspended(device, task, says(task, way, minutes), nth);
}

// What the restart log says next after the nth line that contains `text`.
static std::string line_after(const Device &device, const std::string &text, size_t nth = 1) {
  const auto lines = event_texts(device, RESTART_LOG);
  for (size_t i = 0; i + 1 < lines.size(); i++)
    if (lines[i].find(text) != std::string::npos && --nth == 0) return lines[i + 1];
  return {};
}

// ---- a crash loop -----------------------------------------------------------------------------

class CrashLoop : public testing::TestWithParam<Way> {};

INSTANTIATE_TEST_SUITE_P(Ways, CrashLoop, testing::ValuesIn(ways),
                         [](const auto &row) { return std::string(row.param.label); });

// Checks the `count` births up to a task's suspension, of which `before` are from before the burst
// that began at a time and led to it. They are as many as one burst allows; unless the machine was
// so busy that the burst ran out of its two minutes, and another one followed.
static void expect_one_burst(const std::vector<Birth> &births, size_t count, int64_t begun_ns,
                             size_t before) {
  static constexpr int SURELY_ONE_BURST_S = 100;
  ASSERT_GE(count, before + BURST);
  ASSERT_LE(count, births.size());
  if (daemon_s(births[count - 1].main_ns - begun_ns, FAST) < SURELY_ONE_BURST_S) {
    EXPECT_EQ(count, before + BURST);
  }
}

// Waits for the birth of a process. Returns how many came before it.
static size_t births_before(const Device &device, const Task &task, pid_t pid) {
  std::vector<Birth> births;
  const auto of_process = [pid](const Birth &birth) { return birth.pid == pid; };
  const auto is_born = [&] {
    births = device.births(task.name);
    return std::any_of(births.begin(), births.end(), of_process);
  };
  if (!wait_until(is_born, STORY_LIMIT_MS))
    throw std::runtime_error("no birth of " + std::to_string(pid) + "\n" + device.dump());
  return static_cast<size_t>(std::find_if(births.begin(), births.end(), of_process) -
                             births.begin());
}

// The process that the self-check started, as the line after the nth suspension names it: however
// late the test looks, others may have followed.
static pid_t checked_process(const Device &device, const Task &task, const Way &way, size_t nth) {
  const std::string beginning = std::string("%HA-5-") + way.info +
                                " Self-checking OK: 1 times and new id " + task.shown + "/";
  std::string line;
  const auto is_whole = [&] {
    line = line_after(device, says(task, way, 1), nth);
    return line.ends_with('.');
  };
  wait_until(is_whole, STORY_LIMIT_MS);
  // The alarm's restart is not announced before it is made.
  if (!line.starts_with(beginning)) throw std::runtime_error("after the suspension: " + line);
  return std::stoi(line.substr(beginning.size()));
}

// A task that fails by itself whenever it is started. The process that is registered for it at
// first is another program, which waits to be killed.
static Task start_looping(Device &device, const Way &way, pid_t *first) {
  Task task;
  task.name = unique_name("looping");
  task.program = device.install_program(task.name);
  task.command = task.program + " exit=3 after=20";
  task.shown = shown_name(task.command);
  if (way.action == SHELL_RESTART)
    device.install_start_script(task.name, "exec " + task.command + "\n");
  *first = start_task(device, "before_the_loop", {.registered = false}).pid;
  task.file = device.register_file(0, *first, way.action, task.command);
  return task;
}

// The program fails by itself whenever it is started: the whole story without a hand from outside.
TEST_P(CrashLoop, IsSuspendedCheckedOnceAndThenEscalated) {
  const Way &way = GetParam();
  Device device;
  device.write("/debug_time", "60");
  install_healer(device);
  pid_t first = 0;
  const Task task = start_looping(device, way, &first);
  device.start_ready_daemon(on_clock(FAST));
  const int64_t begun_ns = monotonic_ns();
  device.kill(first, SIGKILL);

  need_event(device, RESTART_LOG, says(task, way, 1));
  EXPECT_TRUE(device.wait_notice(std::string("%HA-5-") + way.wait + ": " + suspended(task, 1)));
  const pid_t checked_pid = checked_process(device, task, way, 1);
  EXPECT_TRUE(device.wait_notice(std::string("%HA-5-") + way.info + ": " +
                                 self_check_ok(task, 1, checked_pid)));

  // The check was the first restart of a new burst, so four deaths end that one.
  need_event(device, RESTART_LOG, says(task, way, 1), 2);
  // The request goes to the platform's self-healing service. That of this test only notes it and
  // reloads nothing, so the task gets its next chance.
  const size_t born_again = births_before(device, task, checked_process(device, task, way, 2));
  const size_t born = births_before(device, task, checked_pid);
  const auto births = device.births(task.name);
  ASSERT_GT(born, 0U);
  expect_one_burst(births, born, begun_ns, 0);
  EXPECT_GE(daemon_s(births[born].main_ns - births[born - 1].main_ns, FAST), 60);
  expect_one_burst(births, born_again, births[born].main_ns, born);
  const std::string sentence =
      "tov detect process " + task.command + " can not restart, so restart system.";
  EXPECT_EQ(asked(device), "<3><0><tov><" + sentence + ">");
  EXPECT_GE(device.count_events(RUN_LOG, sentence), 1U);
}

TEST_P(CrashLoop, WaitsFiveMinutesWithoutAPeriodFile) {
  const Way &way = GetParam();
  Device device;
  Task task = start_way(device, "patient", way);
  device.start_ready_daemon(on_clock(FASTER));
  const int64_t before_ns = suspend(device, task, way, 5);
  const Birth back = next_birth(device, task, PERIOD_LIMIT_MS);
  EXPECT_GE(daemon_s(back.main_ns - before_ns, FASTER), 300);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, back.pid));
}

// ---- the waiting time -------------------------------------------------------------------------

TEST(SelfCheckPeriod, IsReadAnewWhenTheAlarmComes) {
  Device device;
  device.write("/debug_time", "60");
  Task task = start_way(device, "prolonged", ways[0]);
  device.start_ready_daemon(on_clock(FAST));
  const int64_t before_ns = suspend(device, task, ways[0], 1);
  device.write("/debug_time", "100");
  const Birth back = next_birth(device, task, PERIOD_LIMIT_MS);
  EXPECT_GE(daemon_s(back.main_ns - before_ns, FAST), 100);
}

TEST(SelfCheckPeriod, IsFiveMinutesAgainWhenTheFileIsGone) {
  Device device;
  device.write("/debug_time", "120");
  Task task = start_way(device, "fallback", ways[0]);
  device.start_ready_daemon(on_clock(FASTER));
  const int64_t before_ns = suspend(device, task, ways[0], 2);
  ASSERT_TRUE(device.remove("/debug_time"));
  const Birth back = next_birth(device, task, PERIOD_LIMIT_MS);
  EXPECT_GE(daemon_s(back.main_ns - before_ns, FASTER), 300);
}

// Waits for the beginning of a second of the clock that this machine's programs share.
static void await_whole_second() {
  static constexpr int64_t SECOND_NS = 1'000'000'000;
  const int64_t left_ns = SECOND_NS - monotonic_ns() % SECOND_NS;
  std::this_thread::sleep_for(std::chrono::nanoseconds(left_ns));
}

// Suspends two tasks one after the other. Returns whether the first waited for the second.
static bool early_waits_for_late() {
  static constexpr int REAL_TIME = 1;
  static constexpr int PERIOD_S = 4;
  static constexpr int BETWEEN_S = 2;
  Device device;
  device.write("/debug_time", std::to_string(PERIOD_S));
  Task early = start_way(device, "early", ways[0]);
  Task late = start_way(device, "late", ways[1]);
  device.start_ready_daemon();
  // Its last death comes when a second has just begun.
  const int64_t early_ns = kill_until_suspended(device, early, says(early, ways[0], 0), 1, [&] {
    if (early.births > BURST) await_whole_second();
  });
  std::this_thread::sleep_for(real_ms(BETWEEN_S, REAL_TIME));
  suspend(device, late, ways[1], 0);
  const Birth first = next_birth(device, early);
  const Birth second = next_birth(device, late);
  return daemon_s(first.main_ns - early_ns, REAL_TIME) >= PERIOD_S + BETWEEN_S - 1 &&
         daemon_s(std::abs(second.main_ns - first.main_ns), REAL_TIME) < BETWEEN_S;
}

// The first task's alarm is put off for the second only when it is handled within the second in
// which it fires. A busy machine does not keep that second, so the case is made until it is met.
TEST(SelfCheckAlarm, BringsEarlyAndLateTasksBackTogether) {
  static constexpr int ATTEMPTS = 6;
  int attempt = 0;
  while (attempt < ATTEMPTS && !early_waits_for_late())
    attempt++;
  EXPECT_LT(attempt, ATTEMPTS) << "the alarm that came for the first was never put off";
}

// ---- duplicates -------------------------------------------------------------------------------

TEST(SelfCheckAlarm, DropsASuspendedTaskThatAnOperatorStartedAnew) {
  Device device;
  device.write("/debug_time", "120");
  Task bystander = start_way(device, "bystander_d", ways[0]);
  device.start_ready_daemon(on_clock(FAST));
  Task task = start_worker(device, "restarted");
  const std::string suspension = says(task, ways[0], 2);
  while (device.count_events(RESTART_LOG, suspension) == 0) {
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(wait_until(
        [&] {
          return device.count_events(RESTART_LOG, suspension) > 0 ||
                 worker_reports(device, task, "registered").size() > task.births;
        },
        STORY_LIMIT_MS))
        << device.dump();
    if (device.count_events(RESTART_LOG, suspension) == 0) next_worker(device, task);
  }
  const std::string waiting_file = Device::register_path(0, task.pid, task.command);
  EXPECT_TRUE(device.exists(waiting_file));
  const size_t restarts = device.count_events(RESTART_LOG, "new id " + task.shown);

  start_worker(device, task, {"exec"}, RESPAWN);  // by an operator
  EXPECT_TRUE(wait_until([&] { return !device.exists(waiting_file); }, STORY_LIMIT_MS));
  pass_events(device, bystander);
  EXPECT_EQ(worker_reports(device, task, "birth").size(), task.births) << "nothing was started";
  EXPECT_EQ(device.count_events(RESTART_LOG, "new id " + task.shown), restarts);
  EXPECT_TRUE(device.lives(task.pid));

  // The new instance is the one that is supervised.
  const pid_t anew = task.pid;
  device.kill(anew, SIGKILL);
  next_worker(device, task);
  need_event(device, RESTART_LOG, self_checking(task, anew, 9));
}

// ---- the reload -------------------------------------------------------------------------------

static constexpr char RELOAD[] = "so restart system";

// Two suspensions of a task with its self-check between them.
static void suspend_twice(Device &device, Task &task) {
  suspend(device, task, ways[0], 1);
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  suspend(device, task, ways[0], 1, 2);
}

struct Forbidden {
  const char *label;
  const char *file;
  const char *text;
};

static void PrintTo(const Forbidden &row, std::ostream *out) {
  *out << row.label;
}

class Reload : public testing::TestWithParam<Forbidden> {};

static const Forbidden forbidden[] = {
    {"ByTheOperator", "/tov_no_reboot", ""},
    {"ByTheMemoryKiller", "/sys/kernel/qx_lowmem_killer/lmk_reboot_status", "0\n"},
    {"ByTheSwitch", "/data/.syshacfg", "no tov single-process-ha auto-restart enable\n"},
};

INSTANTIATE_TEST_SUITE_P(Forbidden, Reload, testing::ValuesIn(forbidden),
                         [](const auto &row) { return std::string(row.param.label); });

TEST_P(Reload, IsNotAskedForWhereItIsForbidden) {
  Device device;
  device.write("/debug_time", "60");
  device.write(GetParam().file, GetParam().text);
  install_healer(device);
  Task task = start_way(device, "forbidden", ways[0]);
  device.start_ready_daemon(on_clock(FAST));
  suspend_twice(device, task);
  next_birth(device, task);  // so the decision was made; and the task comes back all the same
  EXPECT_FALSE(device.exists(ASKED_FILE));
  EXPECT_EQ(device.count_events(RUN_LOG, RELOAD), 0U);
}

TEST(Reload, IsNotAskedForTenMinutesAfterTheCheck) {
  static constexpr int TEN_MINUTES_S = 600;
  Device device;
  device.write("/debug_time", "60");
  install_healer(device);
  Task task = start_way(device, "recovered", ways[0]);
  device.start_ready_daemon(on_clock(FASTER));
  suspend(device, task, ways[0], 1);
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  std::this_thread::sleep_for(real_ms(TEN_MINUTES_S + 10, FASTER));
  suspend(device, task, ways[0], 1, 2);
  next_birth(device, task);
  EXPECT_FALSE(device.exists(ASKED_FILE));
  EXPECT_EQ(device.count_events(RUN_LOG, RELOAD), 0U);
}

// A check from the time in which the switch was off counts for nothing when it is on again.
TEST(Reload, CountsOnlyChecksSinceTheSwitchWentOn) {
  Device device;
  device.write("/debug_time", "60");
  device.write("/data/.syshacfg", "no tov single-process-ha auto-restart enable\n");
  install_healer(device);
  Task task = start_way(device, "switched", ways[0]);
  device.start_ready_daemon(on_clock(FAST));
  suspend(device, task, ways[0], 1);
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  device.write("/data/.syshacfg", "");
  ASSERT_TRUE(wait_until(
      [&] {
        return device.read("/tmp/vsd/0/tov/cfg.txt") ==
               "tov single-process-ha auto-restart enable\r\n";
      },
      STORY_LIMIT_MS));
  suspend(device, task, ways[0], 1, 2);
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  EXPECT_FALSE(device.exists(ASKED_FILE));

  // This one began its burst before the switch went on, too: the check's restart opened it.
  suspend(device, task, ways[0], 1, 3);
  const std::string sentence =
      "tov detect process " + task.command + " can not restart, so restart system.";
  next_birth(device, task);
  need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  suspend(device, task, ways[0], 1, 4);
  EXPECT_EQ(asked(device), "<3><0><tov><" + sentence + ">");
}
