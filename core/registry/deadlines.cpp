// The order is a list through the records that wait, so that neither a wait nor its end allocates
// or fails.
//
// Tested by: tests/unit/core/registry/record_test.cpp,
// tests/unit/core/registry/record_process_test.cpp, tests/unit/core/policy/waits_test.cpp,
// tests/unit/core/policy/ending_test.cpp
#include "core/registry/deadlines.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <optional>

#include "core/registry/links.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "core/run/known.h"
#include "core/run/wake.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "util/clock.h"

enum {
  END_DOUBLINGS = 10,  // of the pause between two questions, until it is about a second
};

static constexpr int64_t END_PAUSE_US = 1000;
static constexpr int64_t LAST_EVENT_US = 50000;

// Its first link leads to the earliest deadline.
static tov_list_head_s waiting TOV_GUARDED_BY(tov_chains) = {&waiting, &waiting};

static tov_pid_t *record_of(tov_list_head_s *link) {
  return reinterpret_cast<tov_pid_t *>(reinterpret_cast<char *>(link) -
                                       offsetof(tov_pid_t, start.link));
}

static void wait_until(const tov_chains_guard_t &held, tov_pid_t *record, int wait,
                       int64_t due_us) {
  static uint64_t last_number TOV_GUARDED_BY(tov_chains) = 0;
  held.shows(tov_chains);
  if (record->start.wait == TOV_WAIT_NONE) {
    record->start.number = ++last_number;
  } else {
    tov_list_del(&record->start.link);
  }
  record->start.wait = wait;
  record->start.due_us = due_us;
  // From the end: most waits end after those that have begun before them.
  tov_list_head_s *earlier = waiting.prev;
  while (earlier != &waiting && record_of(earlier)->start.due_us > due_us)
    earlier = earlier->prev;
  tov_list_add(&record->start.link, earlier);
  if (earlier == &waiting) tov_wake();
}

void tov_record_wait(const tov_chains_guard_t &held, tov_pid_t *record, int wait, int64_t due_us) {
  // They were counted for a process that is no more.
  if (!tov_record_is_starting(*record)) tov_record_clear_misses(held, record);
  wait_until(held, record, wait, due_us);
}

void tov_record_wait_end(const tov_chains_guard_t &held, tov_pid_t *record,
                         std::optional<int> exit_code, int force) {
  tov_start_t *start = tov_record_start(held, record);
  start->end_known = exit_code ? 1 : 0;
  start->end_code = exit_code.value_or(0);
  start->end_force = force;
  // The threads of a process that is killed end one after another, in less than that.
  const int64_t pause_us = END_PAUSE_US << std::min<int>(start->end_asked++, END_DOUBLINGS);
  tov_ends_await(record->pid);  // its threads, of which the last one's end is the end
  wait_until(held, record, TOV_WAIT_END, tov_clock_us() + pause_us);
}

void tov_record_end_seen(const tov_chains_guard_t &held, tov_pid_t *record) {
  tov_record_start(held, record)->end_seen = 1;
  wait_until(held, record, TOV_WAIT_END, tov_clock_us() + LAST_EVENT_US);
}

tov_start_t *tov_record_start(const tov_chains_guard_t &held, tov_pid_t *record) {
  held.shows(tov_chains);
  return &record->start;
}

void tov_record_take_child(const tov_chains_guard_t &held, tov_pid_t *record, pid_t child) {
  tov_start_t *start = tov_record_start(held, record);
  tov_known_enter(child);
  tov_chain_forget_child(start->forked);
  start->forked = child;
}

tov_pid_t *tov_record_of_child(const tov_chains_guard_t &held, pid_t child) {
  held.shows(tov_chains);
  for (tov_list_head_s *link = waiting.next; link != &waiting; link = link->next) {
    tov_pid_t *record = record_of(link);
    if (child > 0 && record->start.forked == child) return record;
  }
  return nullptr;
}

tov_pid_t *tov_record_of_start(const tov_chains_guard_t &held, uint64_t number) {
  held.shows(tov_chains);
  for (tov_list_head_s *link = waiting.next; link != &waiting; link = link->next) {
    if (record_of(link)->start.number == number) return record_of(link);
  }
  return nullptr;
}

void tov_record_end_wait(const tov_chains_guard_t &held, tov_pid_t *record) {
  held.shows(tov_chains);
  if (tov_record_is_ending(*record)) tov_ends_await_no_more(record->pid);
  tov_chain_forget_child(record->start.forked);
  if (record->start.wait != TOV_WAIT_NONE) tov_list_del(&record->start.link);
  record->start = {};
}

tov_pid_t *tov_record_due(const tov_chains_guard_t &held, int64_t now_us) {
  held.shows(tov_chains);
  return tov_record_next_due_us(held) <= now_us ? record_of(waiting.next) : nullptr;
}

int64_t tov_record_next_due_us(const tov_chains_guard_t &held) {
  held.shows(tov_chains);
  return waiting.next == &waiting ? INT64_MAX : record_of(waiting.next)->start.due_us;
}

bool tov_record_any_starts(const tov_chains_guard_t &held) {
  held.shows(tov_chains);
  for (tov_list_head_s *link = waiting.next; link != &waiting; link = link->next) {
    const tov_pid_t *record = record_of(link);
    if (tov_record_is_starting(*record) && record->start.wait != TOV_WAIT_LOCK) return true;
  }
  return false;
}
