// The event ring: copying, wrapping, and how long its consumer waits.
#include "core/events/tov_fifo.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "core/run/wake.h"
#include "include/tov_registry.h"
#include "tests/support/event_ring.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

static constexpr int64_t US_PER_MS = 1000;

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

class TovCnmsgFifo : public tov_test::Simulated, protected tov_test::EventRing {
 protected:
  static int64_t wait_ms(int timeout_ms, bool expected) {
    return span_us([&] { EXPECT_EQ(tov_cnmsg_fifo_wait(timeout_ms), expected); }) / US_PER_MS;
  }
};

class TovCnmsgFifoAlloc : public tov_test::Simulated {};

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
  EXPECT_EQ(wait_ms(-1, true), 0);
  EXPECT_EQ(wait_ms(0, true), 0);
  EXPECT_EQ(kernel().calls(tov_test::CALL_POLL), 0);
}

TEST_F(TovCnmsgFifo, WaitEndsWithItsTime) {
  EXPECT_EQ(wait_ms(60, false), 60);
  EXPECT_EQ(kernel().calls(tov_test::CALL_POLL), 1);  // asleep, not looking
  EXPECT_EQ(wait_ms(0, false), 0);
}

TEST_F(TovCnmsgFifo, ProducerEndsAWait) {
  kernel().after(20 * US_PER_MS, [] { put(TOV_EVENT_EXIT, 2, 15); });
  EXPECT_EQ(wait_ms(-1, true), 20);
}

TEST_F(TovCnmsgFifo, WakeUpWithoutAnEventIsNone) {
  for (const int at_ms : {5, 10, 20})
    kernel().after(at_ms * US_PER_MS, tov_cnmsg_fifo_wake);
  EXPECT_EQ(wait_ms(50, false), 50);
}

TEST_F(TovCnmsgFifo, WakeWithoutAConsumerCostsNoCall) {
  const int before = kernel().calls();
  for (int i = 0; i < 1000; i++)
    tov_cnmsg_fifo_wake();
  EXPECT_EQ(kernel().calls(), before);
  EXPECT_EQ(wait_ms(0, false), 0);
}

TEST_F(TovCnmsgFifo, SignalsNeitherEndNorProlongAWait) {
  for (int at_ms = 7; at_ms < 100; at_ms += 7)
    kernel().interrupt_after(at_ms * US_PER_MS);
  EXPECT_EQ(wait_ms(100, false), 100);
}

TEST_F(TovCnmsgFifo, WaitThatThePollRefusesDoesNotSpin) {
  for (int nth = 1; nth <= 100; nth++)
    kernel().fail(tov_test::CALL_POLL, nth, ENOMEM);
  EXPECT_EQ(wait_ms(50, false), 50);
  EXPECT_LE(kernel().calls(tov_test::CALL_POLL), 51);
}

// ---- making and freeing the queue ----------------------------------------------------------

TEST_F(TovCnmsgFifoAlloc, ItsDescriptorIsCloseOnExecAndStays) {
  const size_t before = kernel().descriptors();
  const size_t inherited = kernel().inherited_descriptors();
  ASSERT_EQ(tov_cnmsg_fifo_alloc(), 0);
  EXPECT_EQ(kernel().descriptors(), before + 1);
  EXPECT_EQ(kernel().inherited_descriptors(), inherited);
  tov_cnmsg_fifo_free();
  EXPECT_EQ(kernel().descriptors(), before + 1);
  EXPECT_EQ(tov_cnmsg_fifo.data, nullptr);
  ASSERT_EQ(tov_cnmsg_fifo_alloc(), 0);
  EXPECT_EQ(kernel().descriptors(), before + 1);
  tov_cnmsg_fifo_free();
  tov_wake_close();
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovCnmsgFifoAlloc, FailsWithADiagnosticWithoutDescriptors) {
  kernel().fail(tov_test::CALL_EVENTFD, 1, EMFILE);
  int result = 0;
  const std::string said = diagnostics([&] { result = tov_cnmsg_fifo_alloc(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(tov_cnmsg_fifo.data, nullptr);
  EXPECT_NE(said.find("tov_cnmsg_fifo_alloc: kfifo_alloc fail!"), std::string::npos) << said;
}
