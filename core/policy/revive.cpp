// Tested by: tests/unit/core/policy/revive_test.cpp, tests/unit/core/policy/revive_listed_test.cpp,
// tests/unit/core/policy/revive_blind_test.cpp,
// tests/module/core/policy/exit_test.cpp, tests/module/core/policy/rebuild_test.cpp,
// tests/module/proc/selfcheck/tov_signals_test.cpp
#include "core/policy/revive.h"

#include <errno.h>
#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include <iterator>
#include <utility>

#include "client/tov_pidfile.h"
#include "core/policy/announce.h"
#include "core/policy/defer.h"
#include "core/policy/inherit.h"
#include "core/registry/deadlines.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/known.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "proc/burst.h"
#include "proc/claim.h"
#include "proc/task_name.h"
#include "proc/tov_proc.h"
#include "util/clock.h"
#include "util/identity.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/entry.h"
#include "vsd/marker.h"
#include "vsd/path.h"

static constexpr int64_t US_PER_S = 1000000;

enum {
  LOOK_PAUSE_US = 30000,  // after the end of a listed program
};

namespace {

struct occasion_s {
  tov_revive_e key;    // equals the row's index
  bool waits;          // for the record's `restart_time` first
  bool obeys_markers;  // /etc/dev_mon asks for one silent restart, /etc/debug_log for the journal
  void (*before)(const tov_restart_news_t &);  // null: nothing is announced
  void (*after)(const tov_restart_news_t &);
};

}  // namespace

static constexpr occasion_s occasions[] = {
    {TOV_REVIVE_AFTER_EXIT, true, true, tov_announce_before, tov_announce_after},
    {TOV_REVIVE_AFTER_SUSPENSION, false, false, nullptr, tov_announce_self_check_ok},
    {TOV_REVIVE_AT_REBUILD, false, false, nullptr, nullptr},
};
static_assert([] {  // rows in the enumeration's order, none missing, none extra
  for (int i = 0; i < TOV_REVIVE_NUM; i++)
    if (occasions[i].key != i) return false;
  return std::size(occasions) == TOV_REVIVE_NUM;
}());

static const occasion_s &occasion_of(const tov_pid_t &record) {
  return occasions[record.start.occasion];
}

// ---- what is said -------------------------------------------------------------------------------

static tov_restart_news_t news_of(const tov_pid_t &record, const tov_task_name_s &name) {
  return {name.text, record.action == SHELL_RESTART, record.pid,
          static_cast<unsigned int>(record.exit_signal)};
}

// Says what will be done. Returns false when it cannot be journalled: it is not done then.
static bool say_before(const tov_chains_guard_t &held, tov_pid_t *record) {
  const occasion_s &row = occasion_of(*record);
  if (row.before == nullptr) return true;
  held.shows(tov_chains);
  tov_start_t *start = tov_record_start(held, record);
  // The marker stands for one restart that is not announced.
  start->silent = row.obeys_markers && del_dev_mon_log() == 0 ? 1 : 0;
  if (start->silent != 0) return true;
  const tov_task_name_s name(*record);
  const tov_restart_news_t news = news_of(*record, name);
  row.before(news);
  if (!row.obeys_markers || debug_log() != 0) return true;
  start->slot = tov_journal_before(news);
  return start->slot >= 0;
}

//   start  as it was when the restart ended
static void say_after(const tov_chains_guard_t &held, const tov_pid_t &record,
                      const tov_start_t &start, tov_restart_news_t news) {
  const occasion_s &row = occasions[start.occasion];
  if (row.after == nullptr) return;
  held.shows(tov_chains);
  if (start.silent != 0) {
    (void)del_dev_mon_restart();
    return;
  }
  news.count = record.count;
  news.new_pid = record.pid;
  row.after(news);
  if (start.slot > 0 && debug_log() == 0) (void)tov_journal_after(news, start.slot);
}

bool tov_revive_is_wanted(const tov_pid_t &record) {
  return tov_record_is_restarted(record) ||
         (tov_record_is_starting(record) && record.start.occasion == TOV_REVIVE_AT_REBUILD);
}

// ---- its file -----------------------------------------------------------------------------------

// A daemon that follows this one goes on from the files: a record has one as long as it has no
// process that could write its own.
static void wait_for(const tov_chains_guard_t &held, tov_pid_t *record, int what, int64_t due_us) {
  if (!tov_record_is_starting(*record)) (void)tov_db_keep(record);
  tov_record_wait(held, record, what, due_us);
}

// ---- steps --------------------------------------------------------------------------------------

// Until then no start is tried: a fork has failed. Microseconds, 0: forks are not known to fail.
static int64_t forks_fail_until_us TOV_GUARDED_BY(tov_chains) = 0;

void tov_revive_finish(const tov_chains_guard_t &held, tov_pid_t *record, pid_t result,
                       const tov_identity_t &identity) {
  const tov_start_t start = record->start;
  tov_record_end_wait(held, record);
  const bool rebuilt = start.occasion == TOV_REVIVE_AT_REBUILD;
  const tov_task_name_s name(*record);
  const tov_restart_news_t news = news_of(*record, name);
  if (result > 0) {
    // Before anything is said: the child inherited the daemon's exemption from the low-memory
    // killer.
    if (start.listed != 0) {
      tov_inherit_process(held, record, result, identity);
    } else {
      tov_record_renew(held, record, result);
    }
    say_after(held, *record, start, news);
  }
  if (rebuilt)
    TOV_DBG("pid (%d) %s ret = %d\n", record->pid, news.by_script ? "shell restart" : "restart",
            result);
}

static uint64_t started_of(pid_t pid) {
  tov_stat_t stat;
  return tov_read_stat(pid, &stat) == 0 ? stat.started : 0;
}

static void start_now(const tov_chains_guard_t &held, tov_pid_t *record) {
  held.shows(tov_chains);
  const int64_t now_us = tov_clock_us();
  if (now_us < forks_fail_until_us)
    return wait_for(held, record, TOV_WAIT_FORK, forks_fail_until_us);

  tov_start_t *start = tov_record_start(held, record);
  const bool listed = tov_proc_is_listed(*record);
  start->listed = listed ? 1 : 0;
  // The search may outlast this daemon, and its child is known by that it is younger than the file.
  if (listed) (void)tov_db_keep(record);
  // Until it is known who the child is, as that of this start or as the record's process.
  const tov_known_all_t all_are_heard;
  tov_record_take_child(held, record, tov_proc_fork(held, record, start->vsd_no, listed));
  start->forked_started = started_of(start->forked);
  forks_fail_until_us = start->forked > 0 ? 0 : now_us + TOV_FORK_PAUSE_S * US_PER_S;
  // After a failed fork, too: another process may have started the program meanwhile. The child is
  // given time to become what it is to be: it may go to the background by ending.
  if (listed) {
    start->scans = start->forked > 0 ? 1 : 0;
    return wait_for(held, record, TOV_WAIT_SEARCH,
                    now_us + start->scans * int64_t{TOV_SEARCH_PAUSE_US});
  }
  if (start->forked > 0) {
    tov_proc_tell_forked(*record, start->forked);
    return tov_revive_finish(held, record, start->forked, {});
  }
  tov_proc_fork_failed(*record, -start->forked);
  wait_for(held, record, TOV_WAIT_FORK, forks_fail_until_us);
}

// What is said and counted is so once, however long the start then takes.
static void start_announced(const tov_chains_guard_t &held, tov_pid_t *record) {
  tov_start_t *start = tov_record_start(held, record);
  if (start->announced == 0) {
    start->announced = 1;
    if (!say_before(held, record) || !tov_burst_allows(held, record, tov_proc_how_of(*record))) {
      (void)tov_db_keep(record);
      return tov_record_end_wait(held, record);
    }
  }
  start_now(held, record);
}

int tov_revive_device(const tov_pid_t &record) {
  if (tov_record_life(record) == TOV_LIFE_ENDED) return find_app(record.pid);
  return record.vsd_id > 0 ? record.vsd_id : -1;
}

// The same for the next start. The child of the last one has removed the note, and a listed program
// may not have been found behind it.
static int device_of_start(const tov_pid_t &record) {
  const int noted = tov_revive_device(record);
  return noted < 0 && record.vsd_id > 0 && tov_proc_is_listed(record) ? record.vsd_id : noted;
}

// Records that wait are known by their wait; this one does from now on, and what is known of its
// restart begins anew.
static void begin(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion) {
  tov_start_t *start = tov_record_start(held, record);
  if (start->wait != TOV_WAIT_NONE) return;
  *start = {};
  start->occasion = occasion;
  start->vsd_no = device_of_start(*record);
}

void tov_revive_note_executed(const tov_chains_guard_t &held, tov_pid_t *record) {
  tov_start_t *start = tov_record_start(held, record);
  tov_identity_t now{};
  const bool is_it = tov_identity_take(start->forked, &now) == 0 &&
                     (start->forked_started == 0 || now.started == start->forked_started);
  if (is_it) start->executed = now;
}

void tov_revive_follow(const tov_chains_guard_t &held, tov_pid_t *record, pid_t child,
                       bool has_ended) {
  begin(held, record, TOV_REVIVE_AT_REBUILD);
  tov_start_t *start = tov_record_start(held, record);
  start->announced = 1;
  start->listed = 1;
  start->followed = 1;
  tov_record_take_child(held, record, child);
  start->child_ended = has_ended ? 1 : 0;
  start->forked_started = has_ended ? 0 : started_of(child);
  if (!has_ended) tov_revive_note_executed(held, record);
  wait_for(held, record, TOV_WAIT_SEARCH, tov_clock_us());
}

// A listed program may go to the background by ending: what it left behind ends, too, before the
// one that stays is there, and is not to be taken for it.
static void look(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion) {
  const bool has_just_ended = !tov_record_is_starting(*record) && occasion == TOV_REVIVE_AFTER_EXIT;
  const int pause_us = has_just_ended ? LOOK_PAUSE_US : 0;
  begin(held, record, occasion);
  tov_record_start(held, record)->looked = TOV_LOOKED_NOT_YET;
  wait_for(held, record, TOV_WAIT_LOOK, tov_clock_us() + pause_us);
}

void tov_revive_look(const tov_chains_guard_t &held, tov_pid_t *record) {
  look(held, record, TOV_REVIVE_AFTER_EXIT);
}

void tov_revive_defer(const tov_chains_guard_t &held, tov_pid_t *record) {
  begin(held, record, TOV_REVIVE_AFTER_EXIT);
  tov_record_wait(held, record, TOV_WAIT_LOCK, INT64_MAX);
  tov_defer(*record);
}

bool tov_revive_is_in_vain(const tov_pid_t &record) {
  // Of a device that was on its way out when the process died no member file may have been left.
  const int vsd_no = record.start.vsd_no > 0 ? record.start.vsd_no : record.vsd_id;
  if (vsd_no <= 0) return false;
  if (tov_file_exists(tov_vsd_path(TOV_VSD_DELETE_MARKER_FMT, vsd_no).text)) return true;
  return tov_sys_access(tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no).text, F_OK) < 0 &&
         errno == ENOENT;
}

void tov_revive_give_up(const tov_chains_guard_t &held, tov_pid_t *record) {
  tov_claim_drop(*record, record->start.forked);
  tov_record_forget(held, record);
}

void tov_revive(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion) {
  // After an exit the rules ask it. Otherwise time has gone by: somebody may have started it.
  const bool may_run = occasion != TOV_REVIVE_AFTER_EXIT && !tov_record_is_starting(*record) &&
                       tov_proc_is_listed(*record);
  if (may_run) return look(held, record, occasion);
  begin(held, record, occasion);
  tov_start_t *start = tov_record_start(held, record);
  start->looked = TOV_LOOKED_NOT_YET;  // what was seen now need not hold after a wait
  if (std::exchange(start->waited, 1) == 0 && occasion_of(*record).waits &&
      record->restart_time > 0)
    return wait_for(held, record, TOV_WAIT_TIME, tov_clock_us() + record->restart_time * US_PER_S);
  start_announced(held, record);
}
