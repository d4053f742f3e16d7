// Takes the place of select(2) in a test program: sleeps take no time and are noted.
// Include it in one file of the program only; it defines the function.
#ifndef TOV_TEST_UNIT_FAKE_SLEEP_H
#define TOV_TEST_UNIT_FAKE_SLEEP_H

#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace tov_test {

struct FakeSleep {
  std::vector<int64_t> slept_us;         // every sleep so far
  std::function<void()> meanwhile = {};  // called in each of them
};

inline FakeSleep fake_sleep;

}  // namespace tov_test

// A wait for descriptors is left to the kernel.
extern "C" int select(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit) {
  if (count > 0 || limit == nullptr)
    return static_cast<int>(syscall(SYS_select, count, in, out, except, limit));
  tov_test::fake_sleep.slept_us.push_back(int64_t{limit->tv_sec} * 1'000'000 + limit->tv_usec);
  if (tov_test::fake_sleep.meanwhile) tov_test::fake_sleep.meanwhile();
  return 0;
}

#endif  // TOV_TEST_UNIT_FAKE_SLEEP_H
