// The table of the last ends with a writer that never waits and askers who walk it meanwhile: no
// answer mixes two ends. What the thread sanitizer watches.
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/run/ends.h"

static constexpr int NOTES = 2'000'000;
static constexpr int ASKERS = 2;
static constexpr pid_t IDS = 4500;  // more than are kept: each is sometimes there and sometimes not

// Of the n-th note; each id always ends with the same code.
static pid_t pid_of(int n) {
  return n % IDS + 2;
}
static uint32_t code_of(pid_t pid) {
  return static_cast<uint32_t>(pid) * 2654435761u;
}

TEST(TovEndsThreads, AnswerIsNeverMixedOfTwoEnds) {
  tov_ends_forget();
  std::atomic<bool> over{false};
  std::atomic<int> answers{0}, wrong{0};
  std::vector<std::thread> askers;
  for (int i = 0; i < ASKERS; i++) {
    askers.emplace_back([&, i] {
      for (int n = i; !over; n += ASKERS) {
        const pid_t pid = pid_of(n);
        const auto code = tov_ends_code(pid, 0);
        if (!code) continue;
        answers++;
        if (*code != code_of(pid)) wrong++;
      }
    });
  }
  for (int n = 0; n < NOTES || answers < 1000; n++) {
    const pid_t pid = pid_of(n);
    tov_ends_note(pid, pid, code_of(pid), n);
  }
  over = true;
  for (std::thread &asker : askers)
    asker.join();
  EXPECT_EQ(wrong, 0);
  tov_ends_forget();
}

// A code that was noted is there for whoever begins to ask afterwards, as long as it is young.
TEST(TovEndsThreads, YoungEndsAreFoundWhileOthersCome) {
  tov_ends_forget();
  std::atomic<int> noted{-1}, asked{-1};
  std::atomic<bool> over{false};
  std::thread writer([&] {
    for (int n = 0; !over; n++) {
      while (n > asked + TOV_ENDS_KEPT / 2 && !over)
        std::this_thread::yield();
      const pid_t pid = n + 2;
      tov_ends_note(pid, pid, code_of(pid), n);
      noted = n;
    }
  });
  for (int n = 0; n < 20'000; n++) {
    while (noted < n)
      std::this_thread::yield();
    EXPECT_EQ(tov_ends_code(n + 2, 0), code_of(n + 2)) << n;
    asked = n;
  }
  over = true;
  writer.join();
  tov_ends_forget();
}
