// Deaths that no event has told: the records of processes that were found certainly dead.
//
// Such a process may have died this very moment: /proc shows the zombie an instant before the
// kernel sends the event, and the event's reader may be behind. So the record is given a grace, in
// which the event may still come and be handled as always. Afterwards the record is decided about
// like at the second miss of a sweep, but with the exit code that the reader has noted
// (core/run/ends), so that a deliberate stop is not answered by a restart.
//
// Who finds the dead enters them here, whichever thread it is; the event handler decides
// (core/policy/waits).
#ifndef TOV_CORE_POLICY_LATE_H
#define TOV_CORE_POLICY_LATE_H

#include <stdint.h>

#include <optional>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

enum { TOV_LATE_GRACE_MS = 50 };

enum tov_late_e {
  TOV_LATE_LOST,     // its event is missing: told about like by the sweep
  TOV_LATE_ENTERED,  // it was dead when its record was made: no event was ever owed to us
};

// The process of this record has certainly ended (tov_life_is_over()). Entered again it stays
// entered once. Wakes the event handler; without one the caller asks for tov_waits_finish() when it
// has released the lock.
//   not_before_us  microseconds of CLOCK_MONOTONIC: no earlier end of the id is that process's.
//                  tov_late_born_us() where its start is known
void tov_late_add(const tov_chains_guard_t &held, const tov_pid_t &record, tov_late_e kind,
                  int64_t not_before_us);

// When a process started, microseconds of CLOCK_MONOTONIC, not later; 0: unknown.
int64_t tov_late_born_us(const tov_identity_t &identity);

// The wait status of a record's process, if it was heard.
std::optional<int> tov_late_code(const tov_pid_t &record);

// The wait status of a record's process whose end was reported with `exit_code`, that of a thread:
// a signal that has killed the process may be known of another one.
int tov_late_code_of_all(const tov_pid_t &record, int exit_code);

// Whether one is entered.
bool tov_late_any(const tov_chains_guard_t &held);

struct tov_late_step_s {
  bool handled = false;  // a record was decided about
  int64_t next_us = 0;   // when to call again (tov_clock_us()); INT64_MAX: never
};
using tov_late_step_t = tov_late_step_s;

// Decides about the one whose grace is over first, if there is one. A record that is gone by now,
// suspended, being restarted, or stands for another process, needs no decision. While a device is
// being deleted the record is removed, like at any exit. Takes the lock of `tov_chains`; call it
// without, in the event handler.
tov_late_step_t tov_late_go_on(void) TOV_EXCLUDES(tov_chains);

#endif  // TOV_CORE_POLICY_LATE_H
