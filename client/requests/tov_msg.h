// The daemon's handlers: what a request changes in the registries.
//
// By the time a handler runs its client has been acknowledged, so a result goes to the server's
// diagnostics alone. A client is not asked who it is: anybody who can connect may register,
// withdraw or keep alive any process and any thread.
//
// Threads: the handlers run in the server thread, the dumps (core/registry/dump.h) in the watchdog.
// Each takes the lock of the one registry that it changes; call them with no registry lock held.
// Texts in a payload need not be terminated: no more is read of a field than its size.
#ifndef TOV_MSG_H
#define TOV_MSG_H

#include <sys/types.h>

#include "client/requests/table.h"    // IWYU pragma: export
#include "core/registry/dump.h"       // IWYU pragma: keep
#include "core/registry/tov_chain.h"  // IWYU pragma: keep
#include "include/tov.h"              // IWYU pragma: keep
#include "include/tov_wire.h"

// Register a process: execute it again, or run its start script `pathname` again, when it ends. A
// process that is registered already stays as it is, whatever its action.
// Return 0, or -1 when its command line cannot be read (diagnostic and error event written).
int tov_process_restart(tov_msg_xtach_t *payload);
int tov_process_shell_restart(tov_msg_xtach_t *payload, char *pathname);

// Start the watch of thread `payload->pid` of process `payload->ppid`. A watched thread keeps its
// record, but its slot of the shared area begins anew.
// Returns 0, or -1 when the thread's command line cannot be read (diagnostic and error event).
int tov_notifier_start(tov_msg_xtach_t *payload);

// The same as a sign of life by message: a watched thread gets the payload's periods and counters,
// and nothing is logged but a failure.
int tov_notifier_reset(tov_msg_xtach_t *payload);

// Carries out a control event; an unknown one is ignored. Always 0.
int tov_process_cons_msg(tov_msg_cons_t *payload);

// Removes every registration of process `pid`, with its registration file.
void tov_process_dump_all_msg(pid_t pid);

// Removes every watch of thread `pid` and frees its slot of the shared area.
void tov_notifier_stop(pid_t pid);

#endif  // TOV_MSG_H
