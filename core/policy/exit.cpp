#include "core/policy/exit.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "client/tov_pidfile.h"
#include "core/policy/announce.h"
#include "core/policy/defer.h"
#include "core/registry/query.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "proc/tov_proc.h"
#include "util/tov_utils.h"
#include "vsd/marker.h"

enum {
  DELIBERATE_STOP = 15,  // ended by SIGTERM, without a core dump
  ATTRIBUTE_SIZE = 256,
  MEMBER_PATH_SIZE = 64,
  SCANS_MAX = 10,
};

static void forget(tov_pid_t *record) {
  (void)tov_db_destroy(record);
  __tov_del_pid(&tov_chains, record->pid);
}

// ---- duplicates -----------------------------------------------------------------------------

// Whether another registration of the same task is in charge, so that this one was dropped.
static bool dropped_as_duplicate(tov_pid_t *record) {
  tov_pid_t *other = tov_proc_is_running(record);
  if (other == nullptr) return false;
  if (other == record) {
    TOV_DBG("%s--> del %d\n", "tov_handle_netlink_exit", record->pid);
    forget(record);
    return true;
  }
  if (process_life(other->pid) >= 0) {
    TOV_DBG("%s--> pid %d alive, del %d\n", "tov_handle_netlink_exit", other->pid, record->pid);
    forget(record);
    return true;
  }
  forget(other);
  return false;
}

// ---- deliberate stops -----------------------------------------------------------------------

// Removes the markers of `pid` from the member directory of a device. Directories - "db" always
// stands there - are passed over; any other entry that cannot be opened stops the removal.
static bool remove_member_markers(int vsd_no, pid_t pid) {
  char path[MEMBER_PATH_SIZE];
  (void)snprintf(path, sizeof path, TOV_VSD_MEMBER_DIR_FMT, vsd_no);
  tov_dir_t dir(opendir(path));
  if (!dir) {
    TOV_DBG("%s: chdir fail: %s\n", "tov_handle_netlink_exit", strerror(errno));
    return false;
  }
  int dir_fd = dirfd(dir.get());
  while (const dirent *entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    tov_fd_t fd(
        openat(dir_fd, entry->d_name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.n < 0) {
      if (errno == EISDIR) continue;
      return false;
    }
    if (tov_atoi(entry->d_name) == pid) (void)unlinkat(dir_fd, entry->d_name, 0);
  }
  return true;
}

// A stop that somebody asked for with SIGTERM is never answered by a restart. When the markers
// cannot be cleared the record stays, and the sweep will bring the process back.
static void accept_stop(tov_pid_t *record) {
  int vsd_no = find_app(record->pid);
  (void)tov_log_with_type(TOV_LOG_RUN_EVENT,
                          "Task:%s,pid:%d,vsd_no:%d,killed by signal 15 from others.\n",
                          record->process, record->pid, vsd_no);
  if (vsd_no > 0 && !remove_member_markers(vsd_no, record->pid)) return;
  TOV_DBG("%s: hlist_del\n", "tov_handle_netlink_exit");
  (void)tov_db_destroy(record);
  tov_chain_remove(&tov_chains, record);
}

// ---- restart --------------------------------------------------------------------------------

// A third-part program that somebody else brought back is registered under its new process
// instead of being started once more.
static bool handed_over_to_running(tov_pid_t *record, tov_registration_t *later) {
  char attribute[ATTRIBUTE_SIZE];
  if (!tov_proc_in_tovdb(TOV_THIRD_PART_LIST, record->process, attribute, sizeof attribute)) {
    return false;
  }
  char key[TOV_PROCESS_SIZE];  // a copy: the search strips it in place
  (void)snprintf(key, sizeof key, "%s", record->process);
  pid_t found = 0;
  // Without pauses, since the registry is locked; but a scan that something else's end spoiled has
  // not said that the program does not run, and a second copy of it would be started.
  int result = -1;
  for (int scan = 0; result < 0 && scan < SCANS_MAX; scan++)
    result = tov_proc_to_pid(key, &found, 0);
  if (result != 1) return false;

  bool by_script = record->action == SHELL_RESTART;
  TOV_DBG("%s--> tov_pid->action == %s, found child pid_get = %d\n", "tov_handle_netlink_exit",
          by_script ? "SHELL_RESTART" : "RESPAWN", found);
  forget(record);
  *later = {found, by_script ? "TOV_SHELL_RESTART" : "TOV_RESTART"};
  return true;
}

// Moves the registration from the dead process to its successor. The file carries the old id in
// its name, so it goes first.
static void renew(tov_pid_t *record, pid_t new_pid) {
  (void)tov_db_destroy(record);
  tov_chain_rekey(&tov_chains, record, new_pid);
  record->force_restart = 0;
}

static void restart(tov_pid_t *record) {
  if (record->restart_time > 0) safe_sleep(record->restart_time);

  tov_task_name_s name(*record);
  tov_restart_news_t news{name.text, record->action == SHELL_RESTART, record->pid,
                          static_cast<unsigned int>(record->exit_signal)};
  if (del_dev_mon_log() != 0) {
    tov_announce_before(news);
    if (debug_log() == 0 && tov_journal_before(news) < 0) return;
  }

  pid_t new_pid = -1;
  if (tov_proc_restart(record, &new_pid) < 1) return;
  renew(record, new_pid);
  // Before anything is said: the child inherited the daemon's exemption from the low-memory killer.
  tov_reset_lmk(new_pid);

  // The marker stands for one restart that nobody hears of.
  if (del_dev_mon_restart() == 0) return;
  news.count = record->count;
  news.new_pid = new_pid;
  tov_announce_after(news);
  if (debug_log() == 0) (void)tov_journal_after(news);
}

// ---- the decision ---------------------------------------------------------------------------

// Top to bottom; each rule either ends the matter or leaves it to the next. Returns what is to be
// registered when the lock is gone.
static tov_registration_t decide(int pid, int exit_code, int force, bool known_gone) {
  tov_registration_t later;
  tov_chains_guard_t guard(tov_chains);
  tov_pid_t *record = tov_get_oldest_node(pid);
  if (record == nullptr) return later;
  if (!known_gone && process_life(pid) == 0) return later;
  if (dropped_as_duplicate(record)) return later;
  if (record->alarm_wait_flag == 1) return later;  // the self-check alarm will start it

  tov_del_node_chain_safe(record, &tov_alive_chains);
  record->exit_signal = exit_code;
  record->force_restart = force;
  if (exit_code == DELIBERATE_STOP) {
    accept_stop(record);
    return later;
  }
  if (tov_proc_restart_delay(record) == 1) return later;
  if (record->action != RESPAWN && record->action != SHELL_RESTART) return later;
  if (!handed_over_to_running(record, &later)) restart(record);
  return later;
}

void tov_handle_netlink_exit(int pid, int exit_code, int force) {
  tov_register_found(decide(pid, exit_code, force, false));
}

tov_registration_t tov_decide_lost_exit(int pid) {
  return decide(pid, 0, 0, true);
}

void tov_register_found(const tov_registration_t &found) {
  if (found.pid == 0) return;
  if (reg_third_part_process_exit_action(found.pid, found.type) != 0) {
    (void)tov_log_with_type(TOV_LOG_ERROR, "%s-->reg_third_part_process_exit_action error!\n",
                            "tov_handle_netlink_exit");
  }
}
