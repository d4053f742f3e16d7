// Scheduling of the calling thread.
#ifndef TOV_UTIL_PRIORITY_H
#define TOV_UTIL_PRIORITY_H

enum {
  TOV_RT_PRIORITY = 99  // of the event, netlink, server and watchdog threads
};

// Puts the calling thread under SCHED_FIFO at `prio` (1 to 99).
// Returns 0 or an error number (EPERM without the privilege, EINVAL for a bad priority).
int tov_set_priority(int prio);

// Puts the calling thread back under SCHED_OTHER. Failure is ignored: a thread that never was
// real-time has nothing to lose. Async-signal-safe, for a child between fork and exec.
void tov_reset_priority(void);

#endif  // TOV_UTIL_PRIORITY_H
