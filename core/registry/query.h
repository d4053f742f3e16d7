// Questions to the registries that several rules ask.
#ifndef TOV_CORE_REGISTRY_QUERY_H
#define TOV_CORE_REGISTRY_QUERY_H

#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

// Another record in `tov_chains` of the same task: same `process`, same device, other process.
// Returns null when there is none. Otherwise it returns that record when `record->flags` is not 0,
// and `record` itself when they are 0: a record that never went through a restart gives way, so
// its caller only tests the answer for null.
// Caller holds the lock of `tov_chains`; the answer is borrowed under it. Walks all buckets.
tov_pid_t *tov_proc_is_running(tov_pid_t *record) TOV_REQUIRES(tov_chains);

// Whether `pid` has a record in `tov_alive_chains`. Caller holds that registry's lock.
bool tov_is_reg_alive_inlock(pid_t pid) TOV_REQUIRES(tov_alive_chains);

// 0 while the registered process is alive and still what was registered: same command line, same
// device; -1 otherwise. Reads /proc; only an uncertain end costs a pause, about 30 ms.
int tov_check_process_alive(tov_pid_t *record);

#endif  // TOV_CORE_REGISTRY_QUERY_H
