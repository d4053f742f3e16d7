// Crashes are counted on the records: each keeps the time of its last core dump, so it counts once
// however often it crashed, and not at all when the record is gone.
#include "core/policy/mass.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/lowmem.h"
#include "core/run/settings.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "util/clock.h"
#include "util/tov_utils.h"

enum {
  CORE_DUMPED = 0x80,
  SPAN_S = 900,
  THRESHOLD = 10,
  LIST_SIZE = 1024,
  REASON_SIZE = 200,
};

namespace {

struct limits_s {
  int span_s = SPAN_S;
  int threshold = THRESHOLD;
};

}  // namespace

static limits_s read_limits() {
  limits_s limits;
  if (!tov_file_exists(TOV_CONFIG_FILE)) return limits;
  limits_s read;
  if (tov_get_config_value(TOV_CONFIG_FILE, &read.span_s, &read.threshold) < 0) return limits;
  return read;
}

// The newest record of the process that has exited. A newer one may be of another process, which
// has the id by now.
static tov_pid_t *newest_of_exit(const tov_chains_guard_t &held, int pid, tov_chains_t *chains)
    TOV_REQUIRES(*chains) {
  const tov_pid_t *exited = chains == &tov_chains ? tov_record_of_exit(held, pid) : nullptr;
  if (exited == nullptr) return __tov_find_pid(chains, pid);
  for (tov_pid_t &record : tov_chain_bucket(chains, pidhash(pid))) {
    if (&record == exited || (record.pid == pid && tov_record_shares_process(record, *exited)))
      return &record;
  }
  return nullptr;
}

// Stamps it; false when there is none.
static bool remember(int pid, bool dumped, time_t now, tov_chains_t *chains) {
  const tov_chains_guard_t held(*chains);
  tov_pid_t *record = newest_of_exit(held, pid, chains);
  if (record == nullptr) return false;
  if (dumped) tov_record_dumped_core(held, record, now);
  return true;
}

// Counts the records that dumped core within the span and lists their command lines, each with a
// blank behind it. However often a record dumped, it counts once.
static int count_crashed(time_t now, int span_s, tov_chains_t *chains, char *list, size_t size) {
  int count = 0;
  size_t used = 0;
  list[0] = '\0';
  const tov_chains_guard_t guard(*chains);
  for (const tov_pid_t &record : tov_chain_records(chains)) {
    if (record.ill_tm == 0 || now - record.ill_tm > span_s) continue;
    count++;
    const int length = snprintf(list + used, size - used, "%s ", record.process);
    if (length > 0) used += static_cast<size_t>(length);
    if (used > size - 1) used = size - 1;
  }
  return count;
}

static void ask_for_reload(const limits_s &limits, const char *list) {
  TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT,
                  "tov detect more than %d process exit in shorttime[%d]s, system reboot.\n",
                  limits.threshold, limits.span_s);
  tov_log_flush_and_wait();
  char reason[REASON_SIZE];
  (void)snprintf(reason, sizeof reason,
                 "tov detect more than %d process exit in shorttime[%d]s\n, %s\n", limits.threshold,
                 limits.span_s, list);
  (void)protect_selfhealing_do_action(PSH_RELOAD_SELF_ACT, 0, "tov", reason);
}

void tov_check_continuous_multiple_process_exit(int pid, int exit_code, tov_chains_t *chains) {
  const time_t now = tov_get_time();
  const bool dumped = (exit_code & CORE_DUMPED) != 0;
  if (!remember(pid, dumped, now, chains) || !dumped) return;

  const limits_s limits = read_limits();
  char list[LIST_SIZE];
  const int count = count_crashed(now, limits.span_s, chains, list, sizeof list);
  // "More than" is what the text says; the threshold itself is enough.
  if (count >= limits.threshold && tov_is_reboot_available() &&
      !tov_file_exists(TOV_NO_REBOOT_FILE)) {
    ask_for_reload(limits, list);
  }
}
