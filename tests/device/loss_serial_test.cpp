// Process events that are lost, and what the daemon makes of it: whoever died meanwhile is brought
// back at once, once, and one line says that something was lost. Runs alone: process events are
// machine-wide.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

static constexpr int64_t NS_PER_MS = 1'000'000;
static constexpr Millis BACK_MS{2'000};  // everybody, from the moment on when the daemon may run
static constexpr Millis STORM_LIMIT_MS{60'000};

static constexpr char LOSS[] =
    "TOV: [1-9][0-9]* process events were lost, every registered process is looked at\\.";

// The error log without time stamps.
static std::vector<std::string> errors(const Device &device) {
  std::vector<std::string> texts;
  for (const std::string &line : device.event_log(ERROR_LOG))
    texts.push_back(without_stamp(line));
  return texts;
}

static DaemonOptions broken(const Device &device, const char *how) {
  return {.env = {{"BREAK", how},
                  {"LD_PRELOAD", device.binary_dir() + "/tests/programs/libbroken_daemon.so"}}};
}

// ---- overflow -------------------------------------------------------------------------------

static constexpr int STORM = 60'000;

// A process that ends at once, as vfork(2) makes it: the fastest way to so many, also where vfork
// itself is a sanitizer's.
static pid_t start_passing() {
  static constexpr size_t SIZE = 16384;
  alignas(16) static char stack[SIZE];
  return clone([](void *) { return 0; }, stack + SIZE, CLONE_VM | CLONE_VFORK | SIGCHLD, nullptr);
}

// Starts and ends `STORM` processes; kills half of the targets at the beginning and the others when
// three quarters are over: the socket's buffer has no room any more, and they are dead before the
// end. Runs in a forked child: nothing but system calls.
static int make_storm(const std::vector<pid_t> &targets) {
  const int half = static_cast<int>(targets.size()) / 2;
  for (int i = 0; i < STORM; i++) {
    const int late = i - STORM / 4 * 3;
    if (i < half && kill(targets[static_cast<size_t>(i)], SIGKILL) < 0) return 1;
    if (late >= 0 && late < half && kill(targets[static_cast<size_t>(half + late)], SIGKILL) < 0)
      return 1;
    const pid_t child = start_passing();
    if (child < 0 || waitpid(child, nullptr, 0) != child) return 2;
  }
  return 0;
}

TEST(Loss, OverflowBringsEveryOneBackOnce) {
  static constexpr int MANY = 100;
  Device device;
  std::vector<Task> tasks;
  std::vector<pid_t> targets;
  for (int i = 0; i < MANY; i++) {
    tasks.push_back(start_task(device, "flooded" + std::to_string(i) + "_"));
    targets.push_back(tasks.back().pid);
  }
  Task bystander = start_task(device, "bystander_flood");
  const pid_t daemon = device.start_ready_daemon();
  device.kill(daemon, SIGSTOP);
  ASSERT_EQ(device.call_inside([&] { return make_storm(targets); }), 0);
  const int64_t begun_ns = monotonic_ns();
  device.kill(daemon, SIGCONT);
  int64_t last_ns = begun_ns;
  for (Task &task : tasks)
    last_ns = std::max(last_ns, next_birth(device, task, STORM_LIMIT_MS).main_ns);
  EXPECT_LT((last_ns - begun_ns) / NS_PER_MS, BACK_MS.count() * patience());
  RecordProperty("last_back_ms", std::to_string((last_ns - begun_ns) / NS_PER_MS));

  pass_events(device, bystander);
  for (const Task &task : tasks)
    EXPECT_EQ(device.births(task.name).size(), 2U) << task.name;
  EXPECT_TRUE(device.lives(bystander.pid));
  EXPECT_THAT(errors(device), ElementsAre(MatchesRegex(LOSS)));
  const size_t lost = device.count_events(RESTART_LOG, "exit code lost, restart it.");
  EXPECT_GE(lost, size_t{MANY / 2});
  EXPECT_LT(lost, size_t{MANY}) << "what the buffer held was handled as always";
}

// ---- a silent gap ---------------------------------------------------------------------------

// A gap lies between two events of its processor: lets a process end on each of them.
static int touch_processors() {
  const int count = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  for (int processor = 0; processor < count; processor++) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(static_cast<size_t>(processor), &only);
    if (sched_setaffinity(0, sizeof only, &only) < 0) return 1;
    const pid_t child = fork();
    if (child == 0) _exit(0);
    if (child < 0 || waitpid(child, nullptr, 0) != child) return 2;
  }
  return 0;
}

TEST(Loss, EndThatIsNotHeardOfShowsAsAGap) {
  Device device;
  Task task = start_task(device, "unheard");
  Task bystander = start_task(device, "bystander_unheard");
  device.start_ready_daemon(broken(device, "lose"));
  const pid_t dead = task.pid;
  ASSERT_EQ(device.call_inside(touch_processors), 0);
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.lives(dead); }, STORY_LIMIT_MS));
  const int64_t begun_ns = monotonic_ns();
  ASSERT_EQ(device.call_inside(touch_processors), 0);
  const Birth birth = next_birth(device, task);
  EXPECT_LT((birth.main_ns - begun_ns) / NS_PER_MS, BACK_MS.count() * patience());
  need_event(device, RESTART_LOG, not_running(task, dead));
  need_event(device, RESTART_LOG, exit_lost(task, dead));
  need_event(device, RESTART_LOG, "Job " + named(task, dead) + " will be re-initialized ...");
  EXPECT_THAT(errors(device), ElementsAre(MatchesRegex(LOSS)));
  EXPECT_TRUE(device.lives(bystander.pid));
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

// ---- a daemon that stood still ----------------------------------------------------------------

// Nothing is lost, and nothing is said; whoever died meanwhile comes back.
TEST(Loss, ShortStopLosesNothing) {
  Device device;
  Task task = start_task(device, "stopped");
  const pid_t daemon = device.start_ready_daemon();
  device.kill(daemon, SIGSTOP);
  device.kill(task.pid, SIGKILL);
  sleep(2);
  device.kill(daemon, SIGCONT);
  next_birth(device, task);
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty());
  EXPECT_EQ(device.births(task.name).size(), 2U);
}

// ---- no events at all -------------------------------------------------------------------------

TEST(Loss, SubscriptionThatIsNotAnsweredEndsTheDaemon) {
  Device device;
  const pid_t daemon = device.start_daemon(broken(device, "mute"));
  EXPECT_TRUE(device.wait(daemon, STORM_LIMIT_MS));
  EXPECT_THAT(errors(device),
              testing::Contains("Thread \"tov_process_netlink\" exit, tov will be restart. res=-4, "
                                "Connection timed out(110)"));
}
