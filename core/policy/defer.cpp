// The test of the lock, and the copy of the record that waits in `tov_chains_delay`. The test
// takes the lock; closing the descriptor at the end of the test releases it.
#include "core/policy/defer.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "client/tov_pidfile.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "util/clock.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

enum { FILE_NAME_SIZE = 256 };

int tov_proc_is_exit(const tov_pid_t *record) {
  char file[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, file, sizeof file);
  const tov_fd_t fd(tov_open_regular(file, O_RDWR));
  if (fd.n < 0) {
    TOV_DBG("%s: %s fd < 0: %s\n", __func__, file, strerror(errno));
    return 1;
  }
  // Record locks never conflict with the caller's own: a file that the daemon wrote and locked on
  // behalf of a third-part program is always free here, and such a program is never deferred.
  if (lock_file(fd.n) == 0) {
    TOV_DBG("Succeed to lock file %s.\n", file);
    return 1;
  }
  if (errno == EACCES || errno == EAGAIN) {
    TOV_DBG("be lock file %s, %s.\n", file, strerror(errno));
    return 0;
  }
  TOV_DBG("Failed to lock file %s, %s.\n", file, strerror(errno));
  return 1;
}

bool tov_defer_has_reason(const tov_pid_t &record) {
  return tov_proc_is_exit(&record) != 1;
}

bool tov_defer_is_needed(const tov_pid_t &record) {
  if (record.force_restart == 1) return false;
  TOV_DBG("%s %s/%d receives event:%04x\n", "tov_proc_restart_delay", record.process, record.pid,
          static_cast<unsigned int>(record.exit_signal));
  return tov_defer_has_reason(record);
}

void tov_defer(const tov_pid_t &record) {
  const tov_chains_guard_t held(tov_chains_delay);
  if (__tov_find_pid(&tov_chains_delay, record.pid) != nullptr) {
    TOV_DBG("%s pid %d exist in tov_chains_delay\n", "tov_proc_restart_delay", record.pid);
    return;
  }
  tov_record_defer(held, record, tov_get_time());
}

int tov_proc_restart_delay(tov_pid_t *record) {
  if (record == nullptr || !tov_defer_is_needed(*record)) return 0;
  tov_defer(*record);
  return 1;
}
