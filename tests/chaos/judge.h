// The verdict of a chaos run.
#ifndef TOV_CHAOS_JUDGE_H
#define TOV_CHAOS_JUDGE_H

#include <string>

#include "tests/chaos/run.h"

namespace tov_chaos {

// What is wrong in the middle of the disturbance: programs to which nothing was done for so long
// that they should be as they should be. Empty: nothing.
std::string find_overdue(Run &run);

// Lets everything settle under a fresh daemon, brings most programs back under supervision and then
// proves, round by round:
// - every program that should run does so exactly once, no other one runs;
// - every supervised program that is killed comes back, no other one does;
// - the daemon has no zombie, and neither its descriptors nor its memory grow;
// - a program that is stopped by signal 15 stays away.
// Returns what is wrong; empty: nothing.
std::string judge(Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_JUDGE_H
