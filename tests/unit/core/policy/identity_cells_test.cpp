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
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <array>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/events/handler.h"
#include "core/policy/delay.h"
#include "core/policy/sweep.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/watch/watchdog.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/selfcheck/tov_signals.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using tov_test::kernel;
using tov_test::kernel_s;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

namespace {

enum state_e { DEAD, DEFERRED, SUSPENDED, LIVING, STATES };
enum taker_e { NOBODY, STRANGER, SAME_PROGRAM, SAME_REGISTRANT, REGISTRANT, TAKERS };
enum when_e { BEFORE, AFTER, WHENS };
enum question_e { EXIT, SWEEP, ALARM, HAND_BACK, WATCHDOG, QUESTIONS };

constexpr const char *state_names[] = {"Dead", "Deferred", "Suspended", "Living"};
constexpr const char *taker_names[] = {"Nobody", "Stranger", "SameProgram", "SameRegistrant",
                                       "Registrant"};
constexpr const char *when_names[] = {"BeforeTheExit", "AfterTheExit"};
constexpr const char *question_names[] = {"Exit", "Sweep", "Alarm", "HandBack", "Watchdog"};

// What the restart log says of the program, in its order.
enum line_e {
  MISSED,      // the sweep does not find it
  LOST,        // for the second time
  CHECKED,     // it was killed, and is to be started
  CHECKED_OK,  // it was started
  BEGUN,       // the same for an end of which nobody knows how it came
  BEGUN_OK,
  SUSPENDS,    // it was started too often
  RESUMED_OK,  // it was started by the alarm
};
using lines_t = std::vector<line_e>;

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

struct cell_s {
  const cells_s *row;
  taker_e taker;
  const answer_s &expected() const { return row->expected[static_cast<size_t>(taker)]; }
};

std::vector<cell_s> all_cells() {
  std::vector<cell_s> cells;
  for (const cells_s &row : table)
    for (int taker = 0; taker < TAKERS; taker++)
      cells.push_back({&row, static_cast<taker_e>(taker)});
  return cells;
}

std::string name_of(const testing::TestParamInfo<cell_s> &cell) {
  const cells_s &row = *cell.param.row;
  return std::string(state_names[row.state]) + taker_names[cell.param.taker] +
         when_names[row.when] + "By" + question_names[row.question];
}

constexpr char PROGRAM[] = "/opt/a";
constexpr char OTHER[] = "/opt/b";
constexpr char UNREGISTERED[] = "/opt/x";
constexpr pid_t ID = TOV_ALIVE_ID_COUNT;  // its watch needs no shared area

// A stop that somebody has asked for would end the registration of whoever it is taken for.
constexpr int STOPPED = SIGTERM;

class IdentityCells : public tov_test::Waiting, public testing::WithParamInterface<cell_s> {
 protected:
  enum {
    SELF_CHECK_S = 300,
    LONG_RESTART_TIME_S = 3'000,
    SWEEP_S = 60,
    STARTS_BEFORE_SUSPENSION = 4,
    MANY_PERIODS = 5,
  };

  IdentityCells() {
    kernel().start_as(ID, {PROGRAM, "-d"});
    worker_ = kernel().start_thread(ID);
    kernel().child_becomes = [](tov_test::process_s &child) {
      child.session = child.pid;
      kernel().exec(child.pid, {PROGRAM, "-d"});
    };
    registers(PROGRAM, state() == DEAD ? LONG_RESTART_TIME_S : 0);
    watches(1);
    if (state() == SUSPENDED) {
      tov_pid_t *record = find(ID);
      record->count = STARTS_BEFORE_SUSPENSION;
      record->tm = tov_get_time();
    }
    helper_ = kernel().start({"/opt/helper"});
    kernel().on_alarm = tov_alrm_handler;
    tov_test::reset_platform();
  }

  static state_e state() { return GetParam().row->state; }
  static when_e when() { return GetParam().row->when; }
  static question_e question() { return GetParam().row->question; }
  static taker_e taker() { return GetParam().taker; }

  // ---- the program, and who has its id next ---------------------------------------------------

  // What a client does for the process `ID`: its file, its lock, its request.
  static void registers(const char *program, int restart_time) {
    const std::string file = file_at_id(program);
    kernel().write_file(file, std::to_string(ID) + "\n2\n" + program);
    kernel().lock(file, ID);
    tov_msg_xtach_t payload{};
    payload.pid = ID;
    payload.restart_time = restart_time;
    (void)snprintf(payload.pathname, sizeof payload.pathname, "%s", program);
    EXPECT_EQ(tov_process_restart(&payload), 0);
  }
  // It watches its first thread; `periods` of it may be missed.
  static void watches(unsigned int periods) {
    tov_msg_xtach_t payload{};
    payload.pid = payload.ppid = ID;
    payload.m_n_counter = payload.m_n_cur_counter = periods;
    payload.m_n_notify_time = 60;
    EXPECT_EQ(tov_notifier_start(&payload), 0);
  }
  static std::string file_at_id(const std::string &program) {
    return "/tmp/vsd/0/tov/db" + program.substr(program.rfind('/')) + "." + std::to_string(ID);
  }

  void ends() {
    if (state() == LIVING) return kernel().end_thread(ID);
    kernel().end(ID);
    if (state() == DEFERRED) kernel().lock(file_at_id(PROGRAM), helper_);
  }
  static void is_reported(int code) { dispatch({TOV_EVENT_EXIT, ID, static_cast<uint32_t>(code)}); }
  static void dispatch(const tov_cnmsg_data_t &event) { tov_cnmsg_dispatch(&event); }

  static bool is_registered_next() {
    // The helper holds the very file: the client's call fails.
    if (taker() == SAME_REGISTRANT) return state() != DEFERRED;
    return taker() == REGISTRANT;
  }
  static const char *program_of_taker() { return taker() == REGISTRANT ? OTHER : PROGRAM; }
  static std::vector<std::string> words_of_taker() {
    switch (taker()) {
      case SAME_PROGRAM:
      case SAME_REGISTRANT:
        return {PROGRAM, "-d"};
      case REGISTRANT:
        return {OTHER};
      default:
        return {UNREGISTERED};
    }
  }
  void is_taken() {
    if (taker() == NOBODY) {
      // A living process goes on in another thread.
    } else if (state() == LIVING) {
      kernel().replace_binary(PROGRAM);
      kernel().exec(worker_, words_of_taker());
    } else {
      kernel().start_as(ID, words_of_taker());
    }
    if (kernel().has(ID)) taken_ = kernel().process(ID).serial;
    if (!is_registered_next()) return;
    registers(program_of_taker(), 0);
    // One that executed has a record of its thread already.
    if (state() != LIVING) watches(MANY_PERIODS);
  }
  static void executes() { dispatch({TOV_EVENT_EXEC, ID, 0}); }

  // ---- the questions --------------------------------------------------------------------------

  void sweep() {
    for (int sweeps = 0; sweeps < 2; sweeps++) {
      for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS; bucket++)
        tov_sweep_bucket(bucket);
      live_on(SWEEP_S);
    }
  }
  // Time in which the alarm may ring.
  void live_on(int64_t seconds) {
    const int64_t end_us = kernel().now_us() + seconds * US_PER_S;
    while (kernel().now_us() < end_us)
      run(end_us - kernel().now_us());
  }
  void hand_back() {
    kernel().end(helper_);
    one_pass_of_hand_back();
    run();
  }
  // The thread at work until it sleeps for the first time.
  static void one_pass_of_hand_back() {
    kernel().after(US_PER_MS, [] { tov_flag_set(quit, 1); });
    (void)tov_delay_restart(nullptr);
    tov_flag_set(quit, 0);
  }
  void ask() {
    switch (question()) {
      case EXIT:
        return when() == BEFORE ? is_told_late() : taker_is_stopped();
      case SWEEP:
        return sweep();
      case ALARM:
        if (when() == AFTER) return live_on(SELF_CHECK_S + 2);
        return tov_alrm_handler(SIGALRM);
      case HAND_BACK:
        if (when() == AFTER) return hand_back();
        return one_pass_of_hand_back();
      case WATCHDOG:
        return tov_notifer_scan();
      case QUESTIONS:
        break;
    }
  }
  void is_told_late() {
    is_reported(state() == LIVING ? 0 : SIGKILL);
    if (state() == LIVING && taker() != NOBODY) executes();
    run();
    told_ = true;
  }
  void taker_is_stopped() {
    if (!kernel().has(ID)) return;  // nobody has it
    kernel().end(ID);
    is_reported(STOPPED);
    run();
  }

  // ---- a cell ---------------------------------------------------------------------------------

  void happens() {
    ends();
    if (when() == AFTER) is_told_late_of_end();
    is_taken();
    if (when() == AFTER && state() == LIVING && taker() != NOBODY) executes();
    run();
  }
  void is_told_late_of_end() {
    is_reported(state() == LIVING ? 0 : SIGKILL);
    run();
    told_ = true;
  }
  // What is under way comes to its end.
  void settle() {
    if (!told_) is_told_late();
    if (state() == LIVING) return live_on(2);
    hand_back();
    live_on(LONG_RESTART_TIME_S + 1);
    tov_notifer_scan();
  }

  static bool taker_was_stopped() { return question() == EXIT && when() == AFTER; }
  bool taker_lives() const {
    return kernel().has(ID) && kernel().process(ID).serial == taken_ &&
           !kernel().is_over(ID, taken_);
  }
  static std::string new_id() {
    return kernel().forks.empty() ? "none" : std::to_string(kernel().forks.back());
  }
  static std::string text_of(line_e line) {
    const std::string old_id = std::to_string(ID);
    const std::string sweep = "tov_proc_stat_check: tov_pid(/opt/a -d, 0, " + old_id + ") ";
    switch (line) {
      case MISSED:
        return sweep + "is not running.";
      case LOST:
        return sweep + "exit code lost, restart it.";
      case CHECKED:
        return "%HA-5-HA_SELF_CHECK: Task: a -d/" + old_id +
               " receives event:0009 and self-checking ...";
      case CHECKED_OK:
        return "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id a -d/" + new_id() +
               ".";
      case BEGUN:
        return "%HA-5-HA_RE_INIT: Job a -d/" + old_id + " will be re-initialized ...";
      case BEGUN_OK:
        return "%HA-5-HA_RE_INIT_INFO Re-initialized OK: 1 times and new id a -d/" + new_id() + ".";
      case SUSPENDS:
        return "HA_WAIT_SELF_CHECK Task: a -d had checked more than 5 times. After 5 mimutes, task "
               "will "
               "finish self-checking.";
      case RESUMED_OK:
        return "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id a -d/" + new_id() +
               ".";
    }
    return "";
  }
  static std::vector<std::string> texts_of(const lines_t &lines) {
    std::vector<std::string> texts;
    for (const line_e line : lines)
      texts.push_back(text_of(line));
    return texts;
  }
  static std::vector<std::string> records(tov_chains_t &chains) {
    std::vector<std::string> texts;
    const tov_chains_guard_t held(chains);
    for (const tov_pid_t &record : tov_chain_records(&chains))
      texts.push_back(std::to_string(record.pid) + " " + record.process);
    return texts;
  }
  std::vector<std::string> expected_records() const {
    const std::string id = std::to_string(ID);
    std::vector<std::string> texts;
    if (GetParam().expected().forks_in_all > 0) {
      texts.push_back(new_id() + " /opt/a -d");
    } else if (!taker_was_stopped()) {
      texts.push_back(id + " /opt/a -d");
    }
    if (taker() == REGISTRANT && state() != LIVING && !taker_was_stopped())
      texts.push_back(id + " /opt/b");
    return texts;
  }

  // Of the dead one none; a living one's are the question of the watchdog.
  static std::vector<std::string> expected_threads() {
    if (!is_registered_next() || taker_was_stopped()) return {};
    return {std::to_string(ID) + (taker() == REGISTRANT ? " /opt/b" : " /opt/a -d")};
  }

  pid_t worker_ = 0;
  pid_t helper_ = 0;
  uint64_t taken_ = 0;  // the process that has the id
  bool told_ = false;   // of its end
};

}  // namespace

TEST_P(IdentityCells, ProgramComesBackOnceAndTheNextOwnerOfItsIdIsLeftAlone) {
  const answer_s &expected = GetParam().expected();
  SCOPED_TRACE(GetParam().row->why);
  happens();
  ASSERT_THAT(kernel().forks, IsEmpty());
  ask();
  EXPECT_EQ(kernel().forks.size(), expected.forks);
  settle();
  EXPECT_EQ(kernel().forks.size(), expected.forks_in_all);
  EXPECT_THAT(platform().events[TOV_LOG_RESTART], ElementsAreArray(texts_of(expected.lines)));
  EXPECT_THAT(records(tov_chains), UnorderedElementsAreArray(expected_records()));
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

INSTANTIATE_TEST_SUITE_P(All, IdentityCells, testing::ValuesIn(all_cells()), name_of);
