// The watchdog: finds threads that hang, and has their process killed.
//
// A watched thread advances one byte in the shared area at least once per notify period. Once a
// minute the byte of every record in `tov_alive_chains` is compared with the last one seen:
//
//   full budget --one period without a change--> one miss less  ... --> 0
//        ^--------------- any change -----------------'
//   0 --each minute--> kill request for the owning process, until the thread is gone
//
// The countdown is held back while /data/.kill_debug exists or the system semaphore is not 0; a
// budget already spent is not. One kill request a minute at the most, for the first record in scan
// order. Periods are counted in passes of 60 s, not by the clock; one that is no multiple of 60
// never comes due.
//
// Thread: "tov_thread_notify_timer" at real-time priority 99. It holds the lock of
// `tov_alive_chains` for a whole scan, kill request included. A scan waits for nothing. Of whom
// nothing can be known (no descriptor is free) nothing is counted, and nobody is accused of whom it
// is not certain at that moment that the thread and its process still are those that registered.
#ifndef TOV_CORE_WATCH_WATCHDOG_H
#define TOV_CORE_WATCH_WATCHDOG_H

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

// 0 while the registered thread still exists and belongs to the process that registered it with
// the command line it had; -1 otherwise. Reads /proc; a thread that is
// certainly gone costs no pause, an uncertain end up to 30 ms.
// Caller holds the lock of `tov_alive_chains`.
int tov_check_pid_exist(tov_pid_t *record);

// One minute's step in the accounting of one record.
//   kill_proc_flag  set to 1 when a kill was requested; no second one is made while it is set
//   disable_check, disable_check_tmp  hold the countdown back
// Always 0. Caller holds the lock of `tov_alive_chains`.
int tov_check_alive_info_periodical(tov_pid_t *record, int *kill_proc_flag, bool disable_check,
                                    bool disable_check_tmp) TOV_REQUIRES(tov_alive_chains);

// One minute's scan: dumps the registries when the daemon's diagnostics are on, then compares every
// record; one whose thread has ended, or is another one by now, is removed. Takes the registries'
// locks one after the other: call it with none held.
void tov_notifer_scan(void);

// Thread body; the parameter is ignored and the result is null. Ends as soon as `quit` is raised,
// within 5 s when the flag alone is set. Goes on at ordinary priority when the real-time one is
// refused.
void *tov_notifer_run(void *);

#endif  // TOV_CORE_WATCH_WATCHDOG_H
