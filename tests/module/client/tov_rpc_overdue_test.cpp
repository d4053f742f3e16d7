// Connections that are done with while the daemon still owes their answers.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "client/tov_rpc.h"
#include "include/tov_wire.h"
#include "tests/module/client/requester.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/processes.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tov_test::bare_request;
using tov_test::FakeDaemon;
using tov_test::LONGEST_WAIT_FOR_AN_ANSWER;
using tov_test::Manners;
using tov_test::Request;
using tov_test::true_in_child;

namespace {

using TovRpc = tov_test::Requester;

// The daemon drops a request whose answer it cannot deliver, so a connection that is owed one must
// outlive the next requests.
void ignore_signal(int) {}

// Interrupts a thread every few milliseconds, as a host's interval timer would.
class Interrupter {
 public:
  Interrupter() : target_(pthread_self()) {
    struct sigaction action {};
    action.sa_handler = ignore_signal;
    sigaction(SIGUSR1, &action, &before_);
    thread_ = std::thread([this] {
      for (; !ending_; std::this_thread::sleep_for(20ms))
        pthread_kill(target_, SIGUSR1);
    });
  }
  Interrupter(const Interrupter &) = delete;
  Interrupter &operator=(const Interrupter &) = delete;
  ~Interrupter() {
    ending_ = true;
    thread_.join();
    sigaction(SIGUSR1, &before_, nullptr);
  }

 private:
  pthread_t target_;
  struct sigaction before_ {};
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

// The sockets that this process has open.
size_t open_sockets() {
  size_t count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (target.starts_with("socket:")) count++;
  }
  return count;
}

TEST_F(TovRpc, UnacknowledgedRequestIsAnsweredThoughTheNextOneFollowsAtOnce) {
  FakeDaemon daemon(Manners{.held = true});
  const auto begin = steady_clock::now();
  ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  ASSERT_EQ(bare_request(TOV_RESET, false), 0);
  EXPECT_LT(steady_clock::now() - begin, LONGEST_WAIT_FOR_AN_ANSWER) << "none of them waits";
  daemon.let_go();
  const std::vector<Request> requests = daemon.requests(3);
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_TRUE(requests[0].answered);
  EXPECT_TRUE(requests[1].answered);
}

TEST_F(TovRpc, DaemonThatAnswersLateStillDeliversItsAnswer) {
  FakeDaemon daemon(Manners{.think = 6s});
  ASSERT_EQ(bare_request(TOV_RESTART, true), 0) << "silence is success";
  ASSERT_EQ(bare_request(TOV_RESET, false), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[0].answered) << "or the daemon would not have carried it out";
}

TEST_F(TovRpc, RequestWhoseWaitASignalEndedIsAnsweredAllTheSame) {
  FakeDaemon daemon(Manners{.think = 2s});
  {
    const Interrupter interrupter;
    EXPECT_EQ(bare_request(TOV_RESTART, true), -1) << "the caller is told";
    EXPECT_EQ(tov_rpc_sd, -1);
  }
  const Request request = daemon.only_request();
  EXPECT_TRUE(request.answered) << "the connection was left open for it";
  ASSERT_EQ(bare_request(TOV_RESET, false), 0);
}

TEST_F(TovRpc, ConnectionOwedAnAnswerIsClosedOnceItWasAnswered) {
  FakeDaemon daemon(Manners{.held = true});
  ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  daemon.let_go();  // only now: the second one would close a connection that was answered
  ASSERT_EQ(daemon.requests(2).size(), 2u);
  const size_t before = open_sockets();
  ASSERT_EQ(bare_request(TOV_RESET, false), 0);
  ASSERT_EQ(daemon.requests(3).size(), 3u);
  // From two of ours to one, and the same at the daemon, which stands in this process.
  tov_test::wait_until([&] { return open_sockets() <= before - 2; }, 30s);
  EXPECT_LE(open_sockets(), before - 2);
}

TEST_F(TovRpc, FourConnectionsMayWaitForAnAnswerAndTheFifthWaitsForRoom) {
  FakeDaemon daemon(Manners{.answer = false});
  const auto begin = steady_clock::now();
  for (int i = 0; i < 5; i++)
    ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  EXPECT_LT(steady_clock::now() - begin, LONGEST_WAIT_FOR_AN_ANSWER)
      << "one in use and four owed an answer";
  const auto full = steady_clock::now();
  ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  const auto took = steady_clock::now() - full;
  EXPECT_GE(took, 4900ms);
  EXPECT_EQ(daemon.requests(6).size(), 6u);
}

TEST_F(TovRpc, WaitForRoomEndsWithTheFirstAnswer) {
  FakeDaemon daemon(Manners{.think = 250ms});
  for (int i = 0; i < 12; i++)
    ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  const std::vector<Request> requests = daemon.requests(12);
  ASSERT_EQ(requests.size(), 12u);
  for (const Request &request : requests)
    EXPECT_TRUE(request.answered);
}

TEST_F(TovRpc, ChildOfAForkDoesNotWaitForItsParentsAnswers) {
  FakeDaemon daemon(Manners{.answer = false});
  for (int i = 0; i < 5; i++)
    ASSERT_EQ(bare_request(TOV_SHELL_RESTART, false), 0);
  ASSERT_EQ(daemon.requests(5).size(), 5u);  // the daemon's ends, which count here, are all there
  const size_t before = open_sockets();
  EXPECT_TRUE(true_in_child([before] {
    const bool closed = open_sockets() == before - 5;
    const auto begin = steady_clock::now();
    const bool sent = bare_request(TOV_SHELL_RESTART, false) == 0;
    return closed && sent && steady_clock::now() - begin < LONGEST_WAIT_FOR_AN_ANSWER;
  }));
  EXPECT_EQ(daemon.requests(6).size(), 6u);
}

TEST_F(TovRpc, SignsOfLifeAreNotWaitedFor) {
  FakeDaemon daemon(Manners{.answer = false});
  const auto begin = steady_clock::now();
  for (int i = 0; i < 5; i++)
    ASSERT_EQ(bare_request(TOV_RESET, false), 0);
  EXPECT_LT(steady_clock::now() - begin, LONGEST_WAIT_FOR_AN_ANSWER);
  EXPECT_EQ(daemon.requests(5).size(), 5u);
}

}  // namespace
