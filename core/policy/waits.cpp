// One scan of /proc serves every record that looks or searches when it begins; those that come
// later wait for the next. What a record asked is known by the number of its restart, since the
// record may be gone, or start anew, before the answer is there.
//
// Tested by: tests/unit/core/policy/waits_test.cpp, tests/device/waits_test.cpp
#include "core/policy/waits.h"

#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "core/policy/exit.h"
#include "core/policy/late.h"
#include "core/policy/search.h"
#include "core/policy/succession.h"
#include "core/registry/deadlines.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "proc/burst.h"
#include "proc/find.h"
#include "util/clock.h"
#include "util/tov_sys.h"

static constexpr int64_t NEVER_US = INT64_MAX;

enum {
  PORTION = 64,     // processes between two looks at the ring, some hundred microseconds
  NAP_US = 100000,  // at once, of whoever finishes what waits itself
};

// ---- the scan -----------------------------------------------------------------------------------

static bool asks_proc(const tov_pid_t &record) {
  return record.start.wait == TOV_WAIT_SEARCH ||
         (record.start.wait == TOV_WAIT_LOOK && record.start.looked == TOV_LOOKED_NOT_YET);
}

// Its next deadline comes with the answer.
void tov_waits_s::put_off(const tov_chains_guard_t &held, tov_pid_t *record) {
  tov_record_wait(held, record, record->start.wait, NEVER_US);
  asking_.push_back(record->start.number);
}

void tov_waits_s::begin_scan() {
  if (asking_.empty()) return;
  scan_.emplace();
  answers_.clear();
  const tov_chains_guard_t held(tov_chains);
  for (const uint64_t number : std::exchange(asking_, {})) {
    const tov_pid_t *record = tov_record_of_start(held, number);
    if (record == nullptr) continue;
    answers_.push_back({number, std::make_unique<tov_succession_t>(held, *record)});
    scan_->ask([of = answers_.back().succession.get()](pid_t pid, const char *command) {
      return of->consider(pid, command);
    });
  }
}

void tov_waits_s::end_scan(int result, step_s *step) {
  for (const answer_s &answer : answers_) {
    const tov_chains_guard_t held(tov_chains);
    tov_pid_t *record = tov_record_of_start(held, answer.number);
    if (record == nullptr) continue;
    if (record->start.wait == TOV_WAIT_LOOK) {
      tov_search_look_ended(held, record, result, answer.succession->found());
    } else {
      tov_search_ended(held, record, result, *answer.succession, &step->heard);
    }
  }
}

void tov_waits_s::read_portion(step_s *step) {
  if (!scan_) begin_scan();
  if (!scan_) return;
  const std::optional<int> result = scan_->go_on(PORTION);
  if (!result) return;
  end_scan(*result, step);
  scan_.reset();
}

// ---- steps --------------------------------------------------------------------------------------

void tov_waits_s::handle_due(step_s *step) {
  const tov_chains_guard_t held(tov_chains);
  if (tov_pid_t *record = tov_record_due(held, tov_clock_us())) {
    step->handled = !tov_record_is_ending(*record);  // a question takes no slot
    if (asks_proc(*record)) {
      put_off(held, record);
    } else {
      tov_exit_go_on(held, record);
    }
  }
  step->next_us = scan_ || !asking_.empty() ? 0 : tov_record_next_due_us(held);
}

tov_waits_s::step_s tov_waits_s::go_on() {
  step_s step;
  read_portion(&step);
  handle_due(&step);
  const tov_late_step_t late = tov_late_go_on();
  step.handled = step.handled || late.handled;
  step.next_us = std::min(step.next_us, late.next_us);
  return step;
}

// ---- who makes them -----------------------------------------------------------------------------

static int left_to_handler = 0;  // relaxed: set before the threads that could hurry

void tov_waits_leave_to_handler(bool left) {
  tov_flag_set(left_to_handler, left ? 1 : 0);
}

static void nap_until(int64_t due_us) {
  const int64_t left_us = due_us - tov_clock_us();
  if (left_us > 0) tov_sys_usleep(static_cast<useconds_t>(std::min<int64_t>(left_us, NAP_US)));
}

static bool anything_is_to_do() {
  const tov_chains_guard_t held(tov_chains);
  return tov_record_any_starts(held) || tov_late_any(held);
}

// What waits for a process's end is no restart, and that end need not come.
void tov_waits_finish(void) {
  if (tov_flag_get(left_to_handler) != 0) return;
  tov_waits_t waits;
  for (int64_t next_us = 0; (next_us == 0 || anything_is_to_do()) && !tov_flag_get(quit);) {
    nap_until(next_us);
    const tov_waits_t::step_s step = waits.go_on();
    for (const tov_cnmsg_data_t &event : step.heard)
      if (event.what == TOV_EVENT_EXIT)
        tov_handle_netlink_exit(event.process_pid, static_cast<int>(event.exit_code), 0);
    next_us = step.next_us;
  }
  tov_ask_for_noted_reload();
}
