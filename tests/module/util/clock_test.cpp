// The clock: one clock in three units.
#include "util/clock.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>

namespace {

constexpr int64_t US_PER_S = 1'000'000;
constexpr int64_t MS_PER_S = 1000;

int64_t kernel_us() {
  timespec now{};
  EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
  return now.tv_sec * US_PER_S + now.tv_nsec / 1000;
}

}  // namespace

TEST(TovClock, IsTheKernelsMonotonicClock) {
  const int64_t before = kernel_us();
  const int64_t now = tov_clock_us();
  EXPECT_LE(before, now);
  EXPECT_LE(now, kernel_us());
}

TEST(TovClock, MillisecondsAndSecondsAreCutDown) {
  const int64_t before = tov_clock_us();
  const int64_t ms = tov_clock_ms();
  const int64_t seconds = tov_get_time();
  const int64_t after = tov_clock_us();
  EXPECT_LE(before / MS_PER_S, ms);
  EXPECT_LE(ms, after / MS_PER_S);
  EXPECT_LE(before / US_PER_S, seconds);
  EXPECT_LE(seconds, after / US_PER_S);
}
