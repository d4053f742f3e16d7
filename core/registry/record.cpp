// The moves of a record's life, drawn in the header.
//
// Tested by: tests/unit/core/registry/record_test.cpp, tests/unit/proc/burst_test.cpp,
// tests/module/proc/selfcheck/tov_signals_test.cpp
#include "core/registry/record.h"

#include <assert.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#include "client/tov_pidfile.h"
#include "core/registry/tov_chain.h"
#include "core/run/lowmem.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"

enum {
  BURST_SPAN_S = 120,
  BURST_LIMIT = 4,  // the start that goes beyond it is not made
};

// ---- questions ------------------------------------------------------------------------------

// Two fields say it, since two parties read them: the flag is the alarm's, the other the exits'.
bool tov_record_is_suspended(const tov_pid_t &record) {
  const bool flagged = (record.flags & TOV_FLAG_SELF_CHECK) != 0;
  const bool waits = record.alarm_wait_flag != 0;
  assert(flagged == waits && "only tov_record_suspend() and tov_record_resume() write them");
  return flagged || waits;
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

// ---- moves ----------------------------------------------------------------------------------

// The registry whose lock the witness holds, and in which the record is.
static tov_chains_t *registry_of(const tov_chains_guard_t &held)
    TOV_ASSERT_CAPABILITY(*registry_of(held)) {
  assert(held.registry() != nullptr && "the guard was released");
  return held.registry();
}

void tov_record_ended(const tov_chains_guard_t &held, tov_pid_t *record, int exit_code, int force) {
  (void)registry_of(held);
  record->exit_signal = exit_code;
  record->force_restart = force;
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

void tov_record_renew(const tov_chains_guard_t &held, tov_pid_t *record, pid_t new_pid) {
  (void)tov_db_destroy(record);
  tov_chain_rekey(registry_of(held), record, new_pid);
  record->force_restart = 0;
  record->stat_check_cnt = 0;
  tov_reset_lmk(new_pid);
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
  copy->vsd_id = record.vsd_id;
  copy->alarm_wait_flag = record.alarm_wait_flag;
  copy->restart_time = record.restart_time;
  copy->action = record.action;
  copy->exit_signal = record.exit_signal;
  (void)snprintf(copy->process, sizeof copy->process, "%s", record.process);
  (void)snprintf(copy->pathname, sizeof copy->pathname, "%s", record.pathname);
  copy->delay_tm = now;
  tov_chain_insert(registry_of(held), copy);
}

void tov_record_force(const tov_chains_guard_t &held, tov_pid_t *parked) {
  (void)registry_of(held);
  parked->force_restart = 1;
}

void tov_record_forget(const tov_chains_guard_t &held, tov_pid_t *record) {
  (void)tov_db_destroy(record);
  tov_chain_remove(registry_of(held), record);
}

void tov_record_forget_process(const tov_chains_guard_t &held, tov_pid_t *record) {
  // A record without a process shares that state with others, but no process.
  if (record->pid < 1) return tov_record_forget(held, record);
  (void)tov_db_destroy(record);
  __tov_del_pid(registry_of(held), record->pid);
}
