// One pass of the watchdog: who is still there, whose byte has changed, whose budget is spent.
//
// Thread: "tov_thread_notify_timer". Losses: while two threads hang, the process of the second
// goes on until the first is gone.
#include "core/watch/watchdog.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "alive/tov_sys_alive.h"
#include "client/tov_xtach_sem.h"
#include "core/registry/dump.h"
#include "core/registry/query.h"
#include "core/registry/tov_chain.h"
#include "core/registry/watched.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "proc/task_name.h"
#include "util/identity.h"
#include "util/priority.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

static constexpr char thread_name[] = "tov_thread_notify_timer";

enum {
  PASS_S = 60,
  MS_PER_S = 1000,
  COMMAND_SIZE = 255,
  REASON_SIZE = 200,
  THREAD_NAME_SIZE = 32,
};

// ---- is it still the thread that registered? ------------------------------------------------

static constexpr char check[] = "tov_check_pid_exist";  // as its messages name it

static bool has_other_owner(const tov_pid_t &record) {
  const int owner = tov_get_ppid_form_pid(record.pid);
  if (owner < 0 || owner == record.ppid) return false;
  TOV_DBG("%s: ppid info no match(reg:%d, now:%d)\n", check, record.ppid, owner);
  return true;
}

static bool has_other_command(const tov_pid_t &record) {
  char command[COMMAND_SIZE];
  if (pid_to_cmdline(record.pid, command, sizeof command) == nullptr) return false;
  rtrim(command);  // as the registered text was
  if (strncmp(record.process, command, strlen(command)) == 0) return false;
  TOV_DBG("%s: cmdline info no match(reg:%s, now:%s)\n", check, record.process, command);
  return true;
}

// As far as one look tells, without a pause.
static tov_life_e life_of(const tov_pid_t &record) {
  if (has_other_owner(record) || has_other_command(record)) return TOV_LIFE_ENDED;
  return tov_identity_life(record.pid, {});
}

int tov_check_pid_exist(tov_pid_t *record) {
  const tov_life_e life = life_of(*record);
  if (life == TOV_LIFE_LIVES) return 0;
  return tov_life_is_over(life) ? -1 : process_life(record->pid);
}

namespace {

// What becomes of a record in a pass.
enum verdict_e {
  WATCH,
  DROP,   // its thread has ended, or is another one
  LEAVE,  // it cannot be known: nothing is counted, and the next pass asks again
};

}  // namespace

// Whether a thread's process has executed a program since it registered. Of a thread that was never
// identified its command line is all there is.
static bool may_have_executed(const tov_pid_t &record) {
  tov_identity_t now{};
  return record.identity.started == 0 ||
         (tov_identity_take(record.pid, &now) == 0 && tov_identity_executed(record.identity, now));
}

// Says what differs, whatever follows from it. A command line alone decides nothing: it also
// differs when the program writes its own, or when its file is replaced while it runs.
static verdict_e judge(const tov_pid_t &record) {
  if (has_other_owner(record)) return DROP;
  const bool differs = has_other_command(record);
  const tov_life_e life = tov_identity_thread_life(record.pid, record.identity);
  if (life == TOV_LIFE_UNKNOWN) return LEAVE;
  return tov_life_is_over(life) || (differs && may_have_executed(record)) ? DROP : WATCH;
}

// Whether it is certain whom a kill request for the thread would hit. Asked right before it is
// made: the one who is looked at may have ended since, and its process's id may be a stranger's.
static bool may_be_accused(const tov_pid_t &record) {
  if (tov_identity_thread_life(record.pid, record.identity) != TOV_LIFE_LIVES) return false;
  if (tov_get_ppid_form_pid(record.pid) != record.ppid) return false;
  const tov_identity_t owner = tov_identity_of_start(record.owner_started);
  const tov_life_e life = tov_identity_life(record.ppid, owner);
  return life == TOV_LIFE_LIVES || life == TOV_LIFE_THREADS;
}

// ---- accounting -----------------------------------------------------------------------------

static void look_for_change(tov_pid_t *record) {
  // Not asked whether it is below 0: of such an id the area itself says "pid err".
  if (record->pid >= TOV_ALIVE_ID_COUNT || !tov_sys_isreg_alive_info(record->pid)) return;
  const unsigned int seq = static_cast<unsigned int>(tov_sys_get_alive_seq(record->pid));
  if (seq == record->m_n_laster_alive_seq) return;
  record->m_n_laster_alive_seq = seq;
  record->m_n_cur_counter = record->m_n_counter;
  record->m_n_cur_notify_time = 0;
}

// A small budget is worth a warning after two misses, a larger one after four.
static bool deserves_warning(unsigned int budget, unsigned int missed) {
  return budget < 6 ? missed > 2 : missed > 4;
}

static void end_period(tov_pid_t *record, bool held_back) TOV_REQUIRES(tov_alive_chains) {
  if (tov_is_reg_alive_inlock(record->ppid) && record->m_n_cur_counter > 0 && !held_back) {
    record->m_n_cur_counter--;
    const unsigned int missed = record->m_n_counter - record->m_n_cur_counter;
    if (deserves_warning(record->m_n_counter, missed)) {
      TOV_DBG_ALIVE(
          "Process pid(%d) tid(%d) not notify reset for %d times, It will be killed after %d "
          "times!!!\n",
          record->ppid, record->pid, static_cast<int>(missed),
          static_cast<int>(record->m_n_counter));
    }
  }
  record->m_n_cur_notify_time = 0;
  TOV_DBG_ALIVE(
      "Decrease pid (%d) ppid (%d) ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) "
      "cur_ntfy_time (%d)\n",
      record->pid, record->ppid, static_cast<int>(record->m_n_notify_time),
      static_cast<int>(record->m_n_counter), static_cast<int>(record->m_n_cur_counter),
      static_cast<int>(record->m_n_cur_notify_time));
}

static void request_kill(const tov_pid_t *record) {
  TOV_DBG_ALIVE("ntfy_cnt(%d), send SIGABRT to ppid (%d)\n", static_cast<int>(record->m_n_counter),
                record->ppid);
  tov_task_name_s process(*record);
  char thread[THREAD_NAME_SIZE] = "unknown";
  (void)tov_get_pid_name(record->pid, thread, sizeof thread);
  char reason[REASON_SIZE];
  (void)snprintf(reason, sizeof reason, "detect process:[%s/%d] thread %s:%d hung.\n", process.text,
                 record->ppid, thread, record->pid);
  (void)protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, record->ppid, "tov", reason);
  (void)tov_log_with_type(TOV_LOG_KILL,
                          "detected process [%s/%d] thread %s:%d hang, kill with PSH.\n",
                          process.text, record->ppid, thread, record->pid);
}

static void count_down(tov_pid_t *record, bool held_back) TOV_REQUIRES(tov_alive_chains) {
  record->m_n_cur_notify_time += PASS_S;
  look_for_change(record);
  if (record->m_n_cur_notify_time == record->m_n_notify_time) end_period(record, held_back);
}

int tov_check_alive_info_periodical(tov_pid_t *record, int *kill_proc_flag, bool disable_check,
                                    bool disable_check_tmp) {
  count_down(record, disable_check || disable_check_tmp);
  if (record->m_n_cur_counter == 0 && *kill_proc_flag == 0) {
    *kill_proc_flag = 1;
    request_kill(record);
  }
  return 0;
}

// ---- the scan -------------------------------------------------------------------------------

static void dump_registries() {
  auto dump = tov_file_exists(TOV_DUMP_CONSOLE_FILE) ? tov_cli_dump_process_msg_console
                                                     : tov_cli_dump_process_msg_syslog;
  dump(TOV_DUMP_RESTART, &tov_chains);
  dump(TOV_DUMP_HANG, &tov_alive_chains);
  dump(TOV_DUMP_DELAY, &tov_chains_delay);
}

static void drop(tov_pid_t *record) TOV_REQUIRES(tov_alive_chains) {
  TOV_DBG_ALIVE("pid is not exist(%d, ret:%d)\n", record->pid, -1);
  tov_watched_free(record);  // before the slot: whoever comes after us must not find it
  // As above, an id below 0 is the area's to refuse.
  if (record->pid < TOV_ALIVE_ID_COUNT) (void)tov_sys_unreg_alive_info(record->pid);
  tov_chain_remove(&tov_alive_chains, record);
}

// One record's part in a pass. It may be freed.
//   accused  whether a kill was requested in this pass; no second one is made
static void look(tov_pid_t *record, bool held_back, bool *accused) TOV_REQUIRES(tov_alive_chains) {
  switch (judge(*record)) {
    case LEAVE:
      return;
    case DROP:
      drop(record);
      return;
    case WATCH:
      break;
  }
  count_down(record, held_back);
  if (record->m_n_cur_counter != 0 || *accused || !may_be_accused(*record)) return;
  *accused = true;
  request_kill(record);
}

void tov_notifer_scan(void) {
  if (tov_is_open_pub_dbg()) dump_registries();
  // Both are asked in each pass.
  const bool by_file = tov_file_exists(TOV_KILL_DEBUG_FILE);
  const bool held_back = tov_get_semval() != 0 || by_file;
  bool accused = false;

  const tov_chains_guard_t guard(tov_alive_chains);
  for (tov_pid_t &record : tov_chain_records(&tov_alive_chains)) {
    TOV_DBG_ALIVE(
        "pid (%d) ppid (%d) ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) "
        "cur_ntfy_time (%d)\n",
        record.pid, record.ppid, static_cast<int>(record.m_n_notify_time),
        static_cast<int>(record.m_n_counter), static_cast<int>(record.m_n_cur_counter),
        static_cast<int>(record.m_n_cur_notify_time));
    look(&record, held_back, &accused);
  }
}

void *tov_notifer_run(void *) {
  // Neither failure is a reason not to watch.
  if (tov_core_thread_name(thread_name) < 0) TOV_DBG("%s: %s\n", thread_name, strerror(errno));
  if (const int error = tov_set_priority(TOV_RT_PRIORITY); error != 0) {
    TOV_DBG("%s: set priority fail: %s\n", thread_name, strerror(error));
  }
  while (tov_flag_get(quit) == 0) {
    tov_notifer_scan();
    TOV_DBG_ALIVE("sem_cnt = %d\n", tov_get_semval());
    (void)tov_quit_wait(PASS_S * MS_PER_S);
  }
  return nullptr;
}
