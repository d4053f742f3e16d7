// The signs in their order: the row, the lock, the times, the text.
//
// Tested by: tests/unit/core/policy/recognise_test.cpp,
// tests/module/core/policy/rebuild_test.cpp
#include "core/policy/recognise.h"

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "core/registry/query.h"
#include "core/registry/supervised.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

enum { TICK_US = 10000 };  // of the kernel's start times

// ---- without a row ------------------------------------------------------------------------------

// Whether the process is certainly younger than the file in which it is to be registered: then the
// id was given out again. A time before the boot or after the present is no time: the wall clock
// was set meanwhile.
static bool is_younger(const tov_identity_t &identity, int64_t written_us) {
  const bool is_plausible = written_us > 0 && written_us <= tov_kernel_clock_us(CLOCK_BOOTTIME);
  return is_plausible && tov_ticks_us(identity.started) - TICK_US > written_us;
}

// Whether the process executes something else than the record says, for certain.
static bool differs(const tov_pid_t &record, const tov_identity_t &identity) {
  tov_reading_t reading;
  tov_read_process(record.pid, identity, &reading);
  return reading.life == TOV_LIFE_LIVES && !tov_reading_fits(record, reading);
}

// Whether the process is what the record says. Of one that sleeps in the kernel it is not asked:
// who waits for a page that does not come keeps the reader of its command line waiting, and the
// start.
static bool is_as_registered(const tov_pid_t &record, const tov_identity_t &identity) {
  tov_stat_t stat;
  if (tov_read_stat(record.pid, &stat) < 0 || stat.state == 'D') return false;
  tov_reading_t reading;
  tov_read_process(record.pid, identity, &reading);
  return tov_compare_process(record, reading) == TOV_FOUND_AS_REGISTERED;
}

// Whoever has the id, if it may be the process that was registered. The text is the weakest sign: a
// title may be rewritten, an executable replaced, and the file holds the beginning alone. So it is
// asked last; reading it may take long.
static tov_recognised_t judge(const tov_pid_t &record, const char *path, int64_t written_us) {
  static constexpr tov_recognised_t dead = {tov_identity_of_start(TOV_NEVER_STARTED), true, false,
                                            0};
  tov_identity_t identity{};
  const int result = tov_identity_take(record.pid, &identity);
  if (result == -ESRCH || tov_life_is_over(tov_identity_life(record.pid, identity))) return dead;
  if (result < 0) return {{}, false, false, 0};
  const bool is_stranger =
      is_younger(identity, written_us) && tov_lock_holder(path) == 0 && differs(record, identity);
  if (is_stranger) return dead;
  return {identity, false, is_as_registered(record, identity), 0};
}

// ---- with one -----------------------------------------------------------------------------------

static bool is_before(const tov_supervised_left_t &one, const tov_supervised_left_t &other) {
  return one.row.file < other.row.file;
}

tov_recognition_s::tov_recognition_s() {
  const tov_chains_guard_t held(tov_chains);
  left_ = tov_supervised_open();
  std::sort(left_.begin(), left_.end(), is_before);
  named_.resize(left_.size());
}

static tov_identity_t identity_of(const tov_supervised_row_t &row) {
  return {row.started, row.stack, row.exe_dev, row.exe_ino, row.session};
}

// The row of a record's file, or null. Of several, since an id may have been given out again to the
// same program, that of a process which lives.
const tov_supervised_left_t *tov_recognition_s::row_of(const tov_pid_t &record) const {
  tov_supervised_left_t wanted{};
  wanted.row.file = tov_supervised_file(record);
  const auto [first, last] = std::equal_range(left_.begin(), left_.end(), wanted, is_before);
  const tov_supervised_left_t *found = nullptr;
  for (auto one = first; one != last; ++one) {
    if (one->row.pid != record.pid || one->row.vsd_id != record.vsd_id) continue;
    const bool lives = !tov_life_is_over(tov_identity_life(record.pid, identity_of(one->row)));
    if (found == nullptr || lives) found = &*one;
  }
  return found;
}

// A process that was not seen as registered, because it was just being started, may be that by now.
static tov_recognised_t complete(const tov_pid_t &record, const tov_supervised_left_t &left) {
  const tov_identity_t known = identity_of(left.row);
  if (left.row.was_seen != 0) return {known, false, true, left.number};
  tov_identity_t now{};
  const bool seen = tov_identity_take(record.pid, &now) == 0 && now.started == known.started &&
                    is_as_registered(record, now);
  return {seen ? now : known, false, seen, left.number};
}

tov_recognised_t tov_recognition_s::ask(const tov_pid_t &record, const char *path,
                                        int64_t written_us) {
  const tov_supervised_left_t *left = row_of(record);
  if (left == nullptr) return judge(record, path, written_us);
  const tov_identity_t identity = identity_of(left->row);
  const bool is_over = tov_life_is_over(tov_identity_life(record.pid, identity));
  // The file may have been written after the row: by the next process of that id, which holds it.
  const pid_t holder = is_over ? tov_lock_holder(path) : 0;
  const bool is_older = holder == record.pid || holder < 0;  // below 0: that cannot be known
  tov_recognised_t answer = is_older  ? judge(record, path, written_us)
                            : is_over ? tov_recognised_t{identity, true, false, 0}
                                      : complete(record, *left);
  answer.row = left->number;
  named_[static_cast<size_t>(left - left_.data())] = true;
  return answer;
}

void tov_recognition_s::end() {
  const tov_chains_guard_t held(tov_chains);
  for (size_t i = 0; i < left_.size(); i++)
    if (!named_[i]) tov_supervised_free_row(left_[i].number);
}
