// The test of the lock, and the copy of the record that waits in `tov_chains_delay`. The test
// takes the lock; closing the descriptor at the end of the test releases it.
#include "core/policy/defer.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "client/tov_pidfile.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/clock.h"
#include "util/identity.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

enum { FILE_NAME_SIZE = 256 };

namespace {

enum lock_e { FREE, HELD, UNKNOWN };

}  // namespace

// Whether the lock is that of a new process with the dead one's id, whose program has the same
// name: then both have the same name for their files.
static bool is_successors(const tov_pid_t &record, const char *file) {
  return tov_record_life(record) == TOV_LIFE_REUSED && tov_lock_holder(file) == record.pid;
}

static lock_e ask_lock(const tov_pid_t *record) {
  static constexpr char function[] = "tov_proc_is_exit";  // as its messages name it
  char file[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, file, sizeof file);
  const tov_fd_t fd(tov_open_regular(file, O_RDWR));
  if (fd.n < 0) {
    const int error = errno;
    TOV_DBG("%s: %s fd < 0: %s\n", function, file, strerror(error));
    return tov_is_ignorance(error) ? UNKNOWN : FREE;
  }
  // Record locks never conflict with the caller's own: a file that the daemon wrote and locked on
  // behalf of a third-part program is always free here, and such a program is never deferred.
  if (lock_file(fd.n) == 0) {
    TOV_DBG("Succeed to lock file %s.\n", file);
    return FREE;
  }
  if (errno == EACCES || errno == EAGAIN) {
    TOV_DBG("be lock file %s, %s.\n", file, strerror(errno));
    return is_successors(*record, file) ? FREE : HELD;
  }
  const int error = errno;
  TOV_DBG("Failed to lock file %s, %s.\n", file, strerror(error));
  return tov_is_ignorance(error) ? UNKNOWN : FREE;
}

int tov_proc_is_exit(const tov_pid_t *record) {
  return ask_lock(record) == HELD ? 0 : 1;
}

// While it cannot be known it is asked again, like a lock that is held.
bool tov_defer_has_reason(const tov_pid_t &record) {
  return ask_lock(&record) != FREE;
}

static void tell_event(const tov_pid_t &record) {
  TOV_DBG("%s %s/%d receives event:%04x\n", "tov_proc_restart_delay", record.process, record.pid,
          static_cast<unsigned int>(record.exit_signal));
}

bool tov_defer_is_needed(const tov_pid_t &record) {
  if (record.force_restart == 1) return false;
  tell_event(record);
  return tov_defer_has_reason(record);
}

// The exits of two processes that had the same id are two.
static bool is_parked(const tov_pid_t &record) TOV_REQUIRES(tov_chains_delay) {
  for (const tov_pid_t &parked : tov_chain_bucket(&tov_chains_delay, pidhash(record.pid))) {
    if (parked.pid == record.pid && parked.start.number == record.start.number) return true;
  }
  return false;
}

void tov_defer(const tov_pid_t &record) {
  const tov_chains_guard_t held(tov_chains_delay);
  if (is_parked(record)) {
    TOV_DBG("%s pid %d exist in tov_chains_delay\n", "tov_proc_restart_delay", record.pid);
    return;
  }
  tov_record_defer(held, record, tov_get_time());
}

int tov_proc_restart_delay(tov_pid_t *record) {
  if (record == nullptr || record->force_restart == 1) return 0;
  tell_event(*record);
  if (tov_proc_is_exit(record) == 1) return 0;
  tov_defer(*record);
  return 1;
}
