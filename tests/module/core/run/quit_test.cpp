// Each thread of the daemon hears at once that it is to end, whatever it waits for.
#include "core/run/quit.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <thread>

#include "core/events/netlink.h"
#include "core/policy/delay.h"
#include "core/policy/sweep.h"
#include "core/server/server.h"
#include "core/watch/fork_watcher.h"
#include "core/watch/watchdog.h"
#include "tests/module/world.h"
#include "tests/support/event_ring.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

using tov_test::in_child;
using tov_test::wait_until;

namespace {

struct Body {
  const char *label;
  const char *name;  // of the thread, as the kernel keeps it
  void *(*run)(void *);
};

void PrintTo(const Body &row, std::ostream *out) {
  *out << row.label;
}

constexpr Body bodies[] = {
    {"Reader", "tov_process_net", tov_process_netlink},
    {"Server", "tov_process_dom", tov_process_domain},
    {"Watchdog", "tov_thread_noti", tov_notifer_run},
    {"Watcher", "tov_inotify_for", tov_inotify_fork_error},
    {"Delay", "tov_delay_resta", tov_delay_restart},
    {"Sweep", "tov_proc_stat_c", tov_proc_stat_check},
};

// Below every bound of a wait that does not hear: five seconds and more. The closing second is
// part of it.
constexpr int64_t HEARD_NS = int64_t{4} * 1'000'000'000;

bool sleeps(const char *name) {
  for (const std::string &tid : tov_test::names_in("/proc/self/task")) {
    const std::string task = "/proc/self/task/" + tid;
    if (tov_test::read_file(task + "/comm") == std::string(name) + "\n" &&
        tov_test::process_state(atoi(tid.c_str())) == 'S')
      return true;
  }
  return false;
}

// Runs a body until it sleeps, raises `quit`, and waits for its end.
void expect_to_hear(const Body &body) {
  std::thread thread([&body] { body.run(nullptr); });
  EXPECT_TRUE(wait_until([&] { return sleeps(body.name); }, tov_test::PATIENT_MS));
  const int64_t begun = tov_test::monotonic_ns();
  tov_quit_raise();
  thread.join();
  EXPECT_LT(tov_test::monotonic_ns() - begun, HEARD_NS);
}

class TovQuit : public tov_test::World,
                public testing::WithParamInterface<Body>,
                protected tov_test::EventRing {};

// In a child: what is raised once stays so for the life of a process.
TEST_P(TovQuit, IsHeardAtOnceByTheThread) {
  in_child([] {
    ASSERT_EQ(tov_quit_init(), 0);
    expect_to_hear(GetParam());
  });
}

INSTANTIATE_TEST_SUITE_P(Threads, TovQuit, testing::ValuesIn(bodies),
                         [](const auto &row) { return std::string(row.param.label); });

using TovQuitInDetail = tov_test::World;

TEST_F(TovQuitInDetail, IsHeardByTheWatcherThatWaitsForData) {
  in_child([] {
    ASSERT_EQ(tov_quit_init(), 0);
    tov_test::write_file("/tmp/no_mounts", "");
    const std::string mounts = "/proc/" + std::to_string(getpid()) + "/mounts";
    ASSERT_EQ(mount("/tmp/no_mounts", mounts.c_str(), nullptr, MS_BIND, nullptr), 0);
    expect_to_hear({"Watcher", "tov_inotify_for", tov_inotify_fork_error});
  });
}

TEST_F(TovQuitInDetail, EndsAWaitFromAnotherThread) {
  in_child([] {
    ASSERT_EQ(tov_quit_init(), 0);
    bool heard = false;
    std::thread waiting([&heard] { heard = tov_quit_wait(600'000); });
    const int64_t begun = tov_test::monotonic_ns();
    tov_quit_raise();
    waiting.join();
    EXPECT_TRUE(heard);
    EXPECT_LT(tov_test::monotonic_ns() - begun, HEARD_NS);
  });
}

}  // namespace
