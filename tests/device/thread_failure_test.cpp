// The failure of a thread brings the daemon down in good order, and a fresh start supervises on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using namespace tov_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

static constexpr Millis SHUTDOWN_LIMIT_MS{40'000};

// From the first thread's last word to the daemon's end: its closing second, that of the others,
// and that of the whole. The server alone sleeps for ten where it does not hear of the failure.
static constexpr Millis HEARD_LIMIT_MS{7'000};

static std::string ended(const char *thread, int res, const char *reason, int error) {
  return std::string("Thread \"") + thread +
         "\" exit, tov will be restart. res=" + std::to_string(res) + ", " + reason + "(" +
         std::to_string(error) + ")";
}

static void expect_shut_down(Device &device) {
  const auto status = device.wait_daemon(SHUTDOWN_LIMIT_MS);
  ASSERT_TRUE(status) << device.dump();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  EXPECT_EQ(event_texts(device, ERROR_LOG).back(), "TOV exit.");
}

// The others hear of the failure of one, whatever they wait for.
static void expect_end_soon_after(Device &device, const std::string &failure) {
  ASSERT_TRUE(wait_until(
      [&] {
        const auto texts = event_texts(device, ERROR_LOG);
        return std::ranges::find(texts, failure) != texts.end();
      },
      SHUTDOWN_LIMIT_MS))
      << device.dump();
  const int64_t failed_ns = monotonic_ns();
  EXPECT_TRUE(device.wait_daemon(SHUTDOWN_LIMIT_MS)) << device.dump();
  const int64_t took_ms = (monotonic_ns() - failed_ns) / 1'000'000;
  testing::Test::RecordProperty("end_ms", std::to_string(took_ms));
  EXPECT_LT(took_ms, HEARD_LIMIT_MS.count());
}

// A program that lived through it, and one that died while no daemon ran.
static void expect_supervised_on(Device &device, Task &living, Task &died) {
  device.kill(died.pid, SIGKILL);
  ASSERT_TRUE(device.wait(died.pid, STORY_LIMIT_MS));  // its report must not come to the daemon
  device.start_ready_daemon();
  next_birth(device, died);
  kill_and_return(device, died);
  kill_and_return(device, living);
  EXPECT_EQ(device.births(living.name).size(), 2U);
  EXPECT_EQ(device.births(died.name).size(), 3U);
}

TEST(ServerThread, ThatCannotBindItsSocketBringsTheDaemonDown) {
  Device device;
  Task living = start_task(device, "living_s");
  Task died = start_task(device, "died_s");
  device.mkdir("/tmp/tov/.tov");
  device.start_daemon();
  expect_shut_down(device);
  // Whoever ended for the others' sake says so too.
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              IsSupersetOf({ended("tov_process_domain", -2, "Address already in use", 98),
                            std::string("TOV exit.")}));
  EXPECT_THAT(event_texts(device, RUN_LOG), ElementsAre("TOV start."));
  EXPECT_TRUE(device.lives(living.pid));

  ASSERT_TRUE(device.remove("/tmp/tov/.tov"));
  expect_supervised_on(device, living, died);
}

TEST(ReaderThread, WhoseAddressIsTakenBringsTheDaemonDown) {
  Device device;
  Task living = start_task(device, "living_r");
  Task died = start_task(device, "died_r");
  // The daemon's id is known before it is the daemon, so its address can be taken.
  const pid_t pid =
      device.start_daemon({.args = {"-c", "kill -STOP $$; exec " + device.binary_dir() + "/tov"},
                           .program = "/bin/sh"});
  ASSERT_TRUE(wait_until([&] { return process_state(pid) == 'T'; }, STORY_LIMIT_MS));
  tov_fd_t taken(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = static_cast<uint32_t>(pid);
  ASSERT_EQ(bind(taken.n, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  device.kill(pid, SIGCONT);
  expect_shut_down(device);
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              Contains(ended("tov_process_netlink", -3, "Address already in use", 98)));
  taken.reset();
  expect_supervised_on(device, living, died);
}

TEST(ReaderThread, WhoseFailureIsHeardByAllOthersLeavesNobodyUnwatchedForLong) {
  Device device;
  device.start_ready_daemon(
      {.env = {{"LD_PRELOAD", device.binary_dir() + "/tests/programs/libfailing_reader.so"}}});
  device.write("/tmp/reader_fails", "");
  device.spawn({"/bin/true"});  // an event wakes it
  expect_end_soon_after(
      device, ended("tov_process_netlink", -5, "Transport endpoint is not connected", 107));
  for (const char *thread : {"tov_process_domain", "tov_cnmsg_handle"})
    EXPECT_THAT(event_texts(device, ERROR_LOG), Contains(ended(thread, 0, "Success", 0)));
  EXPECT_EQ(event_texts(device, ERROR_LOG).back(), "TOV exit.");
}

TEST(RealTimeThreads, WithoutThePrivilegeBringTheDaemonDown) {
  Device device;
  Task living = start_task(device, "living_p");
  Task died = start_task(device, "died_p");
  device.start_daemon({.args = {"--bounding-set=-sys_nice", device.binary_dir() + "/tov"},
                       .limits = {{RLIMIT_RTPRIO, 0, 0}},
                       .program = "/usr/bin/setpriv"});
  expect_shut_down(device);
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              IsSupersetOf({ended("tov_cnmsg_handle", -2, "Operation not permitted", 1),
                            ended("tov_process_netlink", -1, "Operation not permitted", 1),
                            ended("tov_process_domain", -1, "Operation not permitted", 1)}));
  EXPECT_THAT(event_texts(device, ERROR_LOG), Not(Contains(testing::HasSubstr("notifer"))))
      << "the watchdog does without";
  expect_supervised_on(device, living, died);
}

TEST(SharedArea, ThatCannotBeMadeKeepsTheDaemonFromStarting) {
  Device device;
  Task living = start_task(device, "living_a");
  Task died = start_task(device, "died_a");
  device.mkdir("/dev/shm/UTILS-tov-shm-001");
  device.start_daemon();
  expect_shut_down(device);
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              ElementsAre(testing::MatchesRegex("Init alive info Fail. ret=-[0-9]+"), "TOV exit."));
  EXPECT_FALSE(device.exists("/tmp/tov/.tov"));
  ASSERT_TRUE(device.remove("/dev/shm/UTILS-tov-shm-001"));
  expect_supervised_on(device, living, died);
}

// ---- threads that cannot be started -----------------------------------------------------------

struct Unstarted {
  const char *label;
  int before;           // so many threads are started before it
  const char *subject;  // of the event-log line
};

static void PrintTo(const Unstarted &row, std::ostream *out) {
  *out << row.label;
}

static const Unstarted unstarted[] = {
    {"EventHandler", 0, "tov_cnmsg_handle thread"},  {"Reader", 1, "tov_process_netlink thread"},
    {"Server", 2, "tov_process_domain thread"},      {"Watchdog", 3, "tov_notifer_run"},
    {"Watcher", 4, "tov_inotify_fork_error thread"}, {"Delay", 5, "tov_delay_restart thread"},
    {"Sweep", 6, "tov_proc_stat_check thread"},
};

class UnstartedThread : public testing::TestWithParam<Unstarted> {};

INSTANTIATE_TEST_SUITE_P(Threads, UnstartedThread, testing::ValuesIn(unstarted),
                         [](const auto &row) { return std::string(row.param.label); });

TEST_P(UnstartedThread, BringsTheDaemonDown) {
#ifdef TOV_SANITIZE_THREAD
  static constexpr int OTHER_THREADS = 2;  // main and the sanitizer's own
#else
  static constexpr int OTHER_THREADS = 1;
#endif
  Device device;
  Task living = start_task(device, "living_u");
  Task died = start_task(device, "died_u");
  // Where memory is checked, the look for leaks at the end needs a process that the limit forbids.
  const pid_t pid =
      device.start_daemon({.env = {{"LSAN_OPTIONS", "detect_leaks=0"}},
                           .args = {"-c", "kill -STOP $$; exec " + device.binary_dir() + "/tov"},
                           .faketime = "+0 x20",
                           .program = "/bin/sh"});
  ASSERT_TRUE(wait_until([&] { return process_state(pid) == 'T'; }, STORY_LIMIT_MS));
  if (!device.limit_processes(pid, OTHER_THREADS + GetParam().before))
    GTEST_SKIP() << "no version-1 pids controller";
  device.kill(pid, SIGCONT);
  expect_shut_down(device);
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              Contains(std::string("Fail to create ") + GetParam().subject +
                       ": Resource temporarily unavailable"));
  EXPECT_THAT(event_texts(device, RUN_LOG), ElementsAre("TOV start."));
  EXPECT_TRUE(device.lives(living.pid));
  EXPECT_EQ(device.births(died.name).size(), 1U);
  expect_supervised_on(device, living, died);
}
