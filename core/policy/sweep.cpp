// A bucket is compared with /proc first and decided about second, both under the lock. What the
// decisions want registered is registered after the lock is released.
#include "core/policy/sweep.h"

#include <vector>

#include "core/policy/exit.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_log.h"

enum {
  SWEEP_MS = 60000,  // in equal parts for the buckets
  MISSES_ALLOWED = 1,
};

static constexpr char function[] = "tov_proc_stat_check";

// Tasks that wait for the self-check alarm have no process, nor do those that are being restarted.
// A deferred exit is none of those: who holds its file may never let it go, and operators are told.
static bool is_passed_over(const tov_pid_t &record) {
  if (tov_record_is_suspended(record)) return true;
  return tov_record_is_starting(record) && record.start.wait != TOV_WAIT_LOCK;
}

static void look_at(const tov_chains_guard_t &held, tov_pid_t &record) {
  if (is_passed_over(record)) return;
  if (tov_check_process_alive(&record) == 0) {
    tov_record_clear_misses(held, &record);
    return;
  }
  (void)tov_log_with_type(TOV_LOG_RESTART, "%s: tov_pid(%s, %d, %d) is not running.\n", function,
                          record.process, record.vsd_id, record.pid);
  tov_record_missed(held, &record);
}

// A record of the bucket that was missed once too often, or null.
static tov_pid_t *find_lost(unsigned int bucket) TOV_REQUIRES(tov_chains) {
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, bucket)) {
    if (record.stat_check_cnt > MISSES_ALLOWED) return &record;
  }
  return nullptr;
}

// The bucket's share under the lock. Returns the processes to register when it is gone.
static std::vector<tov_registration_t> decide_about(unsigned int bucket) {
  std::vector<tov_registration_t> found;
  const tov_chains_guard_t held(tov_chains);
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, bucket))
    look_at(held, record);
  // A walk of its own for each: the decision about one record may remove others.
  while (tov_pid_t *lost = find_lost(bucket)) {
    tov_record_clear_misses(held, lost);
    (void)tov_log_with_type(TOV_LOG_RESTART,
                            "%s: tov_pid(%s, %d, %d) exit code lost, restart it.\n", function,
                            lost->process, lost->vsd_id, lost->pid);
    const tov_registration_t later = tov_decide_lost_exit(held, lost);
    if (later.pid != 0) found.push_back(later);
  }
  return found;
}

void tov_sweep_bucket(unsigned int bucket) {
  for (const tov_registration_t &found : decide_about(bucket))
    tov_register_found(found);
}

// 234 or 235, so that the sum is exact.
static int pause_ms_behind(unsigned int bucket) {
  const auto due_ms = [](unsigned int buckets) {
    return (SWEEP_MS * buckets + TOV_PID_BUCKETS - 1) / TOV_PID_BUCKETS;
  };
  return static_cast<int>(due_ms(bucket + 1) - due_ms(bucket));
}

void *tov_proc_stat_check(void *) {
  (void)tov_core_thread_name("tov_proc_stat_check");  // only for those who look at the process
  while (!tov_flag_get(quit)) {
    for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS && !tov_flag_get(quit); bucket++) {
      tov_sweep_bucket(bucket);
      (void)tov_quit_wait(pause_ms_behind(bucket));
    }
  }
  return nullptr;
}
