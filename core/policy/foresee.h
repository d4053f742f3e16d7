// What would happen if a supervised process ended: the rules of core/policy/rules on plain values.
//
// Nothing is asked of the kernel, the registry or the files, and nothing is touched: what the rules
// want to know is handed in. So a tool can print what the daemon would do, rule by rule, and a test
// can compare the forecast with what it does.
//
// Any thread; no lock, no state.
#ifndef TOV_CORE_POLICY_FORESEE_H
#define TOV_CORE_POLICY_FORESEE_H

#include <time.h>

#include <array>

#include "core/policy/rules.h"
#include "include/tov_registry.h"

// What the process, the registry and the files are like when the exit is handled.
struct tov_situation_s {
  bool lives = false;               // the process that is to have ended
  bool uncertain = false;           // whether it has: its threads are left, or it cannot be known
  tov_twin_e twin = TOV_TWIN_NONE;  // another process registered for the same task
  bool locked = false;              // its registration file, by another process than the daemon
  bool runs_again = false;          // a listed program of which another process runs
  bool dev_mon = false;             // /etc/dev_mon: one silent restart, no suspension
  time_t now = 0;                   // monotonic seconds
};
using tov_situation_t = tov_situation_s;

// The way to end.
struct tov_ending_s {
  int exit_code = 0;  // wait status
  int force = 0;      // 1: do not wait for the lock on the registration file
  bool lost = false;  // no event reported it; two sweeps did not find the process
};
using tov_ending_t = tov_ending_s;

struct tov_foreseen_s {
  struct step_s {
    const tov_exit_rule_t *rule;
    bool applies;
  };
  std::array<step_s, TOV_EXIT_RULES_NUM> steps;  // the rules that are asked, in order
  size_t steps_num;
  tov_exit_act_e act;  // of the rule that ends the walk

  // Where that is TOV_EXIT_RESTART:
  bool suspended;  // instead of a start, until the self-check alarm: the burst is over
  int count;       // starts in the burst, this one included
  int wait_s;      // before it
  bool silent;     // nothing is announced
};
using tov_foreseen_t = tov_foreseen_s;

// Foresees what follows for `record`, of which process, action, burst and restart time count.
tov_foreseen_t tov_foresee_exit(const tov_pid_t &record, const tov_situation_t &situation,
                                const tov_ending_t &ending);

#endif  // TOV_CORE_POLICY_FORESEE_H
