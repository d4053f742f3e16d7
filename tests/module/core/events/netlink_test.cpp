// The netlink reader and the kernel's own sockets: who is believed, and which error is the end.
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

#include <thread>
#include <vector>

#include "core/events/tov_fifo.h"
#include "include/tov_registry.h"
#include "tests/module/world.h"
#include "tests/support/event_ring.h"
#include "tests/support/in_child.h"
#include "tests/support/netlink_messages.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Event;
using namespace tov_test::netlink;

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

class TovNetlink : public tov_test::World, protected tov_test::EventRing {};
class TovSendFifoCnmsg : public TovNetlink {};
class TovRecvNetlinkMsg : public TovNetlink {};

}  // namespace

// ---- the ring's producer --------------------------------------------------------------------

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
