// An eventfd that is written once and never read: readable for every thread that asks, however
// late, which a condition variable would not be for those that wait in poll(2) and epoll(7).
//
// Tested by: tests/unit/core/run/quit_test.cpp, tests/module/core/run/quit_test.cpp,
// tests/device/thread_failure_test.cpp
#include "core/run/quit.h"

#include <errno.h>
#include <stdint.h>

#include <algorithm>

#include "core/run/flags.h"
#include "util/clock.h"
#include "util/owner.h"
#include "util/tov_sys.h"

enum {
  SLICE_MS = 5000,             // bounds how late a flag that was set directly is seen
  POLL_FAILED_PAUSE_US = 1000  // no memory: a thread at priority 99 must not spin
};

static int event_fd = -1;  // written before the threads start

int tov_quit_init(void) {
  const unsigned int raised = tov_flag_get(quit) != 0 ? 1 : 0;
  event_fd = tov_sys_eventfd(raised, EFD_CLOEXEC | EFD_NONBLOCK);
  return event_fd < 0 ? -errno : 0;
}

void tov_quit_raise(void) {
  tov_flag_set(quit, 1);
  if (event_fd < 0) return;
  const tov_errno_keeper_s keep;  // the caller may report why it ends
  const uint64_t one = 1;
  // Fails only when the counter is full, and then it is readable.
  (void)!tov_sys_write(event_fd, &one, sizeof one);
}

int tov_quit_fd(void) {
  return event_fd;
}

bool tov_quit_wait(int timeout_ms) {
  const int64_t deadline_ms = tov_clock_ms() + timeout_ms;
  int64_t left_ms = timeout_ms;
  while (tov_flag_get(quit) == 0 && left_ms > 0) {
    pollfd raised{event_fd, POLLIN, 0};
    const int slice_ms = static_cast<int>(std::min<int64_t>(left_ms, SLICE_MS));
    const int ready = tov_sys_poll(&raised, 1, slice_ms);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) (void)tov_sys_usleep(POLL_FAILED_PAUSE_US);
    left_ms = deadline_ms - tov_clock_ms();
  }
  return tov_flag_get(quit) != 0;
}
