// The lock is held to copy whom to ask, and again to enter the dead: /proc is read without. That a
// process has ended stays true in between, so nothing has to be asked twice.
//
// Tested by: tests/unit/core/policy/look_test.cpp, tests/device/loss_serial_test.cpp
#include "core/policy/look.h"

#include <inttypes.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "core/policy/exit.h"
#include "core/policy/late.h"
#include "core/policy/search.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "core/run/loss.h"
#include "include/tov_registry.h"
#include "log/tov_log.h"
#include "util/clock.h"
#include "util/identity.h"

static constexpr int64_t NEVER_US = INT64_MAX;
static constexpr int64_t HEARING_US = 1000000;  // longest wait for the ring's events to be handled
static constexpr int64_t PAUSE_US = 500000;     // from one look's beginning to that of the next

enum { PORTION = 32 };  // records

// ---- the records ----------------------------------------------------------------------------

namespace {

// Whom to ask for. A restart that searches for its program has a child, whose end may have been
// lost like any other's.
struct asked_s {
  pid_t pid;
  uint64_t serial;  // of the record; 0: `pid` is such a child
  tov_identity_t identity;
};

}  // namespace

static void ask_in(unsigned int bucket, std::vector<asked_s> *asked) {
  const tov_chains_guard_t held(tov_chains);
  for (const tov_pid_t &record : tov_chain_bucket(&tov_chains, bucket)) {
    if (tov_record_has_process(record)) {
      asked->push_back({record.pid, record.serial, record.identity});
    } else if (record.start.forked > 0 && record.start.child_ended == 0) {
      asked->push_back(
          {record.start.forked, 0, tov_identity_of_start(record.start.forked_started)});
    }
  }
}

static void enter(const asked_s &dead, tov_life_e life) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_serial(held, dead.pid, dead.serial);
  const bool is_same = record != nullptr && tov_record_has_process(*record) &&
                       record->identity.started == dead.identity.started;
  if (!is_same) return;
  if (life == TOV_LIFE_THREADS) return tov_exit_await(held, record);
  tov_late_add(held, *record, TOV_LATE_LOST, tov_late_born_us(record->identity));
}

static void look_at(const asked_s &asked) {
  const tov_life_e life = tov_identity_life(asked.pid, asked.identity);
  if (asked.serial != 0 && life == TOV_LIFE_THREADS) return enter(asked, life);
  if (!tov_life_is_over(life)) return;
  if (asked.serial != 0) return enter(asked, life);
  const auto code = tov_ends_code(asked.pid, tov_late_born_us(asked.identity));
  (void)tov_search_keeps({TOV_EVENT_EXIT, asked.pid, code.value_or(0)});
}

void tov_look_s::look_at_some() {
  std::vector<asked_s> asked;
  while (bucket_ < TOV_PID_BUCKETS && asked.size() < PORTION)
    ask_in(bucket_++, &asked);
  for (const asked_s &one : asked)
    look_at(one);
}

// ---- when -----------------------------------------------------------------------------------

void tov_look_s::ask(const tov_loss_t &loss) {
  if (loss.reasons == 0) return;
  if (asked_.reasons == 0) asked_us_ = tov_clock_us();
  asked_.reasons |= loss.reasons;
  asked_.count += loss.count;
}

static void tell(const tov_loss_t &loss) {
  if ((loss.reasons & TOV_LOSS_UNCOUNTED) != 0) {
    (void)tov_log_with_type(TOV_LOG_ERROR,
                            "TOV: an unknown number of process events were lost, every registered "
                            "process is looked at.\n");
  } else if (loss.count > 0) {
    (void)tov_log_with_type(TOV_LOG_ERROR,
                            "TOV: %" PRIu64
                            " process events were lost, every registered process is looked at.\n",
                            loss.count);
  }
}

void tov_look_s::begin() {
  tell(std::exchange(asked_, {}));
  begun_us_ = tov_clock_us();
  bucket_ = 0;
}

int64_t tov_look_s::go_on(bool heard_all) {
  if (bucket_ == TOV_PID_BUCKETS) {
    if (asked_.reasons == 0) return NEVER_US;
    const int64_t due_us = std::max(asked_us_ + (heard_all ? 0 : HEARING_US), begun_us_ + PAUSE_US);
    if (tov_clock_us() < due_us) return due_us;
    begin();
  }
  look_at_some();
  if (bucket_ < TOV_PID_BUCKETS) return 0;
  has_ended_ = true;
  return asked_.reasons == 0 ? NEVER_US : begun_us_ + PAUSE_US;
}
