// The decision after the exit of a supervised process.
//
//   registered --exit--> dropped              a duplicate: another registration stays in charge
//                    --> removed              ended by signal 15: a deliberate stop
//                    --> deferred             its registration file is still locked; the delay
//                                             thread hands it back here, by force after 300 s
//                    --> registered, new id   restarted
//                    --> registered, dead id  NORMAL_EXIT, IGNORE_EXIT, or the start failed; the
//                                             sweep keeps looking at it
//
// Threads: the event handler, the delay thread, the sweep. The whole handling of one exit runs
// under the lock of `tov_chains`, sleeps and the spawn included, so exits are handled one at a
// time and a new process that dies at once finds its record already renewed. Only a registration
// with our own server is made after the lock is gone, because the server wants the same lock.
#ifndef TOV_CORE_EXIT_H
#define TOV_CORE_EXIT_H

#include "tov.h"
#include "tov_core_defer.h"

// Decides about the exit of `pid`.
//   exit_code  wait status
//   force      1: do not wait any longer for the lock on its registration file
// Takes the lock of `tov_chains` (recursive). A process that is not registered, or that lives,
// is left alone.
void tov_handle_netlink_exit(int pid, int exit_code, int force);

// The same for a process that two sweeps in a row did not find running: their verdict stands in
// place of the liveness question, because another program may live under the id by now. That
// stranger is not touched.
void tov_handle_lost_exit(int pid);

#endif  // TOV_CORE_EXIT_H
