// A bucket is compared with /proc first, process by process without the lock, and decided about
// second, under it.
//
// Tested by: tests/unit/core/policy/sweep_test.cpp, tests/module/core/policy/sweep_test.cpp,
// tests/device/sweep_test.cpp
#include "core/policy/sweep.h"

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <vector>

#include "core/policy/exit.h"
#include "core/policy/late.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_log.h"
#include "proc/tov_proc.h"
#include "util/identity.h"

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

namespace {

// A record whose process is asked for, as it was when the lock was held.
struct asked_s {
  pid_t pid;
  uint64_t serial;
  tov_identity_t identity;
};

}  // namespace

static std::vector<asked_s> whom_to_ask(unsigned int bucket) {
  std::vector<asked_s> asked;
  const tov_chains_guard_t held(tov_chains);
  for (const tov_pid_t &record : tov_chain_bucket(&tov_chains, bucket)) {
    if (!is_passed_over(record)) asked.push_back({record.pid, record.serial, record.identity});
  }
  return asked;
}

static void miss(const tov_chains_guard_t &held, tov_pid_t *record, tov_found_e found) {
  (void)tov_log_with_type(TOV_LOG_RESTART, "%s: tov_pid(%s, %d, %d) is not running.\n", function,
                          record->process, record->vsd_id, record->pid);
  // One that lives is told about, and no more. What a listed program makes of itself is its own
  // affair: it may have been a wrapper of what runs now.
  const bool lives =
      found == TOV_FOUND_UNLIKE || (found == TOV_FOUND_OTHER && tov_proc_is_listed(*record));
  if (lives) return tov_record_clear_misses(held, record);
  tov_record_missed(held, record);
}

static void apply(const tov_chains_guard_t &held, tov_pid_t *record, const tov_reading_t &reading) {
  const tov_found_e found = tov_compare_process(*record, reading);
  switch (found) {
    case TOV_FOUND_AS_REGISTERED:
      tov_record_identify(held, record, reading.now, true);
      return tov_record_clear_misses(held, record);
    case TOV_FOUND_ALIVE:
      if (reading.life == TOV_LIFE_THREADS) tov_exit_await(held, record);
      return tov_record_clear_misses(held, record);
    case TOV_FOUND_UNKNOWN:
      return;
    case TOV_FOUND_UNLIKE:
    case TOV_FOUND_OTHER:
    case TOV_FOUND_GONE:
      return miss(held, record, found);
  }
}

// The process is read without the lock, since its command line may keep the reader waiting. What
// was read counts only if the record still stands for the process that was asked for.
static void look_at(const asked_s &asked, int *unknown) {
  tov_reading_t reading;
  tov_read_process(asked.pid, asked.identity, &reading);
  if (reading.life == TOV_LIFE_UNKNOWN) ++*unknown;
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_serial(held, asked.pid, asked.serial);
  const bool is_same = record != nullptr && !is_passed_over(*record) &&
                       record->identity.started == asked.identity.started;
  if (is_same) apply(held, record, reading);
}

// A record of the bucket that was missed once too often, or null.
static tov_pid_t *find_lost(unsigned int bucket) TOV_REQUIRES(tov_chains) {
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, bucket)) {
    if (record.stat_check_cnt > MISSES_ALLOWED) return &record;
  }
  return nullptr;
}

static void decide_about(unsigned int bucket) {
  const tov_chains_guard_t held(tov_chains);
  // A walk of its own for each: the decision about one record may remove others.
  while (tov_pid_t *lost = find_lost(bucket)) {
    tov_record_clear_misses(held, lost);
    (void)tov_log_with_type(TOV_LOG_RESTART,
                            "%s: tov_pid(%s, %d, %d) exit code lost, restart it.\n", function,
                            lost->process, lost->vsd_id, lost->pid);
    // Its event may have been heard and not be handled yet: then a stop is a stop. One whose end
    // was accepted before, and whose restart came to nothing, is brought back whatever that was.
    const std::optional<int> exit_code = lost->ended != 0 ? std::nullopt : tov_late_code(*lost);
    tov_decide_lost_exit(held, lost, exit_code);
  }
}

int tov_sweep_bucket(unsigned int bucket) {
  int unknown = 0;
  for (const asked_s &asked : whom_to_ask(bucket))
    look_at(asked, &unknown);
  decide_about(bucket);
  return unknown;
}

// 234 or 235, so that the sum is exact.
static int pause_ms_behind(unsigned int bucket) {
  const auto due_ms = [](unsigned int buckets) {
    return (SWEEP_MS * buckets + TOV_PID_BUCKETS - 1) / TOV_PID_BUCKETS;
  };
  return static_cast<int>(due_ms(bucket + 1) - due_ms(bucket));
}

static void tell_unknown(int count) {
  if (count == 0) return;
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "%s: %d processes could not be looked at, nothing is concluded.\n",
                          function, count);
}

void *tov_proc_stat_check(void *) {
  (void)tov_core_thread_name("tov_proc_stat_check");  // only for those who look at the process
  while (!tov_flag_get(quit)) {
    int unknown = 0;
    for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS && !tov_flag_get(quit); bucket++) {
      unknown += tov_sweep_bucket(bucket);
      (void)tov_quit_wait(pause_ms_behind(bucket));
    }
    tell_unknown(unknown);
  }
  return nullptr;
}
