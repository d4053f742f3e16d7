// The reading in whole seconds is a given name and stays a function of the library; the finer ones
// are inline in the header.
#include "util/clock.h"

#include <time.h>

#include "util/tov_sys.h"

time_t tov_get_time(void) {
  timespec now{};
  tov_sys_clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}
