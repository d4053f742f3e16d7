// The end of the daemon, said and heard: with its event, without it, and when a wait fails.
#include "core/run/quit.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include "core/run/flags.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/tov_sys.h"

using tov_test::kernel;

namespace {

constexpr int64_t US_PER_S = 1'000'000;
constexpr int64_t US_PER_MS = 1'000;

class TovQuit : public tov_test::Simulated {
 protected:
  TovQuit() { EXPECT_EQ(tov_quit_init(), 0); }

  static void lose_the_event() {
    kernel().fail(tov_test::CALL_EVENTFD, 1, EMFILE);
    EXPECT_EQ(tov_quit_init(), -EMFILE);
  }
  static bool is_readable() {
    pollfd asked{tov_quit_fd(), POLLIN, 0};
    return tov_sys_poll(&asked, 1, 0) == 1;
  }
};

TEST_F(TovQuit, EventStaysWithTheDaemon) {
  EXPECT_EQ(kernel().file_of(tov_quit_fd())->flags & (EFD_CLOEXEC | EFD_NONBLOCK),
            EFD_CLOEXEC | EFD_NONBLOCK);
}

TEST_F(TovQuit, RaisedOnceItIsReadableForEver) {
  EXPECT_FALSE(is_readable());
  tov_quit_raise();
  EXPECT_EQ(tov_flag_get(quit), 1);
  for (int i = 0; i < 3; i++) {
    EXPECT_TRUE(is_readable());
    EXPECT_TRUE(tov_quit_wait(60'000));
    tov_quit_raise();
  }
}

TEST_F(TovQuit, EventThatIsMadeTooLateIsReadableAtOnce) {
  tov_quit_raise();
  EXPECT_EQ(tov_quit_init(), 0);
  EXPECT_TRUE(is_readable());
}

TEST_F(TovQuit, WithoutTheEventTheFlagIsSet) {
  lose_the_event();
  EXPECT_EQ(tov_quit_fd(), -1);
  tov_quit_raise();
  EXPECT_EQ(tov_flag_get(quit), 1);
  EXPECT_EQ(span_us([] { EXPECT_TRUE(tov_quit_wait(60'000)); }), 0);
}

TEST_F(TovQuit, RaisingLeavesTheReasonOfTheFailure) {
  errno = ENOTCONN;
  kernel().fail(tov_test::CALL_WRITE, 1, EAGAIN);
  tov_quit_raise();
  EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(TovQuit, WaitEndsAsSoonAsItIsRaised) {
  kernel().after(7 * US_PER_S, [] { tov_quit_raise(); });
  EXPECT_EQ(span_us([] { EXPECT_TRUE(tov_quit_wait(60'000)); }), 7 * US_PER_S);
}

TEST_F(TovQuit, WaitLastsAsLongAsItWasAskedFor) {
  for (const int span_ms : {1, 234, 5'000, 60'000})
    EXPECT_EQ(span_us([&] { EXPECT_FALSE(tov_quit_wait(span_ms)); }), span_ms * US_PER_MS);
  for (const int span_ms : {0, -1})
    EXPECT_EQ(span_us([&] { EXPECT_FALSE(tov_quit_wait(span_ms)); }), 0);
}

TEST_F(TovQuit, FlagThatIsSetDirectlyIsSeenWithinFiveSeconds) {
  for (const bool with_event : {true, false}) {
    if (!with_event) lose_the_event();
    tov_flag_set(quit, 0);
    kernel().after(12 * US_PER_S, [] { tov_flag_set(quit, 1); });
    EXPECT_EQ(span_us([] { EXPECT_TRUE(tov_quit_wait(60'000)); }), 15 * US_PER_S) << with_event;
  }
}

TEST_F(TovQuit, SignalEndsNoWait) {
  kernel().interrupt_after(2 * US_PER_S);
  EXPECT_EQ(span_us([] { EXPECT_FALSE(tov_quit_wait(3'000)); }), 3 * US_PER_S);
}

TEST_F(TovQuit, WaitThatFailsNeitherSpinsNorEndsEarly) {
  for (int nth = 1; nth <= 10; nth++)
    kernel().fail(tov_test::CALL_POLL, nth, ENOMEM);
  EXPECT_EQ(span_us([] { EXPECT_FALSE(tov_quit_wait(3'000)); }), 3 * US_PER_S);
  EXPECT_EQ(kernel().calls(tov_test::CALL_POLL), 11);
}

}  // namespace
