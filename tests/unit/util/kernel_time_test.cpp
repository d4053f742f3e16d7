// Times as the kernel keeps them.
#include "util/kernel_time.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

static constexpr int64_t US_PER_S = 1'000'000;
static constexpr int64_t BOOTED_S = 1'700'000'000;  // wall clock

namespace {

class TovKernelTime : public tov_test::Simulated {};

}  // namespace

TEST_F(TovKernelTime, ClockIsTheKernels) {
  kernel().set_uptime(77);
  EXPECT_EQ(tov_kernel_clock_us(CLOCK_BOOTTIME), 77 * US_PER_S);
  EXPECT_EQ(tov_kernel_clock_us(CLOCK_REALTIME), (BOOTED_S + 77) * US_PER_S);
  EXPECT_EQ(kernel().calls(tov_test::CALL_KERNEL_CLOCK), 2) << "and no library's";
  EXPECT_EQ(kernel().calls(tov_test::CALL_CLOCK_GETTIME), 0);
}

TEST_F(TovKernelTime, MomentsOfOtherClocksAreConvertedByADifference) {
  EXPECT_EQ(tov_kernel_to_monotonic_us(CLOCK_BOOTTIME), 0);
  EXPECT_EQ(tov_kernel_to_monotonic_us(CLOCK_REALTIME), -BOOTED_S * US_PER_S);
}

TEST_F(TovKernelTime, FileThatIsNotThereWasNeverWritten) {
  EXPECT_EQ(tov_file_time_us("/nowhere/at/all", 0), INT64_MAX);
}
