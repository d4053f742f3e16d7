// A record is handed over in place: at no moment is the process that runs without a registration
// that the next daemon would find.
//
// Tested by: tests/unit/core/policy/inherit_test.cpp,
// tests/unit/core/policy/succession_heir_test.cpp,
// tests/unit/core/policy/revive_listed_test.cpp
#include "core/policy/inherit.h"

#include <stddef.h>
#include <string.h>
#include <sys/types.h>

#include <array>
#include <string>

#include "client/tov_pidfile.h"
#include "core/policy/exit.h"
#include "core/registry/deadlines.h"
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
  tov_exit_ask_entered(held, record);
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

// ---- workers --------------------------------------------------------------------------------

bool tov_inherit_is_worker(const tov_chains_guard_t &held, const tov_pid_t &program) {
  held.shows(tov_chains);
  if (program.vsd_id > 0) return false;
  tov_stat_t stat;
  const pid_t parent = tov_read_stat(program.pid, &stat) == 0 ? stat.parent : 0;
  const auto is_of = [&](const tov_pid_t &record) {
    const bool is_same = record.vsd_id > 0 && strcmp(record.process, program.process) == 0;
    const auto are_kin = [&] {
      return tov_identity_are_kin(record.identity, program.identity) &&
             tov_identity_kin_are_known();
    };
    return is_same && (record.pid == parent || are_kin());
  };
  for (const tov_pid_t &record : tov_chain_records(&tov_chains))
    if (record.pid != program.pid && is_of(record)) return true;
  return false;
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

namespace {

struct execution_s {
  pid_t pid = 0;
  tov_identity_t identity{};
  std::string command;
};

}  // namespace

// The last ones: a request is acknowledged before it is carried out.
static std::array<execution_s, 16> executions TOV_GUARDED_BY(tov_chains);
static size_t noted TOV_GUARDED_BY(tov_chains) = 0;

void tov_inherit_note_execution(const tov_chains_guard_t &held, const tov_pid_t &program) {
  held.shows(tov_chains);
  for (execution_s &one : executions)
    if (one.pid == program.pid) one.pid = 0;
  executions[noted++ % executions.size()] = {program.pid, program.identity, program.process};
}

// That of a process, or null. Of one that has gone the id alone is known.
static execution_s *execution_of(pid_t pid, const tov_identity_t &identity)
    TOV_REQUIRES(tov_chains) {
  for (execution_s &one : executions) {
    const bool is_its_own =
        identity.started == TOV_NEVER_STARTED || identity.started == one.identity.started;
    if (one.pid == pid && one.identity.started != 0 && is_its_own) return &one;
  }
  return nullptr;
}

tov_identity_t tov_inherit_more_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity) {
  held.shows(tov_chains);
  execution_s *execution = identity.exe_ino == 0 ? execution_of(pid, identity) : nullptr;
  if (execution == nullptr) return identity;
  execution->pid = 0;  // the id may be given to another one
  return execution->identity;
}

std::string tov_inherit_command_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity) {
  held.shows(tov_chains);
  execution_s *execution = execution_of(pid, identity);
  if (execution == nullptr) return {};
  execution->pid = 0;  // it may execute something else
  return execution->command;
}
