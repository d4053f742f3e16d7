// The table of the last ends with a writer that never waits and askers who walk it meanwhile: no
// answer mixes two ends. What the thread sanitizer watches.
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/run/ends.h"

static constexpr int ANSWERS = 5'000;  // a millisecond each under the thread sanitizer
static constexpr int ASKERS = 2;

// Each id ends once: the n-th note, at the moment n.
static pid_t pid_of(int n) {
  return n + 2;
}
static uint32_t code_of(pid_t pid) {
  return static_cast<uint32_t>(pid) * 2654435761u;
}

// The slot of an old end is written anew while it is read: its id must never be seen with the later
// moment, nor its code with another id. The oldest ends are asked for.
TEST(TovEndsThreads, AnswerIsNeverMixedOfTwoEnds) {
  tov_ends_forget();
  std::atomic<bool> over{false};
  std::atomic<int> noted{0}, answers{0}, wrong{0};
  std::vector<std::thread> askers;
  for (int i = 0; i < ASKERS; i++) {
    askers.emplace_back([&, i] {
      for (int asked = i; !over; asked += ASKERS) {
        const int n = noted - TOV_ENDS_KEPT + asked % 512 + 1;
        if (n < 0) continue;
        const auto code = tov_ends_code(pid_of(n), 0);
        if (code && *code != code_of(pid_of(n))) wrong++;
        if (tov_ends_code(pid_of(n), n + 1)) wrong++;
        answers++;
      }
    });
  }
  for (int n = 0; answers < ANSWERS; n++) {
    (void)tov_ends_note(pid_of(n), pid_of(n), code_of(pid_of(n)), n);
    noted = n;
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
      (void)tov_ends_note(pid_of(n), pid_of(n), code_of(pid_of(n)), n);
      noted = n;
    }
  });
  for (int n = 0; n < 10'000; n++) {
    while (noted < n)
      std::this_thread::yield();
    EXPECT_EQ(tov_ends_code(pid_of(n), 0), code_of(pid_of(n))) << n;
    asked = n;
  }
  over = true;
  writer.join();
  tov_ends_forget();
}
