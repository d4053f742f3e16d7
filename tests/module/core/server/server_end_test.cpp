// How the registration server ends: each failure of its own machinery has its number in the event
// log, `quit` is set, and everything it held is closed.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/run/flags.h"
#include "core/server/clients.h"
#include "core/server/server.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/server_thread.h"
#include "tests/module/world.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"
#include "util/owner.h"

using namespace std::chrono_literals;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using tov_test::RawClient;
using tov_test::ServerThread;
using tov_test::wait_until;

// ---- system calls that fail to order ------------------------------------------------------------

// Which call is to fail next, once. The server under test calls the functions below.
enum Failure {
  NONE,
  EPOLL_CREATE,
  EPOLL_ADD_LISTENER,
  EPOLL_ADD_CLIENT,
  EVENT_WITHOUT_INPUT,
  EVENT_OF_A_STRANGER,
  WAIT_INTERRUPTED,
  ACCEPT_BROKEN,
  ACCEPT_INTERRUPTED,
  SOCKET,
  LISTEN,
  NAME,
};
static std::atomic<int> failure{NONE};
static std::atomic<int> added{0};    // descriptors to the current event set
static std::atomic<int> removed{0};  // from it
static std::atomic<int> copied{-1};  // what a forked child has of an accepted client, see there
static std::atomic<bool> copies{false};
static std::atomic<int> accepts{0};
static std::atomic<int> asked_events{0};
static std::atomic<int> asked_timeout{0};

static bool fails(int which, int error) {
  int expected = which;
  if (!failure.compare_exchange_strong(expected, NONE)) return false;
  errno = error;
  return true;
}

extern "C" int epoll_create1(int flags) noexcept {
  added = 0;
  removed = 0;
  return fails(EPOLL_CREATE, EMFILE) ? -1 : static_cast<int>(syscall(SYS_epoll_create1, flags));
}

extern "C" int epoll_ctl(int ep, int op, int fd, epoll_event *event) noexcept {
  if (op == EPOLL_CTL_DEL) {
    removed++;
    return static_cast<int>(syscall(SYS_epoll_ctl, ep, op, fd, event));
  }
  const int which = added++ == 0 ? EPOLL_ADD_LISTENER : EPOLL_ADD_CLIENT;
  return fails(which, ENOMEM) ? -1 : static_cast<int>(syscall(SYS_epoll_ctl, ep, op, fd, event));
}

// A value that no event has, left by each wait in the records that it was not given.
static constexpr uint64_t UNTOUCHED = 0x5245434f52442121;
static std::atomic<bool> left_mark{false};
static std::atomic<int> marks_lost{0};
static std::atomic<int> records_not_cleared{0};

static void look_at_records(epoll_event *events, int count) {
  epoll_event &last = events[TOV_CLIENT_NUM];  // there is one more for the listening socket
  if (count > TOV_CLIENT_NUM) return;
  if (left_mark.exchange(true) && last.data.u64 != UNTOUCHED) marks_lost++;
  last.data.u64 = UNTOUCHED;
  for (int i = 0; i < count; i++)
    if (events[i].events != 0 || events[i].data.u64 != 0) records_not_cleared++;
}

extern "C" int epoll_wait(int ep, epoll_event *events, int count, int timeout) {
  asked_events = count;
  asked_timeout = timeout;
  look_at_records(events, count);
  const long ready = syscall(SYS_epoll_pwait, ep, events, count, timeout, nullptr, 0);
  if (ready > 0 && fails(EVENT_WITHOUT_INPUT, 0)) events[0].events = EPOLLERR | EPOLLHUP;
  if (ready > 0 && fails(EVENT_OF_A_STRANGER, 0)) events[0].data.fd = 1 << 20;
  if (ready > 0 && fails(WAIT_INTERRUPTED, EINTR)) return -1;
  return static_cast<int>(ready);
}

// Whether a second look at a client shows no input, either.
static std::atomic<bool> no_input_at_all{false};

extern "C" int poll(pollfd *waited, nfds_t count, int timeout) {
  if (no_input_at_all && count == 1 && timeout == 0) return waited->revents = POLLERR, 1;
  const timespec wait{timeout / 1000, timeout % 1000 * 1'000'000L};
  return static_cast<int>(
      syscall(SYS_ppoll, waited, count, timeout < 0 ? nullptr : &wait, nullptr, 0));
}

extern "C" int accept4(int sd, sockaddr *peer, socklen_t *length, int flags) {
  accepts++;
  if (fails(ACCEPT_BROKEN, ENFILE) || fails(ACCEPT_INTERRUPTED, EINTR)) return -1;
  const int client = static_cast<int>(syscall(SYS_accept4, sd, peer, length, flags));
  if (client >= 0 && copies.exchange(false)) copied = fcntl(client, F_DUPFD_CLOEXEC, 0);
  return client;
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  return fails(SOCKET, ENOBUFS) ? -1
                                : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int listen(int sd, int backlog) noexcept {
  EXPECT_EQ(backlog, 2048);
  return fails(LISTEN, EADDRINUSE) ? -1 : static_cast<int>(syscall(SYS_listen, sd, backlog));
}

// What a stranger does in the instant after the socket was made; null: nothing.
static std::atomic<void (*)()> after_bind{nullptr};

extern "C" int bind(int sd, const sockaddr *at, socklen_t length) noexcept {
  const int res = static_cast<int>(syscall(SYS_bind, sd, at, length));
  if (void (*stranger)() = after_bind.exchange(nullptr); stranger != nullptr) stranger();
  return res;
}

extern "C" int prctl(int option, ...) noexcept {
  va_list arguments;
  va_start(arguments, option);
  const unsigned long a = va_arg(arguments, unsigned long);
  const unsigned long b = va_arg(arguments, unsigned long);
  const unsigned long c = va_arg(arguments, unsigned long);
  const unsigned long d = va_arg(arguments, unsigned long);
  va_end(arguments);
  if (option == PR_SET_NAME && fails(NAME, EFAULT)) return -1;
  return static_cast<int>(syscall(SYS_prctl, option, a, b, c, d));
}

namespace {

class TovServerEnd : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    tov_test::set_diagnostics(TOV_DBG_VERBOSE);
    CaptureStdout();
    descriptors_ = tov_test::open_descriptors();
  }
  void TearDown() override {
    failure = NONE;
    no_input_at_all = false;
    (void)printed();
    World::TearDown();
  }
  const std::string &printed() {
    if (!printed_) printed_ = GetCapturedStdout();
    return *printed_;
  }
  // What the closing line says for a result and the error behind it.
  static std::string line(int res, int err) {
    return "Thread \"tov_process_domain\" exit, tov will be restart. res=" + std::to_string(res) +
           ", " + strerror(err) + "(" + std::to_string(err) + ")";
  }
  // One that is acknowledged and concerns no record.
  static std::string request_for_nobody() {
    return tov_test::packet(TOV_MSG_CONS,
                            tov_test::bytes_of(tov_msg_cons_t{.event = 99, .pid = 0}));
  }
  // The server has ended by itself with this result.
  void expect_end(int res, int err) {
    EXPECT_EQ(tov_flag_get(quit), 1);
    EXPECT_EQ(events(TOV_LOG_ERROR), std::vector<std::string>{line(res, err)});
    EXPECT_EQ(tov_test::open_descriptors(), descriptors_);
  }
  // Lets a running server meet a failure when the next client comes.
  void run_into(Failure which) {
    removed = 0;
    ServerThread server;
    EXPECT_TRUE(server.up());
    // Who asked has hung up, and that event is not to be the one that fails.
    EXPECT_TRUE(wait_until([] { return removed > 0; }, 30s));
    RawClient client;
    failure = which;
    client.connect();
    server.join();
  }
  // Has it from the start.
  void start_with(Failure which) {
    failure = which;
    ServerThread server;
    server.join();
  }

 private:
  std::optional<std::string> printed_;
  size_t descriptors_ = 0;
};

TEST_F(TovServerEnd, QuitOfAnotherThreadEndsWithZero) {
  {
    ServerThread server;
    ASSERT_TRUE(server.up());
    EXPECT_EQ(asked_timeout, 10000);
    server.stop();
  }
  expect_end(0, 0);
}

TEST_F(TovServerEnd, NameRefusedReturnsWithoutAWord) {
  start_with(NAME);
  EXPECT_EQ(tov_flag_get(quit), 0);
  EXPECT_TRUE(events(TOV_LOG_ERROR).empty());
  EXPECT_NE(printed().find("]tov_process_domain: Bad address\n"), std::string::npos);
}

TEST_F(TovServerEnd, PriorityRefusedIsMinusOne) {
  std::thread unprivileged([] {
    // For this thread alone: without the right to real-time priorities.
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capget, &header, data);
    data[0].effective &= ~(1u << CAP_SYS_NICE);
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
    tov_process_domain(nullptr);
  });
  unprivileged.join();
  expect_end(-1, EPERM);
  EXPECT_NE(printed().find("]tov_process_domain: set priority fail: Operation not permitted\n"),
            std::string::npos);
}

TEST_F(TovServerEnd, SocketRefusedIsMinusOne) {
  start_with(SOCKET);
  expect_end(-1, ENOBUFS);
  EXPECT_NE(printed().find("]tov_process_domain: socket sk_unix fail: "), std::string::npos);
}

TEST_F(TovServerEnd, DirectoryAtTheSocketPathIsMinusTwo) {
  unlink(TOV_SOCKET_PATH);
  ASSERT_EQ(mkdir(TOV_SOCKET_PATH, 0777), 0);
  start_with(NONE);
  rmdir(TOV_SOCKET_PATH);
  expect_end(-2, EADDRINUSE);
  EXPECT_NE(printed().find("]tov_process_domain: bind sk_unix fail: Address already in use\n"),
            std::string::npos);
}

// ---- what it touches ----------------------------------------------------------------------------

constexpr char PRECIOUS[] = "/tmp/tov_precious";

mode_t mode_of(const char *path) {
  struct stat found {};
  return lstat(path, &found) == 0 ? found.st_mode & 07777u : 0;
}

TEST_F(TovServerEnd, LinkPlantedAtTheSocketPathChangesNoOtherFilesMode) {
  const tov_fd_t precious(open(PRECIOUS, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  ASSERT_EQ(fchmod(precious.n, 0600), 0);
  // A symbolic link leads away, and so does a second name of the file itself.
  for (void (*plant)() : {+[] { (void)!symlink(PRECIOUS, TOV_SOCKET_PATH); },
                          +[] { (void)!link(PRECIOUS, TOV_SOCKET_PATH); }}) {
    static void (*planted)();
    planted = plant;
    after_bind = [] {
      unlink(TOV_SOCKET_PATH);
      planted();
    };
    // No client can connect to it; it ends before its first wait.
    failure = EPOLL_CREATE;
    ServerThread server;
    server.join();
    EXPECT_EQ(mode_of(PRECIOUS), 0600u);
    unlink(TOV_SOCKET_PATH);
  }
  unlink(PRECIOUS);
}

TEST_F(TovServerEnd, SocketIsOpenToEverybodyWhateverTheUmask) {
  const mode_t before = umask(0077);
  {
    ServerThread server;
    EXPECT_TRUE(server.up());
    EXPECT_EQ(mode_of(TOV_SOCKET_PATH), 0777u);
  }
  umask(before);
}

TEST_F(TovServerEnd, PassTouchesTheRecordsOfItsClientsAlone) {
  marks_lost = 0;
  records_not_cleared = 0;
  left_mark = false;
  ServerThread server;
  ASSERT_TRUE(server.up());
  for (int i = 0; i < 10; i++) {
    RawClient client;
    ASSERT_EQ(client.connect(), 0);
    ASSERT_TRUE(client.send(tov_test::packet(77, 0, "")));
    EXPECT_EQ(client.answer(), RawClient::CLOSED);
  }
  server.stop();
  EXPECT_TRUE(left_mark);
  EXPECT_EQ(marks_lost, 0) << "records beyond the clients' were written";
  EXPECT_EQ(records_not_cleared, 0);
}

TEST_F(TovServerEnd, RequestsTouchNoDescriptorButTheirOwn) {
  ServerThread server;
  ASSERT_TRUE(server.up());
  std::vector<RawClient> idle(50);
  for (RawClient &client : idle)
    ASSERT_EQ(client.connect(), 0);
  RawClient asking;
  ASSERT_EQ(asking.connect(), 0);
  const std::string request = request_for_nobody();
  ASSERT_TRUE(asking.send(request));
  ASSERT_EQ(asking.answer(), RawClient::ACKNOWLEDGED);  // all of them have been accepted
  const int before = added;
  for (int i = 0; i < 10; i++) {
    ASSERT_TRUE(asking.send(request));
    ASSERT_EQ(asking.answer(), RawClient::ACKNOWLEDGED);
  }
  EXPECT_EQ(added, before);
  RawClient last;
  ASSERT_EQ(last.connect(), 0);
  ASSERT_TRUE(last.send(request));
  ASSERT_EQ(last.answer(), RawClient::ACKNOWLEDGED);
  EXPECT_EQ(added, before + 1);
}

// As a child has one that was forked and has not executed its program yet: until then the kernel
// still knows the client, whose number the next one gets.
TEST_F(TovServerEnd, CopyOfAClosedClientRaisesNoMoreEvents) {
  ServerThread server;
  ASSERT_TRUE(server.up());
  ASSERT_TRUE(wait_until([] { return removed == 1; }, 30s)) << "the probe of up()";
  {
    copies = true;
    RawClient odd;
    ASSERT_EQ(odd.connect(), 0);
    ASSERT_TRUE(odd.send(tov_test::packet(77, 0, "")));
    ASSERT_TRUE(wait_until([] { return removed == 2; }, 30s));
    RawClient next;
    ASSERT_EQ(next.connect(), 0);
    ASSERT_TRUE(wait_until([] { return asked_events == 2; }, 30s));
    (void)odd.send("one more");  // arrives at the copy
    const int before = accepts;
    ASSERT_EQ(RawClient().connect(), 0);
    ASSERT_TRUE(wait_until([&] { return accepts == before + 1; }, 30s)) << "a pass is over";
    EXPECT_EQ(next.answer(100ms), RawClient::SILENCE) << "it was taken for the one before it";
  }
  EXPECT_TRUE(server.up());
  EXPECT_EQ(tov_flag_get(quit), 0);
  close(copied.exchange(-1));
}

// ---- results ------------------------------------------------------------------------------------

TEST_F(TovServerEnd, ListenRefusedIsMinusThree) {
  start_with(LISTEN);
  expect_end(-3, EADDRINUSE);
  EXPECT_NE(printed().find("]tov_process_domain: listen sk_unix fail: "), std::string::npos);
}

TEST_F(TovServerEnd, NoEventSetIsMinusFour) {
  start_with(EPOLL_CREATE);
  expect_end(-4, EMFILE);
  EXPECT_NE(printed().find("]tov_process_domain: epoll_create err(ret:-1, err:24)!\n"),
            std::string::npos);
}

TEST_F(TovServerEnd, ListenerThatCannotBeWatchedIsMinusFive) {
  start_with(EPOLL_ADD_LISTENER);
  expect_end(-5, ENOMEM);
  EXPECT_NE(printed().find("]tov_process_domain: epoll_ctl err(ep_fd:"), std::string::npos);
  EXPECT_NE(printed().find(", ret:-1, err:12)!\n"), std::string::npos);
}

TEST_F(TovServerEnd, ClientThatCannotBeWatchedIsMinusSix) {
  run_into(EPOLL_ADD_CLIENT);
  expect_end(-6, ENOMEM);
}

TEST_F(TovServerEnd, EventWithoutInputIsMinusSeven) {
  run_into(EVENT_WITHOUT_INPUT);
  const auto lines = events(TOV_LOG_ERROR);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("res=-7, "), std::string::npos);
  EXPECT_NE(printed().find("]tov_process_domain: event err: "), std::string::npos);
}

// In the instant of a hang-up the kernel shows the error before the input.
TEST_F(TovServerEnd, HangUpSeenHalfwayCostsItsClientAlone) {
  ServerThread server;
  ASSERT_TRUE(server.up());
  RawClient staying;
  ASSERT_EQ(staying.connect(), 0);
  ASSERT_TRUE(staying.send(request_for_nobody()));
  ASSERT_EQ(staying.answer(), RawClient::ACKNOWLEDGED);
  const int before = removed;
  {
    RawClient leaving;
    ASSERT_EQ(leaving.connect(), 0);
    ASSERT_TRUE(leaving.send(request_for_nobody()));
    ASSERT_EQ(leaving.answer(), RawClient::ACKNOWLEDGED);
    failure = EVENT_WITHOUT_INPUT;
  }
  EXPECT_TRUE(wait_until([&] { return removed > before; }, 30s)) << "it was dropped";
  EXPECT_EQ(failure, NONE);
  ASSERT_TRUE(staying.send(request_for_nobody()));
  EXPECT_EQ(staying.answer(), RawClient::ACKNOWLEDGED);
  EXPECT_EQ(tov_flag_get(quit), 0);
}

TEST_F(TovServerEnd, ClientsEventThatStaysWithoutInputIsMinusSeven) {
  {
    ServerThread server;
    ASSERT_TRUE(server.up());
    RawClient client;
    ASSERT_EQ(client.connect(), 0);
    ASSERT_TRUE(client.send(request_for_nobody()));
    ASSERT_EQ(client.answer(), RawClient::ACKNOWLEDGED);
    no_input_at_all = true;
    failure = EVENT_WITHOUT_INPUT;
    ASSERT_TRUE(client.send(request_for_nobody()));
    server.join();
  }
  expect_end(-7, 0);
}

TEST_F(TovServerEnd, BrokenAcceptIsMinusEight) {
  run_into(ACCEPT_BROKEN);
  expect_end(-8, ENFILE);
  EXPECT_NE(printed().find("]tov_process_domain: accept fail: Too many open files in system\n"),
            std::string::npos);
}

TEST_F(TovServerEnd, InterruptedAcceptAndWaitAreMadeAgain) {
  ServerThread server;
  ASSERT_TRUE(server.up());
  for (const int which : {ACCEPT_INTERRUPTED, WAIT_INTERRUPTED}) {
    failure = which;
    const int before = accepts;
    RawClient client;
    EXPECT_EQ(client.connect(), 0);
    EXPECT_TRUE(wait_until([&] { return failure == NONE && accepts > before; }, 30s)) << which;
  }
  EXPECT_TRUE(server.up());
  EXPECT_EQ(tov_flag_get(quit), 0);
}

TEST_F(TovServerEnd, ClientThatIsNotInTheTableIsMinusTen) {
  run_into(EVENT_OF_A_STRANGER);
  const auto lines = events(TOV_LOG_ERROR);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("res=-10, "), std::string::npos);
  EXPECT_NE(printed().find("]tov_process_domain: logic err, clnt_sd:1048576 lost!\n"),
            std::string::npos);
}

TEST_F(TovServerEnd, OneClientTooManyIsMinusNine) {
#if defined(TOV_SANITIZE_THREAD)
  GTEST_SKIP() << "filling the table takes minutes here, and one thread does it all";
#endif
  tov_test::set_diagnostics(TOV_DBG_ERROR);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 4300) GTEST_SKIP() << "both ends live here and need 4,300 open files";

  std::vector<std::unique_ptr<RawClient>> clients;
  {
    ServerThread server;
    ASSERT_TRUE(server.up());
    // The probe of up() is dropped before it counts.
    ASSERT_TRUE(wait_until([] { return asked_events == 1; }, 30s));
    for (int i = 0; i < 2048; i++) {
      clients.push_back(std::make_unique<RawClient>());
      ASSERT_EQ(clients.back()->connect(), 0) << i;
    }
    EXPECT_TRUE(wait_until([] { return asked_events == 2049; }, 30s)) << asked_events;
    EXPECT_EQ(tov_flag_get(quit), 0) << "2048 clients are served";
    RawClient one_more;
    EXPECT_EQ(one_more.connect(), 0);
    EXPECT_TRUE(wait_until([] { return tov_flag_get(quit) == 1; }, 30s));
    server.join();
  }
  const auto lines = events(TOV_LOG_ERROR);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("res=-9, "), std::string::npos);
  EXPECT_NE(printed().find("]tov_process_domain: logic err, clnt_sd full, now_sd:"),
            std::string::npos);
  for (const auto &client : clients)
    EXPECT_EQ(client->answer(1s), RawClient::CLOSED);
}

}  // namespace
