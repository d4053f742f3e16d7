// The event queue between two real threads: the consumer's sleep, and that no wake-up is lost.
#include "core/events/tov_fifo.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "include/tov_registry.h"
#include "tests/support/event_ring.h"

namespace {

int64_t now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Microseconds of processor time that this thread has used.
int64_t thread_cpu_us() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<int64_t>(used.tv_sec) * 1000000 + used.tv_nsec / 1000;
}

}  // namespace

class TovCnmsgFifo : public testing::Test, protected tov_test::EventRing {};

TEST_F(TovCnmsgFifo, WaitingCostsNoProcessorTime) {
  const int64_t before_us = thread_cpu_us();
  EXPECT_FALSE(tov_cnmsg_fifo_wait(300));
  EXPECT_LT(thread_cpu_us() - before_us, 100000);
}

TEST_F(TovCnmsgFifo, ProducerEndsAWait) {
  std::thread producer([] {
    usleep(20000);
    put(TOV_EVENT_EXIT, 2, 15);
  });
  EXPECT_TRUE(tov_cnmsg_fifo_wait(-1));
  producer.join();
}

TEST_F(TovCnmsgFifo, LateWakeUpOfAnEarlierWaitIsNoEvent) {
  std::atomic<bool> stop{false};
  std::thread waker([&stop] {
    while (!stop)
      tov_cnmsg_fifo_wake();  // wakes without an event
  });
  const int64_t begin = now_ms();
  EXPECT_FALSE(tov_cnmsg_fifo_wait(50));
  EXPECT_GE(now_ms() - begin, 49);
  stop = true;
  waker.join();
}

TEST_F(TovCnmsgFifo, SignalDoesNotEndAWait) {
  struct sigaction quiet {};
  quiet.sa_handler = [](int) {};
  struct sigaction old {};
  sigaction(SIGUSR1, &quiet, &old);
  const pthread_t consumer = pthread_self();
  std::thread disturber([consumer] {
    for (int i = 0; i < 5; i++) {
      usleep(10000);
      pthread_kill(consumer, SIGUSR1);
    }
  });
  const int64_t begin = now_ms();
  EXPECT_FALSE(tov_cnmsg_fifo_wait(100));
  EXPECT_GE(now_ms() - begin, 99);
  disturber.join();
  sigaction(SIGUSR1, &old, nullptr);
}

// The consumer sleeps and wakes for each small batch; with a lost wake-up it would not come back
// before the time-out of the test program.
TEST_F(TovCnmsgFifo, NothingIsLostBetweenTwoBusyThreads) {
  constexpr int EVENTS = 60000;
  std::thread producer([] {
    for (int i = 0; i < EVENTS; i++) {
      while (tov_cnmsg_fifo.mask + 1 - kfifo_len(&tov_cnmsg_fifo) < sizeof(tov_cnmsg_data_t))
        usleep(100);
      put(TOV_EVENT_EXIT, i, static_cast<uint32_t>(i) * 3);
      if (i % 7 == 0) sched_yield();
      if (i % 1000 == 0) usleep(500);
    }
  });
  int next = 0;
  while (next < EVENTS) {
    ASSERT_TRUE(tov_cnmsg_fifo_wait(-1));
    tov_cnmsg_data_t record{};
    while (__kfifo_out(&tov_cnmsg_fifo, &record, sizeof record) == sizeof record) {
      ASSERT_EQ(record.process_pid, next);
      ASSERT_EQ(record.exit_code, static_cast<uint32_t>(next) * 3);
      next++;
    }
  }
  producer.join();
  EXPECT_TRUE(kfifo_is_empty(&tov_cnmsg_fifo));
}

// One event at a time, answered before the next: the consumer arms its wait for every single one.
TEST_F(TovCnmsgFifo, EverySingleEventWakesTheConsumer) {
  constexpr int ROUNDS = 5000;
  std::atomic<int> handled{0};
  std::thread producer([&handled] {
    for (int i = 0; i < ROUNDS; i++) {
      put(TOV_EVENT_EXEC, i, 0);
      while (handled.load() <= i)
        sched_yield();
    }
  });
  for (int i = 0; i < ROUNDS; i++) {
    ASSERT_TRUE(tov_cnmsg_fifo_wait(-1));
    tov_cnmsg_data_t record{};
    ASSERT_EQ(__kfifo_out(&tov_cnmsg_fifo, &record, sizeof record), sizeof record);
    ASSERT_EQ(record.process_pid, i);
    handled.store(i + 1);
  }
  producer.join();
}
