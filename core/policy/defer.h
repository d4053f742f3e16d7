// The deferral of a restart while the registration file of the dead process is still locked.
//
// The lock belongs to the process that made the registration and falls with it. It is still held
// after the exit event when threads of the dying process have not ended yet, or when a helper
// process registered on its behalf; starting the successor then would let two instances meet.
#ifndef TOV_CORE_POLICY_DEFER_H
#define TOV_CORE_POLICY_DEFER_H

#include "include/tov_registry.h"

// Whether there is a reason to wait with what follows an exit: its registration file is locked, or
// it cannot be known whether it is.
// Every reason stands here: who parks an exit and who hands it back ask the same question.
//   record  a registered one, or the copy that is parked: tov_record_defer() says which fields it
//           has
bool tov_defer_has_reason(const tov_pid_t &record);

// Whether the exit of `record` has to wait: its registration file is locked and it is not forced.
bool tov_defer_is_needed(const tov_pid_t &record);

// Parks the exit of `record` in `tov_chains_delay`; nothing when it is parked there.
// Caller holds the lock of `tov_chains`, takes that of `tov_chains_delay`.
void tov_defer(const tov_pid_t &record);

// Both, for the rebuild: parks the exit of `record` if it has to wait. Returns 1 when it is parked
// (or was already), 0 to go on. Caller holds the lock of `tov_chains`.
int tov_proc_restart_delay(tov_pid_t *record);

// Whether anybody still holds the lock on the registration file of `record`: 0 while it is held,
// 1 when it can be taken, the file is gone, or the question cannot be answered.
int tov_proc_is_exit(const tov_pid_t *record);

#endif  // TOV_CORE_POLICY_DEFER_H
