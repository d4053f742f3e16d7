// A clock that tells the daemon's sweeps over all registrations, one a minute of its clock.
#ifndef TOV_TEST_SWEEP_CLOCK_H
#define TOV_TEST_SWEEP_CLOCK_H

#include <signal.h>
#include <stddef.h>

#include <string>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

namespace tov_test {

inline constexpr Millis SWEEPS_LIMIT_MS{30'000};

// A task that is dead and stays so: every sweep names it, which makes it a clock.
class SweepClock {
 public:
  SweepClock(Device &device, const std::string &prefix)
      : device_(device), task_(start_task(device, prefix, {.action = NORMAL_EXIT})) {}
  void start() { device_.kill(task_.pid, SIGKILL); }
  size_t sweeps() const { return device_.count_events(RESTART_LOG, not_running(task_, task_.pid)); }
  // Waits until everybody has been looked at `count` times from now on.
  void wait(size_t count) const {
    // The sweep that is under way may have passed the others already.
    need_event(device_, RESTART_LOG, not_running(task_, task_.pid), sweeps() + count + 1,
               SWEEPS_LIMIT_MS);
  }

 private:
  Device &device_;
  Task task_;
};

}  // namespace tov_test

#endif  // TOV_TEST_SWEEP_CLOCK_H
