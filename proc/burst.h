// The limit on restarts in a burst, the suspension that follows it, and the reload of the unit
// when a suspended task had only just come back from one.
//
//   running --restart, 1st to 4th within 120 s--> running
//   running --5th restart--> suspended            (tov_burst_allows: flag SELF_CHECK, alarm armed)
//   suspended --alarm--> running                  (proc/selfcheck/tov_signals)
#ifndef TOV_PROC_BURST_H
#define TOV_PROC_BURST_H

#include <time.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "proc/how.h"

// Counts one restart of `record` and decides whether it may take place. When not, the task is
// suspended: announced, marked, the process's alarm armed (a sooner pending one is kept), and
// tov_check_restart_system() asked. While /etc/dev_mon can be opened nothing is suspended.
//   held  the guard of `tov_chains`
// A reload that the suspension calls for is noted: tov_ask_for_noted_reload() asks for it.
bool tov_burst_allows(const tov_chains_guard_t &held, tov_pid_t *record, const tov_proc_how_t &how);

// Asks the platform to reload the unit when the task suspended at monotonic second `t` came back
// from a self-check no more than 600 s before, unless operators or the platform forbid it.
// Takes the lock of `tov_chains` while it decides. Sleeps 2 s when it asks.
void tov_check_restart_system(tov_pid_t *record, time_t t);

// Asks for the reloads that suspensions have called for, if there are any. Sleeps 2 s for each:
// call it without the lock of `tov_chains`, in a thread for which nobody waits.
void tov_ask_for_noted_reload(void);

// debug_time() with its failure reported and replaced by the default.
int tov_self_check_period(const char *function);

#endif  // TOV_PROC_BURST_H
