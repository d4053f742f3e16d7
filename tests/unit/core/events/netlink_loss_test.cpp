// The netlink reader's thread: what it hears, what it notes of it, and how it knows what it misses.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/events/netlink.h"
#include "core/events/tov_fifo.h"
#include "core/run/ends.h"
#include "core/run/flags.h"
#include "core/run/known.h"
#include "core/run/loss.h"
#include "core/run/quit.h"
#include "core/run/wake.h"
#include "include/tov_registry.h"
#include "tests/support/event_ring.h"
#include "tests/support/netlink_messages.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/simulated.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Event;
using tov_test::kernel;
using tov_test::platform;
using namespace tov_test::netlink;

static constexpr int64_t US_PER_S = 1'000'000;
static constexpr uint32_t LOST = TOV_LOSS_EVENTS;

namespace {

class TovProcessNetlink : public tov_test::Simulated, protected tov_test::EventRing {
 protected:
  TovProcessNetlink() {
    tov_ends_forget();
    EXPECT_EQ(tov_quit_init(), 0);
    (void)tov_loss_take();
  }
  ~TovProcessNetlink() override {
    kernel().fail(tov_test::CALL_EVENTFD, 1, EMFILE);
    (void)tov_quit_init();  // the next test has none
  }

  // Plans what the kernel tells at a second after the thread's beginning.
  static void at(int64_t second, const std::function<void()> &what) {
    kernel().after(second * US_PER_S, what);
  }
  // Runs the thread's body until `quit` is raised then, or something else ends it.
  static void run(int64_t seconds = 10) {
    at(seconds, [] { tov_quit_raise(); });
    tov_process_netlink(nullptr);
  }
  // What was told since the answer to the subscription.
  static tov_loss_t told() {
    tov_loss_t loss = tov_loss_take();
    loss.reasons &= ~uint32_t{TOV_LOSS_SUBSCRIBED};
    return loss;
  }

  // The sockets of the running body, which has opened nothing else.
  static tov_test::socket_s &first() { return kernel().socket(tov_quit_fd() + 1); }
  static tov_test::socket_s &second() { return kernel().socket(tov_quit_fd() + 2); }

  static const std::vector<std::string> &errors() { return platform().events[TOV_LOG_ERROR]; }
};

void post_exit(int pid, uint32_t code = 9) {
  kernel().post(exit_of(pid, pid, code));
}

void post_fork(uint32_t processor = 0) {
  kernel().post(event_of(proc_event::PROC_EVENT_FORK), processor);
}

}  // namespace

// ---- numbers --------------------------------------------------------------------------------

TEST_F(TovProcessNetlink, EventsWithoutAGapAreNoLoss) {
  at(1, [] {
    for (int pid = 1; pid <= 100; pid++) {
      post_fork();
      kernel().post(exec_of(pid));
      kernel().post(event_of(proc_event::PROC_EVENT_COMM), 1);
      post_exit(pid);
    }
  });
  run();
  EXPECT_EQ(told().reasons, 0u);
  EXPECT_EQ(queued().size(), 200u);
}

TEST_F(TovProcessNetlink, GapIsALossOfSoMany) {
  at(1, [] { post_exit(1); });
  at(2, [] {
    kernel().lose(3);
    post_fork();
    kernel().lose(1);
    post_exit(2);
    post_exit(3);
  });
  run();
  const tov_loss_t loss = told();
  EXPECT_EQ(loss.reasons, LOST);
  EXPECT_EQ(loss.count, 4u);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=0, "))) << "the reader writes nothing for it";
}

TEST_F(TovProcessNetlink, GapOfOneProcessorShowsInItsNextEvent) {
  at(1, [] {
    post_exit(1);
    kernel().post(exit_of(2, 2, 9), 5);
    kernel().lose(2, 5);
    post_exit(3);
  });
  at(2, [] { EXPECT_EQ(told().reasons, 0u); });
  at(3, [] { kernel().post(exit_of(4, 4, 9), 5); });
  run();
  EXPECT_EQ(told().count, 2u);
}

TEST_F(TovProcessNetlink, GapBeforeTheFirstEventIsNoLoss) {
  at(1, [] {
    kernel().lose(50);
    post_exit(1);
  });
  kernel().lose(7);
  run();
  EXPECT_EQ(told().count, 50u) << "what was lost before the subscription was never ours";
}

// The second socket joins later than the first.
TEST_F(TovProcessNetlink, WhatCameBeforeBothSocketsWereBoundIsNoGap) {
  kernel().before(tov_test::CALL_BIND, 2, [] {
    post_exit(1);
    post_fork();
    post_exit(2);
  });
  at(1, [] { post_exit(3); });
  run();
  EXPECT_EQ(told().reasons, 0u);
}

TEST_F(TovProcessNetlink, OthersEventsAreReadOnlyWhereANumberIsMissing) {
  at(1, [] {
    for (int i = 0; i < 100; i++)
      post_fork(1);
    post_exit(1);
  });
  at(2, [] { EXPECT_EQ(second().queue.size(), 100u); });
  at(3, [] { kernel().post(exit_of(2, 2, 9), 1); });  // the first of its processor
  at(4, [] { post_fork(1); });
  at(5, [] { kernel().post(exit_of(3, 3, 9), 1); });
  at(6, [] { EXPECT_TRUE(second().queue.empty()); });
  run();
  EXPECT_EQ(told().reasons, 0u);
}

// Each fork leaves a gap until the second socket is read: not for each of them.
TEST_F(TovProcessNetlink, GapsOfManyForksAreLookedForTogether) {
  const auto after_ms = [](int64_t ms, const std::function<void()> &what) {
    kernel().after(US_PER_S + ms * 1'000, what);
  };
  after_ms(0, [] { post_exit(1); });
  after_ms(10, [] {
    post_fork();
    post_exit(2);
  });
  after_ms(20, [] {
    post_fork();
    post_exit(3);
  });
  after_ms(100, [] { EXPECT_EQ(second().queue.size(), 2u); });
  after_ms(300, [] { EXPECT_TRUE(second().queue.empty()); });
  after_ms(400, [] {
    kernel().lose(1);
    post_exit(4);
  });
  after_ms(500, [] { EXPECT_EQ(told().count, 0u); });
  after_ms(700, [] { EXPECT_EQ(told().count, 1u); });
  run();
}

TEST_F(TovProcessNetlink, CrowdOfGapsIsLookedForSooner) {
  at(1, [] {
    post_exit(1);
    for (int pid = 2; pid <= 100; pid++) {
      post_fork();
      post_exit(pid);
    }
    kernel().lose(1);
    post_exit(101);
  });
  kernel().after(US_PER_S + 1'000, [] { EXPECT_EQ(told().count, 1u); });
  run();
}

// ---- strangers ------------------------------------------------------------------------------

TEST_F(TovProcessNetlink, EndsOfStrangersAreNotedAndGoNoFurther) {
  everybody_.reset();
  tov_known_enter(77);
  at(1, [] {
    post_exit(76, 3);
    post_exit(77, 4);
    post_exit(78, 5);
    kernel().post(exec_of(79));  // whoever executes something may be listed
  });
  run();
  tov_known_leave(77);
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 77, 4}, Event{2, 79, 0}));
  EXPECT_EQ(tov_ends_code(76, 0), 3u);
  EXPECT_EQ(tov_ends_code(78, 0), 5u);
}

TEST_F(TovProcessNetlink, EndsOfStrangersDoNotFillTheRing) {
  everybody_.reset();
  fill_ring(0);
  at(1, [] {
    for (int pid = 1; pid <= 100; pid++)
      post_exit(pid);
  });
  run();
  EXPECT_EQ(told().reasons, 0u);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=0, ")));
}

// ---- overflows ------------------------------------------------------------------------------

TEST_F(TovProcessNetlink, OverflowIsOneLossAndItsGapNone) {
  at(1, [] { post_exit(100); });
  at(2, [] {
    first().room = 10;
    for (int pid = 1; pid <= 25; pid++) {
      post_fork();
      post_exit(pid);
    }
  });
  at(3, [] { post_exit(101); });
  at(4, [] { post_exit(102); });
  run();
  const tov_loss_t loss = told();
  EXPECT_EQ(loss.reasons, LOST);
  EXPECT_EQ(loss.count, 15u);
}

TEST_F(TovProcessNetlink, DropsOfAnotherProcessorAreNoGapEither) {
  at(1, [] { kernel().post(exit_of(1, 1, 9), 5); });
  at(2, [] {
    first().room = 1;
    post_exit(2);
    kernel().post(exit_of(3, 3, 9), 5);
    kernel().post(exit_of(4, 4, 9), 5);
  });
  for (int64_t second = 3; second <= 6; second++)
    at(second, [] { post_exit(5); });
  at(7, [] { kernel().post(exit_of(6, 6, 9), 5); });
  run();
  EXPECT_EQ(told().count, 2u);
}

TEST_F(TovProcessNetlink, GapBehindAnOverflowIsALossAgain) {
  at(1, [] {
    first().room = 1;
    for (int pid = 1; pid <= 3; pid++)
      post_exit(pid);
  });
  at(2, [] { EXPECT_EQ(told().count, 2u); });
  at(3, [] { post_exit(4); });
  at(4, [] { post_exit(5); });
  at(5, [] {
    kernel().lose(6);
    post_exit(6);
  });
  run();
  EXPECT_EQ(told().count, 6u);
}

TEST_F(TovProcessNetlink, EachOverflowCountsItsOwnDrops) {
  for (int64_t second = 1; second <= 2; second++) {
    at(second, [] {
      first().room = 1;
      for (int pid = 1; pid <= 3; pid++)
        post_exit(pid);
    });
  }
  at(1, [] { EXPECT_EQ(told().count, 0u); });
  run();
  EXPECT_EQ(told().count, 4u);
}

TEST_F(TovProcessNetlink, DropsThatAreNotToldAreOfUnknownNumber) {
  for (int nth = 1; nth <= 2; nth++)
    kernel().fail(tov_test::CALL_GETSOCKOPT, nth, EINVAL);
  at(1, [] {
    first().room = 1;
    for (int pid = 1; pid <= 3; pid++)
      post_exit(pid);
  });
  run();
  const tov_loss_t loss = told();
  EXPECT_EQ(loss.reasons, uint32_t{TOV_LOSS_UNCOUNTED});
  EXPECT_EQ(loss.count, 0u);
}

TEST_F(TovProcessNetlink, WhatOthersEventsLoseConcernsNobody) {
  at(1, [] {
    post_exit(1);
    second().room = 4;
    for (int i = 0; i < 20; i++)
      post_fork();
    post_exit(2);
  });
  at(2, [] { post_exit(3); });
  at(3, [] {
    post_fork();
    post_exit(4);
  });
  at(4, [] { EXPECT_EQ(told().reasons, 0u); });
  at(5, [] {
    kernel().lose(1);
    post_exit(5);
  });
  run();
  EXPECT_EQ(told().count, 1u) << "and a gap means something again";
}

// ---- the ring -------------------------------------------------------------------------------

TEST_F(TovProcessNetlink, RingTakesWholeRecordsOrTellsOfALoss) {
  fill_ring(17);
  at(1, [] {
    post_exit(1);
    post_exit(2, 139);
  });
  run();
  EXPECT_EQ(kfifo_len(&tov_cnmsg_fifo), TOV_CNMSG_FIFO_BYTES - 17u + 12u);
  EXPECT_THAT(errors(), testing::Contains("TOV: fifo is full,pid:2 exit action will be discard! "
                                          "exit_code=139 "));
  const tov_loss_t loss = told();
  EXPECT_EQ(loss.reasons, LOST);
  EXPECT_EQ(loss.count, 1u);
  EXPECT_EQ(tov_ends_code(2, 0), 139u) << "its end is noted all the same";
}

// ---- ends -----------------------------------------------------------------------------------

TEST_F(TovProcessNetlink, EndsAreNotedWithTheKernelsTime) {
  int64_t then_us = 0;
  at(1, [&] {
    then_us = kernel().now_us();
    post_exit(77, 15);
  });
  run();
  EXPECT_EQ(tov_ends_code(77, then_us), 15u);
  EXPECT_EQ(tov_ends_code(77, then_us + 1), std::nullopt);
}

TEST_F(TovProcessNetlink, EndOfAThreadIsNotedAndNotQueued) {
  at(1, [] { kernel().post(exit_of(78, 77, 0x300)); });
  run();
  EXPECT_EQ(tov_ends_code(77, 0), 0x300u);
  EXPECT_EQ(tov_ends_code(78, 0), std::nullopt);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(TovProcessNetlink, EndOfAThreadOfAnAwaitedProcessIsQueuedAsThatOfTheProcess) {
  tov_ends_await(77);
  at(1, [] {
    kernel().post(exit_of(78, 77, 0x300));
    kernel().post(exit_of(88, 87, 0x300));
  });
  run();
  EXPECT_THAT(queued(), ElementsAre(Event{0x80000000, 77, 0x300}));
}

// ---- standing still -------------------------------------------------------------------------

TEST_F(TovProcessNetlink, EventThatIsReadASecondLateAsksForALook) {
  at(1, [] { kernel().post(exit_of(1, 1, 9), 0, US_PER_S); });
  at(2, [] { EXPECT_EQ(told().reasons, 0u); });
  at(3, [] { kernel().post(exit_of(2, 2, 9), 0, US_PER_S + 1); });
  run();
  EXPECT_EQ(told().reasons, uint32_t{TOV_LOSS_STOOD_STILL});
}

TEST_F(TovProcessNetlink, OverflowOfWhoStoodStillIsToldTogether) {
  at(1, [] { post_exit(1); });
  at(2, [] {
    first().room = 1;
    kernel().post(exit_of(2, 2, 9), 0, 2 * US_PER_S);
    post_exit(3);
    kernel().before(tov_test::CALL_GETSOCKOPT, 1, [] { EXPECT_EQ(told().reasons, 0u); });
  });
  run();
  const tov_loss_t loss = told();
  EXPECT_EQ(loss.reasons, uint32_t{LOST | TOV_LOSS_STOOD_STILL});
  EXPECT_EQ(loss.count, 1u);
}

// ---- the subscription -----------------------------------------------------------------------

TEST_F(TovProcessNetlink, AnswerAsksForALook) {
  run();
  EXPECT_EQ(tov_loss_take().reasons, uint32_t{TOV_LOSS_SUBSCRIBED});
}

TEST_F(TovProcessNetlink, NoAnswerInFiveSecondsIsTheEnd) {
  kernel().connector.answers = false;
  EXPECT_EQ(span_us([] { run(100); }), 6 * US_PER_S);  // 1 s: the logs' way to storage
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=-4, Connection timed out(110)")));
}

TEST_F(TovProcessNetlink, StrangersWhoKeepWritingDoNotPutItOff) {
  kernel().connector.answers = false;
  for (int second = 1; second < 30; second++)
    at(second, [] {
      if (errors().empty()) first().queue.push_back({"somebody", "something"});
    });
  EXPECT_LE(span_us([] { run(100); }), 8 * US_PER_S);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=-4, Connection timed out(110)")));
}

TEST_F(TovProcessNetlink, RefusalIsTheEndWithItsReason) {
  kernel().connector.refusal = EPERM;
  run(100);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=-4, Operation not permitted(1)")));
}

TEST_F(TovProcessNetlink, AnyEventProvesThatWeHear) {
  kernel().connector.refusal = EPERM;  // another's, perhaps
  at(4, [] { post_exit(1); });
  run(30);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("res=0, ")));
  EXPECT_EQ(tov_loss_take().reasons, uint32_t{TOV_LOSS_SUBSCRIBED});
}

TEST_F(TovProcessNetlink, AfterAMinuteOfSilenceItAsksWhetherItHears) {
  run(59);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SET_NAME), 1);
  tov_flag_set(quit, 0);
  EXPECT_EQ(tov_quit_init(), 0);
  run(150);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SET_NAME), 4) << "once a minute, and its own at first";
  EXPECT_EQ(kernel().calls(tov_test::CALL_SEND), 2);
  EXPECT_THAT(errors(), testing::Each(HasSubstr("res=0, ")));
}

TEST_F(TovProcessNetlink, EventsAreAsGoodAsAnAnswerThen) {
  for (int64_t second = 50; second < 500; second += 50)
    at(second, [] { post_exit(1); });
  run(500);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SET_NAME), 1);
}

TEST_F(TovProcessNetlink, WhoHearsNothingSubscribesAnewAndLooks) {
  at(30, [] { kernel().connector.answers = false; });
  at(61, [] { kernel().connector.answers = true; });
  kernel().before(tov_test::CALL_SEND, 2, [] {
    EXPECT_EQ(told().reasons, 0u);
    kernel().connector.answers = true;
  });
  run(100);
  EXPECT_THAT(errors(),
              ElementsAre("TOV: process events do not come any more, subscribe once more.",
                          HasSubstr("res=0, ")));
  EXPECT_EQ(tov_loss_take().reasons, uint32_t{TOV_LOSS_SUBSCRIBED});
  EXPECT_EQ(kernel().calls(tov_test::CALL_SEND), 2);
}

TEST_F(TovProcessNetlink, NoAnswerThenIsTheEnd) {
  at(30, [] { kernel().connector.answers = false; });
  run(100);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("subscribe once more"),
                                    HasSubstr("res=-5, Connection timed out(110)")));
}

// ---- one socket -----------------------------------------------------------------------------

namespace {

// What keeps the second socket from being had.
class TovProcessNetlinkAlone : public TovProcessNetlink, public testing::WithParamInterface<int> {};

}  // namespace

TEST_P(TovProcessNetlinkAlone, EverythingComesOverTheFirstSocket) {
  switch (GetParam()) {
    case 0:
      kernel().fail(tov_test::CALL_SOCKET, 2, EMFILE);
      break;
    case 1:
      kernel().fail(tov_test::CALL_BIND, 2, ENOMEM);
      break;
    case 2:
      kernel().fail(tov_test::CALL_SETSOCKOPT, 3, ENOMEM);
      break;  // the first's filter
    default:
      kernel().fail(tov_test::CALL_SETSOCKOPT, 5, ENOMEM);
      break;  // the second's
  }
  const size_t before = kernel().descriptors();
  at(1, [] { post_exit(1); });
  at(2, [&] {
    EXPECT_EQ(kernel().descriptors(), before + 1);
    post_fork();
    post_exit(2);
  });
  at(3, [] { EXPECT_EQ(told().reasons, 0u); });
  at(4, [] {
    kernel().lose(2);
    post_fork();
  });
  run(200);
  EXPECT_EQ(told().count, 2u);
  EXPECT_EQ(queued().size(), 2u);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SEND), 1) << "it hears its own new name";
}

INSTANTIATE_TEST_SUITE_P(Refused, TovProcessNetlinkAlone, testing::Range(0, 4));

TEST_F(TovProcessNetlink, WithoutForksItKnowsOfNoGap) {
  kernel().fail(tov_test::CALL_SOCKET, 2, EMFILE);
  kernel().fail(tov_test::CALL_SETSOCKOPT, 4, ENOMEM);  // the first's filter stays
  at(1, [] { post_exit(1); });
  at(2, [] {
    post_fork();
    post_exit(2);
  });
  run();
  EXPECT_EQ(told().reasons, 0u);
  EXPECT_EQ(queued().size(), 2u);
}

// ---- all that can fail ----------------------------------------------------------------------

TEST_F(TovProcessNetlink, NoFailedCallLosesAnEventUnheard) {
  const auto story = [](int nth) {
    tov_wake_close();
    tov_test::boot();
    tov_test::reset_platform();
    EXPECT_EQ(tov_wake_open(), 0);
    tov_flag_set(quit, 0);
    EXPECT_EQ(tov_quit_init(), 0);
    (void)tov_loss_take();
    at(1, [] {
      post_fork();
      post_exit(1);
    });
    at(2, [] {
      kernel().lose(1);
      post_exit(2);
    });
    const int before = kernel().calls();
    kernel().fail_any(nth, ENOMEM);
    run();
    return kernel().calls() - before;
  };
  const int calls = story(100'000);
  (void)queued();
  (void)told();
  for (int nth = 1; nth <= calls; nth++) {
    (void)story(nth);
    const std::vector<Event> seen = queued();
    const tov_loss_t loss = told();
    const bool has_begun = !errors().empty() && errors()[0].find("res=0, ") != std::string::npos;
    if (!has_begun) continue;  // it has ended the daemon, or its own thread at the name
    EXPECT_THAT(seen, ElementsAre(Event{0x80000000, 1, 9}, Event{0x80000000, 2, 9})) << nth;
    EXPECT_EQ(loss.count, 1u) << nth;
  }
}
