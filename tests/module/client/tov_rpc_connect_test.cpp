// A client's connection: patience with an absent daemon, none with anything else.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "client/tov_rpc.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "tests/module/fake_daemon.h"
#include "tests/module/fake_sleep.h"
#include "tests/support/files.h"
#include "tests/support/stdout.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::fake_sleep;
using tov_test::FakeDaemon;
using tov_test::name_exists;
using tov_test::printed_by;
using tov_test::RefusingSocket;

namespace {

const std::string OWN = "/tmp/tov/.socket.test";

class TovRpcConnect : public testing::Test {
 protected:
  TovRpcConnect() {
    mkdir(TOV_RUN_DIR, 0777);
    unlink(OWN.c_str());
    unlink(TOV_SOCKET_PATH);
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
    tov_test::note_sleeps(false);
  }
  ~TovRpcConnect() override {
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
    tov_rpc_stop_asked = nullptr;
  }

  // Connects and keeps what is printed.
  int connect_as(const std::string &own) {
    printed_ = printed_by([&] { sd_ = tov_fd_t(tov_connect(own.c_str())); });
    return sd_.n;
  }

  tov_fd_t sd_;
  std::string printed_;
};

TEST_F(TovRpcConnect, BindsItsOwnPathAndIsCloseOnExec) {
  FakeDaemon daemon;
  ASSERT_GE(connect_as(OWN), 0);
  EXPECT_TRUE(name_exists(OWN));
  EXPECT_EQ(fcntl(sd_.n, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  sockaddr_un at{};
  socklen_t length = sizeof at;
  getsockname(sd_.n, reinterpret_cast<sockaddr *>(&at), &length);
  EXPECT_EQ(std::string(at.sun_path), OWN);
  sd_.reset();
  EXPECT_TRUE(name_exists(OWN)) << "stays until the next bind";
}

TEST_F(TovRpcConnect, AddressEndsWithThePath) {
  sockaddr_un at{};
  EXPECT_EQ(tov_rpc_address(&at, TOV_SOCKET_PATH), 15u);
  EXPECT_EQ(at.sun_family, AF_UNIX);
  EXPECT_EQ(tov_rpc_address(&at, std::string(300, 'p').c_str()), 2u + 107u);
}

TEST_F(TovRpcConnect, RemovesWhatStandsAtItsOwnPath) {
  FakeDaemon daemon;
  tov_test::write_file(OWN, "left behind");
  EXPECT_GE(connect_as(OWN), 0);
}

TEST_F(TovRpcConnect, LongOwnPathIsCutTo107Characters) {
  FakeDaemon daemon;
  const std::string path = "/tmp/tov/" + std::string(150, 's');
  EXPECT_GE(connect_as(path), 0);
  EXPECT_TRUE(name_exists(path.substr(0, 107)));
  unlink(path.substr(0, 107).c_str());
}

TEST_F(TovRpcConnect, OwnPathThatCannotBeBoundIsAFailure) {
  FakeDaemon daemon;
  EXPECT_EQ(connect_as("/tmp/tov/absent/socket"), -1);
  EXPECT_NE(printed_.find("tov_connect: bind fail: No such file or directory\n"),
            std::string::npos);
}

TEST_F(TovRpcConnect, AbsentDaemonIsTriedSixTimesASecondApart) {
  EXPECT_EQ(connect_as(OWN), -1);
  static constexpr int64_t SECOND = 1'000'000;
  EXPECT_THAT(fake_sleep.slept_us, ElementsAre(SECOND, SECOND, SECOND, SECOND, SECOND));
  EXPECT_EQ(tov_test::attempts_told_in(printed_), 6u);
  for (int retry = 0; retry < 6; retry++) {
    EXPECT_NE(printed_.find("retry:" + std::to_string(retry) + ", err:2,No such file"),
              std::string::npos);
  }
  EXPECT_FALSE(name_exists(OWN));
}

TEST_F(TovRpcConnect, DaemonThatComesUpWithinTheRetriesIsFound) {
  // A socket file without its daemon refuses (ECONNREFUSED), as after a crash.
  { FakeDaemon dead; }
  std::unique_ptr<FakeDaemon> daemon;
  fake_sleep.meanwhile = [&] {
    if (fake_sleep.slept_us.size() == 5) daemon = std::make_unique<FakeDaemon>();
  };
  EXPECT_GE(connect_as(OWN), 0);
  EXPECT_EQ(tov_test::attempts_told_in(printed_), 5u) << printed_;
}

TEST_F(TovRpcConnect, RefusedConnectionIsRetriedToo) {
  // A bound socket that does not listen.
  tov_fd_t deaf(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, TOV_SOCKET_PATH);
  ASSERT_EQ(bind(deaf.n, reinterpret_cast<sockaddr *>(&at), length), 0);
  fake_sleep.meanwhile = [&] { listen(deaf.n, 4); };
  EXPECT_GE(connect_as(OWN), 0);
  EXPECT_NE(printed_.find("retry:0, err:111,Connection refused)"), std::string::npos) << printed_;
}

TEST_F(TovRpcConnect, OtherRefusalsAreFinal) {
  RefusingSocket refusing;
  EXPECT_EQ(connect_as(OWN), -1);
  EXPECT_THAT(fake_sleep.slept_us, IsEmpty());
  EXPECT_EQ(tov_test::attempts_told_in(printed_), 1u);
  EXPECT_FALSE(name_exists(OWN));
}

TEST_F(TovRpcConnect, DaemonThatIsToEndGivesUpAtOnce) {
  tov_rpc_stop_asked = [] { return true; };
  EXPECT_EQ(connect_as(OWN), -1);
  EXPECT_THAT(fake_sleep.slept_us, IsEmpty());
}

// ---- the wait for an acknowledgement ------------------------------------------------------------

class TovRpcAck : public TovRpcConnect {
 protected:
  TovRpcAck() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sds_), 0); }
  ~TovRpcAck() override {
    for (int sd : sds_) {
      if (sd >= 0) close(sd);
    }
  }
  void answer(const std::string &bytes) {
    ASSERT_EQ(write(sds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  int sds_[2] = {-1, -1};
};

TEST_F(TovRpcAck, AnyWholeMessageWillDo) {
  answer(std::string(268, '\0'));
  EXPECT_EQ(tov_wait_msg_ack_timeout(sds_[0]), 0);

  std::string odd(268 + 16, 'x');
  memcpy(odd.data() + 4, "\x10\0\0\0", 4);
  answer(odd);
  EXPECT_EQ(tov_wait_msg_ack_timeout(sds_[0]), 0);
}

TEST_F(TovRpcAck, AnswerMayComeLate) {
  std::thread late([&] {
    std::this_thread::sleep_for(1200ms);
    answer(std::string(268, '\0'));
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(tov_wait_msg_ack_timeout(sds_[0]), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, tov_test::LONGEST_WAIT_FOR_AN_ANSWER);
  late.join();
}

TEST_F(TovRpcAck, SilenceForFiveSecondsIsSuccess) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(tov_wait_msg_ack_timeout(sds_[0]), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 4900ms);
}

TEST_F(TovRpcAck, HangUpAndMalformedAnswersAreFailures) {
  answer("short");
  EXPECT_LT(tov_wait_msg_ack_timeout(sds_[0]), 0);
  close(std::exchange(sds_[1], -1));
  EXPECT_LT(tov_wait_msg_ack_timeout(sds_[0]), 0);
}

TEST_F(TovRpcAck, EventWithoutInputIsAFailure) {
  const std::string said = printed_by([&] {
    EXPECT_EQ(tov_wait_msg_ack_timeout(1 << 20), -1);  // POLLNVAL
  });
  EXPECT_EQ(said, "");
}

void ignore_signal(int) {}

TEST_F(TovRpcAck, SignalEndsTheWait) {
  struct sigaction action {};
  action.sa_handler = ignore_signal;
  struct sigaction before {};
  sigaction(SIGUSR1, &action, &before);
  const pthread_t waiting = pthread_self();
  std::atomic<bool> ended{false};
  std::thread sender([&] {
    while (!ended) {  // the first ones may come before the wait
      std::this_thread::sleep_for(10ms);
      pthread_kill(waiting, SIGUSR1);
    }
  });
  const std::string said = printed_by([&] {
    EXPECT_EQ(tov_wait_msg_ack_timeout(sds_[0]), -1);
    ended = true;
  });
  EXPECT_NE(said.find("tov_wait_msg_ack_timeout: poll fail(ret:-1, err:4,"), std::string::npos);
  sender.join();
  sigaction(SIGUSR1, &before, nullptr);
}

// ---- reuse --------------------------------------------------------------------------------------

TEST_F(TovRpcAck, HealthyConnectionIsNotReused) {
  EXPECT_EQ(tov_check_socket(sds_[0]), -1);  // ready for writing
}

TEST_F(TovRpcAck, UnreadAnswerAndHangUpForbidReuse) {
  answer("unread");
  EXPECT_EQ(tov_check_socket(sds_[0]), -1);
  close(std::exchange(sds_[1], -1));
  EXPECT_EQ(tov_check_socket(sds_[0]), -1);
}

TEST_F(TovRpcAck, ConnectionWithNothingToSayIsReused) {
  const std::string block(8192, 'f');
  while (send(sds_[0], block.data(), block.size(), MSG_DONTWAIT) > 0)
    continue;
  EXPECT_EQ(tov_check_socket(sds_[0]), 0);  // neither readable nor writable
}

}  // namespace
