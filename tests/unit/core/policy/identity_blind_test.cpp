// Who has the id of a registered program, while it cannot be known: the same cells once more.
//
// Without a free descriptor, or without /proc, nothing can be asked about a process. Then nothing
// is decided: nobody is started, dropped or complained of. When it can be known again, exactly the
// dead come back, and what was reported meanwhile has not been lost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/reused_id.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"

using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using namespace tov_test;  // the words of the cells

namespace {

enum blindness_e { NO_DESCRIPTOR, NO_PROC, BLINDNESSES };

struct blind_cell_s {
  cell_s cell;
  blindness_e blindness;
};

std::vector<blind_cell_s> all_cells() {
  std::vector<blind_cell_s> cells;
  for (int state = 0; state < STATES; state++)
    for (int when = 0; when < WHENS; when++)
      for (int question = 0; question < QUESTIONS; question++)
        for (int taker = 0; taker < TAKERS; taker++)
          for (int blindness = 0; blindness < BLINDNESSES; blindness++)
            cells.push_back({{static_cast<state_e>(state), static_cast<when_e>(when),
                              static_cast<question_e>(question), static_cast<taker_e>(taker)},
                             static_cast<blindness_e>(blindness)});
  return cells;
}

class IdentityBlind : public ReusedId, public testing::WithParamInterface<blind_cell_s> {
 protected:
  IdentityBlind() : ReusedId(GetParam().cell) {}

  static void go_blind() {
    if (GetParam().blindness == NO_PROC) {
      kernel().proc_is_mounted = false;
    } else {
      kernel().descriptor_limit = kernel().descriptors();
    }
  }
  static void see() {
    kernel().proc_is_mounted = true;
    kernel().descriptor_limit = SIZE_MAX;
  }

  // Two need not know about any process: the alarm, for what it has suspended, and whoever finds a
  // file unlocked.
  size_t forks_allowed() const {
    const bool suspended = state() == SUSPENDED && question() == ALARM;
    const bool deferred = state() == DEFERRED && question() == HAND_BACK;
    return when() == AFTER && (suspended || deferred) ? 1 : 0;
  }
  // The program registered once more.
  bool is_succeeded() const {
    return taker() == SAME_REGISTRANT && is_registered_next() && !taker_was_stopped();
  }
  // kill(2) knows it without /proc.
  bool is_certainly_nobodys() const {
    return GetParam().blindness == NO_PROC && taker() == NOBODY && state() != LIVING;
  }
  bool is_swept() const {
    return is_certainly_nobodys() && question() == SWEEP &&
           (when() == BEFORE || state() == DEFERRED);
  }
  lines_t expected_lines() const {
    if (state() == LIVING) return {};
    if (is_swept()) {
      if (when() == AFTER) return {MISSED, MISSED, LOST, CHECKED, CHECKED_OK};
      if (state() == SUSPENDED) return {MISSED, MISSED, LOST, BEGUN, SUSPENDS, RESUMED_OK};
      return {MISSED, MISSED, LOST, BEGUN, BEGUN_OK};
    }
    lines_t lines = {CHECKED, CHECKED_OK};
    if (state() == SUSPENDED) lines = {CHECKED, SUSPENDS, RESUMED_OK};
    if (!is_succeeded()) return lines;
    if (state() == SUSPENDED && when() == AFTER) return {CHECKED, SUSPENDS};
    return {};
  }
  size_t forks_in_all() const { return state() == LIVING || is_succeeded() ? 0 : 1; }
};

}  // namespace

TEST_P(IdentityBlind, NothingIsDecidedAndNothingIsLost) {
  happens();
  const std::vector<std::string> threads = records(tov_alive_chains);
  go_blind();
  ask();
  EXPECT_LE(kernel().forks.size(), forks_allowed());
  if (question() == WATCHDOG && !is_certainly_nobodys()) {
    EXPECT_THAT(records(tov_alive_chains), ElementsAreArray(threads));
  }
  see();
  settle();
  EXPECT_EQ(kernel().forks.size(), forks_in_all());
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], ElementsAreArray(texts_of(expected_lines())));
  EXPECT_THAT(records(tov_chains), UnorderedElementsAreArray(expected_records(forks_in_all())));
  EXPECT_THAT(records(tov_chains_delay), IsEmpty());
  EXPECT_THAT(kernel().kills, IsEmpty());
  EXPECT_THAT(platform().requests, IsEmpty());
  EXPECT_EQ(taker_lives(), taken_ != 0 && !taker_was_stopped());
}

INSTANTIATE_TEST_SUITE_P(All, IdentityBlind, testing::ValuesIn(all_cells()), [](const auto &cell) {
  return name_of(cell.param.cell) +
         (cell.param.blindness == NO_PROC ? "WithoutProc" : "WithoutDescriptors");
});
