// Bringing programs under supervision, all at once.
#ifndef TOV_CHAOS_MUSTER_H
#define TOV_CHAOS_MUSTER_H

#include <functional>

#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

// Starts every program that is chosen and does not run, and sees to it that the daemon knows them:
// the daemon is replaced on the way. What registers too late for that registers with its successor.
void muster(Run &run, const std::function<bool(const Program &)> &chosen);

// After much disturbance: ends what runs without supervision, then musters most of the programs;
// the others stay away, which they have to prove, too.
void muster_anew(Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_MUSTER_H
