// A time of the daemon's clock that lies in the past.
#ifndef TOV_TEST_MODULE_SECONDS_AGO_H
#define TOV_TEST_MODULE_SECONDS_AGO_H

#include <ctime>

#include "tests/support/processes.h"
#include "util/clock.h"

namespace tov_test {

// The clock counts from the start of the machine, so on one that was started a moment ago this lies
// below zero: good enough for a span. Zero itself stands for "never" in a record and is waited out.
inline time_t seconds_ago(time_t age_s) {
  wait_until([age_s] { return tov_get_time() != age_s; }, Millis(10'000));
  return tov_get_time() - age_s;
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_SECONDS_AGO_H
