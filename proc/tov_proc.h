// Starting a supervised program again, by its command line or by its start script.
//
// One procedure serves both ways (how.h holds what differs): the burst limit, a fork that
// is retried for ever, the child's set-up, and the search for the process that is now to be
// supervised, because a listed third-part program may fork itself away. This header brings the
// module's rooms with it.
//
// Threads: the event handler, the start-up rebuild, the delay and sweep threads, and the
// self-check alarm's handler, all under the lock of `tov_chains`.
#ifndef TOV_PROC_H
#define TOV_PROC_H

#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "core/run/lowmem.h"  // IWYU pragma: keep
#include "include/tov.h"      // IWYU pragma: keep
#include "include/tov_registry.h"
#include "proc/burst.h"      // IWYU pragma: export
#include "proc/files.h"      // IWYU pragma: export
#include "proc/find.h"       // IWYU pragma: export
#include "proc/how.h"        // IWYU pragma: export
#include "proc/task_name.h"  // IWYU pragma: export
#include "util/clock.h"      // IWYU pragma: keep
#include "util/priority.h"   // IWYU pragma: keep
#include "util/tov_utils.h"  // IWYU pragma: keep
#include "vsd/entry.h"       // IWYU pragma: keep

// Starts the record's program again by executing its command line.
//   res  set to -1 at entry, to the new process id when one is known
// Returns the new process id; -1 when the burst limit suspended the task; 0 for
// a third-part program whose new process was not found (*res then stays -1).
// While fork fails it does not return but tries every 5 s. Returns -1 a second
// time, inside the child, when that could not change to "/": a caller whose
// process id is not the daemon's must _exit() before it unlocks anything.
// tov_proc_restart() does. Takes the lock of `tov_chains` (recursive).
pid_t tov_spawn(tov_pid_t *tov_pid, pid_t *res);

// The same by running the task's start script with the argument "start": /etc/cmdmap/NAME.sh for a
// command line whose first word holds a "/", /etc/cmdmap/WORD for any other. The command line is
// `pathname`, or `process` when that is empty.
pid_t tov_shell_spawn(tov_pid_t *tov_pid, pid_t *res);

// Starts the record's task in the way its action asks for: the script for SHELL_RESTART, the
// command line for every other action. Ends a child that comes back here. Results as above.
//   held  the guard of `tov_chains`
pid_t tov_proc_restart(const tov_chains_guard_t &held, tov_pid_t *tov_pid, pid_t *res);

#endif  // TOV_PROC_H
