// Tested by: tests/module/core/policy/exit_test.cpp, tests/module/core/policy/rebuild_test.cpp,
// tests/module/proc/selfcheck/tov_signals_test.cpp
#include "core/policy/revive.h"

#include <sys/types.h>

#include <iterator>

#include "core/policy/announce.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/task_name.h"
#include "proc/tov_proc.h"
#include "util/tov_utils.h"
#include "vsd/marker.h"

namespace {

struct occasion_s {
  tov_revive_e key;      // equals the row's index
  bool waits;            // for the record's `restart_time` first
  bool obeys_markers;    // /etc/dev_mon asks for one silent restart, /etc/debug_log for the journal
  bool any_result_goes;  // the record leaves its dead process even when nothing was started
  void (*before)(const tov_restart_news_t &);  // null: nothing is announced
  void (*after)(const tov_restart_news_t &);
};

}  // namespace

static constexpr occasion_s occasions[] = {
    {TOV_REVIVE_AFTER_EXIT, true, true, false, tov_announce_before, tov_announce_after},
    {TOV_REVIVE_AFTER_SUSPENSION, false, false, false, nullptr, tov_announce_self_check_ok},
    {TOV_REVIVE_AT_REBUILD, false, false, true, nullptr, nullptr},
};
static_assert([] {  // rows in the enumeration's order, none missing, none extra
  for (int i = 0; i < TOV_REVIVE_NUM; i++)
    if (occasions[i].key != i) return false;
  return std::size(occasions) == TOV_REVIVE_NUM;
}());

// Says what will be done. Returns false when it cannot be journalled: it is not done then.
static bool say_before(const tov_chains_guard_t &held, const occasion_s &occasion,
                       const tov_restart_news_t &news) {
  if (occasion.before == nullptr) return true;
  held.shows(tov_chains);
  if (occasion.obeys_markers && del_dev_mon_log() == 0) return true;
  occasion.before(news);
  return !occasion.obeys_markers || debug_log() != 0 || tov_journal_before(news) >= 0;
}

static void say_after(const tov_chains_guard_t &held, const occasion_s &occasion,
                      const tov_restart_news_t &news) {
  if (occasion.after == nullptr) return;
  held.shows(tov_chains);
  // The marker stands for one restart that is not announced.
  if (occasion.obeys_markers && del_dev_mon_restart() == 0) return;
  occasion.after(news);
  if (occasion.obeys_markers && debug_log() == 0) (void)tov_journal_after(news);
}

pid_t tov_revive(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion) {
  const occasion_s &row = occasions[occasion];
  if (row.waits && record->restart_time > 0) safe_sleep(record->restart_time);

  const tov_task_name_s name(*record);
  tov_restart_news_t news{name.text, record->action == SHELL_RESTART, record->pid,
                          static_cast<unsigned int>(record->exit_signal)};
  if (!say_before(held, row, news)) return -1;

  pid_t new_pid = -1;
  const pid_t result = tov_proc_restart(held, record, &new_pid);
  if (result < 1 && !row.any_result_goes) return result;
  // Before anything is said: the child inherited the daemon's exemption from the low-memory killer.
  tov_record_renew(held, record, new_pid);
  news.count = record->count;
  news.new_pid = new_pid;
  say_after(held, row, news);
  return result;
}
