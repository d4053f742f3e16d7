// The kernel's low-memory killer: whom it spares, and whether it lets the unit be reloaded.
//
// No shell is started for any of this, although "echo 1 > file" would do: a shell would run at the
// caller's real-time priority, cost milliseconds, and compete with the SIGCHLD handler for its
// exit status.
//
// Any thread; no state, nothing is allocated.
#ifndef TOV_CORE_RUN_LOWMEM_H
#define TOV_CORE_RUN_LOWMEM_H

#include <sys/types.h>

// Whether the low-memory killer lets the unit be reloaded: false only when its status file can be
// read and holds 0.
int tov_is_reboot_available(void);

// Writes `para` as the process's oom_score_adj. Errors are ignored: the process may be gone, or
// the value below what we may set.
void change_proc_oom_adj(int para, pid_t pid);

// Exempts a process from the low-memory killer, or makes it ordinary again.
void tov_ignore_lmk(pid_t pid);
void tov_reset_lmk(pid_t pid);

// Writes "1\n" to the low-memory killer's TLB switch where the kernel has one.
// Async-signal-safe.
void tov_flush_lmk(void);

#endif  // TOV_CORE_RUN_LOWMEM_H
