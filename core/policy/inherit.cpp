// A record is handed over in place: at no moment is the process that runs without a registration
// that the next daemon would find.
//
// Tested by: tests/unit/core/policy/succession_heir_test.cpp,
// tests/unit/core/policy/revive_listed_test.cpp
#include "core/policy/inherit.h"

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "client/tov_pidfile.h"
#include "core/policy/late.h"
#include "core/registry/deadlines.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_log.h"
#include "util/identity.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "vsd/path.h"

bool tov_inherit_is_free(const tov_chains_guard_t &held, pid_t pid) {
  return tov_record_newest_of(held, pid) == nullptr;
}

void tov_inherit_drop_member(int vsd_id, pid_t pid, const tov_identity_t &identity) {
  if (vsd_id > 0 && pid > 0 && tov_identity_life(pid, identity) == TOV_LIFE_ENDED)
    (void)tov_sys_unlink(tov_vsd_member_path(vsd_id, pid).text);
}

void tov_inherit_process(const tov_chains_guard_t &held, tov_pid_t *record, pid_t pid,
                         const tov_identity_t &before) {
  const pid_t old = record->pid;
  const tov_identity_t old_is = record->identity;
  if (record->vsd_id > 0) save_vsd_flag(record->vsd_id, pid);  // by it the next start is made there
  tov_record_pass_on(held, record, pid);
  if (old != pid) tov_inherit_drop_member(record->vsd_id, old, old_is);
  tov_identity_t now{};
  const bool shows_more =
      tov_identity_take(pid, &now) == 0 && now.exe_ino != 0 && now.started == before.started;
  tov_record_identify(held, record, shows_more ? now : before, false);
  if (tov_life_is_over(tov_record_life(*record)))
    tov_late_add(held, *record, TOV_LATE_ENTERED, tov_late_born_us(record->identity));
}

// As if it had been registered just now. What comes from the dead one goes on with its burst.
static void take_over(const tov_chains_guard_t &held, tov_pid_t *record, pid_t pid,
                      const tov_identity_t &identity, bool runs_on) {
  tov_record_end_wait(held, record);
  if (tov_record_is_suspended(*record)) tov_record_resume(held, record);
  if (!runs_on) tov_record_forget_burst(held, record);
  tov_inherit_process(held, record, pid, identity);
  tov_log_with_type(TOV_LOG_REG_RESTART, "register - process:%.*s pid:%d, vsd_id:%d, action:%d\r\n",
                    TOV_PATHNAME_SIZE - 1, record->process, record->pid, record->vsd_id,
                    record->action);
}

void tov_inherit_running(const tov_chains_guard_t &held, tov_pid_t *record) {
  const tov_start_t start = record->start;
  take_over(held, record, start.runs_as, start.runs, start.runs_on != 0);
}

// ---- heirs ----------------------------------------------------------------------------------

bool tov_inherit_heir_lives(const tov_chains_guard_t &held, const tov_pid_t &record) {
  const tov_identity_t identity = tov_identity_of_start(record.heir_started);
  return record.heir > 0 && tov_inherit_is_free(held, record.heir) &&
         tov_identity_life(record.heir, identity) == TOV_LIFE_LIVES;
}

bool tov_inherit_heir(const tov_chains_guard_t &held, tov_pid_t *record) {
  if (!tov_inherit_heir_lives(held, *record)) return false;
  take_over(held, record, record->heir, tov_identity_of_start(record->heir_started),
            record->heir_forked != 0);
  return true;
}

void tov_inherit_heard(const tov_chains_guard_t &held, tov_pid_t *record, pid_t pid) {
  tov_identity_t now{};
  tov_stat_t stat;
  if (pid == record->start.forked || tov_identity_take(pid, &now) < 0 ||
      tov_read_stat(pid, &stat) < 0)
    return;
  const bool is_worker =
      tov_identity_kin_are_known() && (tov_identity_are_kin(record->identity, now) ||
                                       tov_identity_are_kin(record->start.executed, now));
  const bool is_left_behind = tov_identity_is_older(pid, now, record->pid, record->identity);
  if (is_worker || is_left_behind) return;
  const bool has_better = record->heir_forked == 0 && tov_inherit_heir_lives(held, *record);
  if (has_better) return;  // whoever comes later may be a worker, or end at once beside it
  tov_record_inherit(held, record, pid, now.started, stat.parent == record->pid);
  if (tov_record_is_suspended(*record)) (void)tov_inherit_heir(held, record);
}

// ---- executions that are being registered -------------------------------------------------------

static pid_t executed_pid TOV_GUARDED_BY(tov_chains) = 0;
static tov_identity_t executed TOV_GUARDED_BY(tov_chains);
static std::string executed_as TOV_GUARDED_BY(tov_chains);

void tov_inherit_note_execution(const tov_chains_guard_t &held, const tov_pid_t &program) {
  held.shows(tov_chains);
  executed_pid = program.pid;
  executed = program.identity;
  executed_as = program.process;
}

static bool is_executed(pid_t pid, uint64_t started) TOV_REQUIRES(tov_chains) {
  return executed_pid == pid && executed.started != 0 && executed.started == started;
}

tov_identity_t tov_inherit_more_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity) {
  held.shows(tov_chains);
  const bool has_gone = identity.started == TOV_NEVER_STARTED;
  const bool is_it = is_executed(pid, has_gone ? executed.started : identity.started);
  if (identity.exe_ino != 0 || !is_it) return identity;
  executed_pid = 0;  // the id may be given to another one
  return executed;
}

std::string tov_inherit_command_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity) {
  held.shows(tov_chains);
  return is_executed(pid, identity.started) ? executed_as : std::string();
}
