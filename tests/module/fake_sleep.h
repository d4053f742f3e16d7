// Takes the place of select(2) in a test program: sleeps are noted, and take no time unless a test
// wants them to.
// Include it in one file of the program only; it defines the function.
#ifndef TOV_TEST_MODULE_FAKE_SLEEP_H
#define TOV_TEST_MODULE_FAKE_SLEEP_H

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
  bool takes_time = false;
};

inline FakeSleep fake_sleep;

// Begins to note sleeps, with or without the time they take.
inline void note_sleeps(bool takes_time) {
  fake_sleep = {};
  fake_sleep.takes_time = takes_time;
}

// A fixture in whose tests sleeps are noted and take their time.
template <typename Fixture>
class NotesSleeps : public Fixture {
 protected:
  void SetUp() override {
    Fixture::SetUp();
    note_sleeps(true);
  }
};

}  // namespace tov_test

// A wait for descriptors is left to the kernel.
extern "C" int select(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit) {
  const bool sleep = count <= 0 && limit != nullptr;
  if (sleep) {
    tov_test::fake_sleep.slept_us.push_back(int64_t{limit->tv_sec} * 1'000'000 + limit->tv_usec);
    if (tov_test::fake_sleep.meanwhile) tov_test::fake_sleep.meanwhile();
    if (!tov_test::fake_sleep.takes_time) return 0;
  }
  return static_cast<int>(syscall(SYS_select, count, in, out, except, limit));
}

#endif  // TOV_TEST_MODULE_FAKE_SLEEP_H
