// Scheduling of a thread: to a real-time priority and back, and what is refused.
#include "util/priority.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <thread>

#include "tests/module/refused_calls.h"
#include "tests/support/in_child.h"

namespace {

// On a thread of its own: the test's keeps what it has.
template <typename Body>
void in_thread(Body body) {
  std::thread(body).join();
}

int own_priority() {
  sched_param now{};
  EXPECT_EQ(sched_getparam(0, &now), 0);
  return now.sched_priority;
}

}  // namespace

TEST(TovSetPriority, ThreadAloneBecomesRealTime) {
#ifdef TOV_SANITIZE_THREAD
  GTEST_SKIP() << "there no thread is real-time";
#endif
  in_thread([] {
    ASSERT_EQ(tov_set_priority(TOV_RT_PRIORITY), 0);
    EXPECT_EQ(sched_getscheduler(0), SCHED_FIFO);
    EXPECT_EQ(own_priority(), 99);
  });
  EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

TEST(TovSetPriority, RefusalsComeAsErrorNumbers) {
#ifdef TOV_SANITIZE_THREAD
  GTEST_SKIP() << "there no thread is real-time";
#endif
  in_thread([] {
    EXPECT_EQ(tov_set_priority(100), EINVAL);
    EXPECT_EQ(tov_set_priority(0), EINVAL);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
  });
  tov_test::in_child([] {
    tov_test::give_up_priorities();
    EXPECT_EQ(tov_set_priority(TOV_RT_PRIORITY), EPERM);
  });
}

TEST(TovResetPriority, ThreadBecomesOrdinaryWhateverItWas) {
  in_thread([] {
    (void)tov_set_priority(TOV_RT_PRIORITY);
    for (int i = 0; i < 2; i++) {
      tov_reset_priority();
      EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
      EXPECT_EQ(own_priority(), 0);
    }
  });
}
