// Each row is judged by the kernel's word alone. Who is certainly gone, or another one, loses its
// row; who cannot be judged is taken over, and the watchdog finds out.
//
// Thread: main, at start-up. Losses: two threads that had one id within one clock tick look alike.
//
// Tested by: tests/module/core/watch/takeover_test.cpp,
// tests/device/watchdog_next_daemon_test.cpp
#include "core/watch/takeover.h"

#include <sys/types.h>

#include "alive/tov_sys_alive.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/registry/watched.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/identity.h"
#include "util/owner.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

static tov_identity_t identity_of(const tov_watched_row_t &row) {
  return {row.started, row.stack, row.exe_dev, row.exe_ino, 0};
}

// Whether a thread has executed a program since it registered: whoever registers is the program,
// and what follows it has not.
static bool has_executed(const tov_watched_row_t &row) {
  tov_identity_t now{};
  return tov_identity_take(row.tid, &now) == 0 && tov_identity_executed(identity_of(row), now);
}

bool tov_watch_is_gone(const tov_watched_row_t &row) {
  if (tov_life_is_over(tov_identity_thread_life(row.tid, identity_of(row)))) return true;
  if (tov_life_is_over(tov_identity_life(row.owner, tov_identity_of_start(row.owner_started))))
    return true;
  const pid_t owner = tov_get_ppid_form_pid(row.tid);
  return (owner >= 0 && owner != row.owner) || has_executed(row);
}

static void take_over(const tov_chains_guard_t &held, const tov_watched_left_t &left)
    TOV_REQUIRES(tov_alive_chains) {
  const tov_watched_row_t &row = left.row;
  tov_pid_t *record = tov_chain_new_record();
  record->pid = row.tid;
  record->ppid = row.owner;
  record->owner_started = row.owner_started;
  tov_record_identify(held, record, identity_of(row), true);
  record->m_n_notify_time = row.period_s;
  record->m_n_counter = row.budget;
  record->m_n_cur_counter = row.budget;
  record->row = left.number;
  record->inherited = 1;
  // What it executes now: whatever it has made of its command line, it is the thread of the row.
  if (pid_to_cmdline(row.tid, record->process, sizeof record->process) != nullptr)
    rtrim(record->process);
  tov_chain_insert(&tov_alive_chains, record);
  TOV_DBG_ALIVE("pid (%d) ppid (%d) taken over\n", record->pid, record->ppid);
}

void tov_watch_take_over(void) {
  const tov_fd_t area(tov_sys_open_left_area());
  const tov_chains_guard_t guard(tov_alive_chains);
  for (const tov_watched_left_t &left : tov_watched_open()) {
    const pid_t tid = left.row.tid;
    const bool known = __tov_find_pid(&tov_alive_chains, tid) != nullptr;
    const bool withdrawn = area.n >= 0 && tov_sys_was_withdrawn(area.n, tid);
    if (known || withdrawn || tov_watch_is_gone(left.row)) {
      tov_watched_free_row(left.number);
    } else {
      take_over(guard, left);
    }
  }
}
