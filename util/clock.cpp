#include "util/clock.h"

time_t tov_get_time(void) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}
