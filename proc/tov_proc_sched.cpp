#include "tov_proc_sched.h"

#include <pthread.h>
#include <sched.h>

int tov_set_priority(int prio) {
  sched_param param{};
  param.sched_priority = prio;
  return pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
}

void tov_reset_priority(void) {
  // The plain system call on the calling thread: pthread_setschedparam() takes a lock inside the
  // C library, which a forked child must not rely on.
  sched_param param{};
  (void)sched_setscheduler(0, SCHED_OTHER, &param);
}

time_t tov_get_time(void) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}
