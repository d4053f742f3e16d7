// What wakes the event handler, and which wake-ups ask for a pass of its loop.
#include "core/run/wake.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

static constexpr int64_t US_PER_MS = 1000;

namespace {

class TovWake : public tov_test::Simulated {
 protected:
  TovWake() {
    EXPECT_EQ(tov_wake_open(), 0);
    (void)tov_wake_wait(0);
  }
  ~TovWake() override { tov_wake_close(); }

  static int64_t wait_ms(int timeout_ms, bool pass) {
    return span_us([&] { EXPECT_EQ(tov_wake_wait(timeout_ms), pass); }) / US_PER_MS;
  }
};

}  // namespace

TEST_F(TovWake, WaitEndsWithItsTime) {
  EXPECT_EQ(wait_ms(60, false), 60);
  EXPECT_EQ(wait_ms(0, false), 0);
}

TEST_F(TovWake, WakeUpIsKeptUntilItIsTaken) {
  tov_wake();
  tov_wake();
  EXPECT_EQ(wait_ms(-1, true), 0);
  EXPECT_EQ(wait_ms(10, false), 10);  // several are one
}

TEST_F(TovWake, WakeUpEndsASleep) {
  kernel().after(20 * US_PER_MS, tov_wake);
  EXPECT_EQ(wait_ms(-1, true), 20);
}

TEST_F(TovWake, WakeUpForTheRingAsksForNoPass) {
  kernel().after(20 * US_PER_MS, tov_wake_for_ring);
  EXPECT_EQ(wait_ms(60, false), 20);
  EXPECT_EQ(wait_ms(60, false), 60);
}

TEST_F(TovWake, SignalEndsASleepWithoutAPass) {
  kernel().interrupt_after(7 * US_PER_MS);
  EXPECT_EQ(wait_ms(60, false), 7);
}

TEST_F(TovWake, PollThatFailsDoesNotSpin) {
  kernel().fail(tov_test::CALL_POLL, 1, ENOMEM);
  EXPECT_EQ(wait_ms(60, false), 1);
}

TEST_F(TovWake, PassIsNotLostWhenThePollOrTheReadFails) {
  kernel().fail(tov_test::CALL_POLL, 1, ENOMEM);
  tov_wake();
  EXPECT_EQ(wait_ms(60, true), 1);
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  tov_wake();
  EXPECT_EQ(wait_ms(60, true), 0);
}

TEST_F(TovWake, WithoutADescriptorAWakeUpCostsNoCallAndIsKept) {
  tov_wake_close();
  const int before = kernel().calls();
  tov_wake_for_ring();
  tov_wake();
  EXPECT_EQ(kernel().calls(), before);
  ASSERT_EQ(tov_wake_open(), 0);
  EXPECT_EQ(wait_ms(0, true), 0);
}

TEST_F(TovWake, DescriptorIsCloseOnExecAndGoesAtTheEnd) {
  tov_wake_close();
  const size_t before = kernel().descriptors();
  const size_t inherited = kernel().inherited_descriptors();
  ASSERT_EQ(tov_wake_open(), 0);
  EXPECT_EQ(kernel().descriptors(), before + 1);
  EXPECT_EQ(kernel().inherited_descriptors(), inherited);
  tov_wake_close();
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovWake, FailureToOpenIsANegativeErrorNumber) {
  tov_wake_close();
  kernel().fail(tov_test::CALL_EVENTFD, 1, EMFILE);
  EXPECT_EQ(tov_wake_open(), -EMFILE);
}
