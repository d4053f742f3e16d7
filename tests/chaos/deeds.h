// The deeds of a chaos run: one random disturbance at a time, and what it means for the model.
#ifndef TOV_CHAOS_DEEDS_H
#define TOV_CHAOS_DEEDS_H

#include <sys/types.h>

#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

// Does one deed to a program, to the daemon or to its files; chosen by weight. Some find no
// program to do it to and do nothing.
void do_deed(Run &run);

// Goes on with what takes its time: loops end, pauses end, the older of two instances goes.
void carry_on(Run &run);

// Ends one instance, and what that means: the program comes back, or it does not.
void end_instance(Run &run, Program &program, pid_t pid, int signal);

// Lets the forks of the daemon succeed again.
void let_fork(Run &run);

// Has programs register anew whose delay a daemon does not know, because it found them in files.
// Returns whether any has yet to do so.
bool renew_delays(Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_DEEDS_H
