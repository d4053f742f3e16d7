// Ends and returns of single programs, while everything else goes on.
//
// A program is back as soon as the delay that it asked for is over, not before it and not much
// later; it never runs twice; what was withdrawn while it was dead does not return; and the daemon
// announces an end once. What the judge demands at the end (judge.h) is blind for all four.
#ifndef TOV_CHAOS_RETURNS_H
#define TOV_CHAOS_RETURNS_H

#include <string>

#include "tests/chaos/run.h"

namespace tov_chaos {

// The programs of which two instances live at this moment. Empty: none.
std::string find_second_copies(Run &run);

// What is wrong with the returns since the last call. Empty: nothing.
std::string find_wrong_returns(Run &run);

// An end that one daemon announced more than once, at any time of the run. Empty: none.
std::string find_repeated_announcements(const Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_RETURNS_H
