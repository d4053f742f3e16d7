// The table of the last ends: which code a dead process gets, and which end of a thread is handled.
#include "core/run/ends.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <optional>

#include "tests/unit/simulated.h"

static constexpr pid_t PROCESS = 77;
static constexpr pid_t THREAD = 7800;
static constexpr int64_t LONG_AGO = 0;

namespace {

class TovEnds : public tov_test::Simulated {
 protected:
  TovEnds() { tov_ends_forget(); }
  ~TovEnds() override { tov_ends_forget(); }

  static void process_ends(uint32_t code, int64_t at_us, pid_t pid = PROCESS) {
    tov_ends_note(pid, pid, code, at_us);
  }
  static void thread_ends(uint32_t code, int64_t at_us, pid_t pid = PROCESS) {
    tov_ends_note(pid, THREAD, code, at_us);
  }
};

class TovEndsAwait : public TovEnds {
 protected:
  // Whether the end of a thread is to be handled.
  static bool is_handled(pid_t process) { return tov_ends_note(process, THREAD, 0, 1); }
};

}  // namespace

static std::optional<uint32_t> code_of(pid_t pid, int64_t not_before_us = LONG_AGO) {
  return tov_ends_code(pid, not_before_us);
}

// ---- processes ------------------------------------------------------------------------------

TEST_F(TovEnds, CodeOfAnEndIsKeptUnderItsId) {
  process_ends(9, 100);
  process_ends(0x8b, 200, 80);
  EXPECT_EQ(code_of(PROCESS), 9u);
  EXPECT_EQ(code_of(80), 0x8bu);
  EXPECT_EQ(code_of(81), std::nullopt);
  EXPECT_EQ(code_of(0), std::nullopt) << "a slot that was never written is nobody's";
}

TEST_F(TovEnds, CodeIsKeptInAllItsBits) {
  process_ends(0xffffffffu, 100);
  EXPECT_EQ(code_of(PROCESS), 0xffffffffu);
}

TEST_F(TovEnds, EndBeforeTheProcessBeganIsAnothers) {
  process_ends(9, 100);
  EXPECT_EQ(code_of(PROCESS, 100), 9u);
  EXPECT_EQ(code_of(PROCESS, 101), std::nullopt);
}

TEST_F(TovEnds, EarlierOfTwoLivesOfAnIdCounts) {
  process_ends(15, 100);
  process_ends(9, 200);
  EXPECT_EQ(code_of(PROCESS), 15u);
  EXPECT_EQ(code_of(PROCESS, 150), 9u);
}

TEST_F(TovEnds, LastOnesAreKeptAndNoMore) {
  for (int i = 0; i < TOV_ENDS_KEPT; i++)
    process_ends(static_cast<uint32_t>(i), i, 1000 + i);
  EXPECT_EQ(code_of(1000), 0u);
  process_ends(9, TOV_ENDS_KEPT, PROCESS);
  EXPECT_EQ(code_of(1000), std::nullopt) << "one more pushes the oldest out";
  EXPECT_EQ(code_of(1001), 1u);
  EXPECT_EQ(code_of(1000 + TOV_ENDS_KEPT - 1), uint32_t{TOV_ENDS_KEPT - 1});
  EXPECT_EQ(code_of(PROCESS), 9u);
}

// ---- threads --------------------------------------------------------------------------------

TEST_F(TovEnds, LastThreadsCodeIsTheProcesss) {
  process_ends(0, 100);
  thread_ends(0, 200);
  thread_ends(0x300, 300);
  EXPECT_EQ(code_of(PROCESS), 0x300u);
}

TEST_F(TovEnds, ThreadThatEndedBeforeTheFirstOneDoesNotCount) {
  thread_ends(0, 100);
  process_ends(9, 200);
  EXPECT_EQ(code_of(PROCESS), 9u);
}

// The kernel makes the first thread a zombie before it tells of it, and other threads meanwhile.
TEST_F(TovEnds, SignalThatHasKilledTheOthersCountsThoughTheFirstOneIsToldLast) {
  thread_ends(15, 100);
  process_ends(0, 200);
  EXPECT_EQ(code_of(PROCESS), 15u);
}

TEST_F(TovEnds, CoreOfTheThreadThatFailedIsNotForgottenForThoseThatWereKilledWithIt) {
  thread_ends(11, 100);
  process_ends(0x8b, 101);
  EXPECT_EQ(code_of(PROCESS), 0x8bu);
}

TEST_F(TovEnds, SignalThatHasKilledOneThreadAloneDoesNotCount) {
  thread_ends(31, 100);
  process_ends(0, 2'000'000);
  EXPECT_EQ(code_of(PROCESS), 0u);
}

TEST_F(TovEnds, ThreadAloneCountsWhereTheFirstOnesEndWasNotHeard) {
  thread_ends(0, 100);
  thread_ends(0x300, 200);
  EXPECT_EQ(code_of(PROCESS), 0x300u);
}

TEST_F(TovEnds, ThreadsOfALaterLifeDoNotCountForTheEarlierOne) {
  process_ends(15, 100);
  thread_ends(9, 190);
  process_ends(9, 200);
  EXPECT_EQ(code_of(PROCESS), 15u);
}

TEST_F(TovEnds, CrowdOfThreadsPushesNoProcessOut) {
  process_ends(15, 1);
  for (int i = 0; i < 2 * TOV_ENDS_KEPT; i++)
    thread_ends(0, 2 + i, 1000 + i);
  EXPECT_EQ(code_of(PROCESS), 15u);
}

// ---- who is awaited -------------------------------------------------------------------------

TEST_F(TovEndsAwait, ThreadsOfTheAwaitedAreHandled) {
  EXPECT_FALSE(is_handled(PROCESS));
  tov_ends_await(PROCESS);
  EXPECT_TRUE(is_handled(PROCESS));
  EXPECT_TRUE(is_handled(PROCESS)) << "each, since others may be left";
  EXPECT_FALSE(is_handled(PROCESS + 10));
  EXPECT_FALSE(tov_ends_note(PROCESS, PROCESS, 9, 1)) << "the end of a process is handled anyway";
}

TEST_F(TovEndsAwait, AwaitedTwiceIsAwaitedOnce) {
  tov_ends_await(PROCESS);
  tov_ends_await(PROCESS);
  tov_ends_await_no_more(PROCESS + 10);
  EXPECT_TRUE(is_handled(PROCESS));
  tov_ends_await_no_more(PROCESS);
  EXPECT_FALSE(is_handled(PROCESS));
}

TEST_F(TovEndsAwait, ManyMakeEveryThreadHandled) {
  for (int i = 0; i < TOV_ENDS_AWAITED_MAX; i++)
    tov_ends_await(1000 + i);
  EXPECT_FALSE(is_handled(PROCESS));
  for (const pid_t more : {PROCESS, PROCESS, PROCESS + 1})
    tov_ends_await(more);
  EXPECT_TRUE(is_handled(PROCESS));
  EXPECT_TRUE(is_handled(PROCESS + 10));
  tov_ends_await_no_more(PROCESS);
  tov_ends_await_no_more(PROCESS);
  EXPECT_TRUE(is_handled(PROCESS + 1));
  tov_ends_await_no_more(PROCESS + 1);
  EXPECT_FALSE(is_handled(PROCESS + 10));
  EXPECT_TRUE(is_handled(1000));
}
