// The decision after the exit of a supervised process: the rules (core/policy/rules) asked of the
// registry, the kernel and the files. What becomes of the record is drawn in
// core/registry/record.h.
//
// Threads: the event handler, the delay thread, the sweep. The handling of one exit runs under the
// lock of `tov_chains`, the start included, so exits are handled one at a time and a new process
// that dies at once finds its record already renewed. What has to be waited for is waited for by
// the record, without the lock (core/policy/waits).
#ifndef TOV_CORE_POLICY_EXIT_H
#define TOV_CORE_POLICY_EXIT_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

// Decides about the exit of `pid`.
//   exit_code  wait status
//   force      1: do not wait any longer for the lock on its registration file
// Takes the lock of `tov_chains` (recursive). A process that is not registered, or that lives,
// is left alone; where it is not certain that it has ended, the record keeps the report and the
// kernel is asked again. Returns when the exit is decided; a restart that waits goes on in the
// event handler (without one: is made before the return, tov_waits_finish()).
void tov_handle_netlink_exit(int pid, int exit_code, int force);

// The first thread of the record's process has ended, and others run: from now on the end of the
// last one is waited for. Nothing where that is so already.
void tov_exit_await(const tov_chains_guard_t &held, tov_pid_t *record);

// A record stands for its process from now on: asks whether that, or its first thread, has ended
// before. The event of such an end has found no record; but the kernel makes a process a zombie
// before it tells of its end, so who asks from now on does not miss it.
void tov_exit_ask_entered(const tov_chains_guard_t &held, tov_pid_t *record);

// The decision about the exit of a record whose process two sweeps in a row did not find as it was
// registered: their verdict stands in place of the liveness question, because another program may
// live under the id by now. That stranger is not touched, but for the watch over threads of that
// id, and neither is another record of the id.
//   held       the guard of `tov_chains`
//   record     may be freed
//   exit_code  wait status; nothing: not known
void tov_decide_lost_exit(const tov_chains_guard_t &held, tov_pid_t *record,
                          std::optional<int> exit_code);

// Goes on with a record that has waited: asks again whether its process has ended, or goes on with
// its restart: the rules are asked again from the duplicate test on,
// since the program may have been registered anew meanwhile; what was counted, noted and announced
// is not so once more. A record whose device is being deleted, or is gone, is removed.
//   held, record  as above
void tov_exit_go_on(const tov_chains_guard_t &held, tov_pid_t *record);

// An exit that was parked in `tov_chains_delay`.
struct tov_parked_exit_s {
  uint64_t number = 0;  // of the restart that waits for it, tov_start_t; 0: none does
  pid_t pid = 0;
  std::optional<int> exit_code;  // wait status; nothing: not known
  int force = 0;
};
using tov_parked_exit_t = tov_parked_exit_s;

// Goes on with it: it was accepted then, so a stranger that lives under its id by now does not
// matter. Where no restart waits for it, it is an exit like any other; where that restart is over,
// or its record gone, there is nothing to do.
void tov_hand_back_exit(const tov_parked_exit_t &parked) TOV_EXCLUDES(tov_chains);

#endif  // TOV_CORE_POLICY_EXIT_H
