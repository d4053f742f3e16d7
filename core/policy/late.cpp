// A list of the few that wait, in no order: it is walked whole.
//
// Tested by: tests/unit/core/policy/late_test.cpp
#include "core/policy/late.h"

#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "core/policy/exit.h"
#include "core/policy/mass.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "core/run/wake.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_log.h"
#include "util/clock.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/procfs.h"
#include "vsd/entry.h"

static constexpr int64_t NEVER_US = INT64_MAX;
static constexpr int64_t US_PER_MS = 1000;
static constexpr int64_t TICK_US = 10000;  // of the kernel's start times

static constexpr char function[] = "tov_proc_stat_check";  // as the sweep's lines name it

namespace {

struct entry_s {
  pid_t pid;
  uint64_t serial;   // of the record
  uint64_t started;  // its process
  tov_late_e kind;
  int64_t not_before_us;
  int64_t due_us;
};

}  // namespace

static std::vector<entry_s> entries TOV_GUARDED_BY(tov_chains);

// ---- who waits ------------------------------------------------------------------------------

int64_t tov_late_born_us(const tov_identity_t &identity) {
  const uint64_t started = identity.started;
  if (!tov_identity_is_start(started)) return 0;
  return tov_ticks_us(started) - TICK_US + tov_kernel_to_monotonic_us(CLOCK_BOOTTIME);
}

static std::optional<int> code_of(pid_t pid, int64_t not_before_us) {
  const std::optional<uint32_t> noted = tov_ends_code(pid, not_before_us);
  if (!noted) return std::nullopt;
  return static_cast<int>(*noted);
}

std::optional<int> tov_late_code(const tov_pid_t &record) {
  return code_of(record.pid, tov_late_born_us(record.identity));
}

static bool is_signal(int exit_code) {
  return tov_ends_is_signal(static_cast<uint32_t>(exit_code));
}

int tov_late_code_of_all(const tov_pid_t &record, int exit_code) {
  // Without a start the end may be that of an earlier process.
  if (is_signal(exit_code) || !tov_identity_is_start(record.identity.started)) return exit_code;
  const std::optional<int> noted = tov_late_code(record);
  return noted && is_signal(*noted) ? *noted : exit_code;
}

void tov_late_add(const tov_chains_guard_t &held, const tov_pid_t &record, tov_late_e kind,
                  int64_t not_before_us) {
  held.shows(tov_chains);
  const auto is_entered = [&](const entry_s &entry) { return entry.serial == record.serial; };
  if (std::any_of(entries.begin(), entries.end(), is_entered)) return;
  // The event of one that was lost may yet be in the ring.
  const bool is_noted =
      kind == TOV_LATE_ENTERED && tov_ends_code(record.pid, not_before_us).has_value();
  entries.push_back({record.pid, record.serial, record.identity.started, kind, not_before_us,
                     tov_clock_us() + (is_noted ? 0 : TOV_LATE_GRACE_MS * US_PER_MS)});
  tov_wake();
}

bool tov_late_any(const tov_chains_guard_t &held) {
  held.shows(tov_chains);
  return !entries.empty();
}

// Takes out the first whose grace is over; none: says when to come again.
static std::optional<entry_s> take_due(int64_t *next_us) {
  const tov_chains_guard_t held(tov_chains);
  const auto first =
      std::min_element(entries.begin(), entries.end(),
                       [](const entry_s &a, const entry_s &b) { return a.due_us < b.due_us; });
  *next_us = first == entries.end() ? NEVER_US : first->due_us;
  if (first == entries.end() || first->due_us > tov_clock_us()) return std::nullopt;
  const entry_s entry = *first;
  entries.erase(first);
  *next_us = 0;  // there may be more
  return entry;
}

// ---- the decision ---------------------------------------------------------------------------

// The record, if it still stands for the process that was entered.
static tov_pid_t *record_of(const tov_chains_guard_t &held, const entry_s &entry) {
  tov_pid_t *record = tov_record_of_serial(held, entry.pid, entry.serial);
  const bool is_same = record != nullptr && tov_record_has_process(*record) &&
                       record->identity.started == entry.started;
  return is_same ? record : nullptr;
}

static bool is_waiting(const entry_s &entry) {
  const tov_chains_guard_t held(tov_chains);
  return record_of(held, entry) != nullptr;
}

static void tell(const tov_pid_t &record, const char *what) {
  (void)tov_log_with_type(TOV_LOG_RESTART, "%s: tov_pid(%s, %d, %d) %s.\n", function,
                          record.process, record.vsd_id, record.pid, what);
}

static void decide(const entry_s &entry, std::optional<int> exit_code, bool is_device_deleted) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = record_of(held, entry);
  if (record == nullptr) return;
  if (is_device_deleted) return tov_record_forget(held, record);
  if (entry.kind == TOV_LATE_LOST) {
    tell(*record, "is not running");
    tell(*record, "exit code lost, restart it");
  }
  tov_decide_lost_exit(held, record, exit_code);
}

tov_late_step_t tov_late_go_on(void) {
  tov_late_step_t step;
  const std::optional<entry_s> entry = take_due(&step.next_us);
  if (!entry || !is_waiting(*entry)) return step;
  step.handled = true;
  const std::optional<int> exit_code = code_of(entry->pid, entry->not_before_us);
  const bool is_device_deleted = tov_vsd_any_is_being_deleted();
  if (exit_code && !is_device_deleted)
    tov_check_continuous_multiple_process_exit(entry->pid, *exit_code, &tov_chains);
  decide(*entry, exit_code, is_device_deleted);
  return step;
}
