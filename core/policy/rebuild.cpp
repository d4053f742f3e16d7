// Device by device, file by file: a record is inserted as soon as its file is read, and one whose
// process is dead is decided about before the next file. The lock is held for one file at a time.
#include "core/policy/rebuild.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>

#include "client/tov_pidfile.h"
#include "core/policy/defer.h"
#include "core/policy/revive.h"
#include "core/policy/waits.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "util/entries.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/path.h"

enum {
  DEVICE_FIRST = 0,
  DEVICE_LAST = 15,
  PATH_SIZE = 64 + NAME_MAX,
};

// A record from one registration file, or null.
static tov_pid_t *read_record(int vsd_id, const char *dir, const char *entry) {
  char path[PATH_SIZE];
  (void)snprintf(path, sizeof path, "%s/%s", dir, entry);
  tov_pid_t *record = tov_chain_new_record();
  if (tov_read_pidfile(path, record) < 0) {
    TOV_DBG("tov_read_pidfile %s fail\n", entry);
    free(record);
    return nullptr;
  }
  record->vsd_id = vsd_id;
  (void)snprintf(record->process, sizeof record->process, "%s", record->pathname);
  rtrim(record->process);  // readings of a live process are compared without trailing blanks
  return record;
}

// Everything found registered and dead is brought back: the action only chooses the way, and the
// result of the start is not asked. A start that failed leaves the record with the id -1 or 0,
// which the sweep reports.
static void bring_back(const tov_chains_guard_t &held, tov_pid_t *record) {
  TOV_DBG("pid (%d) is not exist\n", record->pid);
  if (tov_proc_restart_delay(record) != 0) return;
  tov_revive(held, record, TOV_REVIVE_AT_REBUILD);
}

static void rebuild_device(tov_chains_t *chains, int vsd_id) {
  const tov_vsd_path_t dir = tov_vsd_path(TOV_VSD_DB_DIR_FMT, vsd_id);
  tov_entries_t files(dir.text);
  while (const char *name = files.next()) {
    tov_pid_t *record = read_record(vsd_id, dir.text, name);
    if (record == nullptr) continue;
    const tov_chains_guard_t held(*chains);
    tov_chain_insert(chains, record);
    if (!tov_process_lives(record->pid)) bring_back(held, record);
  }
}

int tov_rebuild_chains(tov_chains_t *chains) {
  for (int vsd_id = DEVICE_FIRST; vsd_id <= DEVICE_LAST; vsd_id++)
    rebuild_device(chains, vsd_id);
  tov_waits_finish();
  return 0;
}
