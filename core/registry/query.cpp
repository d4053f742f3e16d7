// Walks of a registry and readings of /proc; no record is changed.
#include "core/registry/query.h"

#include <string.h>
#include <sys/types.h>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/member.h"

enum { COMMAND_SIZE = 512 };

// Another record of the same task, or null.
static tov_pid_t *find_twin(const tov_pid_t &record) TOV_REQUIRES(tov_chains) {
  // The id of one that is being restarted is a dead process's, and may have been given out again.
  const bool has_process = !tov_record_is_starting(record);
  for (tov_pid_t &other : tov_chain_records(&tov_chains)) {
    // The numbers first: they tell nearly all records apart without touching the long text.
    if (&other != &record && (other.pid != record.pid || !has_process) &&
        other.vsd_id == record.vsd_id && strcmp(other.process, record.process) == 0) {
      return &other;
    }
  }
  return nullptr;
}

tov_pid_t *tov_proc_is_running(tov_pid_t *record) {
  tov_pid_t *hit = find_twin(*record);
  if (hit == nullptr) return nullptr;
  TOV_DBG("ptov_pid pid %d vsd %d process %s!\n", record->pid, record->vsd_id, record->process);
  TOV_DBG("tov_pid pid %d vsd %d process %s!\n", hit->pid, hit->vsd_id, hit->process);
  TOV_DBG("%s is running!\n", hit->process);
  return record->flags != 0 ? hit : record;
}

bool tov_is_reg_alive_inlock(pid_t pid) {
  if (__tov_find_pid(&tov_alive_chains, pid) != nullptr) return true;
  TOV_DBG("pid:%d not reg alive!\n", pid);
  return false;
}

int tov_check_process_alive(tov_pid_t *record) {
  char command[COMMAND_SIZE];
  if (pid_to_cmdline(record->pid, command, sizeof command) == nullptr) return -1;
  rtrim(command);  // as the record was when it was made: an empty last argument reads as a blank
  if (tov_vsd_or_base(record->pid) != record->vsd_id) return -1;
  if (strcmp(record->process, command) != 0) return -1;
  return tov_process_lives(record->pid) ? 0 : -1;
}
