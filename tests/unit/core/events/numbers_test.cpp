// The numbers of process events: what is a gap, and when it is a loss.
#include "core/events/numbers.h"

#include <gtest/gtest.h>
#include <stdint.h>

namespace {

// Read empty, both sockets.
uint64_t judged(tov_numbers_t &numbers) {
  numbers.mark();
  return numbers.lost();
}

void see(tov_numbers_t &numbers, uint32_t processor, uint32_t first, uint32_t last) {
  for (uint32_t n = first; n != last + 1; n++)
    numbers.seen(processor, n);
}

}  // namespace

TEST(TovNumbers, FirstOfAProcessorIsWhereItBegins) {
  tov_numbers_t numbers;
  see(numbers, 0, 4711, 4720);
  see(numbers, 3, 0, 5);
  EXPECT_FALSE(numbers.any_missing());
  EXPECT_EQ(judged(numbers), 0u);
}

TEST(TovNumbers, GapIsToldOnce) {
  tov_numbers_t numbers;
  see(numbers, 0, 1, 10);
  see(numbers, 0, 14, 20);
  EXPECT_TRUE(numbers.any_missing());
  EXPECT_EQ(judged(numbers), 3u);
  EXPECT_FALSE(numbers.any_missing());
  EXPECT_EQ(judged(numbers), 0u);
  see(numbers, 0, 21, 30);
  EXPECT_EQ(judged(numbers), 0u);
}

TEST(TovNumbers, ProcessorsCountForThemselves) {
  tov_numbers_t numbers;
  see(numbers, 0, 1, 10);
  see(numbers, 1, 100, 110);
  see(numbers, 0, 12, 12);
  see(numbers, 1, 113, 113);
  EXPECT_EQ(judged(numbers), 3u);
}

TEST(TovNumbers, WhatComesOverTheOtherSocketIsNotLost) {
  tov_numbers_t numbers;
  for (const uint32_t n : {1u, 3u, 5u, 8u})
    numbers.seen(0, n);
  numbers.mark();
  for (const uint32_t n : {2u, 4u, 6u, 7u})
    numbers.seen(0, n);
  EXPECT_FALSE(numbers.any_missing());
  EXPECT_EQ(numbers.lost(), 0u);
}

TEST(TovNumbers, GapOfTheOtherSocketMayStillCome) {
  tov_numbers_t numbers;
  see(numbers, 0, 1, 1);
  numbers.mark();
  see(numbers, 0, 5, 5);  // 2 to 4 came over the first socket after it was read
  EXPECT_EQ(numbers.lost(), 0u);
  see(numbers, 0, 2, 4);
  EXPECT_EQ(judged(numbers), 0u);
}

TEST(TovNumbers, LateOnesAreTakenOutOfTheMiddle) {
  tov_numbers_t numbers;
  numbers.seen(0, 1);
  numbers.seen(0, 12);  // 2 to 11 are missing
  for (const uint32_t n : {6u, 2u, 11u, 6u, 1u})
    numbers.seen(0, n);
  EXPECT_EQ(judged(numbers), 7u);
}

TEST(TovNumbers, ComeToTheirEndAndBeginAgain) {
  tov_numbers_t numbers;
  see(numbers, 0, 0xfffffffe, 1);
  EXPECT_EQ(judged(numbers), 0u);
  tov_numbers_t across;
  across.seen(0, 0xfffffffe);
  across.seen(0, 2);
  across.seen(0, 0);
  EXPECT_EQ(judged(across), 2u);
}

TEST(TovNumbers, ForgottenGapsAreNotAskedFor) {
  tov_numbers_t numbers;
  see(numbers, 0, 1, 3);
  see(numbers, 0, 9, 9);
  numbers.forget();
  see(numbers, 0, 20, 22);
  EXPECT_EQ(judged(numbers), 0u);
}

TEST(TovNumbers, ForgivenGapsAreNotAskedForButThoseBehindThemAre) {
  tov_numbers_t numbers;
  see(numbers, 0, 1, 3);
  see(numbers, 0, 9, 9);
  numbers.forgive();
  EXPECT_FALSE(numbers.any_missing());
  see(numbers, 0, 5, 5);
  see(numbers, 0, 12, 12);
  EXPECT_EQ(judged(numbers), 2u);
}

TEST(TovNumbers, ProcessorThatIsNoneIsNotWatched) {
  tov_numbers_t numbers;
  for (const uint32_t processor : {0xffffffffu, uint32_t{tov_numbers_t::PROCESSORS_MAX}}) {
    numbers.seen(processor, 1);
    numbers.seen(processor, 9);
  }
  EXPECT_EQ(judged(numbers), 0u);
}

TEST(TovNumbers, TooManyGapsBeginAnew) {
  tov_numbers_t numbers;
  uint32_t n = 0;
  for (int i = 0; i <= tov_numbers_t::RANGES_MAX; i++, n += 2)
    numbers.seen(0, n);
  EXPECT_TRUE(numbers.any_missing());
  numbers.seen(0, n);
  EXPECT_FALSE(numbers.any_missing());
  numbers.seen(0, n + 1);
  EXPECT_EQ(judged(numbers), 0u);
}
