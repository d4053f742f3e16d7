// The clock that all rules over spans of time use: CLOCK_MONOTONIC, never the wall clock, which
// operators and NTP may step.
//
// Any thread; async-signal-safe.
#ifndef TOV_UTIL_CLOCK_H
#define TOV_UTIL_CLOCK_H

#include <stdint.h>
#include <time.h>

#include "util/tov_sys.h"

// Whole seconds, as records keep them.
time_t tov_get_time(void);

// Microseconds and whole milliseconds, for deadlines and for pacing.
inline int64_t tov_clock_us() {
  timespec now{};
  tov_sys_clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}
inline int64_t tov_clock_ms() {
  return tov_clock_us() / 1000;
}

#endif  // TOV_UTIL_CLOCK_H
