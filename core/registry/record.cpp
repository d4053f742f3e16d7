// The moves of a record's life, drawn in the header.
//
// Tested by: tests/unit/core/registry/record_test.cpp,
// tests/unit/core/registry/record_process_test.cpp, tests/unit/proc/burst_test.cpp,
// tests/module/proc/selfcheck/tov_signals_test.cpp
#include "core/registry/record.h"

#include <assert.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#include <optional>

#include "client/tov_pidfile.h"
#include "core/registry/supervised.h"
#include "core/registry/tov_chain.h"
#include "core/run/lowmem.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/identity.h"
#include "util/tov_utils.h"

enum {
  BURST_SPAN_S = 120,
  BURST_LIMIT = 4,  // the start that goes beyond it is not made
  FILE_NAME_SIZE = 256,
};

// ---- questions ------------------------------------------------------------------------------

// Two fields say it, since two parties read them: the flag is the alarm's, the other the exits'.
bool tov_record_is_suspended(const tov_pid_t &record) {
  const bool flagged = (record.flags & TOV_FLAG_SELF_CHECK) != 0;
  const bool waits = record.alarm_wait_flag != 0;
  assert(flagged == waits && "only tov_record_suspend() and tov_record_resume() write them");
  return flagged || waits;
}

bool tov_record_is_ending(const tov_pid_t &record) {
  return record.start.wait == TOV_WAIT_END;
}

bool tov_record_is_starting(const tov_pid_t &record) {
  return record.start.wait != TOV_WAIT_NONE && !tov_record_is_ending(record);
}

bool tov_record_has_process(const tov_pid_t &record) {
  return record.pid > 0 && record.ended == 0 && !tov_record_is_starting(record) &&
         !tov_record_is_suspended(record);
}

bool tov_record_shares_process(const tov_pid_t &one, const tov_pid_t &other) {
  return tov_record_has_process(one) && tov_record_has_process(other) &&
         !tov_identity_differs(one.pid, one.identity, other.pid, other.identity);
}

bool tov_record_is_restarted(const tov_pid_t &record) {
  return record.action == RESPAWN || record.action == SHELL_RESTART;
}

tov_burst_t tov_burst_after_start(const tov_pid_t &record, bool counted, time_t now) {
  tov_burst_t burst = {record.tm != 0 ? record.tm : now, record.count, record.first_tm};
  if (!counted) return burst;
  // The span is measured from the first start of the burst: `tm` stays while it lasts.
  if (burst.tm + BURST_SPAN_S <= now) {
    burst.count = 1;
    burst.tm = now;
  } else {
    burst.count++;
  }
  if (burst.count == 1) burst.first_tm = now;
  return burst;
}

bool tov_burst_is_over(int count) {
  return count > BURST_LIMIT;
}

// ---- which record ---------------------------------------------------------------------------

tov_pid_t *tov_record_of_serial(const tov_chains_guard_t &held, pid_t pid, uint64_t serial) {
  held.shows(tov_chains);
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.serial == serial && record.pid == pid) return &record;
  }
  return nullptr;
}

tov_pid_t *tov_record_newest_of(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid == pid && tov_record_has_process(record)) return &record;
  }
  return nullptr;
}

static const tov_pid_t *oldest_of(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  const tov_pid_t *oldest = nullptr;
  for (const tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid == pid && tov_record_has_process(record)) oldest = &record;
  }
  return oldest;
}

tov_pid_t *tov_record_of_exit(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  // Each record is newer than those behind it.
  tov_pid_t *living = nullptr, *over = nullptr;
  const bool is_one = tov_record_newest_of(held, pid) == oldest_of(held, pid);
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid != pid || !tov_record_has_process(record)) continue;
    const bool has_ended =
        !is_one && tov_life_is_over(tov_identity_life(record.pid, record.identity));
    (has_ended ? over : living) = &record;
  }
  return over != nullptr ? over : living;
}

tov_pid_t *tov_record_deferred(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid == pid && record.start.wait == TOV_WAIT_LOCK) return &record;
  }
  return nullptr;
}

// ---- moves ----------------------------------------------------------------------------------

// The registry whose lock the witness holds, and in which the record is.
static tov_chains_t *registry_of(const tov_chains_guard_t &held)
    TOV_ASSERT_CAPABILITY(*registry_of(held)) {
  assert(held.registry() != nullptr && "the guard was released");
  return held.registry();
}

void tov_record_ended(const tov_chains_guard_t &held, tov_pid_t *record,
                      std::optional<int> exit_code, int force) {
  (void)registry_of(held);
  record->exit_signal = exit_code.value_or(0);
  const bool is_known = record->ended != 0 && !exit_code;  // from the first time
  if (!is_known)
    record->exit_how = !exit_code        ? int{TOV_ENDED_UNKNOWN}
                       : *exit_code == 0 ? int{TOV_ENDED_WELL}
                                         : int{TOV_ENDED_BADLY};
  record->force_restart = force;
  record->ended = 1;
}

// What the next daemon is told of the process. Of a watched thread it is told when the thread's
// terms are known.
static void tell_next(const tov_chains_guard_t &held, tov_pid_t *record) {
  if (held.registry() != &tov_chains) return;
  held.shows(tov_chains);
  tov_supervised_write(record);
}

void tov_record_identify(const tov_chains_guard_t &held, tov_pid_t *record,
                         const tov_identity_t &identity, bool seen) {
  (void)registry_of(held);
  const bool is_news = memcmp(&record->identity, &identity, sizeof identity) != 0 ||
                       (record->seen != 0) != seen || record->row == 0;
  record->identity = identity;
  record->seen = seen ? 1 : 0;
  if (is_news) tell_next(held, record);
}

void tov_record_take_row(const tov_chains_guard_t &held, tov_pid_t *record, int row) {
  (void)registry_of(held);
  record->row = row;
}

void tov_record_dumped_core(const tov_chains_guard_t &held, tov_pid_t *record, time_t now) {
  (void)registry_of(held);
  record->ill_tm = now;
}

void tov_record_count_start(const tov_chains_guard_t &held, tov_pid_t *record, bool counted,
                            time_t now) {
  (void)registry_of(held);
  const tov_burst_t burst = tov_burst_after_start(*record, counted, now);
  record->tm = burst.tm;
  record->count = burst.count;
  record->first_tm = burst.first_tm;
  record->flags |= TOV_FLAG_STARTED;
}

void tov_record_suspend(const tov_chains_guard_t &held, tov_pid_t *record, time_t now) {
  (void)registry_of(held);
  record->flags &= ~TOV_FLAG_STARTED;
  record->flags |= TOV_FLAG_SELF_CHECK;
  record->alarm_wait_flag = 1;
  record->tm = now;
  record->stat_check_cnt = 0;  // they were counted for a process that is no more
}

void tov_record_count_self_check(const tov_chains_guard_t &held, tov_pid_t *record, bool counted,
                                 time_t now) {
  (void)registry_of(held);
  record->con_pull_flag = counted ? record->con_pull_flag + 1 : 0;
  record->con_tm = counted ? now : 0;
}

void tov_record_clear_self_checks(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)registry_of(held);
  record->con_pull_flag = 0;
}

void tov_record_resume(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)registry_of(held);
  record->flags &= ~TOV_FLAG_SELF_CHECK;
  record->alarm_wait_flag = 0;
  record->count = 0;
  record->tm = 0;
}

void tov_record_forget_burst(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)registry_of(held);
  record->flags &= ~TOV_FLAG_STARTED;
  record->count = 0;
  record->tm = record->first_tm = 0;
  record->con_pull_flag = 0;
  record->con_tm = record->ill_tm = 0;
}

void tov_record_inherit(const tov_chains_guard_t &held, tov_pid_t *record, pid_t heir,
                        uint64_t started, bool forked) {
  (void)registry_of(held);
  record->heir = heir;
  record->heir_started = started;
  record->heir_forked = forked ? 1 : 0;
}

void tov_record_claim(const tov_chains_guard_t &held, tov_pid_t *record, unsigned int number) {
  (void)registry_of(held);
  record->claim = number;
}

static void name_file(const tov_pid_t &record, char (&file)[FILE_NAME_SIZE]) {
  tov_get_db_file_name(record.vsd_id, record.pid, record.process, file, sizeof file);
}

// A new process with the dead one's id, whose program has the same name, has its file under the
// same name, and may not be registered yet.
static bool is_successors_file(const tov_pid_t &record) {
  if (tov_identity_life(record.pid, record.identity) != TOV_LIFE_REUSED) return false;
  char file[FILE_NAME_SIZE];
  name_file(record, file);
  return tov_lock_holder(file) == record.pid;
}

bool tov_record_owns_file(const tov_chains_guard_t &held, const tov_pid_t &record) {
  if (is_successors_file(record)) return false;
  char own[FILE_NAME_SIZE], other[FILE_NAME_SIZE];
  name_file(record, own);
  for (const tov_pid_t &with : tov_chain_bucket(registry_of(held), pidhash(record.pid))) {
    if (&with == &record || with.pid != record.pid) continue;
    name_file(with, other);
    if (strcmp(own, other) == 0) return false;
  }
  return true;
}

static void remove_file(const tov_chains_guard_t &held, const tov_pid_t *record) {
  if (tov_record_owns_file(held, *record)) (void)tov_db_destroy(record);
}

// Of a process that has just been started no more counts than its start: it is a shell, or a copy
// of the daemon, until it executes what is registered.
static void give_process(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid) {
  tov_chain_rekey(registry_of(held), record, new_pid);
  record->force_restart = 0;
  record->stat_check_cnt = 0;
  tov_identity_t identity{};
  (void)tov_identity_take(new_pid, &identity);
  record->identity = tov_identity_of_start(identity.started);
  record->seen = 0;
  record->ended = 0;
  if (record->heir == new_pid) record->heir = 0;
  tell_next(held, record);
  tov_reset_lmk(new_pid);
}

void tov_record_renew(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid) {
  remove_file(held, record);
  give_process(held, record, new_pid);
}

// What cannot be handed over tells of a process that is gone, or of nothing.
void tov_record_pass_on(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid) {
  const bool handed_over =
      tov_record_owns_file(held, *record) && tov_db_hand_over(record, new_pid) == 0;
  if (!handed_over) remove_file(held, record);
  give_process(held, record, new_pid);
  if (!handed_over) (void)tov_db_keep(record);
}

void tov_record_missed(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)registry_of(held);
  record->stat_check_cnt++;
}

void tov_record_clear_misses(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)registry_of(held);
  record->stat_check_cnt = 0;
}

void tov_record_defer(const tov_chains_guard_t &held, const tov_pid_t &record, time_t now) {
  tov_pid_t *copy = tov_chain_new_record();  // everything else of it is zero
  copy->pid = record.pid;
  copy->identity = record.identity;
  copy->start.number = record.start.number;
  copy->vsd_id = record.vsd_id;
  copy->alarm_wait_flag = record.alarm_wait_flag;
  copy->restart_time = record.restart_time;
  copy->action = record.action;
  copy->exit_signal = record.exit_signal;
  copy->exit_how = record.exit_how;
  (void)snprintf(copy->process, sizeof copy->process, "%s", record.process);
  (void)snprintf(copy->pathname, sizeof copy->pathname, "%s", record.pathname);
  copy->delay_tm = now;
  tov_chain_insert(registry_of(held), copy);
}

void tov_record_force(const tov_chains_guard_t &held, tov_pid_t *parked) {
  (void)registry_of(held);
  parked->force_restart = 1;
}

static void remove(const tov_chains_guard_t &held, tov_pid_t *record) {
  held.shows(tov_chains);
  tov_supervised_free(record);
  tov_chain_remove(&tov_chains, record);
}

void tov_record_forget(const tov_chains_guard_t &held, tov_pid_t *record) {
  remove_file(held, record);
  remove(held, record);
}

void tov_record_forget_process(const tov_chains_guard_t &held, tov_pid_t *record) {
  // A record without a process shares that state with others, but no process.
  if (record->pid < 1) return tov_record_forget(held, record);
  held.shows(tov_chains);
  const pid_t pid = record->pid;
  for (tov_pid_t &other : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (&other == record || !tov_record_shares_process(other, *record)) continue;
    TOV_DBG("%s del pid %d\n", "__tov_del_pid", pid);
    remove(held, &other);
  }
  TOV_DBG("%s del pid %d\n", "__tov_del_pid", pid);
  tov_record_forget(held, record);
}
