// Who has the id of a registered program, when any single call fails: the same cells once more.
//
// Each call that a question makes fails in turn, once. Whatever was not done or known for it is
// made up for later, by the next sweeps at the latest: the program comes back exactly once, or
// lives and is left alone, as without the failure.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/registry/tov_chain.h"
#include "tests/unit/reused_id.h"
#include "tests/unit/sim/kernel.h"

using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using namespace tov_test;  // the words of the cells

namespace {

// One life of the daemon in a cell.
class Life final : public ReusedId {
 public:
  explicit Life(const cell_s &cell) : ReusedId(cell) { happens(); }
  // Asks. Returns how many calls of each kind that took.
  std::vector<int> count_calls() {
    std::vector<int> calls(CALL_COUNT);
    for (int kind = 0; kind < CALL_COUNT; kind++)
      calls[static_cast<size_t>(kind)] = -kernel().calls(static_cast<call_e>(kind));
    ask();
    for (int kind = 0; kind < CALL_COUNT; kind++)
      calls[static_cast<size_t>(kind)] += kernel().calls(static_cast<call_e>(kind));
    return calls;
  }
  // Asks; one call fails.
  void ask_in_spite_of(call_e kind, int nth, int error) {
    kernel().fail(kind, nth, error);
    ask();
  }
  // Some wait for the alarm or the end of a lock because of the failure.
  void come_to_its_end() {
    settle();
    sweep();
    hand_back();
    live_on(SELF_CHECK_S + 2);
    const size_t forks = comes_back() ? 1 : 0;
    EXPECT_EQ(kernel().forks.size(), forks);
    EXPECT_THAT(records(tov_chains), UnorderedElementsAreArray(expected_records(forks)));
    EXPECT_THAT(records(tov_chains_delay), IsEmpty());
    EXPECT_THAT(kernel().kills, IsEmpty());
    EXPECT_EQ(taker_lives(), taken_ != 0 && !taker_was_stopped());
  }

 private:
  void TestBody() override {}
  bool comes_back() const {
    const bool is_own = taker() == SAME_PROGRAM || taker() == SAME_REGISTRANT;
    if (state() == LIVING) return !is_own && taker() != NOBODY && !taker_was_stopped();
    return taker() != SAME_REGISTRANT || !is_registered_next() || taker_was_stopped();
  }
};

std::vector<cell_s> all_cells() {
  std::vector<cell_s> cells;
  for (int state = 0; state < STATES; state++)
    for (int when = 0; when < WHENS; when++)
      for (int question = 0; question < QUESTIONS; question++)
        for (int taker = 0; taker < TAKERS; taker++)
          cells.push_back({static_cast<state_e>(state), static_cast<when_e>(when),
                           static_cast<question_e>(question), static_cast<taker_e>(taker)});
  return cells;
}

// What is asked again each second makes always the same calls.
enum { MANY = 16 };

class IdentityFaults : public testing::TestWithParam<cell_s> {};

}  // namespace

TEST_P(IdentityFaults, ProgramComesBackOnceAllTheSame) {
  std::vector<int> calls;
  {
    Life life(GetParam());
    calls = life.count_calls();
    life.come_to_its_end();
  }
  for (int kind = 0; kind < CALL_COUNT; kind++) {
    if (kind == CALL_CLOCK_GETTIME) continue;  // cannot fail
    const int count = std::min(calls[static_cast<size_t>(kind)], int{MANY});
    for (int nth = 1; nth <= count; nth++) {
      const int error = nth % 2 != 0 ? EMFILE : ENOMEM;
      SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
      Life life(GetParam());
      life.ask_in_spite_of(static_cast<call_e>(kind), nth, error);
      life.come_to_its_end();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, IdentityFaults, testing::ValuesIn(all_cells()),
                         [](const auto &cell) { return name_of(cell.param); });
