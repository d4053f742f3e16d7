// Restarts that wait, gone on with when their time has come.
//
// A restart that cannot be made at once - its `restart_time` is not over, forks fail, a listed
// program is looked or searched for - is a state of its record (core/registry/record): the lock of
// the registry is free meanwhile and no thread sleeps for it. The event handler makes the next step
// of each when its deadline comes, whichever thread has begun the restart.
#ifndef TOV_CORE_POLICY_WAITS_H
#define TOV_CORE_POLICY_WAITS_H

#include <stdint.h>

#include <memory>
#include <optional>
#include <vector>

#include "core/policy/succession.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "proc/find.h"

// Makes the steps. One object for the event handler; it takes the lock of `tov_chains` for one
// record at a time, and reads /proc without.
class tov_waits_s {
 public:
  // What one call of go_on() did.
  struct step_s {
    bool handled = false;                 // a record was gone on with
    int64_t next_us = 0;                  // when to call again (tov_clock_us()); INT64_MAX: never
    std::vector<tov_cnmsg_data_t> heard;  // of processes that were found, to be handled now
  };

  // Goes on with the record whose deadline came first, if it has come, decides about a death that
  // no event has told (core/policy/late), and reads the next portion of /proc for those that look
  // or search. Takes some milliseconds at the most. Call it without any registry's lock.
  step_s go_on();

 private:
  void begin_scan();
  void read_portion(step_s *step);
  void end_scan(int result, step_s *step);
  void handle_due(step_s *step);
  void put_off(const tov_chains_guard_t &held, tov_pid_t *record);

  // Who asked the present scan, and what it has found for them so far.
  struct answer_s {
    uint64_t number;  // of the restart, tov_start_t
    std::unique_ptr<tov_succession_t> succession;
  };

  std::vector<uint64_t> asking_;   // restarts (tov_start_t) that the next scan is for
  std::vector<answer_s> answers_;  // of the present one
  std::optional<tov_scan_t> scan_;
};
using tov_waits_t = tov_waits_s;

// From now on the event handler finishes what waits, or (not `left`) there is none any more. For
// start-up, before the first restart, and for the handler itself.
void tov_waits_leave_to_handler(bool left);

// Where there is no event handler, finishes what waits before it returns, asleep meanwhile: so a
// caller of the decision (core/policy/exit), the rebuild or the alarm's handler that is not the
// daemon finds the restart made. Otherwise it returns at once.
void tov_waits_finish(void);

#endif  // TOV_CORE_POLICY_WAITS_H
