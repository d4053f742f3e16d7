// Walks of a registry and readings of /proc; no record is changed.
#include "core/registry/query.h"

#include <string.h>
#include <sys/types.h>

#include <algorithm>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "util/identity.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/member.h"

enum { COMMAND_SIZE = 512 };

tov_pid_t *tov_twin_of(const tov_pid_t &record) {
  for (tov_pid_t &other : tov_chain_records(&tov_chains)) {
    // The numbers first: they tell nearly all records apart without touching the long text.
    if (&other != &record && other.vsd_id == record.vsd_id &&
        !tov_record_shares_process(other, record) && strcmp(other.process, record.process) == 0) {
      return &other;
    }
  }
  return nullptr;
}

tov_pid_t *tov_proc_is_running(tov_pid_t *record) {
  tov_pid_t *hit = tov_twin_of(*record);
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

tov_life_e tov_record_life(const tov_pid_t &record) {
  return tov_identity_life(record.pid, record.identity);
}

int tov_check_process_alive(tov_pid_t *record) {
  char command[COMMAND_SIZE];
  if (pid_to_cmdline(record->pid, command, sizeof command) == nullptr) return -1;
  rtrim(command);  // as the record was when it was made: an empty last argument reads as a blank
  if (tov_vsd_or_base(record->pid) != record->vsd_id) return -1;
  if (strcmp(record->process, command) != 0) return -1;
  return process_life(record->pid);
}

// ---- what is registered, and what is found --------------------------------------------------

// Fills all but the life. Returns 0 or -errno.
static int read_rest(pid_t pid, tov_reading_t *reading) {
  int result = tov_identity_take(pid, &reading->now);
  if (result == 0) result = tov_read_cmdline(pid, reading->command, sizeof reading->command);
  if (result == 0) result = tov_vsd_of(pid, &reading->vsd_id);
  rtrim(reading->command);
  reading->vsd_id = std::max(reading->vsd_id, 0);
  return result;
}

// The process may end, and its id be given out again, between any two files: so it is asked for its
// life behind them.
void tov_read_process(pid_t pid, const tov_identity_t &identity, tov_reading_t *reading) {
  *reading = {};
  reading->life = tov_identity_life(pid, identity);
  if (reading->life != TOV_LIFE_LIVES) return;
  const int result = read_rest(pid, reading);
  reading->life = tov_identity_life(pid, identity.started != 0 ? identity : reading->now);
  if (reading->life == TOV_LIFE_LIVES && result < 0) reading->life = TOV_LIFE_UNKNOWN;
}

bool tov_reading_fits(const tov_pid_t &record, const tov_reading_t &reading) {
  static constexpr char removed[] = " (deleted)";
  static constexpr size_t FILE_TEXT = 200;  // no file cuts shorter texts
  const char *process = record.process, *command = reading.command;
  if (strcmp(process, command) == 0) return true;
  const size_t length = strlen(process);
  if (length >= FILE_TEXT && strncmp(process, command, length) == 0) return true;
  const char *mark = strstr(command, removed);
  if (mark == nullptr) return false;
  const size_t path = static_cast<size_t>(mark - command);
  return strncmp(process, command, path) == 0 &&
         strcmp(process + path, mark + sizeof removed - 1) == 0;
}

tov_found_e tov_compare_process(const tov_pid_t &record, const tov_reading_t &reading) {
  if (tov_life_is_over(reading.life)) return TOV_FOUND_GONE;
  if (reading.life == TOV_LIFE_UNKNOWN) return TOV_FOUND_UNKNOWN;
  if (reading.life == TOV_LIFE_THREADS) return TOV_FOUND_ALIVE;
  const bool equal = strcmp(record.process, reading.command) == 0;
  if (equal && record.vsd_id == reading.vsd_id) return TOV_FOUND_AS_REGISTERED;
  if (record.seen == 0 && record.identity.exe_ino == 0) return TOV_FOUND_ALIVE;
  const bool is_other = record.seen != 0 && !tov_reading_fits(record, reading) &&
                        tov_identity_executed(record.identity, reading.now);
  return is_other ? TOV_FOUND_OTHER : TOV_FOUND_UNLIKE;
}
