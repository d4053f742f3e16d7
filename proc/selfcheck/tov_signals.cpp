// The two handlers, and the dispositions and masks under which they run. The header argues why the
// alarm's handler may lock, fork and log.
#include "proc/selfcheck/tov_signals.h"

#include <errno.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>

#include "core/policy/revive.h"
#include "core/policy/waits.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "proc/burst.h"
#include "util/clock.h"
#include "util/owner.h"
#include "util/tov_sys.h"

#ifdef TOV_SANITIZE_THREAD
// The sanitizer calls locks and memory in a handler unsafe wherever it runs; the header says why
// this one may use both. The reaper is no exception and stays under watch.
extern "C" const char *__tsan_default_suppressions() {
  return "signal:tov_alrm_handler\n";
}
#endif

enum {
  SIGNAL_FIRST = 0,
  SIGNAL_LAST = 65,
};

namespace {

// What one run of the alarm's handler works with.
struct self_check_s {
  time_t now;
  int period_s;
  time_t next;  // latest deadline among those who still wait, 0: none

  time_t deadline(const tov_pid_t &record) const { return record.tm + period_s; }
};

}  // namespace

// A suspended task that was registered anew meanwhile needs no restart.
static bool dropped_as_duplicate(const tov_chains_guard_t &held, tov_pid_t *record) {
  held.shows(tov_chains);
  const tov_pid_t *other = tov_proc_is_running(record);
  if (other == nullptr) return false;
  TOV_DBG("%s--> %s/%d is running!\n", "tov_alrm_handler", other->process, record->pid);
  tov_record_forget(held, record);
  return true;
}

// Counts this self-check for the reload rule, when the task's burst lay within the time in which
// the switch that permits reloads is on.
static void count_self_check(const tov_chains_guard_t &held, tov_pid_t *record,
                             const self_check_s &check) {
  const int enable_time = tov_flag_get(tov_single_ps_ha_enable_time);
  TOV_DBG(
      "%s--> %s/%d tm=%d, first_tm=%d, t=%d, con_pull_flag=%d, "
      "tov_single_ps_ha_enable_time=%d\n",
      "tov_alrm_handler", record->process, record->pid, static_cast<int>(record->tm),
      static_cast<int>(record->first_tm), check.period_s, record->con_pull_flag, enable_time);
  const bool counted = tov_flag_get(tov_single_ps_ha_enable) && record->first_tm >= enable_time;
  tov_record_count_self_check(held, record, counted, check.now);
  TOV_DBG("%s--> %s/%d con_pull_flag=%d con_tm=%d.\n", "tov_alrm_handler", record->process,
          record->pid, record->con_pull_flag, static_cast<int>(record->con_tm));
}

static void end_suspension(const tov_chains_guard_t &held, tov_pid_t *record,
                           const self_check_s &check) {
  count_self_check(held, record, check);
  tov_record_resume(held, record);
  tov_revive(held, record, TOV_REVIVE_AFTER_SUSPENSION);
}

static void check_task(const tov_chains_guard_t &held, tov_pid_t *record, self_check_s *check) {
  if (!tov_record_is_suspended(*record)) return;
  // Strictly: the alarm fires in the very second of the deadline, and a task that waits alone is
  // started one second later.
  const bool over = check->deadline(*record) < check->now;
  if (over && dropped_as_duplicate(held, record)) return;
  if (!tov_record_is_restarted(*record)) return;
  if (over) {
    end_suspension(held, record, *check);
  } else {
    check->next = std::max(check->next, check->deadline(*record));
  }
}

void tov_alrm_handler(int) {
  const tov_errno_keeper_s keep;
  self_check_s check{0, tov_self_check_period("tov_alrm_handler"), 0};
  {
    const tov_chains_guard_t held(tov_chains);
    check.now = tov_get_time();
    for (tov_pid_t &record : tov_chain_records(&tov_chains))
      check_task(held, &record, &check);
  }
  tov_waits_finish();
  if (check.next == 0) return;
  // For the latest deadline: tasks whose own comes earlier are started together with the last.
  const time_t delay = std::max<time_t>(check.next - check.now, 1);
  tov_sys_alarm(static_cast<unsigned int>(delay));
}

void tov_chld_handler(int) {
  const tov_errno_keeper_s keep;
  // One signal may stand for many children. Only EINTR is no reason to end: an old error number
  // must neither end the loop early nor keep it going.
  for (;;) {
    const pid_t reaped = tov_sys_waitpid(-1, nullptr, WNOHANG);
    if (reaped > 0 || (reaped < 0 && errno == EINTR)) continue;
    return;
  }
}

static void set_disposition(int sig, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  (void)sigaction(sig, &action, nullptr);  // some numbers cannot be changed
}

void tov_setup_signals(void) {
  for (int sig = SIGNAL_FIRST; sig <= SIGNAL_LAST; sig++)
    set_disposition(sig, SIG_IGN);
  set_disposition(SIGINT, SIG_DFL);
  set_disposition(SIGALRM, tov_alrm_handler);
  set_disposition(SIGCHLD, tov_chld_handler);
}

static void change_mask(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  sigaddset(&signals, SIGCHLD);
  pthread_sigmask(how, &signals, nullptr);
}

void tov_signals_block(void) {
  change_mask(SIG_BLOCK);
}

void tov_signals_unblock(void) {
  change_mask(SIG_UNBLOCK);
}
