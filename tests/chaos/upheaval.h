// The daemon's sudden death and its successor.
//
// While there is no daemon nothing changes, so this is where the model is brought in line with what
// the rules say about registrations: what the fresh daemon finds in files decides what it knows,
// and every registered program that it finds dead is started, whatever its action.
#ifndef TOV_CHAOS_UPHEAVAL_H
#define TOV_CHAOS_UPHEAVAL_H

#include "tests/chaos/run.h"

namespace tov_chaos {

// Kills the daemon, waits until nothing moves any more and takes stock.
void kill_daemon(Run &run);

// Starts a daemon that gets no further than a start may, and does the same.
void cut_daemon_short(Run &run);

// Starts a daemon that lives.
void start_daemon(Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_UPHEAVAL_H
