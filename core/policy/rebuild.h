// The registry after a restart of the daemon: what registered with its predecessor is found again
// in the registration files.
#ifndef TOV_CORE_POLICY_REBUILD_H
#define TOV_CORE_POLICY_REBUILD_H

#include "include/tov_registry.h"

// Fills `chains` (always `tov_chains`) from the registration files of the devices 0 to 15. A
// process that lives stays supervised under its id and its file is not touched; one that died
// meanwhile is started again, whatever its action, or deferred while its file is locked. So is a
// task that was suspended: bursts, suspensions and restart times are not in the files.
// Unreadable files are passed over and left where they are. Always 0.
// Start-up only, before any other thread runs. Costs one directory scan a device and, for each
// dead process, a spawn. A start that has to wait, because forks fail or a listed program is
// searched for, goes on in the event handler, where the rules are asked: of two dead processes of
// one task one is then brought back, where forks that succeed bring back both. Where no process
// comes of a start the record keeps its dead process and file.
int tov_rebuild_chains(tov_chains_t *chains);

#endif  // TOV_CORE_POLICY_REBUILD_H
