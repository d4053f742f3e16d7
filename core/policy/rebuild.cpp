// The files first, device by device, each record inserted as soon as its file is read; then what is
// to be done about the dead processes, since whether a living one has taken a dead one's place
// depends on who else is registered.
#include "core/policy/rebuild.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/stat.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <string>
#include <vector>

#include "client/tov_pidfile.h"
#include "core/policy/defer.h"
#include "core/policy/exit.h"
#include "core/policy/recognise.h"
#include "core/policy/revive.h"
#include "core/policy/waits.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "proc/claim.h"
#include "proc/find.h"
#include "proc/tov_proc.h"
#include "util/entries.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/member.h"
#include "vsd/path.h"

enum {
  DEVICE_FIRST = 0,
  DEVICE_LAST = 15,
  PATH_SIZE = 64 + NAME_MAX,
  PROC_PATH_SIZE = 32,
  SCANS_MAX = 10,
  TICK_US = 10000,  // of the kernel's start times
};

namespace {

// A registered process that is dead.
struct dead_s {
  tov_pid_t *record;
  int64_t written_us;  // CLOCK_BOOTTIME when its file was written
  pid_t child = 0;     // for which the last daemon searched; 0: it did not
  bool child_ended = false;
};

// What is known while the files are read.
struct rebuild_s {
  tov_chains_t *chains;
  tov_recognition_t recognition;
  std::vector<dead_s> dead;
};

}  // namespace

// ---- the files ----------------------------------------------------------------------------------

// A record from one registration file, or null.
static tov_pid_t *read_record(int vsd_id, const char *path, const char *entry) {
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

// Whether a process is registered for a task, of which device and command line count.
static bool is_of_task(const tov_chains_guard_t &held, pid_t pid, const tov_pid_t &task) {
  held.shows(tov_chains);
  for (const tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid == pid && record.vsd_id == task.vsd_id &&
        strcmp(record.process, task.process) == 0)
      return true;
  }
  return false;
}

// Whether the file says what is to be done. That of a start which the last daemon began does not if
// its child has come as far as to use it, or if the registration stands in a file of its own.
static bool counts(const char *path, const char *entry, const tov_pid_t &record) {
  if (!tov_claim_is_name(entry)) return tov_db_settle(&record, path);
  if (!tov_claim_settle(path, record)) return false;
  const tov_chains_guard_t held(tov_chains);
  return !is_of_task(held, record.pid, record);
}

static bool is_there(const char *path) {
  struct stat status {};
  return tov_sys_lstat(path, &status) == 0;
}

static std::vector<std::string> names_in(const char *dir) {
  return tov_entries_t(dir).rest();
}

// Removes a file that was to replace another one, which is there still.
static bool drops_new(const tov_vsd_path_t &dir, const std::string &name) {
  if (!name.starts_with(TOV_DB_NEW_PREFIX)) return false;
  (void)tov_sys_unlink((dir.text + ("/" + name)).c_str());
  return true;
}

// Puts a record that was read into the registry.
static void enter(const tov_recognised_t &process, tov_pid_t *record, int64_t written_us,
                  rebuild_s *rebuild) {
  const tov_chains_guard_t held(*rebuild->chains);
  tov_chain_insert(rebuild->chains, record);
  tov_record_take_row(held, record, process.row);
  tov_record_identify(held, record, process.identity, process.seen);
  if (process.is_dead) {
    rebuild->dead.push_back({record, written_us});
  } else if (tov_record_life(*record) == TOV_LIFE_THREADS) {
    tov_exit_await(held, record);
  }
}

static void rebuild_device(int vsd_id, rebuild_s *rebuild) {
  const tov_vsd_path_t dir = tov_vsd_path(TOV_VSD_DB_DIR_FMT, vsd_id);
  std::vector<std::string> names = names_in(dir.text);
  std::erase_if(names, [&](const std::string &name) {
    return tov_claim_is_used(name.c_str()) || drops_new(dir, name);
  });
  // The registrations first: a claim says nothing new where there is one.
  std::partition(names.begin(), names.end(),
                 [](const std::string &name) { return !tov_claim_is_name(name.c_str()); });
  for (const std::string &name : names) {
    char path[PATH_SIZE];
    (void)snprintf(path, sizeof path, "%s/%s", dir.text, name.c_str());
    const int64_t written_us = tov_file_time_us(path, STATX_MTIME);
    tov_pid_t *record = read_record(vsd_id, path, name.c_str());
    if (record == nullptr) {
      if (name.starts_with(TOV_DB_KEPT_PREFIX)) (void)tov_sys_unlink(path);
      continue;
    }
    if (!counts(path, name.c_str(), *record)) {
      free(record);
      continue;
    }
    // What was settled has its registration's name by now.
    if (!is_there(path))
      tov_get_db_file_name(vsd_id, record->pid, record->process, path, sizeof path);
    enter(rebuild->recognition.ask(*record, path, written_us), record, written_us, rebuild);
  }
}

// ---- children of the last daemon ----------------------------------------------------------------

// Not one that was given the child's id since.
static bool is_child(pid_t pid, const char *path) {
  tov_stat_t stat;
  return tov_read_stat(pid, &stat) == 0 && !tov_stat_is_end(stat.state) &&
         tov_ticks_us(stat.started) - TICK_US <= tov_file_time_us(path, STATX_CTIME);
}

// Whose task the child has executed, or is about to, or null: it was withdrawn.
static dead_s *dead_of_child(int vsd_id, const char *path, std::vector<dead_s> *dead) {
  tov_pid_t told{};
  if (tov_read_pidfile(path, &told) < 0) return nullptr;
  rtrim(told.pathname);
  for (dead_s &of : *dead)
    if (of.record->vsd_id == vsd_id && of.record->pid == told.pid &&
        strcmp(of.record->process, told.pathname) == 0)
      return &of;
  return nullptr;
}

// Whether the child has registered itself, as what it executed: its own record says what follows.
static bool has_registered(pid_t child, tov_pid_t *dead) {
  const tov_chains_guard_t held(tov_chains);
  if (child == dead->pid || !is_of_task(held, child, *dead)) return false;
  tov_record_forget(held, dead);
  return true;
}

// Read when no claim is left that a child could use.
static void read_children(int vsd_id, std::vector<dead_s> *dead) {
  const tov_vsd_path_t dir = tov_vsd_path(TOV_VSD_DB_DIR_FMT, vsd_id);
  for (const std::string &name : names_in(dir.text)) {
    if (!tov_claim_is_used(name.c_str())) continue;
    char path[PATH_SIZE];
    (void)snprintf(path, sizeof path, "%s/%s", dir.text, name.c_str());
    const pid_t child = tov_claim_child_of(name.c_str());
    dead_s *of = child > 0 ? dead_of_child(vsd_id, path, dead) : nullptr;
    const bool supersedes = of != nullptr && has_registered(child, of->record);
    if (of != nullptr && !supersedes && of->child == 0) {
      of->child = child;
      of->child_ended = !is_child(child, path);
    } else {
      (void)tov_sys_unlink(path);
    }
    if (supersedes) dead->erase(dead->begin() + (of - dead->data()));
  }
}

// ---- successors ---------------------------------------------------------------------------------

// Whether a process of a dead one's command line is what the last daemon started in its place, and
// not a program that somebody runs by hand.
static bool succeeds(pid_t pid, const dead_s &dead) {
  const tov_chains_guard_t held(tov_chains);
  struct stat status {};
  char path[PROC_PATH_SIZE];
  (void)snprintf(path, sizeof path, "/proc/%d", pid);
  tov_stat_t stat;
  return __tov_find_pid(&tov_chains, pid) == nullptr && tov_sys_lstat(path, &status) == 0 &&
         status.st_uid == 0 && tov_read_stat(pid, &stat) == 0 && stat.session == pid &&
         tov_ticks_us(stat.started) + TICK_US > dead.written_us &&
         tov_vsd_or_base(pid) == dead.record->vsd_id;
}

// The successors of all dead processes, 0 where there is none. One scan of /proc that something
// else's end has spoiled has not said that there is none. Whether a listed program runs is looked
// for when its restart begins.
static std::vector<pid_t> find_successors(const std::vector<dead_s> &dead) {
  std::vector<size_t> asking;
  for (size_t i = 0; i < dead.size(); i++)
    if (!tov_proc_is_listed(*dead[i].record)) asking.push_back(i);
  std::vector<pid_t> found(dead.size(), 0);
  int result = asking.empty() ? 0 : -1;
  for (int scans = 0; result < 0 && scans < SCANS_MAX; scans++) {
    tov_scan_t scan;
    for (const size_t i : asking)
      scan.look_for(dead[i].record->process,
                    [&of = dead[i]](pid_t pid) { return succeeds(pid, of); });
    result = scan.go_on(tov_scan_t::ALL).value_or(-EAGAIN);
    for (size_t i = 0; i < asking.size(); i++)
      found[asking[i]] = scan.found(i);
  }
  return found;
}

static void adopt(const tov_chains_guard_t &held, tov_pid_t *record, pid_t successor) {
  TOV_DBG("pid (%d) is not exist, %d runs in its place\n", record->pid, successor);
  tov_record_pass_on(held, record, successor);
}

// ---- the dead -----------------------------------------------------------------------------------

// Everything found registered and dead is brought back: the action only chooses the way. Where no
// process comes of it the record keeps the dead one's id and file: the sweep reports it, and a next
// daemon tries again.
static void bring_back(const tov_chains_guard_t &held, tov_pid_t *record) {
  TOV_DBG("pid (%d) is not exist\n", record->pid);
  if (tov_defer_is_needed(*record)) return tov_revive_defer(held, record);
  tov_revive(held, record, TOV_REVIVE_AT_REBUILD);
}

static bool is_registered(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  return __tov_find_pid(&tov_chains, pid) != nullptr;
}

// Two of the dead may have found the same successor: the first has it.
static void answer(const tov_chains_guard_t &held, const dead_s &dead, pid_t successor) {
  const bool adopts = successor > 0 && !is_registered(held, successor);
  const bool follows = !adopts && dead.child > 0 && !is_registered(held, dead.child);
  if (follows) return tov_revive_follow(held, dead.record, dead.child, dead.child_ended);
  // A process that is adopted has its file by then; one that is started may have the child's name.
  if (adopts) adopt(held, dead.record, successor);
  if (dead.child > 0) tov_claim_end_child(dead.record->vsd_id, dead.child);
  if (!adopts) bring_back(held, dead.record);
}

int tov_rebuild_chains(tov_chains_t *chains) {
  rebuild_s rebuild{.chains = chains, .recognition = {}, .dead = {}};
  std::vector<dead_s> &dead = rebuild.dead;
  for (int vsd_id = DEVICE_FIRST; vsd_id <= DEVICE_LAST; vsd_id++) {
    rebuild_device(vsd_id, &rebuild);
    read_children(vsd_id, &dead);
  }
  rebuild.recognition.end();
  const std::vector<pid_t> successors = find_successors(dead);
  for (size_t i = 0; i < dead.size(); i++) {
    const tov_chains_guard_t held(*chains);
    answer(held, dead[i], successors[i]);
  }
  tov_waits_finish();
  return 0;
}
