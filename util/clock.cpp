#include "util/clock.h"

#include <time.h>

#include "util/tov_sys.h"

time_t tov_get_time(void) {
  timespec now{};
  tov_sys_clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}
