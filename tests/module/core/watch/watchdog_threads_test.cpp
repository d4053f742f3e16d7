// Client threads that register, give signs of life, withdraw and end while the watchdog scans: all
// of them in one process and on the same mapping, where the thread sanitizer sees every access.
//
// On a device the two sides are processes of their own; here the process maps the area as a client,
// so that the scan reads the very bytes that the clients write.
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/registry/tov_chain.h"
#include "core/watch/watchdog.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "tests/module/world.h"
#include "tests/support/processes.h"

namespace {

constexpr int CLIENTS = 4;
constexpr int SCANS = 100;
constexpr unsigned int BUDGET = 5;
constexpr unsigned int PERIOD_S = 60;  // a scan; so each one without a sign of life is a miss

using TovNotiferThreads = tov_test::World;

// The server's work for a client's request, in that client's thread: here no server runs.
tov_msg_xtach_t request_of(pid_t tid) {
  tov_msg_xtach_t payload{};
  payload.pid = tid;
  payload.ppid = getpid();
  payload.m_n_counter = payload.m_n_cur_counter = BUDGET;
  payload.m_n_notify_time = PERIOD_S;
  return payload;
}

void enrol(pid_t tid) {
  tov_msg_xtach_t payload = request_of(tid);
  EXPECT_EQ(tov_notifier_start(&payload), 0);
}

// Gives signs of life until it is told to stop; every now and then it withdraws and comes again.
void live(const std::atomic<bool> &stop, std::atomic<int> &signs) {
  static constexpr int SIGNS_BETWEEN = 64;
  const pid_t tid = gettid();
  enrol(tid);
  for (int i = 1; !stop; i++) {
    EXPECT_EQ(tov_client_reset_thread_notify(getpid(), tid, PERIOD_S, BUDGET), 0);
    signs++;
    if (i % SIGNS_BETWEEN != 0) continue;
    tov_notifier_stop(tid);
    enrol(tid);
  }
  tov_notifier_stop(tid);
}

}  // namespace

TEST_F(TovNotiferThreads, LiveBesideTheScan) {
  ASSERT_EQ(tov_sys_init_alive_info(false), 0);
  enrol(getpid());  // the owner; its own signs of life come between the scans
  std::atomic<bool> stop{false};
  std::atomic<int> signs[CLIENTS];
  std::vector<std::thread> clients;
  for (std::atomic<int> &count : signs) {
    count = 0;
    clients.emplace_back([&stop, &count] { live(stop, count); });
  }
  // Between two scans every client is heard of, so no budget can ever be spent.
  for (int scan = 0; scan < SCANS; scan++) {
    int before[CLIENTS];
    for (int i = 0; i < CLIENTS; i++)
      before[i] = signs[i];
    ASSERT_TRUE(tov_test::wait_until(
        [&] {
          for (int i = 0; i < CLIENTS; i++)
            if (signs[i] <= before[i]) return false;
          return true;
        },
        tov_test::Millis(30'000)));
    EXPECT_EQ(tov_client_reset_thread_notify(getpid(), gettid(), PERIOD_S, BUDGET), 0);
    tov_notifer_scan();
  }
  stop = true;
  for (std::thread &client : clients)
    client.join();
  EXPECT_EQ(events(TOV_LOG_KILL), std::vector<std::string>());
  EXPECT_EQ(count(tov_alive_chains), 1) << "the owner's";
  const tov_pid_t *owner = find(getpid(), tov_alive_chains);
  ASSERT_NE(owner, nullptr);
  EXPECT_EQ(owner->m_n_cur_counter, BUDGET);
}
