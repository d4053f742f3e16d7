// Both changes concern the calling thread alone. Only the way back to ordinary scheduling has to
// work in a forked child, so only that one avoids the C library's locks.
#include "util/priority.h"

#include <sched.h>

#include "util/tov_sys.h"

int tov_set_priority(int prio) {
  sched_param param{};
  param.sched_priority = prio;
  const int error = tov_sys_set_schedule(SCHED_FIFO, &param);
#ifdef TOV_SANITIZE_THREAD
  // The sanitizer's own locks spin and inherit no priority: a thread at 99 that waits for one held
  // by an ordinary thread keeps its processor for seconds. The privilege is asked for all the same.
  if (error == 0) tov_reset_priority();
#endif
  return error;
}

void tov_reset_priority(void) {
  // The plain system call on the calling thread: pthread_setschedparam() takes a lock inside the
  // C library, which a forked child must not rely on.
  const sched_param param{};
  (void)tov_sys_sched_setscheduler(SCHED_OTHER, &param);
}
