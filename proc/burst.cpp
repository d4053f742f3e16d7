// What follows from one more start of a task: it is counted, and at the limit the task is
// suspended, the alarm armed and a reload of the unit considered. The record's fields are written
// by core/registry/record.
#include "proc/burst.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/run/lowmem.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/ha_notice.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "proc/files.h"
#include "proc/how.h"
#include "proc/task_name.h"
#include "util/clock.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/marker.h"

enum {
  RELOAD_SPAN_S = 600,
  REASON_SIZE = 200,
};

int tov_self_check_period(const char *function) {
  const int period_s = debug_time();
  if (period_s >= 0) return period_s;
  TOV_DBG("%s: get disable time fail: %s\n", function, strerror(-period_s));
  return TOV_SELF_CHECK_PERIOD_S;
}

// An alarm that comes sooner stays in force: it serves another task that waits.
static void arm_alarm(int period_s) {
  const unsigned int period = static_cast<unsigned int>(period_s);
  const unsigned int pending = tov_sys_alarm(0);
  tov_sys_alarm(pending > 0 && pending <= period ? pending : period);
}

// ---- the reload -------------------------------------------------------------------------------

enum { RELOADS_MAX = 8 };

// The tasks for which a reload is to be asked for. Whoever comes when there are so many is not
// asked for: the reload is under way.
static char reloads[RELOADS_MAX][TOV_PROCESS_SIZE] TOV_GUARDED_BY(tov_chains);
static int reloads_num TOV_GUARDED_BY(tov_chains) = 0;

// Considers a reload of the unit for a task that is suspended once more.
static bool is_reload_called_for(const tov_chains_guard_t &held, tov_pid_t *record, time_t now) {
  if (record->con_pull_flag <= 0 || now - record->con_tm > RELOAD_SPAN_S) return false;
  tov_record_clear_self_checks(held, record);
  const int enable_time = tov_flag_get(tov_single_ps_ha_enable_time);
  if (!tov_flag_get(tov_single_ps_ha_enable) || record->con_tm < enable_time ||
      !tov_is_reboot_available() || tov_file_exists(TOV_NO_REBOOT_FILE)) {
    return false;
  }
  TOV_DBG("%s--> %s/%d con_pull_flag=%d con_tm=%d t=%d tov_single_ps_ha_enable_time=%d.\n",
          "tov_check_restart_system", record->process, record->pid, record->con_pull_flag,
          static_cast<int>(record->con_tm), static_cast<int>(now), enable_time);
  return true;
}

static void ask_for_reload(const char *process) {
  static constexpr char sentence[] = "tov detect process %s can not restart, so restart system.\n";
  TOV_DBG(sentence, process);
  safe_sleep(1);
  (void)tov_log_with_type(TOV_LOG_RUN_EVENT, sentence, process);
  tov_log_flush_and_wait();
  char reason[REASON_SIZE];
  (void)snprintf(reason, sizeof reason, sentence, process);
  (void)protect_selfhealing_do_action(PSH_RELOAD_SELF_ACT, 0, "tov", reason);
}

static void note_reload(const tov_chains_guard_t &held, tov_pid_t *record, time_t now) {
  held.shows(tov_chains);
  if (!is_reload_called_for(held, record, now) || reloads_num == RELOADS_MAX) return;
  (void)snprintf(reloads[reloads_num++], TOV_PROCESS_SIZE, "%s", record->process);
}

// Takes the last noted task. Returns false when there is none.
static bool take_reload(char (&process)[TOV_PROCESS_SIZE]) {
  const tov_chains_guard_t held(tov_chains);
  if (reloads_num == 0) return false;
  (void)snprintf(process, sizeof process, "%s", reloads[--reloads_num]);
  return true;
}

void tov_ask_for_noted_reload(void) {
  char process[TOV_PROCESS_SIZE];
  while (take_reload(process))
    ask_for_reload(process);
}

void tov_check_restart_system(tov_pid_t *record, time_t t) {
  char process[TOV_PROCESS_SIZE];
  {
    const tov_chains_guard_t held(tov_chains);
    if (!is_reload_called_for(held, record, t)) return;
    (void)snprintf(process, sizeof process, "%s", record->process);
  }
  ask_for_reload(process);
}

// ---- the suspension ---------------------------------------------------------------------------

static void suspend(const tov_chains_guard_t &held, tov_pid_t *record, const tov_proc_how_t &how,
                    time_t now, int period_s) {
  tov_task_name_s name(*record);
  const int minutes = period_s / 60;
  tov_ha_notice(how.suspended,
                "Task: %s had checked more than 5 times. After %d mimutes, task will finish "
                "self-checking.\n",
                name.text, minutes);
  TOV_DBG_AND_LOG(TOV_LOG_RESTART,
                  "%s Task: %s had checked more than 5 times. After %d mimutes, task will finish "
                  "self-checking.\n",
                  how.suspended, name.text, minutes);
  tov_record_suspend(held, record, now);
  arm_alarm(period_s);
  note_reload(held, record, now);
}

bool tov_burst_allows(const tov_chains_guard_t &held, tov_pid_t *record,
                      const tov_proc_how_t &how) {
  const time_t now = tov_get_time();
  const int period_s = tov_self_check_period(how.function);
  tov_record_count_start(held, record, record->action == how.action, now);
  if (!tov_burst_is_over(record->count) || del_dev_mon_log() == 0) return true;
  suspend(held, record, how, now, period_s);
  return false;
}
