// Tested by: tests/unit/core/run/wake_test.cpp, tests/module/core/events/tov_fifo_test.cpp
#include "core/run/wake.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>

#include <iterator>
#include <utility>

#include "core/run/quit.h"
#include "util/owner.h"
#include "util/tov_sys.h"

enum { NO_MEMORY_PAUSE_US = 1000 };

static int wake_fd = -1;    // set before the threads start
static int pass_asked = 0;  // exchanged only

int tov_wake_open(void) {
  if (wake_fd >= 0) return 0;
  tov_fd_t fd(tov_sys_eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (fd.n < 0) return -errno;
  wake_fd = tov_fd_take(fd);
  return 0;
}

void tov_wake_close(void) {
  const tov_fd_t close_it(std::exchange(wake_fd, -1));
}

void tov_wake_for_ring(void) {
  if (wake_fd < 0) return;
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the handler wakes anyway.
  (void)!tov_sys_write(wake_fd, &one, sizeof one);
}

void tov_wake(void) {
  __atomic_exchange_n(&pass_asked, 1, __ATOMIC_ACQ_REL);
  tov_wake_for_ring();
}

bool tov_wake_wait(int timeout_ms) {
  pollfd waited[] = {{wake_fd, POLLIN, 0}, {tov_quit_fd(), POLLIN, 0}};
  uint64_t count = 0;
  const int ready = tov_sys_poll(waited, std::size(waited), timeout_ms);
  if (ready > 0 && waited[0].revents != 0) (void)!tov_sys_read(wake_fd, &count, sizeof count);
  if (ready > 0 && waited[1].revents != 0) return true;
  if (ready < 0 && errno != EINTR)
    tov_sys_usleep(NO_MEMORY_PAUSE_US);  // the caller's loop must not spin
  return __atomic_exchange_n(&pass_asked, 0, __ATOMIC_ACQ_REL) != 0;
}
