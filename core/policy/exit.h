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
#ifndef TOV_CORE_POLICY_EXIT_H
#define TOV_CORE_POLICY_EXIT_H

#include "core/policy/defer.h"
#include "include/tov.h"

// Decides about the exit of `pid`.
//   exit_code  wait status
//   force      1: do not wait any longer for the lock on its registration file
// Takes the lock of `tov_chains` (recursive). A process that is not registered, or that lives,
// is left alone.
void tov_handle_netlink_exit(int pid, int exit_code, int force);

// A running process of a third-part program that is to be registered in place of a dead one; the
// pid 0 is none.
struct tov_registration_s {
  pid_t pid = 0;
  const char *type = nullptr;  // as the list of third-part programs names it
};
using tov_registration_t = tov_registration_s;

// The same decision about a process that two sweeps in a row did not find running: their verdict
// stands in place of the liveness question, because another program may live under the id by now.
// That stranger is not touched.
// Returns what the caller hands to tov_register_found() once it holds no registry's lock.
[[nodiscard]] tov_registration_t tov_decide_lost_exit(int pid);

// Registers the process with our own server, which takes the lock of `tov_chains` in another
// thread: never call it with that lock held. A failure is logged. Waits for the server's answer.
void tov_register_found(const tov_registration_t &found);

#endif  // TOV_CORE_POLICY_EXIT_H
