// Who has the id of a registered program: all cells.
//
// A program is dead, deferred, suspended or alive; its id goes to nobody, to a stranger, to its own
// program once more, which registers or does not, or to another program that registers; before its
// exit is handled, or after; and then one of those asks that decide something: an exit, the sweep,
// the alarm, the hand-back, the watchdog. In each cell the program comes back exactly once, or
// lives and is left alone, and whoever has the id by now is neither restarted nor ended nor
// forgotten for it.
//
// The kernel gives the id of a living process to nobody. What can happen to it is the end of its
// first thread, and an execution by another one: then an exit is reported that is none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>

#include <array>
#include <iterator>
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
using namespace tov_test;  // the words of the table

namespace {

// What a question does, and what is said of the program in the whole cell.
struct answer_s {
  size_t forks;   // by the question
  lines_t lines;  // until everything has come to its end
  size_t forks_in_all = 1;
  size_t requests = 0;  // to end a process whose thread hangs
};

using answers_t = std::array<answer_s, TAKERS>;

struct cells_s {
  state_e state;
  when_e when;
  question_e question;
  const char *why;
  answers_t expected;  // by taker
};

const answer_s AT_THE_END{0, {CHECKED, CHECKED_OK}};
const answer_s SWEPT_DEAD{0, {MISSED, MISSED, LOST, BEGUN, BEGUN_OK}};
const answer_s HANDED_BACK{1, {CHECKED, CHECKED_OK}};
const answer_s SWEPT_DEFERRED{0, {MISSED, MISSED, LOST, CHECKED, CHECKED_OK}};
const answer_s BY_ALARM{0, {CHECKED, SUSPENDS, RESUMED_OK}};
const answer_s BY_THIS_ALARM{1, {CHECKED, SUSPENDS, RESUMED_OK}};
const answer_s SWEPT_SUSPENDED{0, {MISSED, MISSED, LOST, BEGUN, SUSPENDS, RESUMED_OK}};
const answer_s SWEPT_ALONE{0, {MISSED, MISSED, LOST}, 0};
const answer_s BY_NO_ALARM{0, {CHECKED, SUSPENDS}, 0};
const answer_s NOTHING{0, {}, 0};
const answer_s REPLACED{1, {MISSED, MISSED, LOST, BEGUN, BEGUN_OK}};
const answer_s HUNG{0, {}, 0, 1};

//   registered  when its own program has its id and registers: as long as that lives, nobody need
//               come back
answers_t all(const answer_s &answer, const answer_s &registered) {
  return {answer, answer, answer, registered, answer};
}
answers_t all(const answer_s &answer) {
  return all(answer, answer);
}
// To a living one: nothing, but for what it executes itself or another program.
answers_t by_program(const answer_s &own, const answer_s &other) {
  return {NOTHING, other, own, own, other};
}

const cells_s table[] = {
    // The exit of a task with a long `restart_time`: it waits with the dead one's id.
    {DEAD, BEFORE, EXIT, "its own exit comes late", all(AT_THE_END, NOTHING)},
    {DEAD, BEFORE, SWEEP, "its exit is lost to the sweep", all(SWEPT_DEAD, SWEPT_ALONE)},
    {DEAD, BEFORE, ALARM, "nothing is suspended", all(AT_THE_END, NOTHING)},
    {DEAD, BEFORE, HAND_BACK, "nothing is deferred", all(AT_THE_END, NOTHING)},
    {DEAD, BEFORE, WATCHDOG, "its thread is gone, whoever has the id", all(AT_THE_END, NOTHING)},
    {DEAD, AFTER, EXIT, "the exit is the next one's", all(AT_THE_END)},
    {DEAD, AFTER, SWEEP, "its restart waits: it has no process", all(AT_THE_END, NOTHING)},
    {DEAD, AFTER, ALARM, "nothing is suspended", all(AT_THE_END, NOTHING)},
    {DEAD, AFTER, HAND_BACK, "nothing is deferred", all(AT_THE_END, NOTHING)},
    {DEAD, AFTER, WATCHDOG, "its thread went with it", all(AT_THE_END, NOTHING)},

    // A helper of the dead program holds its registration file.
    {DEFERRED, BEFORE, EXIT, "its own exit comes late", all(AT_THE_END)},
    {DEFERRED, BEFORE, SWEEP, "its exit is lost to the sweep", all(SWEPT_DEAD)},
    {DEFERRED, BEFORE, ALARM, "nothing is suspended", all(AT_THE_END)},
    {DEFERRED, BEFORE, HAND_BACK, "nothing is deferred yet", all(AT_THE_END)},
    {DEFERRED, BEFORE, WATCHDOG, "its thread is gone, whoever has the id", all(AT_THE_END)},
    {DEFERRED, AFTER, EXIT, "the exit is the next one's", all(AT_THE_END)},
    {DEFERRED, AFTER, SWEEP, "operators are told of what waits for long", all(SWEPT_DEFERRED)},
    {DEFERRED, AFTER, ALARM, "nothing is suspended", all(AT_THE_END)},
    {DEFERRED, AFTER, HAND_BACK, "the helper has ended", all(HANDED_BACK)},
    {DEFERRED, AFTER, WATCHDOG, "its thread went with it", all(AT_THE_END)},

    // The program has died four times within the last minutes.
    {SUSPENDED, BEFORE, EXIT, "its own exit comes late", all(BY_ALARM, NOTHING)},
    {SUSPENDED, BEFORE, SWEEP, "its exit is lost to the sweep", all(SWEPT_SUSPENDED, SWEPT_ALONE)},
    {SUSPENDED, BEFORE, ALARM, "nothing is suspended yet", all(BY_ALARM, NOTHING)},
    {SUSPENDED, BEFORE, HAND_BACK, "nothing is deferred", all(BY_ALARM, NOTHING)},
    {SUSPENDED, BEFORE, WATCHDOG, "its thread is gone, whoever has the id", all(BY_ALARM, NOTHING)},
    {SUSPENDED, AFTER, EXIT, "the exit is the next one's", all(BY_ALARM)},
    {SUSPENDED, AFTER, SWEEP, "suspended, it has no process", all(BY_ALARM, BY_NO_ALARM)},
    {SUSPENDED, AFTER, ALARM, "its suspension is over", all(BY_THIS_ALARM, BY_NO_ALARM)},
    {SUSPENDED, AFTER, HAND_BACK, "nothing is deferred", all(BY_ALARM, BY_NO_ALARM)},
    {SUSPENDED, AFTER, WATCHDOG, "its thread went with it", all(BY_ALARM, BY_NO_ALARM)},

    // Its process lives and executes what the taker's column says.
    {LIVING, BEFORE, EXIT, "the end of the first thread is no end", all(NOTHING)},
    {LIVING, BEFORE, SWEEP, "executed anew it is as registered", by_program(NOTHING, REPLACED)},
    {LIVING, BEFORE, ALARM, "nothing is suspended", all(NOTHING)},
    {LIVING, BEFORE, HAND_BACK, "nothing is deferred", all(NOTHING)},
    {LIVING, BEFORE, WATCHDOG, "another program's thread hangs not", by_program(HUNG, NOTHING)},
    {LIVING, AFTER, EXIT, "it is stopped, whatever it executes", all(NOTHING)},
    {LIVING, AFTER, SWEEP, "executed anew it is as registered", by_program(NOTHING, REPLACED)},
    {LIVING, AFTER, ALARM, "nothing is suspended", all(NOTHING)},
    {LIVING, AFTER, HAND_BACK, "nothing is deferred", all(NOTHING)},
    {LIVING, AFTER, WATCHDOG, "another program's thread hangs not", by_program(HUNG, NOTHING)},
};
static_assert(std::size(table) == size_t{STATES} * WHENS * QUESTIONS);

struct row_s {
  cell_s cell;
  const char *why;
  answer_s expected;
};

std::vector<row_s> all_cells() {
  std::vector<row_s> cells;
  for (const cells_s &row : table)
    for (size_t taker = 0; taker < TAKERS; taker++)
      cells.push_back({{row.state, row.when, row.question, static_cast<taker_e>(taker)},
                       row.why,
                       row.expected[taker]});
  return cells;
}

class IdentityCells : public ReusedId, public testing::WithParamInterface<row_s> {
 protected:
  IdentityCells() : ReusedId(GetParam().cell) {}
};

}  // namespace

TEST_P(IdentityCells, ProgramComesBackOnceAndTheNextOwnerOfItsIdIsLeftAlone) {
  const answer_s &expected = GetParam().expected;
  SCOPED_TRACE(GetParam().why);
  happens();
  ASSERT_THAT(kernel().forks, IsEmpty());
  ask();
  EXPECT_EQ(kernel().forks.size(), expected.forks);
  settle();
  EXPECT_EQ(kernel().forks.size(), expected.forks_in_all);
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], ElementsAreArray(texts_of(expected.lines)));
  EXPECT_THAT(records(tov_chains),
              UnorderedElementsAreArray(expected_records(expected.forks_in_all)));
  EXPECT_THAT(records(tov_chains_delay), IsEmpty());
  EXPECT_THAT(kernel().kills, IsEmpty());
  EXPECT_EQ(platform().requests.size(), expected.requests);
  EXPECT_EQ(taker_lives(), taken_ != 0 && !taker_was_stopped());
  if (state() == LIVING) return;
  EXPECT_THAT(records(tov_alive_chains), ElementsAreArray(expected_threads()));
  if (!expected_threads().empty()) {
    EXPECT_EQ(kernel().lock_holder(file_at_id(program_of_taker())), ID);
  }
}

INSTANTIATE_TEST_SUITE_P(All, IdentityCells, testing::ValuesIn(all_cells()),
                         [](const auto &cell) { return name_of(cell.param.cell); });
