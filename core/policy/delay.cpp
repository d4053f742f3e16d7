// One exit a second is handed back: the walk of the registry ends at the first one that is due,
// because the decision about it is made without this registry's lock.
#include "core/policy/delay.h"

#include "core/policy/defer.h"
#include "core/policy/exit.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "proc/burst.h"
#include "util/clock.h"

enum {
  LONGEST_DELAY_S = 300,
  PAUSE_MS = 1000,
};

static bool is_due(const tov_chains_guard_t &held, tov_pid_t &record) {
  if (tov_get_time() - record.delay_tm > LONGEST_DELAY_S) {
    TOV_DBG("%s/%d more than 300s delay restart.\n", record.process, record.pid);
    tov_record_force(held, &record);
  }
  return record.force_restart == 1 || !tov_defer_has_reason(record);
}

// Takes the first exit whose wait is over out of the registry; the id 0 is none.
static tov_parked_exit_t take_due() {
  tov_parked_exit_t due;
  const tov_chains_guard_t held(tov_chains_delay);
  for (tov_pid_t &record : tov_chain_records(&tov_chains_delay)) {
    if (!is_due(held, record)) continue;
    due = {record.start.number, record.pid, {}, record.force_restart};
    if (record.exit_how != TOV_ENDED_UNKNOWN) due.exit_code = record.exit_signal;
    tov_chain_remove(&tov_chains_delay, &record);
    break;
  }
  return due;
}

void *tov_delay_restart(void *) {
  (void)tov_core_thread_name("tov_delay_restart");  // only for those who look at the process
  while (!tov_flag_get(quit)) {
    const tov_parked_exit_t due = take_due();
    // Without the delay lock: the decision takes that of `tov_chains`, which comes first.
    if (due.pid != 0) {
      TOV_DBG("pid:%d, exit_signal:0x%x, force_restart:%d\n", due.pid,
              static_cast<unsigned int>(due.exit_code.value_or(0)), due.force);
      tov_hand_back_exit(due);
    }
    tov_ask_for_noted_reload();  // sleeps, which nobody waits for here
    (void)tov_quit_wait(PAUSE_MS);
  }
  return nullptr;
}
