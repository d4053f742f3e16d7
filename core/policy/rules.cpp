// The rules in their order. A rule asks; what its act does is written in core/policy/exit.cpp.
//
// Tested by: tests/unit/core/policy/foresee_test.cpp, tests/module/core/policy/foresee_test.cpp,
// tests/module/core/policy/exit_test.cpp, tests/module/core/policy/exit_rules_test.cpp
#include "core/policy/rules.h"

#include <iterator>
#include <span>

static bool always(tov_exit_case_t &) {
  return true;
}

static constexpr tov_exit_rule_t rules[] = {
    {"the process lives", [](tov_exit_case_t &asked) { return asked.lives(); }, TOV_EXIT_LEAVE,
     true},
    {"it is not certain that the process has ended",
     [](tov_exit_case_t &asked) { return asked.uncertain(); }, TOV_EXIT_ASK_AGAIN, true},
    {"another registration is in charge of the task",
     [](tov_exit_case_t &asked) { return asked.twin() == TOV_TWIN_IN_CHARGE; }, TOV_EXIT_DROP,
     true},
    {"another process of the task lives",
     [](tov_exit_case_t &asked) { return asked.twin() == TOV_TWIN_LIVES; }, TOV_EXIT_DROP, true},
    {"it is not certain whether another process of the task lives",
     [](tov_exit_case_t &asked) { return asked.twin() == TOV_TWIN_UNKNOWN; }, TOV_EXIT_ASK_AGAIN,
     true},
    {"another process of the task is dead, too",
     [](tov_exit_case_t &asked) { return asked.twin() == TOV_TWIN_DEAD; }, TOV_EXIT_DROP_OTHER,
     false},
    {"the task is suspended", [](tov_exit_case_t &asked) { return asked.suspended(); },
     TOV_EXIT_WAIT_FOR_ALARM, true},
    {"the exit is accepted", always, TOV_EXIT_NOTE, false},
    {"the process was stopped on purpose", [](tov_exit_case_t &asked) { return asked.stopped(); },
     TOV_EXIT_ACCEPT_STOP, true},
    {"its registration file is still locked", [](tov_exit_case_t &asked) { return asked.locked(); },
     TOV_EXIT_DEFER, true},
    {"its action asks for nothing", [](tov_exit_case_t &asked) { return !asked.restarted(); },
     TOV_EXIT_LEAVE_DEAD, true},
    {"it is not known whether the listed program runs again",
     [](tov_exit_case_t &asked) { return asked.unknown_whether_it_runs(); }, TOV_EXIT_LOOK, true},
    {"the listed program runs again", [](tov_exit_case_t &asked) { return asked.runs_again(); },
     TOV_EXIT_HAND_OVER, true},
    {"otherwise", always, TOV_EXIT_RESTART, true},
};
static_assert(std::size(rules) == TOV_EXIT_RULES_NUM);
static_assert(std::end(rules)[-1].applies == always && std::end(rules)[-1].ends);

std::span<const tov_exit_rule_t> tov_exit_rules() {
  return rules;
}

const tov_exit_rule_t &tov_exit_decide(tov_exit_case_t &asked) {
  for (const tov_exit_rule_t &rule : rules) {
    const bool applies = rule.applies(asked);
    asked.heard(rule, applies);
    if (!applies) continue;
    asked.act(rule.act);
    if (rule.ends) return rule;
  }
  return std::end(rules)[-1];  // not reached: the last rule applies and ends
}
