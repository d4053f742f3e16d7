// The registration server against good, unlucky and hostile clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "tests/module/server_thread.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"
#include "tests/support/stdout.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tov_test::bytes_of;
using tov_test::Child;
using tov_test::packet;
using tov_test::printed_by;
using tov_test::RawClient;
using tov_test::wait_until;

namespace {

// One server for all tests of the suite: nothing that a client does may end it.
class TovServer : public tov_test::World {
 protected:
  static void SetUpTestSuite() {
    World::SetUpTestSuite();
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    server_ = std::make_unique<tov_test::ServerThread>();
    ASSERT_TRUE(server_->up());
  }
  static void TearDownTestSuite() { server_.reset(); }

  ~TovServer() override {
    EXPECT_EQ(tov_flag_get(quit), 0) << "the server has ended";
    EXPECT_TRUE(good_client_is_served());
    // The clients of this test have hung up; the next test begins without them in the table.
  }

  static tov_msg_xtach_t own_payload() {
    tov_msg_xtach_t payload{};
    payload.pid = getpid();
    return payload;
  }
  // Registers and withdraws through a fresh connection.
  static bool good_client_is_served() {
    RawClient client;
    const tov_msg_cons_t nothing = {.event = 99, .pid = 0};
    const auto begin = steady_clock::now();
    return client.connect() == 0 && client.send(packet(TOV_MSG_CONS, bytes_of(nothing))) &&
           client.answer() == RawClient::ACKNOWLEDGED && steady_clock::now() - begin < 5s;
  }
  // A request and what comes of it, on a connection of its own.
  static RawClient::Answer answer_to(const std::string &bytes,
                                     std::chrono::milliseconds limit = 10s) {
    RawClient client;
    if (client.connect() != 0 || !client.send(bytes)) return RawClient::ODD;
    return client.answer(limit);
  }
  static bool registered(tov_chains_t &chains, pid_t pid) {
    return record_of(chains, pid).pid == pid;
  }

  static std::unique_ptr<tov_test::ServerThread> server_;
};
std::unique_ptr<tov_test::ServerThread> TovServer::server_;

// ---- good clients -------------------------------------------------------------------------------

TEST_F(TovServer, SocketIsOpenToEverybody) {
  struct stat found {};
  ASSERT_EQ(stat("/tmp/tov/.tov", &found), 0);
  EXPECT_TRUE(S_ISSOCK(found.st_mode));
  EXPECT_EQ(found.st_mode & 07777u, 0777u);
}

TEST_F(TovServer, RequestIsAcknowledgedAndCarriedOut) {
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  EXPECT_EQ(answer_to(packet(TOV_RESTART, bytes_of(payload))), RawClient::ACKNOWLEDGED);
  EXPECT_TRUE(wait_until([&] { return registered(tov_chains, process.pid()); }, 30s));

  const tov_msg_cons_t removal = {.event = TOV_CONS_DUMP_ALL, .pid = process.pid()};
  EXPECT_EQ(answer_to(packet(TOV_MSG_CONS, bytes_of(removal))), RawClient::ACKNOWLEDGED);
  EXPECT_TRUE(wait_until([&] { return !registered(tov_chains, process.pid()); }, 30s));
}

TEST_F(TovServer, ManyRequestsMayUseOneConnection) {
  RawClient client;
  ASSERT_EQ(client.connect(), 0);
  const tov_msg_cons_t nothing = {.event = 99, .pid = 0};
  for (int i = 0; i < 50; i++) {
    ASSERT_TRUE(client.send(packet(TOV_MSG_CONS, bytes_of(nothing))));
    ASSERT_EQ(client.answer(), RawClient::ACKNOWLEDGED);
  }
}

TEST_F(TovServer, ScriptOfARequestReachesTheRecord) {
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  ASSERT_EQ(answer_to(packet(TOV_SHELL_RESTART, bytes_of(payload), "/etc/cmdmap/demo")),
            RawClient::ACKNOWLEDGED);
  ASSERT_TRUE(wait_until([&] { return registered(tov_chains, process.pid()); }, 30s));
  EXPECT_STREQ(record_of(tov_chains, process.pid()).pathname, "/etc/cmdmap/demo");
}

TEST_F(TovServer, SignOfLifeIsCarriedOutWithoutAnAnswer) {
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  RawClient client;
  ASSERT_EQ(client.connect(), 0);
  ASSERT_TRUE(client.send(packet(TOV_RESET, bytes_of(payload))));
  EXPECT_EQ(client.answer(300ms), RawClient::SILENCE);
  EXPECT_TRUE(wait_until([&] { return registered(tov_alive_chains, process.pid()); }, 30s));
}

TEST_F(TovServer, ThreadIsWatchedAndLetGo) {
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  payload.ppid = getpid();
  EXPECT_EQ(answer_to(packet(TOV_MSG_ACK, bytes_of(payload))), RawClient::ACKNOWLEDGED);
  EXPECT_TRUE(wait_until([&] { return registered(tov_alive_chains, process.pid()); }, 30s));
  const tov_msg_cons_t removal = {.event = TOV_UNREG_THREAD_NOTIFY, .pid = process.pid()};
  EXPECT_EQ(answer_to(packet(TOV_MSG_CONS, bytes_of(removal))), RawClient::ACKNOWLEDGED);
  EXPECT_TRUE(wait_until([&] { return !registered(tov_alive_chains, process.pid()); }, 30s));
}

TEST_F(TovServer, LibraryAndServerUnderstandEachOther) {
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  EXPECT_TRUE(wait_until([] { return registered(tov_chains, getpid()); }, 30s));
  EXPECT_EQ(tov_cancel_proc(0), 0);
  EXPECT_TRUE(wait_until([] { return !registered(tov_chains, getpid()); }, 30s));

  EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/x"), 0);
  EXPECT_EQ(tov_time_set(getpid(), TOV_RESTART, 5), 0) << "changes nothing after a registration";
  EXPECT_TRUE(wait_until([] { return registered(tov_chains, getpid()); }, 30s));
  EXPECT_EQ(record_of(tov_chains, getpid()).restart_time, 0);
  EXPECT_EQ(tov_cancel_proc(getpid()), 0);
}

TEST_F(TovServer, RequestsSentInABurstOnFreshConnectionsAreAllCarriedOut) {
  // None waits for its acknowledgement, and each next one closes the connection of the last.
  std::vector<std::unique_ptr<Child>> processes;
  processes.reserve(20);
  for (int i = 0; i < 20; i++)
    processes.push_back(std::make_unique<Child>());
  for (const auto &process : processes) {
    ASSERT_EQ(reg_process_exit_action_shell(process->pid(), TOV_SHELL_RESTART, "/opt/x"), 0);
  }
  EXPECT_TRUE(wait_until([] { return count(tov_chains) == 20; }, 30s))
      << count(tov_chains) << " of 20";
}

// ---- bad requests -------------------------------------------------------------------------------

TEST_F(TovServer, UnknownTypesCostTheConnection) {
  for (const uint32_t type : {0u, 6u, 99u, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ(answer_to(packet(type, bytes_of(own_payload()))), RawClient::CLOSED) << type;
  }
  EXPECT_TRUE(events(TOV_LOG_ERROR).empty()) << "strangers must not fill the log";
}

TEST_F(TovServer, PacketsShorterThanAHeadCostTheConnection) {
  for (const size_t size : {size_t{1}, size_t{8}, size_t{267}}) {
    EXPECT_EQ(answer_to(std::string(size, '\1')), RawClient::CLOSED) << size;
  }
}

TEST_F(TovServer, EmptyPacketCostsTheConnection) {
  EXPECT_EQ(answer_to(""), RawClient::CLOSED);
}

TEST_F(TovServer, LyingLengthsCostTheConnection) {
  const std::string payload = bytes_of(own_payload());
  for (const int32_t len : {-1, INT_MIN, INT_MIN + 268, 321, 100000, INT_MAX - 268, INT_MAX}) {
    EXPECT_EQ(answer_to(packet(TOV_RESTART, len, payload)), RawClient::CLOSED) << len;
  }
  EXPECT_EQ(count(tov_chains), 0);
}

TEST_F(TovServer, PacketLongerThanItSaysIsServed) {
  const std::string more = bytes_of(own_payload()) + std::string(9000, 'x');
  EXPECT_EQ(answer_to(packet(TOV_RESTART, 320, more)), RawClient::ACKNOWLEDGED);
  EXPECT_TRUE(wait_until([] { return registered(tov_chains, getpid()); }, 30s));
}

TEST_F(TovServer, ShortRecordsAreAcknowledgedAndRefused) {
  const std::string whole = bytes_of(own_payload());
  for (const uint32_t type : {TOV_RESTART, TOV_SHELL_RESTART, TOV_MSG_ACK}) {
    for (const size_t size : {size_t{0}, size_t{4}, size_t{319}}) {
      RawClient client;
      ASSERT_EQ(client.connect(), 0);
      ASSERT_TRUE(client.send(packet(type, whole.substr(0, size))));
      EXPECT_EQ(client.answer(), RawClient::ACKNOWLEDGED) << type << " with " << size;
      ASSERT_TRUE(client.send(packet(TOV_MSG_CONS, "short")));
      EXPECT_EQ(client.answer(), RawClient::ACKNOWLEDGED) << "the connection stays";
    }
  }
  EXPECT_TRUE(good_client_is_served());
  EXPECT_EQ(count(tov_chains) + count(tov_alive_chains), 0);
}

TEST_F(TovServer, ResultOfAShortRecordIsToldLikeAnyOther) {
  static constexpr struct {
    uint32_t type;
    int32_t len;
    const char *handler;
  } requests[] = {
      {TOV_RESTART, 319, "tov_process_restart"},
      {TOV_SHELL_RESTART, 0, "tov_process_shell_restart"},
      {TOV_MSG_ACK, 4, "tov_notifier_start"},
      {TOV_MSG_CONS, 7, "tov_process_cons_msg"},
  };
  const std::string printed = diagnostics([&] {
    for (const auto &request : requests) {
      const std::string payload(static_cast<size_t>(request.len), 'x');
      EXPECT_EQ(answer_to(packet(request.type, payload)), RawClient::ACKNOWLEDGED);
    }
    EXPECT_TRUE(good_client_is_served());  // the requests before it are done
  });
  for (const auto &request : requests) {
    const std::string type = "type:" + std::to_string(request.type);
    EXPECT_NE(printed.find("]" + std::string(request.handler) + ": payload too short(" + type +
                           ", len:" + std::to_string(request.len) + ")!\n"),
              std::string::npos);
    EXPECT_NE(printed.find("]tov_dispatch_domain_msg " + type + " err:-1\n"), std::string::npos)
        << type;
  }
}

TEST_F(TovServer, UnterminatedTextsAreCut) {
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  memset(payload.pathname, 'p', sizeof payload.pathname);
  memset(payload.grp, 'g', sizeof payload.grp);
  EXPECT_EQ(answer_to(packet(TOV_SHELL_RESTART, bytes_of(payload), std::string(256, 's'))),
            RawClient::ACKNOWLEDGED);
  ASSERT_TRUE(wait_until([&] { return registered(tov_chains, process.pid()); }, 30s));
  EXPECT_EQ(std::string(record_of(tov_chains, process.pid()).pathname), std::string(255, 's'));
}

TEST_F(TovServer, RefusedPacketIsNotAskedAboutAgain) {
  const std::string printed = diagnostics([&] {
    EXPECT_EQ(answer_to(packet(TOV_RESTART, -5, "")), RawClient::CLOSED);
    EXPECT_EQ(answer_to(packet(77, 0, "")), RawClient::CLOSED);
  });
  const auto first = printed.find("recv domain msg with len=-5\r\n");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(printed.find("recv domain msg with len=-5", first + 1), std::string::npos);
  EXPECT_NE(printed.find("]tov_recv_domain_msg: tov_inner_recv_msg err(ret:-1, sk:"),
            std::string::npos);
  EXPECT_NE(printed.find("]recv unknown type msg 77\n"), std::string::npos);
  EXPECT_NE(printed.find("]tov_recv_domain_msg: tov_inner_rsp_msg err(ret:-1, sk:"),
            std::string::npos);
}

// ---- unlucky and hostile clients ----------------------------------------------------------------

TEST_F(TovServer, ClientThatSaysNothingIsDroppedWhenItGoes) {
  for (int i = 0; i < 3000; i++) {
    RawClient client;
    ASSERT_EQ(client.connect(), 0) << i;  // more than the table holds, one after the other
  }
}

TEST_F(TovServer, SilentClientDelaysNoOther) {
  RawClient silent;
  ASSERT_EQ(silent.connect(), 0);
  for (int i = 0; i < 20; i++)
    EXPECT_TRUE(good_client_is_served());
  EXPECT_EQ(silent.answer(50ms), RawClient::SILENCE);
}

TEST_F(TovServer, ClientThatNeverReadsItsAnswersIsDropped) {
  RawClient deaf;
  ASSERT_EQ(deaf.connect(), 0);
  const tov_msg_cons_t nothing = {.event = 99, .pid = 0};
  const std::string request = packet(TOV_MSG_CONS, bytes_of(nothing));
  int sent = 0;
  while (sent < 100000 && deaf.send(request))
    sent++;
  EXPECT_LT(sent, 100000) << "it is hung up on once its queue is full";
}

TEST_F(TovServer, RequestOfAClientThatHangsUpAtOnceIsNotCarriedOut) {
  // It cannot be acknowledged. The server is held meanwhile, or it would be quick enough.
  const Child process;
  auto payload = own_payload();
  payload.pid = process.pid();
  {
    const tov_chains_guard_t hold(tov_chains);
    const Child other;
    auto first = own_payload();
    first.pid = other.pid();
    ASSERT_EQ(answer_to(packet(TOV_RESTART, bytes_of(first))), RawClient::ACKNOWLEDGED);
    // Now it waits for the registry.
    RawClient hasty;
    ASSERT_EQ(hasty.connect(), 0);
    ASSERT_TRUE(hasty.send(packet(TOV_RESTART, bytes_of(payload))));
  }
  EXPECT_TRUE(good_client_is_served());
  EXPECT_FALSE(registered(tov_chains, process.pid()));
}

TEST_F(TovServer, ClientThatDiesInTheMiddleHarmsNoOther) {
  for (int i = 0; i < 50; i++) {
    const pid_t pid = fork();
    if (pid == 0) {
      RawClient client;
      if (client.connect() == 0) client.send(packet(TOV_RESTART, bytes_of(own_payload())));
      kill(getpid(), SIGKILL);
    }
    waitpid(pid, nullptr, 0);
  }
}

TEST_F(TovServer, TwoThousandClientsAtOnceAreServed) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 4300) GTEST_SKIP() << "both ends live here and need 4,300 open files";
  std::vector<std::unique_ptr<RawClient>> clients;
  const tov_msg_cons_t nothing = {.event = 99, .pid = 0};
  const int crowd = 2000 / tov_test::patience();  // the work grows with their square
  for (int i = 0; i < crowd; i++) {
    clients.push_back(std::make_unique<RawClient>());
    ASSERT_EQ(clients.back()->connect(), 0) << i;
    ASSERT_TRUE(clients.back()->send(packet(TOV_MSG_CONS, bytes_of(nothing))));
  }
  for (const auto &client : clients)
    ASSERT_EQ(client->answer(60s), RawClient::ACKNOWLEDGED);
}

// Resident memory of this process in pages.
long resident_pages() {
  long size = 0;
  long resident = 0;
  FILE *file = fopen("/proc/self/statm", "re");
  if (fscanf(file, "%ld %ld", &size, &resident) != 2) resident = -1;
  fclose(file);
  return resident;
}

TEST_F(TovServer, RandomPacketsCostOnlyTheirSenders) {
  // TOV_TEST_PACKETS asks for another number, such as a million.
  const char *asked = getenv("TOV_TEST_PACKETS");
  const int packets =
      asked != nullptr ? atoi(asked) : 50000 / (tov_test::patience() * tov_test::patience());
  std::mt19937 random(20261115);
  const auto noise = [&](int count) {
    auto client = std::make_unique<RawClient>();
    ASSERT_EQ(client->connect(), 0);
    for (int i = 0; i < count; i++) {
      if (client->send(tov_test::random_packet(random), MSG_DONTWAIT)) {
        if (i % 64 == 0) client->answer(0ms);
        continue;
      }
      client = std::make_unique<RawClient>();
      ASSERT_EQ(client->connect(), 0);
      if (i % 1000 == 0) {
        ASSERT_TRUE(good_client_is_served());
      }
    }
  };
  noise(5000 / tov_test::patience());
  [[maybe_unused]] const long before = resident_pages();
  noise(packets);
  EXPECT_TRUE(good_client_is_served());
#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
  // Random ids hit some of the machine's processes: a record each, and each only once.
  EXPECT_LT(resident_pages() - before, 4 * 256) << "4 MiB";
#endif
}

}  // namespace
