// Several threads of a host inside the library at once: the thread sanitizer's run of this program
// is what shows that no call reads what another writes without a lock.
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/files.h"

using tov_test::FakeDaemon;
using tov_test::Manners;
using tov_test::Request;

namespace {

constexpr unsigned int PERIOD = 120;
constexpr unsigned int COUNT = 5;
const std::string DB_DIR = "/tmp/vsd/0/tov/db";

class ClientThreads : public testing::Test {
 protected:
  ClientThreads() {
    std::filesystem::create_directories(DB_DIR);
    // Each registration reads the debug file and stores its switches, while others look at them.
    setenv("DATA_QXOS_DIR", "/data/cfg", 1);
    std::filesystem::create_directories("/data/cfg/qx_utils");
    tov_test::write_file("/data/cfg/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 4\n");
    tov_test::write_file(TOV_DEBUG_PID_FILE, "1000000\n");
  }
  ~ClientThreads() override { unlink(TOV_DEBUG_PID_FILE); }

  // Runs `body` in `count` threads, which begin together.
  static void run_together(int count, const std::function<void(int)> &body) {
    std::atomic<int> missing{count};
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
      threads.emplace_back([&, i] {
        missing--;
        while (missing > 0)
          std::this_thread::yield();
        body(i);
      });
    }
    for (std::thread &thread : threads)
      thread.join();
  }
};

// What the daemon would do; the fake one only answers.
void be_known() {
  ASSERT_EQ(tov_sys_init_alive_info(false), 0);
  ASSERT_EQ(tov_sys_reg_alive_info(gettid()), 0);
}

int give_signs_of_life(int count) {
  int failures = 0;
  for (int i = 0; i < count; i++)
    failures += tov_client_reset_thread_notify(getpid(), gettid(), PERIOD, COUNT) != 0;
  return failures;
}

TEST_F(ClientThreads, SignsOfLifeGoOnBesideRegistrations) {
  static constexpr int REGISTRATIONS = 3;
  FakeDaemon daemon;
  std::atomic<int> failures{0};
  std::atomic<size_t> requests{0};
  std::mutex bits;  // eight threads share a byte of the area, which the daemon writes alone
  run_together(8, [&](int i) {
    if (i % 2 == 0) {
      {
        const std::lock_guard one_after_the_other(bits);
        be_known();
      }
      failures += give_signs_of_life(500);
      return;
    }
    for (int n = 0; n < REGISTRATIONS; n++) {
      failures += reg_process_exit_action(0, TOV_RESTART) != 0;
      failures += reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/x") != 0;
      failures += tov_client_unreg_thread_notify(gettid()) != 0;
      requests += 3;
    }
  });
  EXPECT_EQ(failures, 0);
  const std::vector<Request> all = daemon.requests(requests);
  EXPECT_EQ(all.size(), requests);
  for (const Request &request : all)
    EXPECT_TRUE(request.answered);
  EXPECT_EQ(tov_test::names_in(DB_DIR).size(), 1U);
}

TEST_F(ClientThreads, UnknownThreadsRegisterFromTheirSignsOfLife) {
  FakeDaemon daemon;
  run_together(8, [](int) { EXPECT_EQ(give_signs_of_life(1), 0); });
  std::set<pid_t> tids;
  for (const Request &request : daemon.requests(8)) {
    EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_MSG_ACK));
    tids.insert(request.payload<tov_msg_xtach_t>().pid);
  }
  EXPECT_EQ(tids.size(), 8U);
}

TEST_F(ClientThreads, LookUpsAndLimitsMayBeAskedTogether) {
  std::atomic<int> found{0};
  run_together(8, [&](int i) {
    for (int n = 0; n < 50; n++) {
      found += pid_exist_in_file(1000000, TOV_DEBUG_PID_FILE);
      found += string_exist_in_file("1000000", TOV_DEBUG_PID_FILE);
      found += pid_reset_counter_in_file(i, TOV_DEBUG_PID_FILE);
      found += get_pid_notify_counter("x", TOV_DEBUG_PID_FILE);
      EXPECT_GT(get_resource_limit(RLIMIT_NOFILE), 0);
      if (i == 0) tov_client_watch_process_fd(getpid());  // for one thread only
    }
  });
  EXPECT_EQ(found, 8 * 50 * 2);
}

TEST_F(ClientThreads, ConnectionsOwedAnAnswerAreSharedOut) {
  static constexpr size_t EACH = 2;
  FakeDaemon daemon(Manners{.think = std::chrono::milliseconds(20)});
  run_together(3, [](int) {
    for (size_t n = 0; n < EACH; n++)
      EXPECT_EQ(tov_time_set(0, TOV_RESTART, 1), 0);
  });
  const std::vector<Request> all = daemon.requests(3 * EACH);
  EXPECT_EQ(all.size(), 3 * EACH);
  for (const Request &request : all)
    EXPECT_TRUE(request.answered);
}

}  // namespace
