// The netlink reader: which datagrams and events go into the ring.
#include "core/events/netlink.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "core/events/tov_fifo.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "include/tov_registry.h"
#include "tests/support/event_ring.h"
#include "tests/support/netlink_messages.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/simulated.h"
#include "util/owner.h"
#include "util/tov_sys.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Event;
using tov_test::kernel;
using tov_test::platform;
using namespace tov_test::netlink;

static constexpr int64_t US_PER_S = 1'000'000;

namespace {

class TovNetlink : public tov_test::Simulated, protected tov_test::EventRing {
 protected:
  static std::vector<Event> dispatched(const Bytes &message) {
    tov_dispatch_netlink_msg(reinterpret_cast<const cn_msg *>(message.data()));
    return queued();
  }

  // Lets a datagram arrive, from the kernel unless told otherwise.
  void arrive(const Bytes &datagram, uint32_t port_id = 0, uint32_t groups = GROUP) {
    sockaddr_nl sender{};
    sender.nl_family = AF_NETLINK;
    sender.nl_pid = port_id;
    sender.nl_groups = groups;
    kernel().socket(sock_.n).queue.push_back(
        {std::string(reinterpret_cast<const char *>(&sender), sizeof sender),
         std::string(datagram.begin(), datagram.end())});
  }
  std::vector<Event> received(const Bytes &datagram, uint32_t port_id = 0,
                              uint32_t groups = GROUP) {
    arrive(datagram, port_id, groups);
    EXPECT_EQ(tov_recv_netlink_msg(sock_.n), 0);
    return queued();
  }

  static const std::vector<std::string> &errors() { return platform().events[TOV_LOG_ERROR]; }

  const tov_fd_t sock_{tov_sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR)};
};

class TovDispatchNetlinkMsg : public TovNetlink {};
class TovSendFifoCnmsg : public TovNetlink {};
class TovRecvNetlinkMsg : public TovNetlink {};

// The thread's body, run by the test itself until something ends it.
class TovProcessNetlink : public TovNetlink {
 protected:
  // Its line in the event log, when `call` fails for the nth time with `error`.
  static std::string end_of_thread(tov_test::call_e call, int error, int nth = 1) {
    platform().events[TOV_LOG_ERROR].clear();
    tov_flag_set(quit, 0);
    const size_t before = kernel().descriptors();
    kernel().fail(call, nth, error);
    EXPECT_EQ(tov_process_netlink(nullptr), nullptr);
    EXPECT_EQ(kernel().descriptors(), before);
    return errors().empty() ? "nothing" : errors().back();
  }
};

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
  EXPECT_THAT(errors(),
              ElementsAre("TOV: fifo is full,pid:77 exit action will be discard! exit_code=139 ",
                          "TOV: fifo is full,pid:78 exec action will be discard! exit_code=0 "));
  EXPECT_EQ(kfifo_len(&tov_cnmsg_fifo), static_cast<uint32_t>(TOV_CNMSG_FIFO_BYTES));
}

TEST_F(TovSendFifoCnmsg, OneFreeByteTakesAPartOfTheRecord) {
  fill_ring(5);
  tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 77, 139);
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(kfifo_is_full(&tov_cnmsg_fifo));
  tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 78, 0);
  EXPECT_THAT(errors(),
              ElementsAre("TOV: fifo is full,pid:78 exit action will be discard! exit_code=0 "));
}

TEST_F(TovSendFifoCnmsg, WaitingConsumerIsWoken) {
  kernel().after(3 * US_PER_S, [] { tov_send_fifo_cnmsg(TOV_EVENT_EXIT, 77, 9); });
  EXPECT_EQ(span_us([] { EXPECT_TRUE(tov_cnmsg_fifo_wait(-1)); }), 3 * US_PER_S);
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 77, 9}));
}

// ---- one datagram ---------------------------------------------------------------------------

TEST_F(TovRecvNetlinkMsg, OnlyTheKernelsDatagramsAreTaken) {
  const Bytes datagram = message(NLMSG_DONE, connector(exit_of(77, 77, 9)));
  EXPECT_THAT(received(datagram), ElementsAre(Event{0x80000000, 77, 9}));
  EXPECT_THAT(received(datagram, 7, GROUP), IsEmpty());
  for (const uint32_t groups : {0u, 2u, 3u})
    EXPECT_THAT(received(datagram, 0, groups), IsEmpty()) << groups;
}

TEST_F(TovRecvNetlinkMsg, AddressOfAnotherSizeIsTold) {
  const Bytes datagram = message(NLMSG_DONE, connector(exit_of(77, 77, 9)));
  for (const size_t size : {size_t{0}, sizeof(sockaddr_nl) - 1, sizeof(sockaddr_nl) + 4}) {
    arrive(datagram);
    kernel().socket(sock_.n).queue.back().sender.resize(size);
    EXPECT_THAT(diagnostics([&] { EXPECT_EQ(tov_recv_netlink_msg(sock_.n), 0); }),
                HasSubstr("]bad address size reading netlink socket"));
    EXPECT_THAT(queued(), IsEmpty());
  }
}

TEST_F(TovRecvNetlinkMsg, EveryMessageOfADatagramIsLookedAt) {
  EXPECT_THAT(received(joined({message(ORDINARY, connector(exit_of(1, 1, 9))),
                               message(NLMSG_NOOP, connector(exit_of(2, 2, 9))),
                               message(ORDINARY, connector(exec_of(3)))})),
              ElementsAre(Event{0x80000000, 1, 9}, Event{2, 3, 0}));
}

TEST_F(TovRecvNetlinkMsg, MessagesStandAtMultiplesOfFour) {
  Bytes odd = connector(exit_of(1, 1, 9));
  odd.resize(odd.size() + 3);  // the next one stands behind one byte of padding
  EXPECT_THAT(received(joined({message(ORDINARY, odd), message(ORDINARY, connector(exec_of(3)))})),
              ElementsAre(Event{0x80000000, 1, 9}, Event{2, 3, 0}));
}

TEST_F(TovRecvNetlinkMsg, DoneEndsTheWalkBehindItself) {
  EXPECT_THAT(received(joined({message(NLMSG_DONE, connector(exit_of(1, 1, 9))),
                               message(ORDINARY, connector(exit_of(2, 2, 9)))})),
              ElementsAre(Event{0x80000000, 1, 9}));
}

TEST_F(TovRecvNetlinkMsg, ErrorAndOverrunEndTheWalk) {
  for (const uint16_t type : {uint16_t{NLMSG_ERROR}, uint16_t{NLMSG_OVERRUN}}) {
    EXPECT_THAT(received(joined({message(ORDINARY, connector(exit_of(1, 1, 9))),
                                 message(type, connector(exit_of(2, 2, 9))),
                                 message(ORDINARY, connector(exit_of(3, 3, 9)))})),
                ElementsAre(Event{0x80000000, 1, 9}))
        << type;
  }
}

TEST_F(TovRecvNetlinkMsg, WrongLengthsEndTheWalk) {
  const Bytes payload = connector(exit_of(1, 1, 9));
  const auto real = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size());
  for (const uint32_t claimed : {0u, 15u, real + 4, 0xffffffffu}) {
    EXPECT_THAT(received(message(NLMSG_DONE, payload, claimed)), IsEmpty()) << claimed;
  }
}

TEST_F(TovRecvNetlinkMsg, ConnectorLengthBeyondTheMessageIsRefused) {
  Bytes payload = connector(exit_of(1, 1, 9));
  auto *head = reinterpret_cast<cn_msg *>(payload.data());
  head->len = static_cast<uint16_t>(head->len + 1);
  EXPECT_THAT(received(message(NLMSG_DONE, payload)), IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, ShortDatagramsAreHarmless) {
  const Bytes whole = message(NLMSG_DONE, connector(exit_of(1, 1, 9)));
  for (size_t length = 0; length < whole.size(); length++)
    EXPECT_THAT(received(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))),
                IsEmpty());
}

TEST_F(TovRecvNetlinkMsg, OnlyFirst1024BytesAreLookedAt) {
  const std::vector<Bytes> many(40, message(ORDINARY, connector(exit_of(1, 1, 9))));
  EXPECT_EQ(received(joined(many)).size(), 1024 / many[0].size());
}

// ---- receive errors -------------------------------------------------------------------------

TEST_F(TovRecvNetlinkMsg, OnlyASocketThatIsGoneIsFatal) {
  for (const int error : {EBADF, ENOTSOCK, ENOTCONN, ECONNREFUSED}) {
    kernel().fail(tov_test::CALL_RECVFROM, 1, error);
    errno = 0;
    EXPECT_EQ(tov_recv_netlink_msg(sock_.n), -1) << error;
    EXPECT_EQ(errno, error);
  }
  for (const int error : {EAGAIN, EINTR, ENOBUFS, ENOMEM, EINVAL}) {
    kernel().fail(tov_test::CALL_RECVFROM, 1, error);
    EXPECT_EQ(tov_recv_netlink_msg(sock_.n), 0) << error;
  }
}

TEST_F(TovRecvNetlinkMsg, SilenceLastsAsLongAsTheTimeOut) {
  const timeval limit{5, 0};
  ASSERT_EQ(tov_sys_setsockopt(sock_.n, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
  EXPECT_EQ(span_us([&] { EXPECT_EQ(tov_recv_netlink_msg(sock_.n), 0); }), 5 * US_PER_S);
}

// ---- the thread -----------------------------------------------------------------------------

TEST_F(TovProcessNetlink, StepThatFailsIsTheResult) {
  const struct {
    tov_test::call_e call;
    const char *result;
  } steps[] = {
      {tov_test::CALL_SET_SCHEDULE, "res=-1, "}, {tov_test::CALL_SOCKET, "res=-2, "},
      {tov_test::CALL_BIND, "res=-3, "},         {tov_test::CALL_SEND, "res=-4, "},
      {tov_test::CALL_RECVMMSG, "res=-5, "},
  };
  for (const auto &step : steps) {
    EXPECT_EQ(end_of_thread(step.call, ENOTCONN),
              std::string("Thread \"tov_process_netlink\" exit, tov will be restart. ") +
                  step.result + "Transport endpoint is not connected(107)");
    EXPECT_EQ(tov_flag_get(quit), 1);
  }
}

TEST_F(TovProcessNetlink, ThreadWithoutANameEndsAloneAndQuietly) {
  EXPECT_EQ(end_of_thread(tov_test::CALL_SET_NAME, EPERM), "nothing");
  EXPECT_EQ(tov_flag_get(quit), 0);
}

TEST_F(TovProcessNetlink, RefusedOptionsAreOnlyToldAbout) {
  for (int nth = 1; nth <= 4; nth++)
    kernel().fail(tov_test::CALL_SETSOCKOPT, nth, EPERM);
  tov_flag_set(quit, 1);  // it ends as soon as it has begun
  const std::string said = diagnostics([] { tov_process_netlink(nullptr); });
  EXPECT_THAT(said, HasSubstr("]socket set recvbuffer error\n"));
  EXPECT_THAT(said, HasSubstr("]socket set recv timeout error\n"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=0, ")));
}

TEST_F(TovProcessNetlink, QuitIsNoticedWithinTheTimeOut) {
  kernel().after(12 * US_PER_S, [] { tov_flag_set(quit, 1); });
  // 15 s: the third time-out after it was set; 1 s: the logs' way to storage.
  EXPECT_EQ(span_us([] { tov_process_netlink(nullptr); }), 16 * US_PER_S);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SET_SCHEDULE), 1);
  EXPECT_EQ(kernel().thread_name, "tov_process_net");
}

// The same body in a daemon that has the event of `quit`.
namespace {

class TovProcessNetlinkWithEvent : public TovProcessNetlink {
 protected:
  TovProcessNetlinkWithEvent() { EXPECT_EQ(tov_quit_init(), 0); }
  ~TovProcessNetlinkWithEvent() override {
    kernel().fail(tov_test::CALL_EVENTFD, 1, EMFILE);
    (void)tov_quit_init();  // the next test has none
  }

  // The connector of the running body: the only other descriptor that was opened behind ours.
  int connector_of_body() const { return tov_quit_fd() + 1; }
  void arrive_at_body(const Bytes &datagram) {
    arrive(datagram);
    auto &mine = kernel().socket(sock_.n).queue;
    kernel().socket(connector_of_body()).queue.push_back(mine.back());
    mine.pop_back();
  }
};

}  // namespace

TEST_F(TovProcessNetlinkWithEvent, QuitIsHeardAtOnce) {
  kernel().after(12 * US_PER_S, [] { tov_quit_raise(); });
  // 1 s: the logs' way to storage.
  EXPECT_EQ(span_us([] { tov_process_netlink(nullptr); }), 13 * US_PER_S);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=0, ")));
}

TEST_F(TovProcessNetlinkWithEvent, FlagAloneIsNoticedWithinTheTimeOut) {
  kernel().after(12 * US_PER_S, [] { tov_flag_set(quit, 1); });
  EXPECT_EQ(span_us([] { tov_process_netlink(nullptr); }), 16 * US_PER_S);
}

TEST_F(TovProcessNetlinkWithEvent, SilenceIsToldAboutAfterTheTimeOut) {
  kernel().after(12 * US_PER_S, [] { tov_quit_raise(); });
  const std::string said = diagnostics([] { tov_process_netlink(nullptr); });
  const std::string line =
      "]tov_recv_netlink_msg: netlink recvfrom fail: Resource temporarily unavailable\n";
  const size_t first = said.find(line);
  ASSERT_NE(first, std::string::npos);
  const size_t second = said.find(line, first + 1);
  ASSERT_NE(second, std::string::npos);
  EXPECT_EQ(said.find(line, second + 1), std::string::npos) << "one each five seconds";
}

TEST_F(TovProcessNetlinkWithEvent, StormCostsACallForManyDatagrams) {
  static constexpr int DATAGRAMS = 100;
  kernel().after(2 * US_PER_S, [this] {
    for (int i = 0; i < DATAGRAMS; i++)
      arrive_at_body(message(NLMSG_DONE, connector(exit_of(77, 77, 9))));
  });
  kernel().after(3 * US_PER_S, [] { tov_quit_raise(); });
  tov_process_netlink(nullptr);
  EXPECT_EQ(queued().size(), size_t{DATAGRAMS});
  // The answer to the subscription, and what had come of others by then; seven times the storm.
  EXPECT_EQ(kernel().calls(tov_test::CALL_RECVMMSG), 9);
  EXPECT_EQ(kernel().calls(tov_test::CALL_POLL), 2);
}

TEST_F(TovProcessNetlinkWithEvent, SocketThatIsGoneIsFatal) {
  kernel().after(2 * US_PER_S, [this] {
    arrive_at_body({});
    kernel().fail(tov_test::CALL_RECVMMSG, 1, ENOTCONN);
  });
  EXPECT_EQ(span_us([] { tov_process_netlink(nullptr); }), 3 * US_PER_S);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=-5, Transport endpoint is not connected")));
}

TEST_F(TovProcessNetlinkWithEvent, WaitThatFailsIsReplacedByABoundedOne) {
  for (int nth = 1; nth <= 3; nth++)
    kernel().fail(tov_test::CALL_POLL, nth, ENOMEM);
  kernel().after(12 * US_PER_S, [] { tov_quit_raise(); });
  EXPECT_EQ(span_us([] { tov_process_netlink(nullptr); }), 16 * US_PER_S);
}
