// Slots with a turn each, after the manner of a sequence lock: odd while the slot is written.
//
// Why no fence: the thread sanitizer cannot follow them. The writer stores the odd turn and then
// the fields, each with a release; so whoever reads a new field by an acquire sees the odd turn, or
// a later one, when it loads the turn once more. A slot whose turn has changed meanwhile is passed
// over: what stood there is older than everything that is kept.
//
// The awaited are few, and entered by threads that may wait: they have a mutex among themselves,
// and the reader of events loads without.
//
// Tested by: tests/unit/core/run/ends_test.cpp, tests/module/core/run/ends_threads_test.cpp
#include "core/run/ends.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <vector>

// ---- the table ------------------------------------------------------------------------------

namespace {

struct slot_s {
  uint64_t turn;      // 2 x the number of the note, from 1 on; odd: being written; 0: never was
  uint64_t who_code;  // process id and wait status
  int64_t at_us;
};

// A copy of a slot.
struct end_s {
  pid_t pid;
  uint32_t code;
  int64_t at_us;
};

// One writer: the reader of process events.
template <size_t SIZE>
struct ring_s {
  slot_s slots[SIZE];
  uint64_t noted;  // the writer's own

  void note(pid_t pid, uint32_t code, int64_t at_us);
  template <typename Visit>
  void for_each_of(pid_t pid, int64_t not_before_us, Visit visit) const;
};

}  // namespace

enum { CODE_BITS = 32 };
static constexpr int64_t ONE_END_US = 1'000'000;  // in which the threads of a process end

static ring_s<TOV_ENDS_KEPT> processes;
static ring_s<TOV_ENDS_OF_THREADS_KEPT> threads;

static uint64_t packed(pid_t pid, uint32_t code) {
  return uint64_t{static_cast<uint32_t>(pid)} << CODE_BITS | code;
}

template <size_t SIZE>
void ring_s<SIZE>::note(pid_t pid, uint32_t code, int64_t at_us) {
  const uint64_t number = ++noted;
  slot_s &slot = slots[number % SIZE];
  __atomic_store_n(&slot.turn, number * 2 - 1, __ATOMIC_RELAXED);
  __atomic_store_n(&slot.who_code, packed(pid, code), __ATOMIC_RELEASE);
  __atomic_store_n(&slot.at_us, at_us, __ATOMIC_RELEASE);
  __atomic_store_n(&slot.turn, number * 2, __ATOMIC_RELEASE);
}

static std::optional<end_s> copy_of(const slot_s &slot) {
  const uint64_t turn = __atomic_load_n(&slot.turn, __ATOMIC_ACQUIRE);
  const uint64_t who_code = __atomic_load_n(&slot.who_code, __ATOMIC_ACQUIRE);
  const int64_t at_us = __atomic_load_n(&slot.at_us, __ATOMIC_ACQUIRE);
  const bool is_whole =
      turn != 0 && turn % 2 == 0 && __atomic_load_n(&slot.turn, __ATOMIC_RELAXED) == turn;
  if (!is_whole) return std::nullopt;
  return end_s{static_cast<pid_t>(who_code >> CODE_BITS), static_cast<uint32_t>(who_code), at_us};
}

template <size_t SIZE>
template <typename Visit>
void ring_s<SIZE>::for_each_of(pid_t pid, int64_t not_before_us, Visit visit) const {
  for (const slot_s &slot : slots) {
    const std::optional<end_s> end = copy_of(slot);
    if (end && end->pid == pid && end->at_us >= not_before_us) visit(*end);
  }
}

// Whether the signal that ended a thread has ended its process, of which `last` is the last thing
// that is known. A thread can be killed alone as well, by what it is forbidden; and of those that
// were killed together one alone may say that there is a core.
static bool has_ended_all(const end_s &killed, const end_s &last) {
  return !tov_ends_is_signal(last.code) && last.at_us - killed.at_us <= ONE_END_US;
}

std::optional<uint32_t> tov_ends_code(pid_t pid, int64_t not_before_us) {
  std::optional<end_s> first;  // end of a first thread
  bool is_reused = false;
  processes.for_each_of(pid, not_before_us, [&](const end_s &end) {
    is_reused = is_reused || first.has_value();
    if (!first || end.at_us < first->at_us) first = end;
  });
  std::optional<end_s> last = first, killed;
  if (!is_reused) {
    threads.for_each_of(pid, not_before_us, [&](const end_s &end) {
      if (!last || end.at_us >= last->at_us) last = end;
      if (tov_ends_is_signal(end.code) && (!killed || end.at_us >= killed->at_us)) killed = end;
    });
  }
  if (!last) return std::nullopt;
  return killed && has_ended_all(*killed, *last) ? killed->code : last->code;
}

// ---- processes whose last thread is awaited ---------------------------------------------------

static std::mutex awaited_lock;  // of who enters and leaves; the counts and places are atomics
static pid_t awaited[TOV_ENDS_AWAITED_MAX];
static int awaited_count;            // of all that were entered
static std::vector<pid_t> unplaced;  // those that found no place; under the lock
static int unplaced_count;

static int load(const int &value) {
  return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

static void store(int *value, int to) {
  __atomic_store_n(value, to, __ATOMIC_RELEASE);
}

static pid_t *place_of(pid_t pid) {
  for (pid_t &place : awaited)
    if (load(place) == pid) return &place;
  return nullptr;
}

static bool is_unplaced(pid_t pid) {
  return std::find(unplaced.begin(), unplaced.end(), pid) != unplaced.end();
}

void tov_ends_await(pid_t pid) {
  const std::lock_guard guard(awaited_lock);
  if (place_of(pid) != nullptr || is_unplaced(pid)) return;
  if (pid_t *place = place_of(0)) {
    store(place, pid);
  } else {
    unplaced.push_back(pid);
    store(&unplaced_count, static_cast<int>(unplaced.size()));
  }
  store(&awaited_count, awaited_count + 1);
}

void tov_ends_await_no_more(pid_t pid) {
  const std::lock_guard guard(awaited_lock);
  pid_t *place = place_of(pid);
  if (place == nullptr && !is_unplaced(pid)) return;
  if (place != nullptr) store(place, 0);
  std::erase(unplaced, pid);
  store(&unplaced_count, static_cast<int>(unplaced.size()));
  store(&awaited_count, awaited_count - 1);
}

static bool is_awaited(pid_t tgid) {
  if (load(awaited_count) == 0) return false;
  return load(unplaced_count) > 0 || place_of(tgid) != nullptr;
}

// ---- notes ----------------------------------------------------------------------------------

bool tov_ends_note(pid_t tgid, pid_t tid, uint32_t code, int64_t at_us) {
  if (tid == tgid) {
    processes.note(tgid, code, at_us);
    return false;
  }
  threads.note(tgid, code, at_us);
  return is_awaited(tgid);
}

void tov_ends_forget(void) {
  processes = {};
  threads = {};
  for (pid_t &place : awaited)
    place = 0;
  unplaced.clear();
  awaited_count = unplaced_count = 0;
}
