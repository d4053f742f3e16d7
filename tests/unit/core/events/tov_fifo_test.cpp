// The event ring: copying, wrapping, and the consumer's sleep.
#include "core/events/tov_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"

// The sanitizers end the program at an impossible allocation unless they are told otherwise.
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char *__tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

constexpr uint32_t NEAR_WRAP = 0xFFFFFFFCu;  // four bytes before the indices wrap

struct owned_fifo_s {
  kfifo ring{};
  explicit owned_fifo_s(unsigned int size, size_t esize = 1) {
    EXPECT_EQ(__kfifo_alloc(&ring, size, esize), 0);
  }
  ~owned_fifo_s() { __kfifo_free(&ring); }
};

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

// ---- the ring ------------------------------------------------------------------------------

TEST(KfifoAlloc, SizeIsRoundedDownToAPowerOfTwo) {
  const struct {
    unsigned int asked;
    uint32_t mask;
  } cases[] = {{2, 1}, {3, 1}, {4, 3}, {1000, 511}, {1024, 1023}, {0x80001, 0x7FFFF}};
  for (const auto &c : cases) {
    owned_fifo_s fifo(c.asked);
    EXPECT_EQ(fifo.ring.mask, c.mask) << c.asked;
    EXPECT_EQ(fifo.ring.in, 0u);
    EXPECT_EQ(fifo.ring.out, 0u);
    EXPECT_EQ(fifo.ring.esize, 1u);
    EXPECT_NE(fifo.ring.data, nullptr);
  }
}

TEST(KfifoAlloc, SizesBelowTwoAreRefused) {
  for (unsigned int size : {0u, 1u}) {
    kfifo ring{7, 8, 9, 10, &ring};
    EXPECT_EQ(__kfifo_alloc(&ring, size, 1), -EINVAL);
    EXPECT_EQ(ring.mask, 0u);
    EXPECT_EQ(ring.in, 0u);
    EXPECT_EQ(ring.out, 0u);
    EXPECT_EQ(ring.data, nullptr);
  }
}

TEST(KfifoAlloc, LackOfMemoryLeavesNoBuffer) {
  kfifo ring{7, 8, 9, 10, &ring};
  EXPECT_EQ(__kfifo_alloc(&ring, 1u << 31, SIZE_MAX / 2), -ENOMEM);  // the product overflows
  EXPECT_EQ(ring.mask, 0u);
  EXPECT_EQ(ring.data, nullptr);
}

TEST(KfifoFree, ControlBlockIsReset) {
  kfifo ring{};
  ASSERT_EQ(__kfifo_alloc(&ring, 16, 1), 0);
  __kfifo_in(&ring, "abc", 3);
  __kfifo_free(&ring);
  EXPECT_EQ(ring.in, 0u);
  EXPECT_EQ(ring.out, 0u);
  EXPECT_EQ(ring.mask, 0u);
  EXPECT_EQ(ring.esize, 0u);
  EXPECT_EQ(ring.data, nullptr);
}

TEST(Kfifo, RingWithoutBufferTakesAndGivesNothing) {
  kfifo ring{};
  char byte = 'x';
  EXPECT_EQ(__kfifo_in(&ring, &byte, 1), 0u);
  EXPECT_EQ(__kfifo_out(&ring, &byte, 1), 0u);
}

TEST(Kfifo, WhatGoesInComesOutInOrder) {
  owned_fifo_s fifo(16);
  char out[16] = {};
  EXPECT_EQ(__kfifo_in(&fifo.ring, "hello", 5), 5u);
  EXPECT_EQ(__kfifo_in(&fifo.ring, "world", 5), 5u);
  EXPECT_EQ(kfifo_len(&fifo.ring), 10u);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, sizeof out), 10u);
  EXPECT_STREQ(out, "helloworld");
  EXPECT_TRUE(kfifo_is_empty(&fifo.ring));
}

TEST(Kfifo, CopyIsCutToTheFreeRoom) {
  owned_fifo_s fifo(8);
  EXPECT_EQ(__kfifo_in(&fifo.ring, "0123456789", 10), 8u);
  EXPECT_TRUE(kfifo_is_full(&fifo.ring));
  EXPECT_EQ(__kfifo_in(&fifo.ring, "x", 1), 0u);
  char out[9] = {};
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 8), 8u);
  EXPECT_STREQ(out, "01234567");
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 8), 0u);
}

TEST(Kfifo, CopiesWrapAtTheEndOfTheBuffer) {
  owned_fifo_s fifo(8);
  char out[9] = {};
  __kfifo_in(&fifo.ring, "......", 6);
  __kfifo_out(&fifo.ring, out, 6);
  EXPECT_EQ(__kfifo_in(&fifo.ring, "abcdef", 6), 6u);
  EXPECT_EQ(memcmp(fifo.ring.data, "cdef", 4), 0);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 6), 6u);
  EXPECT_EQ(std::string(out, 6), "abcdef");
}

TEST(Kfifo, IndicesWrapAtThirtyTwoBits) {
  owned_fifo_s fifo(8);
  fifo.ring.in = fifo.ring.out = NEAR_WRAP;
  char out[9] = {};
  EXPECT_EQ(__kfifo_in(&fifo.ring, "01234567", 8), 8u);
  EXPECT_EQ(fifo.ring.in, 4u);
  EXPECT_EQ(kfifo_len(&fifo.ring), 8u);
  EXPECT_TRUE(kfifo_is_full(&fifo.ring));
  EXPECT_EQ(__kfifo_in(&fifo.ring, "x", 1), 0u);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 5), 5u);
  EXPECT_EQ(__kfifo_in(&fifo.ring, "abcdef", 6), 5u);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 8), 8u);
  EXPECT_EQ(std::string(out, 8), "567abcde");
  EXPECT_EQ(fifo.ring.out, fifo.ring.in);
}

TEST(Kfifo, ElementsOfSeveralBytesStayWhole) {
  owned_fifo_s fifo(4, sizeof(uint64_t));
  uint64_t in[6] = {1, 2, 3, 4, 5, 6};
  uint64_t out[6] = {};
  EXPECT_EQ(__kfifo_in(&fifo.ring, in, 3), 3u);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 3), 3u);
  EXPECT_EQ(__kfifo_in(&fifo.ring, in, 6), 4u);
  EXPECT_EQ(__kfifo_out(&fifo.ring, out, 6), 4u);
  EXPECT_EQ(out[0], 1u);
  EXPECT_EQ(out[3], 4u);
}

// ---- the event queue -----------------------------------------------------------------------

class TovCnmsgFifo : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(tov_cnmsg_fifo_alloc(), 0); }
  void TearDown() override { tov_cnmsg_fifo_free(); }

  static void put(uint32_t what, int pid, uint32_t code) {
    const tov_cnmsg_data_t record{what, pid, code};
    __kfifo_in(&tov_cnmsg_fifo, &record, sizeof record);
    tov_cnmsg_fifo_wake();
  }
};

TEST_F(TovCnmsgFifo, HoldsHalfAMebibyteOfBytes) {
  EXPECT_EQ(tov_cnmsg_fifo.mask, 0x80000u - 1);
  EXPECT_EQ(tov_cnmsg_fifo.esize, 1u);
}

TEST_F(TovCnmsgFifo, LastRecordOfAFullRingIsStoredInPart) {
  const tov_cnmsg_data_t record{TOV_EVENT_EXIT, 4711, 9};
  const unsigned int whole = TOV_CNMSG_FIFO_BYTES / sizeof record;
  const unsigned int rest = TOV_CNMSG_FIFO_BYTES % sizeof record;
  ASSERT_EQ(whole, 43690u);
  ASSERT_EQ(rest, 8u);
  for (unsigned int i = 0; i < whole; i++)
    ASSERT_EQ(__kfifo_in(&tov_cnmsg_fifo, &record, sizeof record), sizeof record);
  EXPECT_FALSE(kfifo_is_full(&tov_cnmsg_fifo));
  EXPECT_EQ(__kfifo_in(&tov_cnmsg_fifo, &record, sizeof record), rest);
  EXPECT_TRUE(kfifo_is_full(&tov_cnmsg_fifo));

  tov_cnmsg_data_t taken{};
  for (unsigned int i = 0; i < whole; i++)
    ASSERT_EQ(__kfifo_out(&tov_cnmsg_fifo, &taken, sizeof taken), sizeof taken);
  EXPECT_EQ(__kfifo_out(&tov_cnmsg_fifo, &taken, sizeof taken), rest);
}

TEST_F(TovCnmsgFifo, WaitReturnsAtOnceWhenSomethingIsThere) {
  put(TOV_EVENT_EXEC, 1, 0);
  EXPECT_TRUE(tov_cnmsg_fifo_wait(-1));
  EXPECT_TRUE(tov_cnmsg_fifo_wait(0));
}

TEST_F(TovCnmsgFifo, WaitEndsWithItsTime) {
  const int64_t begin = now_ms();
  EXPECT_FALSE(tov_cnmsg_fifo_wait(60));
  EXPECT_GE(now_ms() - begin, 59);
  EXPECT_FALSE(tov_cnmsg_fifo_wait(0));
}

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

TEST_F(TovCnmsgFifo, WakeWithoutAConsumerIsHarmless) {
  for (int i = 0; i < 1000; i++)
    tov_cnmsg_fifo_wake();
  EXPECT_FALSE(tov_cnmsg_fifo_wait(0));
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

// ---- making and freeing the queue ----------------------------------------------------------

namespace {

// Descriptors that are open, and how many of them an exec would hand on.
struct open_descriptors_s {
  int all = 0;
  int inherited = 0;
};

open_descriptors_s open_descriptors() {
  open_descriptors_s count;
  for (int fd = 0; fd < 1024; fd++) {
    const int flags = fcntl(fd, F_GETFD);
    count.all += flags >= 0;
    count.inherited += flags >= 0 && (flags & FD_CLOEXEC) == 0;
  }
  return count;
}

}  // namespace

TEST(TovCnmsgFifoAlloc, ItsDescriptorIsCloseOnExecAndGoesWithTheQueue) {
  const open_descriptors_s before = open_descriptors();
  ASSERT_EQ(tov_cnmsg_fifo_alloc(), 0);
  const open_descriptors_s during = open_descriptors();
  EXPECT_EQ(during.all, before.all + 1);
  EXPECT_EQ(during.inherited, before.inherited);
  tov_cnmsg_fifo_free();
  EXPECT_EQ(open_descriptors().all, before.all);
  EXPECT_EQ(tov_cnmsg_fifo.data, nullptr);
}

TEST(TovCnmsgFifoAlloc, FailsWithADiagnosticWithoutDescriptors) {
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  int result = 0;
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] {
    const rlimit none{0, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    result = tov_cnmsg_fifo_alloc();
    setrlimit(RLIMIT_NOFILE, &old);
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(tov_cnmsg_fifo.data, nullptr);
  EXPECT_NE(said.find("tov_cnmsg_fifo_alloc: kfifo_alloc fail!"), std::string::npos) << said;
}
