// The life of a supervised process's record, and the only writer of it.
//
//     ending
//      ▲  │ wait_end, end_wait
//      │  ▼
//   registered ──ended──► ended ──defer──► deferred ──lock gone, or 300 s──► ended
//       ▲                   │
//       │                   ├── no action, or no start ──► stays ended, and is swept
//       │                   ├──forget──► gone    (stopped on purpose, a duplicate, withdrawn)
//       │                   ├──count_start, the fifth in 120 s──suspend──► suspended
//       │                  wait                                                │
//       │                   ▼                                                  │
//       └──────renew─── starting ◄──────wait──resume──self-check alarm─────────┘
//                         │  ▲
//                         └wait: `restart_time`, a look, failed forks, a search
//
// A word on an arrow is the function that makes the move: tov_record_ended() and so on. A start
// that need not wait for anything goes through "starting" without a stop; one that is not made
// leads back to "ended" (end_wait) or to "suspended". wait, wait_end and end_wait stand in
// core/registry/deadlines.
//
//   state       how it shows                            what may be trusted
//   registered  as nothing else                         pid, identity; stat_check_cnt: missing
//               .                                       sweeps; seen: as what is registered
//   ending      start.wait is TOV_WAIT_END              as registered: it has its process until
//               .                                       it is certain that it has ended; start:
//               .                                       the exit that was reported
//   ended       ended; pid may be another process's     exit_signal, force_restart
//   deferred    ended; a copy in tov_chains_delay       of the copy: pid, identity, exit_signal,
//               .                                       delay_tm, force_restart, start.number
//   starting    tov_record_is_starting()                what "ended" has, and start: the deadline
//               .                                       and what is known of the restart
//   suspended   tov_record_is_suspended()               tm: since when
//   any         .                                       count, first_tm, and tm but while
//               .                                       suspended: the burst
//               .                                       con_pull_flag, con_tm: self-checks
//               .                                       that the reload rule counts
//               .                                       ill_tm: last core dump, 0: none
//
// These fields, and `flags`, are written here and nowhere else (script/lib/writers looks), but for
// pid, which tov_chain_rekey() writes, and start (core/registry/deadlines.h). Every function that
// writes takes the guard of the registry as its witness: who has none cannot call it.
#ifndef TOV_CORE_REGISTRY_RECORD_H
#define TOV_CORE_REGISTRY_RECORD_H

#include <stdint.h>
#include <time.h>

#include <optional>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

// ---- questions ------------------------------------------------------------------------------

// Whether the record waits for the self-check alarm. It has no process then: neither exits nor
// sweeps concern it.
bool tov_record_is_suspended(const tov_pid_t &record);

// Whether its action asks for a new process when the old one has ended.
bool tov_record_is_restarted(const tov_pid_t &record);

// Whether a restart of its task is under way and waits (TOV_WAIT_*). It has no process then, its id
// is still the dead one's, and neither exits nor sweeps concern it.
bool tov_record_is_starting(const tov_pid_t &record);

// Whether its process was reported as ended, and it is not certain yet that this is true.
bool tov_record_is_ending(const tov_pid_t &record);

// Whether it stands for a process that may live. If not, its id is a dead process's, and may have
// been given out again: no exit event concerns it, and another record may have the id.
bool tov_record_has_process(const tov_pid_t &record);

// Whether two records stand for one process, as far as is known: the same id, both with a process,
// and not started at two moments.
bool tov_record_shares_process(const tov_pid_t &one, const tov_pid_t &other);

// Whether the registration file of the record's name is its own alone. A process that was given the
// id of a dead one, and whose program has the same name, has the same name for its file.
bool tov_record_owns_file(const tov_chains_guard_t &held, const tov_pid_t &record);

// A burst of starts: what a record's fields hold of it.
struct tov_burst_s {
  time_t tm;        // monotonic seconds of its first start
  int count;        // starts in it
  time_t first_tm;  // like tm; it outlasts a suspension
};
using tov_burst_t = tov_burst_s;

// The burst after one more start at monotonic second `now`. Starts that lie within 120 s of the
// first belong to one burst; `counted` false leaves the count as it is. Touches nothing.
tov_burst_t tov_burst_after_start(const tov_pid_t &record, bool counted, time_t now);

// Whether a burst of that many starts goes beyond the limit, so that its last is not made.
bool tov_burst_is_over(int count);

// ---- which record ---------------------------------------------------------------------------

// The record of that number (`serial`), or null: it is gone, or has another id by now.
tov_pid_t *tov_record_of_serial(const tov_chains_guard_t &held, pid_t pid, uint64_t serial);

// The newest record that has a process of that id, or null.
tov_pid_t *tov_record_newest_of(const tov_chains_guard_t &held, pid_t pid);

// The record that an exit of `pid` concerns, or null. Of several processes that had the id it is
// the first that has ended; of several records of one process the oldest. Asks the kernel, if
// there is more than one.
tov_pid_t *tov_record_of_exit(const tov_chains_guard_t &held, pid_t pid);

// The record whose exit waits until the registration file of `pid` is unlocked, or null.
tov_pid_t *tov_record_deferred(const tov_chains_guard_t &held, pid_t pid);

// ---- moves ----------------------------------------------------------------------------------

// The exit of its process is accepted as such.
//   exit_code  wait status; nothing: not known
//   force      1: the lock on the registration file is not waited for any longer
void tov_record_ended(const tov_chains_guard_t &held, tov_pid_t *record,
                      std::optional<int> exit_code, int force);

// Its process dumped core at monotonic second `now`.
void tov_record_dumped_core(const tov_chains_guard_t &held, tov_pid_t *record, time_t now);

// What was read of the process for which the record stands, util/identity.h.
//   seen  it was found as it is registered
void tov_record_identify(const tov_chains_guard_t &held, tov_pid_t *record,
                         const tov_identity_t &identity, bool seen);

// It goes on with the row that it had with the last daemon, core/registry/supervised.h or
// watched.h.
void tov_record_take_row(const tov_chains_guard_t &held, tov_pid_t *record, int row);

// Counts a start, tov_burst_after_start(), and notes that the record went through one.
void tov_record_count_start(const tov_chains_guard_t &held, tov_pid_t *record, bool counted,
                            time_t now);

// The start is not made: the task waits for the self-check alarm from `now` on.
void tov_record_suspend(const tov_chains_guard_t &held, tov_pid_t *record, time_t now);

// The self-check that ends the suspension counts for the reload rule, from `now` on, or (not
// `counted`) clears what was counted.
void tov_record_count_self_check(const tov_chains_guard_t &held, tov_pid_t *record, bool counted,
                                 time_t now);

// The reload rule has considered the self-checks; they count no more.
void tov_record_clear_self_checks(const tov_chains_guard_t &held, tov_pid_t *record);

// What was counted of its starts, self-checks and core dumps counts no more.
void tov_record_forget_burst(const tov_chains_guard_t &held, tov_pid_t *record);

// Another process of its listed program was executed beside its own, or beside none.
//   forked  by its own one
void tov_record_inherit(const tov_chains_guard_t &held, tov_pid_t *record, pid_t heir,
                        uint64_t started, bool forked);

// Ends the suspension; the next start begins a burst.
void tov_record_resume(const tov_chains_guard_t &held, tov_pid_t *record);

// The restart has made a child, which is to use the claim of that number (proc/claim); 0: none.
void tov_record_claim(const tov_chains_guard_t &held, tov_pid_t *record, unsigned int number);

// The task has a new process: the registration file of the old one goes (its name holds the old
// id), the record is found under the new id, misses and force do not pass on to the successor, and
// the low-memory killer treats it like any process (as a child of ours it was born exempt).
//   new_pid  below 1 where a start that failed is not asked for its result: no process
void tov_record_renew(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid);

// The same for a process that may never register by itself: the registration file is handed over to
// it.
void tov_record_pass_on(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid);

// A sweep did not find the process as it was registered; or it did, or the misses have led to a
// verdict, and counting begins anew.
void tov_record_missed(const tov_chains_guard_t &held, tov_pid_t *record);
void tov_record_clear_misses(const tov_chains_guard_t &held, tov_pid_t *record);

// Parks a copy of what the hand-back needs in `tov_chains_delay`.
//   held   of `tov_chains_delay`
//   now    monotonic seconds
void tov_record_defer(const tov_chains_guard_t &held, const tov_pid_t &record, time_t now);

// The parked exit is handed back by force.
//   held  of `tov_chains_delay`
void tov_record_force(const tov_chains_guard_t &held, tov_pid_t *parked);

// Removes the record and its registration file. The record is freed.
void tov_record_forget(const tov_chains_guard_t &held, tov_pid_t *record);

// The same, and every other record of its process goes with it (their files stay: whoever wrote
// them under another name removes them).
void tov_record_forget_process(const tov_chains_guard_t &held, tov_pid_t *record);

#endif  // TOV_CORE_REGISTRY_RECORD_H
