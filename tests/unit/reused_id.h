// The fixture of ids that are given out again: a registered program, the end of its process, who
// has its id next, and who then decides something.
#ifndef TOV_TEST_UNIT_REUSED_ID_H
#define TOV_TEST_UNIT_REUSED_ID_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/events/handler.h"
#include "core/policy/delay.h"
#include "core/policy/sweep.h"
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

namespace tov_test {

enum state_e { DEAD, DEFERRED, SUSPENDED, LIVING, STATES };
enum taker_e { NOBODY, STRANGER, SAME_PROGRAM, SAME_REGISTRANT, REGISTRANT, TAKERS };
enum when_e { BEFORE, AFTER, WHENS };
enum question_e { EXIT, SWEEP, ALARM, HAND_BACK, WATCHDOG, QUESTIONS };

inline constexpr const char *state_names[] = {"Dead", "Deferred", "Suspended", "Living"};
inline constexpr const char *taker_names[] = {"Nobody", "Stranger", "SameProgram", "SameRegistrant",
                                              "Registrant"};
inline constexpr const char *when_names[] = {"BeforeTheExit", "AfterTheExit"};
inline constexpr const char *question_names[] = {"Exit", "Sweep", "Alarm", "HandBack", "Watchdog"};

struct cell_s {
  state_e state;
  when_e when;
  question_e question;
  taker_e taker;
};

inline std::string name_of(const cell_s &cell) {
  return std::string(state_names[cell.state]) + taker_names[cell.taker] + when_names[cell.when] +
         "By" + question_names[cell.question];
}

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

inline constexpr char PROGRAM[] = "/opt/a";
inline constexpr char OTHER[] = "/opt/b";
inline constexpr char UNREGISTERED[] = "/opt/x";
inline constexpr pid_t ID = TOV_ALIVE_ID_COUNT;  // its watch needs no shared area

// A stop that somebody has asked for would end the registration of whoever it is taken for.
inline constexpr int STOPPED = SIGTERM;

class ReusedId : public Waiting {
 protected:
  enum {
    SELF_CHECK_S = 300,
    LONG_RESTART_TIME_S = 3'000,
    SWEEP_S = 60,
    STARTS_BEFORE_SUSPENSION = 4,
    MANY_PERIODS = 5,
  };

  explicit ReusedId(const cell_s &cell) : cell_(cell) {
    kernel().start_as(ID, {PROGRAM, "-d"});
    worker_ = kernel().start_thread(ID);
    kernel().child_becomes = [](process_s &child) {
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
    reset_platform();
  }

  state_e state() const { return cell_.state; }
  when_e when() const { return cell_.when; }
  question_e question() const { return cell_.question; }
  taker_e taker() const { return cell_.taker; }

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

  bool is_registered_next() const {
    // The helper holds the very file: the client's call fails.
    if (taker() == SAME_REGISTRANT) return state() != DEFERRED;
    return taker() == REGISTRANT;
  }
  const char *program_of_taker() const { return taker() == REGISTRANT ? OTHER : PROGRAM; }
  std::vector<std::string> words_of_taker() const {
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
      if (sweeps > 0) live_on(SWEEP_S);
      for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS; bucket++)
        tov_sweep_bucket(bucket);
    }
    run();
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

  bool taker_was_stopped() const { return question() == EXIT && when() == AFTER; }
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
      case RESUMED_OK:
        return "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id a -d/" + new_id() +
               ".";
      case BEGUN:
        return "%HA-5-HA_RE_INIT: Job a -d/" + old_id + " will be re-initialized ...";
      case BEGUN_OK:
        return "%HA-5-HA_RE_INIT_INFO Re-initialized OK: 1 times and new id a -d/" + new_id() + ".";
      case SUSPENDS:
        return "HA_WAIT_SELF_CHECK Task: a -d had checked more than 5 times. After 5 mimutes, task "
               "will finish self-checking.";
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
  std::vector<std::string> expected_records(size_t forks_in_all) const {
    const std::string id = std::to_string(ID);
    std::vector<std::string> texts;
    if (forks_in_all > 0) {
      texts.push_back(new_id() + " /opt/a -d");
    } else if (!taker_was_stopped()) {
      texts.push_back(id + " /opt/a -d");
    }
    if (taker() == REGISTRANT && state() != LIVING && !taker_was_stopped())
      texts.push_back(id + " /opt/b");
    return texts;
  }

  // Of the dead one none; a living one's are the question of the watchdog.
  std::vector<std::string> expected_threads() const {
    if (!is_registered_next() || taker_was_stopped()) return {};
    return {std::to_string(ID) + (taker() == REGISTRANT ? " /opt/b" : " /opt/a -d")};
  }

  const cell_s cell_;
  pid_t worker_ = 0;
  pid_t helper_ = 0;
  uint64_t taken_ = 0;  // the process that has the id
  bool told_ = false;   // of its end
};

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_REUSED_ID_H
