// One request of a client process: exchange, keeping the connection, forks.
#include "client/tov_rpc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdint.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "client/tov_pidfile.h"
#include "client/tov_rpc_lock.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "tests/module/client/requester.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/processes.h"
#include "tests/support/stdout.h"
#include "util/tov_utils.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tov_test::bare_request;
using tov_test::FakeDaemon;
using tov_test::Manners;
using tov_test::printed_by;
using tov_test::RefusingSocket;
using tov_test::Request;
using tov_test::true_in_child;

namespace {

using TovRpc = tov_test::Requester;

// ---- the message --------------------------------------------------------------------------------

TEST_F(TovRpc, SendsHeadAndPayloadAndIsAcknowledged) {
  FakeDaemon daemon;
  char script[] = "/etc/cmdmap/demo.sh";
  char payload[] = "0123456789";
  ASSERT_EQ(tov_rpc(TOV_SHELL_RESTART, script, payload, 10, true, false), 0);

  const Request request = daemon.only_request();
  EXPECT_EQ(request.packet.size(), 268u + 10u);
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_SHELL_RESTART));
  EXPECT_EQ(request.head().len, 10);
  EXPECT_EQ(request.head().pid, 0);
  EXPECT_STREQ(request.head().pathname, script);
  EXPECT_EQ(memcmp(request.packet.data() + 268, payload, 10), 0);
  EXPECT_EQ(request.client, own_path());
  EXPECT_TRUE(request.answered);
}

TEST_F(TovRpc, BareHeadIsAValidRequest) {
  FakeDaemon daemon;
  ASSERT_EQ(bare_request(TOV_MSG_CONS, true), 0);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.packet.size(), 268u);
  EXPECT_STREQ(request.head().pathname, "");
}

TEST_F(TovRpc, MissingPayloadIsRefused) {
  const std::string printed = printed_by([&] {
    EXPECT_EQ(tov_rpc(TOV_RESTART, nullptr, nullptr, 4, true, true), -1);
    char byte = 0;
    EXPECT_EQ(tov_rpc(TOV_RESTART, nullptr, &byte, -1, true, true), -1);
  });
  EXPECT_NE(printed.find("[TOV:tov_rpc.cpp:"), std::string::npos);
  EXPECT_NE(printed.find("]tov_rpc: argument err!\n"), std::string::npos);
}

TEST_F(TovRpc, LongPathIsCutTo255Characters) {
  FakeDaemon daemon;
  std::string path(300, 'p');
  ASSERT_EQ(tov_rpc(TOV_SHELL_RESTART, path.data(), nullptr, 0, true, false), 0);
  const Request request = daemon.only_request();
  EXPECT_EQ(std::string(request.head().pathname), path.substr(0, 255));
  EXPECT_EQ(request.head().pid, 0);
}

// ---- the exchange -------------------------------------------------------------------------------

TEST_F(TovRpc, SilentDaemonCountsAsSuccessAfterFiveSeconds) {
  FakeDaemon daemon(Manners{.answer = false});
  const auto begin = steady_clock::now();
  EXPECT_EQ(bare_request(TOV_RESTART, true), 0);
  EXPECT_GE(steady_clock::now() - begin, 4900ms);
}

TEST_F(TovRpc, AbsentDaemonFailsAfterFiveSecondsAndLeavesNoPath) {
  unlink(TOV_SOCKET_PATH);
  const std::string said = printed_by([&] {
    const auto begin = steady_clock::now();
    EXPECT_EQ(bare_request(TOV_RESTART, true), -1);
    EXPECT_GE(steady_clock::now() - begin, 4900ms);
  });
  EXPECT_NE(said.find("tov_rpc: connect fail(ret:-1)\n"), std::string::npos);
  EXPECT_NE(access(own_path().c_str(), F_OK), 0);
  EXPECT_EQ(tov_rpc_sd, -1);
}

TEST_F(TovRpc, AbsentDaemonIsSuccessForACallerThatAcceptsIt) {
  RefusingSocket refusing;
  const std::string said = printed_by([&] { EXPECT_EQ(bare_request(TOV_RESTART, true, true), 0); });
  EXPECT_NE(said.find("tov_rpc: connect fail(ret:0)\n"), std::string::npos);
}

TEST_F(TovRpc, ConnectionThatEndsInsteadOfAnsweringIsAFailure) {
  FakeDaemon daemon(Manners{.hang_up = 1});
  const std::string said = printed_by([&] { EXPECT_LT(bare_request(TOV_RESTART, true), 0); });
  EXPECT_NE(said.find("tov_rpc: recv ack err(ret:-1, err:"), std::string::npos);
  EXPECT_EQ(tov_rpc_sd, -1);
  EXPECT_EQ(bare_request(TOV_RESTART, true), 0) << "the next request connects anew";
}

TEST_F(TovRpc, TooLargeAMessageFailsInTheSend) {
  FakeDaemon daemon;
  std::vector<char> large(8 << 20);
  const std::string said = printed_by([&] {
    EXPECT_EQ(
        tov_rpc(TOV_RESTART, nullptr, large.data(), static_cast<int>(large.size()), true, false),
        -1);
  });
  EXPECT_NE(said.find("tov_rpc: send fail(ret:-1, err:90,Message too long)\n"), std::string::npos);
  EXPECT_EQ(tov_rpc_sd, -1);
}

TEST_F(TovRpc, AnswerOfAStrangerIsSurvived) {
  for (const size_t size : {size_t{1}, size_t{267}, size_t{268}, size_t{5000}}) {
    Manners manners;
    manners.answer_bytes.assign(size, '\xff');
    FakeDaemon daemon(manners);
    EXPECT_LT(bare_request(TOV_RESTART, true), 0) << size;  // its length is -1 or it is too short
  }
}

// ---- the kept connection -----------------------------------------------------------------------

TEST_F(TovRpc, ConnectionIsKeptAfterSuccess) {
  FakeDaemon daemon;
  ASSERT_EQ(bare_request(TOV_RESTART, true), 0);
  EXPECT_GE(tov_rpc_sd, 0);
}

TEST_F(TovRpc, EachRequestConnectsAnewUnderTheSamePath) {
  FakeDaemon daemon;
  for (int i = 0; i < 3; i++)
    ASSERT_EQ(bare_request(TOV_RESTART, true), 0);
  const std::vector<Request> requests = daemon.requests(3);
  EXPECT_EQ(daemon.connections(), 3u);
  for (const Request &request : requests)
    EXPECT_EQ(request.client, own_path());
}

TEST_F(TovRpc, ThreadsTakeTurns) {
  static constexpr size_t THREADS = 8;
  static constexpr size_t EACH = 25;
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  FakeDaemon daemon;
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  std::atomic<int> failures{0};
  for (size_t t = 0; t < THREADS; t++) {
    threads.emplace_back([&] {
      for (size_t i = 0; i < EACH; i++) {
        if (bare_request(TOV_RESTART, true) != 0) failures++;
      }
    });
  }
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(daemon.requests(THREADS * EACH).size(), THREADS * EACH);
}

// ---- retries ------------------------------------------------------------------------------------

TEST_F(TovRpc, PersistentRequestIsRepeatedASecondLater) {
  FakeDaemon daemon(Manners{.hang_up = 2});
  const auto begin = steady_clock::now();
  tov_msg_cons_t payload = {.event = 7, .pid = 1};
  EXPECT_EQ(tov_rpc_persist(TOV_MSG_CONS, &payload, sizeof payload), 0);
  EXPECT_GE(steady_clock::now() - begin, 2s);
  EXPECT_EQ(daemon.requests(3).size(), 3u);
}

TEST_F(TovRpc, PersistentRequestEndsWithTheDaemonThatMakesIt) {
  RefusingSocket refusing;
  static std::atomic<int> asked;
  asked = 0;
  tov_rpc_stop_asked = [] { return ++asked > 4; };
  const auto begin = steady_clock::now();
  EXPECT_EQ(tov_rpc_persist(TOV_RESTART, nullptr, 0), -1);
  EXPECT_LT(steady_clock::now() - begin, 10s);
}

// ---- forks and cancelled threads ---------------------------------------------------------------

TEST_F(TovRpc, ChildOfAForkHasNoConnectionAndMakesItsOwn) {
  FakeDaemon daemon;
  ASSERT_EQ(bare_request(TOV_RESTART, true), 0);
  const int parents = tov_rpc_sd;
  EXPECT_TRUE(
      true_in_child([] { return tov_rpc_sd == -1 && bare_request(TOV_RESTART, true) == 0; }));
  EXPECT_EQ(tov_rpc_sd, parents);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].client, own_path());
  EXPECT_NE(requests[1].client, own_path());
  EXPECT_EQ(bare_request(TOV_RESTART, true), 0) << "the parent goes on";
}

TEST_F(TovRpc, ForkWhileAnotherThreadWaitsLeavesTheChildFree) {
#ifdef TOV_SANITIZE_THREAD
  GTEST_SKIP() << "the thread sanitizer does not support forking with threads";
#endif
  FakeDaemon daemon(Manners{.think = 1500ms});
  std::thread busy([] { bare_request(TOV_RESTART, true); });
  ASSERT_TRUE(tov_test::wait_until(
      [] {
        return pthread_mutex_trylock(&tov_rpc_lock) != 0 ||
               (pthread_mutex_unlock(&tov_rpc_lock), false);
      },
      30s));
  // Without a fresh lock the child would hang here for ever.
  EXPECT_TRUE(true_in_child([] {
    alarm(30);
    return bare_request(TOV_RESTART, true) == 0;
  }));
  busy.join();
  EXPECT_EQ(daemon.requests(2).size(), 2u);
}

// Whether a descriptor of this process leads to `file`.
bool holds_open(const std::string &file) {
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == file) return true;
  }
  return false;
}

TEST_F(TovRpc, ChildOfAForkHoldsNoRegistrationFileOfItsParent) {
  FakeDaemon daemon;
  ASSERT_EQ(bare_request(TOV_RESTART, true), 0);
  ASSERT_EQ(tov_db_create(0, getpid(), RESPAWN, "/opt/forker"), 0);
  const std::string file = std::string(DB_DIR) + "/forker." + std::to_string(getpid());
  ASSERT_TRUE(holds_open(file));
  EXPECT_TRUE(true_in_child([&] { return !holds_open(file); }));
  EXPECT_TRUE(true_in_child([&] {
    const tov_fd_t fd(open(file.c_str(), O_RDWR | O_CLOEXEC));
    return fd.n >= 0 && lock_file(fd.n) != 0;
  })) << "the first child's closing did not release the parent's lock";
}

TEST_F(TovRpc, CancelledThreadLeavesTheLockFree) {
  FakeDaemon daemon(Manners{.held = true});
  std::atomic<bool> returned{false};
  std::thread doomed([&] {
    bare_request(TOV_RESTART, true);
    returned = true;
    for (;;)
      pause();
  });
  EXPECT_TRUE(tov_test::wait_until([&] { return daemon.connections() == 1; }, 30s));
  pthread_cancel(doomed.native_handle());
  daemon.let_go();
  doomed.join();
  EXPECT_TRUE(returned) << "the request was carried through first";
  EXPECT_EQ(bare_request(TOV_RESTART, true), 0);
}

}  // namespace
