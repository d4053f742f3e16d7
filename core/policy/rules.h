// The rules after the end of a supervised process, as one table.
//
// The rules are walked from the top. Each asks one question; where the answer is yes its act is
// done, and it either ends the walk or lets it go on. What the questions are asked of, and what the
// acts do, is the caller's: the decision asks the kernel, the registry and the files
// (core/policy/exit), the forecast asks plain values and does nothing (core/policy/foresee).
#ifndef TOV_CORE_POLICY_RULES_H
#define TOV_CORE_POLICY_RULES_H

#include <span>

// What is to be done.
enum tov_exit_act_e {
  TOV_EXIT_LEAVE,           // the process lives: nothing
  TOV_EXIT_ASK_AGAIN,       // it cannot be decided yet: what was reported is kept, and asked again
  TOV_EXIT_DROP,            // another registration of the task is in charge: this one goes
  TOV_EXIT_DROP_OTHER,      // the other registration's process is dead as well: that one goes
  TOV_EXIT_WAIT_FOR_ALARM,  // suspended: nothing, the self-check alarm will start it
  TOV_EXIT_NOTE,            // the exit is accepted: its threads are watched no more
  TOV_EXIT_ACCEPT_STOP,     // stopped on purpose: the registration goes
  TOV_EXIT_DEFER,           // the registration file is still locked: parked until it is not
  TOV_EXIT_LEAVE_DEAD,      // nothing is asked for: the record stays, with its dead process
  TOV_EXIT_LOOK,            // whether a listed program runs again by itself is looked for first
  TOV_EXIT_HAND_OVER,       // a listed program runs again: that process is registered instead
  TOV_EXIT_RESTART,         // the task is started again
  TOV_EXIT_ACT_NUM
};

// The answer to "is another process registered for the same task?".
enum tov_twin_e {
  TOV_TWIN_NONE,
  TOV_TWIN_IN_CHARGE,  // yes, and this record never went through a start: it gives way unasked
  TOV_TWIN_LIVES,      // yes, and that process lives
  TOV_TWIN_DEAD,       // yes, but that process is dead
  TOV_TWIN_UNKNOWN,    // yes, and it cannot be known whether that process lives
};

class tov_exit_case_s;

struct tov_exit_rule_s {
  const char *name;  // in plain words: "the process lives"
  bool (*applies)(tov_exit_case_s &asked);
  tov_exit_act_e act;
  bool ends;  // the walk
};
using tov_exit_rule_t = tov_exit_rule_s;

// The questions, in the order in which the rules ask them; twin() is asked by more than one.
class tov_exit_case_s {
 public:
  virtual bool lives() = 0;      // the process that was reported as ended
  virtual bool uncertain() = 0;  // its end: threads of it are left, or it cannot be known
  virtual tov_twin_e twin() = 0;
  virtual bool suspended() = 0;
  virtual bool stopped() = 0;                  // by SIGTERM: it was asked to end
  virtual bool locked() = 0;                   // its registration file, and the exit is not forced
  virtual bool restarted() = 0;                // the registered action asks for a new process
  virtual bool unknown_whether_it_runs() = 0;  // it is a listed program, not yet looked for
  virtual bool runs_again() = 0;               // a listed program of which another process runs
  virtual void act(tov_exit_act_e act) = 0;

  // Told of each rule that was asked, before its act.
  virtual void heard(const tov_exit_rule_t &rule, bool applies) {
    (void)rule;
    (void)applies;
  }

 protected:
  ~tov_exit_case_s() = default;
};
using tov_exit_case_t = tov_exit_case_s;

// Whether a wait status is that of a process that was asked to end: SIGTERM, without a core dump.
inline bool tov_exit_is_stop(int exit_code) {
  constexpr int terminated = 15;
  return exit_code == terminated;
}

enum {
  TOV_EXIT_RULES_NUM = TOV_EXIT_ACT_NUM + 2  // every act has a rule, two acts have two
};

// The table; the last rule always applies.
std::span<const tov_exit_rule_t> tov_exit_rules();

// Walks the table for one case. Returns the rule that ended the walk.
const tov_exit_rule_t &tov_exit_decide(tov_exit_case_t &asked);

#endif  // TOV_CORE_POLICY_RULES_H
