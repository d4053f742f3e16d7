// Forks that enter their children while another thread asks: who asks after the fork has begun is
// told of the child, whether its id is entered by then or not. What the thread sanitizer watches.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <thread>

#include "core/run/known.h"

static constexpr int FORKS = 20'000;
static constexpr pid_t FIRST = 100;

TEST(TovKnownThreads, ChildIsKnownFromItsBeginning) {
  std::atomic<pid_t> child{0}, seen{0};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    for (pid_t last = 0; last < FIRST + FORKS - 1;) {
      const pid_t pid = child;
      if (pid == last) continue;
      if (!tov_known_may_be(pid)) wrong++;
      seen = last = pid;
    }
  });
  for (pid_t pid = FIRST; pid < FIRST + FORKS; pid++) {
    {
      const tov_known_all_t forking;
      child = pid;  // it runs, and may end, from here on
      tov_known_enter(pid);
    }
    while (seen != pid)
      std::this_thread::yield();
    tov_known_leave(pid);
  }
  reader.join();
  EXPECT_EQ(wrong, 0);
}
