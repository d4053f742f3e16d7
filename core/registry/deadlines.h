// What a record waits for, and the order of deadlines in which waiting records go on.
//
// What waits is the record, never a thread: it stands in the order of deadlines, and the event
// handler goes on with it when its time has come (core/policy/waits). Removing a record ends its
// wait. core/registry/record.h draws which moves of its life these are.
//
// The wait and its deadline are written here and nowhere else (for the deadline script/lib/writers
// looks). All of this is about `tov_chains`: every function takes its guard as the witness.
#ifndef TOV_CORE_REGISTRY_DEADLINES_H
#define TOV_CORE_REGISTRY_DEADLINES_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

// ---- waits ----------------------------------------------------------------------------------

// The restart of the task waits for `wait` until `due_us`. Called again it waits anew; what is
// known of the restart (tov_start_t) stays. Wakes the event handler when that is the first
// deadline.
//   wait    TOV_WAIT_*, neither TOV_WAIT_NONE nor TOV_WAIT_END
//   due_us  tov_clock_us()
void tov_record_wait(const tov_chains_guard_t &held, tov_pid_t *record, int wait, int64_t due_us);

// The end of its process was reported with this wait status, and is not certain: it is asked again
// soon, and ever more seldom. A later report's status replaces the earlier one's: that of a process
// is its last thread's.
void tov_record_wait_end(const tov_chains_guard_t &held, tov_pid_t *record,
                         std::optional<int> exit_code, int force);

// The process that was reported as ended has ended; its last thread's event gets 50 ms to come.
void tov_record_end_seen(const tov_chains_guard_t &held, tov_pid_t *record);

// It waits for nothing, and no restart is under way any more; what was known of it is forgotten.
void tov_record_end_wait(const tov_chains_guard_t &held, tov_pid_t *record);

// ---- the restart under way ------------------------------------------------------------------

// What is known of the restart under way: for core/policy/revive and core/policy/search, which
// alone write there, but for the wait and its deadline.
tov_start_t *tov_record_start(const tov_chains_guard_t &held, tov_pid_t *record);

// The restart has made this child, whose end is heard from now on (core/run/known.h); below 1: the
// fork has failed, with that number.
void tov_record_take_child(const tov_chains_guard_t &held, tov_pid_t *record, pid_t child);

// The record whose restart has made this child and does not know yet whether it is the process to
// supervise; or null.
tov_pid_t *tov_record_of_child(const tov_chains_guard_t &held, pid_t child);

// The record whose restart has this number (tov_start_t), or null: it is over, or the record is
// gone.
tov_pid_t *tov_record_of_start(const tov_chains_guard_t &held, uint64_t number);

// Whether a restart is under way that goes on by itself: not one whose exit is deferred.
bool tov_record_any_starts(const tov_chains_guard_t &held);

// ---- the order ------------------------------------------------------------------------------

// The record whose deadline came first, if it has come by `now_us`, or null.
tov_pid_t *tov_record_due(const tov_chains_guard_t &held, int64_t now_us);

// The first deadline; INT64_MAX when no record waits. A record that was removed may leave an
// earlier one until tov_record_due() is next asked.
int64_t tov_record_next_due_us(const tov_chains_guard_t &held);

#endif  // TOV_CORE_REGISTRY_DEADLINES_H
