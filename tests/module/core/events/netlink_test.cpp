// The netlink reader: which datagrams and events go into the ring.
#include "core/events/netlink.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

#include "core/events/tov_fifo.h"
#include "include/tov_registry.h"
#include "tests/module/core/events/queued_events.h"
#include "tests/support/in_child.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Event;

using Bytes = std::vector<char>;

static constexpr uint32_t GROUP = CN_IDX_PROC;

// ---- messages -------------------------------------------------------------------------------

// A connector message whose data is `event`, cut to `length` bytes.
static Bytes connector(const proc_event &event, size_t length = sizeof(proc_event)) {
  cn_msg head{};
  head.id = {CN_IDX_PROC, CN_VAL_PROC};
  head.len = static_cast<uint16_t>(length);
  Bytes bytes(sizeof head + length);
  memcpy(bytes.data(), &head, sizeof head);
  memcpy(bytes.data() + sizeof head, &event, length);
  return bytes;
}

static proc_event event_of(uint32_t what) {
  proc_event event{};
  memcpy(&event, &what, sizeof what);
  return event;
}

static proc_event exit_of(int pid, int tgid, uint32_t code) {
  proc_event event = event_of(proc_event::PROC_EVENT_EXIT);
  event.event_data.exit.process_pid = pid;
  event.event_data.exit.process_tgid = tgid;
  event.event_data.exit.exit_code = code;
  return event;
}

static proc_event exec_of(int pid) {
  proc_event event = event_of(proc_event::PROC_EVENT_EXEC);
  event.event_data.exec.process_pid = pid;
  event.event_data.exec.process_tgid = pid;
  return event;
}

// A netlink message; `claimed` is the length that its header tells, its real one by default.
static Bytes message(uint16_t type, const Bytes &payload,
                     std::optional<uint32_t> claimed = std::nullopt) {
  nlmsghdr head{};
  head.nlmsg_len = claimed.value_or(static_cast<uint32_t>(NLMSG_HDRLEN + payload.size()));
  head.nlmsg_type = type;
  Bytes bytes(NLMSG_ALIGN(NLMSG_HDRLEN + payload.size()));
  memcpy(bytes.data(), &head, sizeof head);
  std::copy(payload.begin(), payload.end(), bytes.begin() + NLMSG_HDRLEN);
  return bytes;
}

static Bytes joined(const std::vector<Bytes> &parts) {
  Bytes all;
  for (const Bytes &part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

static constexpr uint16_t ORDINARY = NLMSG_MIN_TYPE;

// ---- sockets --------------------------------------------------------------------------------

// A pair of sockets of which the receiving one sees a sender address of our choice. The kernel's
// address of an abstract local socket is as long as a netlink address when its name is chosen so,
// and the name stands where port id and groups stand there.
class StandIn {
 public:
  StandIn(uint32_t port_id, uint32_t groups) {
    sender_ = tov_fd_t(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    receiver = tov_fd_t(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    memcpy(at.sun_path + 2, &port_id, sizeof port_id);
    memcpy(at.sun_path + 6, &groups, sizeof groups);
    for (int pad = 1; pad < 256; pad++) {  // the name's one free byte: others test beside us
      at.sun_path[1] = static_cast<char>(pad);
      if (bind(sender_.n, reinterpret_cast<sockaddr *>(&at), sizeof(sockaddr_nl)) == 0) break;
    }
    const sa_family_t any = AF_UNIX;  // an address without a name asks for one
    EXPECT_EQ(bind(receiver.n, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    socklen_t length = sizeof at;
    EXPECT_EQ(getsockname(receiver.n, reinterpret_cast<sockaddr *>(&at), &length), 0);
    EXPECT_EQ(connect(sender_.n, reinterpret_cast<sockaddr *>(&at), length), 0);
  }
  int receive(const Bytes &datagram) {
    EXPECT_EQ(send(sender_.n, datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
    return tov_recv_netlink_msg(receiver.n);
  }

  tov_fd_t receiver;

 private:
  tov_fd_t sender_;
};

namespace {

class TovNetlink : public tov_test::QueuedEvents {
 protected:
  static std::vector<Event> dispatched(const Bytes &message) {
    tov_dispatch_netlink_msg(reinterpret_cast<const cn_msg *>(message.data()));
    return queued();
  }

  // Leaves `room` bytes free in the ring.
  static void fill_ring(uint32_t room) {
    const Bytes filler(TOV_CNMSG_FIFO_BYTES - room);
    ASSERT_EQ(__kfifo_in(&tov_cnmsg_fifo, filler.data(), static_cast<uint32_t>(filler.size())),
              filler.size());
  }
};

class TovDispatchNetlinkMsg : public TovNetlink {};
class TovSendFifoCnmsg : public TovNetlink {};
class TovRecvNetlinkMsg : public TovNetlink {};

}  // namespace

// ---- one event ------------------------------------------------------------------------------

TEST_F(TovDispatchNetlinkMsg, ExecutionIsQueuedWithoutACode) {
  EXPECT_THAT(dispatched(connector(exec_of(77))), ElementsAre(Event{2, 77, 0}));
}

TEST_F(TovDispatchNetlinkMsg, EndOfAProcessIsQueuedWithItsCode) {
  EXPECT_THAT(dispatched(connector(exit_of(77, 77, 0x8b))),
              ElementsAre(Event{0x80000000, 77, 0x8b}));
}

TEST_F(TovDispatchNetlinkMsg, EndOfASingleThreadIsNot) {
  EXPECT_THAT(dispatched(connector(exit_of(78, 77, 0))), IsEmpty());
}

TEST_F(TovDispatchNetlinkMsg, OtherEventsAreIgnored) {
  for (const uint32_t what : {0u, 1u, 4u, 0x40u, 0x80u, 0x100u, 0x200u, 0x40000000u}) {
    proc_event event = exit_of(77, 77, 9);
    memcpy(&event, &what, sizeof what);
    EXPECT_THAT(dispatched(connector(event)), IsEmpty()) << what;
  }
}

TEST_F(TovDispatchNetlinkMsg, ShorterThanItClaimsIsIgnored) {
  const size_t exit_end = offsetof(proc_event, event_data) + 12;
  const size_t exec_end = offsetof(proc_event, event_data) + 8;
  for (size_t length = 0; length < exec_end; length++)
    EXPECT_THAT(dispatched(connector(exec_of(77), length)), IsEmpty()) << length;
  for (size_t length = 0; length < exit_end; length++)
    EXPECT_THAT(dispatched(connector(exit_of(77, 77, 9), length)), IsEmpty()) << length;
  // An older kernel tells no more than this.
  EXPECT_THAT(dispatched(connector(exec_of(77), exec_end)), ElementsAre(Event{2, 77, 0}));
  EXPECT_THAT(dispatched(connector(exit_of(77, 77, 9), exit_end)),
              ElementsAre(Event{0x80000000, 77, 9}));
}

// ---- the ring's producer --------------------------------------------------------------------

TEST_F(TovSendFifoCnmsg, FullRingDropsTheEventAndLogsIt) {
  fill_ring(0);
  tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 77, 139);
  tov_send_fifo_cnmsg(TOV_EVENT_EXEC, 78, 0);
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("TOV: fifo is full,pid:77 exit action will be discard! exit_code=139 ",
                          "TOV: fifo is full,pid:78 exec action will be discard! exit_code=0 "));
  EXPECT_EQ(kfifo_len(&tov_cnmsg_fifo), static_cast<uint32_t>(TOV_CNMSG_FIFO_BYTES));
}

TEST_F(TovSendFifoCnmsg, OneFreeByteTakesAPartOfTheRecord) {
  fill_ring(5);
  tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 77, 139);
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
  EXPECT_TRUE(kfifo_is_full(&tov_cnmsg_fifo));
  tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 78, 0);
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("TOV: fifo is full,pid:78 exit action will be discard! exit_code=0 "));
}

TEST_F(TovSendFifoCnmsg, WaitingConsumerIsWoken) {
  std::thread producer([] {
    usleep(20000);
    tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 77, 9);
  });
  EXPECT_TRUE(tov_cnmsg_fifo_wait(10000));
  producer.join();
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 77, 9}));
}

// ---- one datagram ---------------------------------------------------------------------------

TEST_F(TovRecvNetlinkMsg, KernelsDatagramIsTaken) {
  StandIn kernel(0, GROUP);
  EXPECT_EQ(kernel.receive(message(NLMSG_DONE, connector(exit_of(77, 77, 9)))), 0);
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 77, 9}));
}

TEST_F(TovRecvNetlinkMsg, OtherPortIdsAndGroupsAreIgnored) {
  const Bytes datagram = message(NLMSG_DONE, connector(exit_of(77, 77, 9)));
  EXPECT_EQ(StandIn(7, GROUP).receive(datagram), 0);
  EXPECT_EQ(StandIn(0, 2).receive(datagram), 0);
  EXPECT_EQ(StandIn(0, 0).receive(datagram), 0);
  EXPECT_EQ(StandIn(0, 3).receive(datagram), 0);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, ProcessThatSendsToTheGroupIsIgnored) {
  const tov_fd_t receiver(
      socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_USERSOCK));
  sockaddr_nl group{};
  group.nl_family = AF_NETLINK;
  group.nl_groups = GROUP;
  ASSERT_EQ(bind(receiver.n, reinterpret_cast<sockaddr *>(&group), sizeof group), 0);
  const tov_fd_t stranger(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_USERSOCK));
  const Bytes datagram = message(NLMSG_DONE, connector(exit_of(77, 77, 9)));
  // The group gets it. It goes to the kernel as well, which has no receiver for it.
  (void)sendto(stranger.n, datagram.data(), datagram.size(), 0,
               reinterpret_cast<sockaddr *>(&group), sizeof group);
  char seen;
  ASSERT_EQ(recv(receiver.n, &seen, 1, MSG_PEEK), 1);  // it did arrive
  EXPECT_EQ(tov_recv_netlink_msg(receiver.n), 0);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, AddressOfAnotherSizeIsTold) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  const tov_fd_t receiver(pair[0]), sender(pair[1]);
  const Bytes datagram = message(NLMSG_DONE, connector(exit_of(77, 77, 9)));
  ASSERT_GT(send(sender.n, datagram.data(), datagram.size(), 0), 0);
  int result = -1;
  EXPECT_THAT(diagnostics([&] { result = tov_recv_netlink_msg(receiver.n); }),
              HasSubstr("]bad address size reading netlink socket"));
  EXPECT_EQ(result, 0);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, EveryMessageOfADatagramIsLookedAt) {
  StandIn kernel(0, GROUP);
  kernel.receive(joined({message(ORDINARY, connector(exit_of(1, 1, 9))),
                         message(NLMSG_NOOP, connector(exit_of(2, 2, 9))),
                         message(ORDINARY, connector(exec_of(3)))}));
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 1, 9}, Event{2, 3, 0}));
}

TEST_F(TovRecvNetlinkMsg, MessagesStandAtMultiplesOfFour) {
  StandIn kernel(0, GROUP);
  Bytes odd = connector(exit_of(1, 1, 9));
  odd.resize(odd.size() + 3);  // the next one stands behind one byte of padding
  kernel.receive(joined({message(ORDINARY, odd), message(ORDINARY, connector(exec_of(3)))}));
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 1, 9}, Event{2, 3, 0}));
}

TEST_F(TovRecvNetlinkMsg, DoneEndsTheWalkBehindItself) {
  StandIn kernel(0, GROUP);
  kernel.receive(joined({message(NLMSG_DONE, connector(exit_of(1, 1, 9))),
                         message(ORDINARY, connector(exit_of(2, 2, 9)))}));
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 1, 9}));
}

TEST_F(TovRecvNetlinkMsg, ErrorAndOverrunEndTheWalk) {
  for (const uint16_t type : {uint16_t{NLMSG_ERROR}, uint16_t{NLMSG_OVERRUN}}) {
    StandIn kernel(0, GROUP);
    kernel.receive(joined({message(ORDINARY, connector(exit_of(1, 1, 9))),
                           message(type, connector(exit_of(2, 2, 9))),
                           message(ORDINARY, connector(exit_of(3, 3, 9)))}));
    EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 1, 9})) << type;
  }
}

TEST_F(TovRecvNetlinkMsg, WrongLengthsEndTheWalk) {
  const Bytes payload = connector(exit_of(1, 1, 9));
  const auto real = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size());
  for (const uint32_t claimed : {0u, 15u, real + 4, 0xffffffffu}) {
    StandIn kernel(0, GROUP);
    EXPECT_EQ(kernel.receive(message(NLMSG_DONE, payload, claimed)), 0);
    EXPECT_THAT(queued(), IsEmpty()) << claimed;
  }
}

TEST_F(TovRecvNetlinkMsg, ConnectorLengthBeyondTheMessageIsRefused) {
  Bytes payload = connector(exit_of(1, 1, 9));
  auto *head = reinterpret_cast<cn_msg *>(payload.data());
  head->len = static_cast<uint16_t>(head->len + 1);
  StandIn kernel(0, GROUP);
  kernel.receive(message(NLMSG_DONE, payload));
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, ShortDatagramsAreHarmless) {
  StandIn kernel(0, GROUP);
  const Bytes whole = message(NLMSG_DONE, connector(exit_of(1, 1, 9)));
  for (size_t length = 0; length < whole.size(); length++)
    EXPECT_EQ(kernel.receive(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))), 0);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, OnlyFirst1024BytesAreLookedAt) {
  StandIn kernel(0, GROUP);
  std::vector<Bytes> many(40, message(ORDINARY, connector(exit_of(1, 1, 9))));
  EXPECT_EQ(kernel.receive(joined(many)), 0);
  EXPECT_EQ(queued().size(), 1024 / many[0].size());
}

// ---- receive errors -------------------------------------------------------------------------

TEST_F(TovRecvNetlinkMsg, SilenceIsNoFailure) {
  StandIn kernel(0, GROUP);
  int result = -1;
  EXPECT_THAT(diagnostics([&] { result = tov_recv_netlink_msg(kernel.receiver.n); }),
              HasSubstr("]tov_recv_netlink_msg: netlink recvfrom fail: Resource temporarily "
                        "unavailable\n"));
  EXPECT_EQ(result, 0);
}

TEST_F(TovRecvNetlinkMsg, SocketThatIsGoneIsFatal) {
  EXPECT_EQ(tov_recv_netlink_msg(-1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(TovRecvNetlinkMsg, WhatIsNoSocketIsFatal) {
  const tov_fd_t file(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(tov_recv_netlink_msg(file.n), -1);
  EXPECT_EQ(errno, ENOTSOCK);
}

TEST_F(TovRecvNetlinkMsg, UnconnectedStreamIsFatal) {
  const tov_fd_t stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(tov_recv_netlink_msg(stream.n), -1);
  EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(TovRecvNetlinkMsg, RefusedConnectionIsFatal) {
  const tov_fd_t datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in nobody{};
  {
    // A port that was ours a moment ago.
    const tov_fd_t other(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    nobody.sin_family = AF_INET;
    nobody.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(other.n, reinterpret_cast<sockaddr *>(&nobody), sizeof nobody), 0);
    socklen_t length = sizeof nobody;
    ASSERT_EQ(getsockname(other.n, reinterpret_cast<sockaddr *>(&nobody), &length), 0);
  }
  ASSERT_EQ(connect(datagrams.n, reinterpret_cast<sockaddr *>(&nobody), sizeof nobody), 0);
  if (send(datagrams.n, "x", 1, 0) != 1) GTEST_SKIP() << "no loopback interface";
  EXPECT_EQ(tov_recv_netlink_msg(datagrams.n), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(TovRecvNetlinkMsg, SignalIsNoFailure) {
  tov_test::in_child([] {
    const tov_fd_t silent(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_USERSOCK));
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    itimerval soon{};
    soon.it_value.tv_usec = soon.it_interval.tv_usec = 50000;  // the first may come too early
    setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_EQ(tov_recv_netlink_msg(silent.n), 0);
  });
}
