// Starting a supervised program again, by its command line or by its start script.
//
// One procedure serves both ways (how.h holds what differs): the burst limit, a fork that
// is retried for ever, the child's set-up, and the search for the process that is now to be
// supervised, because a listed third-part program may fork itself away. The daemon takes its steps
// one by one, so that the record waits between them and no thread; tov_spawn() and
// tov_shell_spawn() make the whole start before they return. This header brings the module's rooms
// with it.
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
// Takes the lock of `tov_chains` (recursive).
pid_t tov_spawn(tov_pid_t *tov_pid, pid_t *res);

// The same by running the task's start script with the argument "start": /etc/cmdmap/NAME.sh for a
// command line whose first word holds a "/", /etc/cmdmap/WORD for any other. The command line is
// `pathname`, or `process` when that is empty.
pid_t tov_shell_spawn(tov_pid_t *tov_pid, pid_t *res);

// ---- a start in steps -------------------------------------------------------------------------
//
// For the daemon's own threads: what the functions above wait for is here a step of its own, so
// that the record can wait for it (core/policy/revive). Nothing here sleeps.

enum {
  TOV_FORK_PAUSE_S = 5,          // after a failed fork
  TOV_SEARCH_RETRIES = 10,       // of the search for a listed task's process, after growing pauses
  TOV_SEARCH_PAUSE_US = 100000,  // before the first of them
};

// How the record's task is started: the script for SHELL_RESTART, the command line for every other
// action.
const tov_proc_how_t &tov_proc_how_of(const tov_pid_t &record);

// Forks the child that will execute the record's task, and notes it in its virtual device. The
// child claims the start (proc/claim).
//   held    the guard of `tov_chains`
//   vsd_no  the dead process's device, find_app()
//   stays   the registration file stays in its place
// Returns the child's id, or -errno of the fork. The child does not return.
pid_t tov_proc_fork(const tov_chains_guard_t &held, tov_pid_t *record, int vsd_no, bool stays);

// Tells of a failed fork, of which operators' tools know both lines: the fork file, which the
// watcher counts, and the log.
void tov_proc_fork_failed(const tov_pid_t &record, int error);

// Whether the process to supervise has to be searched for, because the list of third-part programs
// names the task.
bool tov_proc_is_listed(const tov_pid_t &record);

// The command line by which it is searched for: the whole one for a script, the program's path
// otherwise.
void tov_proc_search_key(const tov_pid_t &record, char (&command)[TOV_PROCESS_SIZE]);

// Tell which process has been started: that of a listed task, which was found (0: none) after the
// fork of `forked` (below 1: it failed), or the child itself of any other.
void tov_proc_tell_found(const tov_pid_t &record, pid_t forked, pid_t found);
void tov_proc_tell_forked(const tov_pid_t &record, pid_t forked);

#endif  // TOV_PROC_H
