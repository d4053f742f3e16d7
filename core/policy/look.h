// The look at every record at once, after process events were lost (core/run/loss).
//
// A sweep finds an exit whose event was lost after one to two minutes, because what it goes by may
// be wrong once. The look asks one question only, whose answer is final: has the process certainly
// ended? So it can ask all of them at once, and decide at the first answer (core/policy/late).
// Everything else, and what cannot be known, stays the sweep's.
//
// It begins when the events that the ring held have been handled, for they may tell of the same
// deaths, and half a second after the last one at the earliest: in a storm that goes on losing
// events the losses gather, and so do their lines in the error log.
#ifndef TOV_CORE_POLICY_LOOK_H
#define TOV_CORE_POLICY_LOOK_H

#include <stdint.h>

#include <utility>

#include "core/run/loss.h"
#include "include/tov_registry.h"

// One object for the event handler.
class tov_look_s {
 public:
  // Asks for a look. Asked for during one, there is another one behind it.
  void ask(const tov_loss_t &loss);

  // Begins when it is time, and makes a portion of it: some hundred microseconds. Returns when to
  // call again (tov_clock_us()); INT64_MAX: never, unless it is asked for.
  //   heard_all  the events that had come when the look was asked for have been handled; they are
  //              waited for a second at the most
  // Takes the lock of `tov_chains` for a moment; call it without.
  int64_t go_on(bool heard_all);

  // Whether a look has come to its end since this was asked the last time.
  bool has_ended() { return std::exchange(has_ended_, false); }

 private:
  void begin();
  void look_at_some();

  tov_loss_t asked_;
  int64_t asked_us_ = 0;
  int64_t begun_us_ = INT64_MIN / 2;       // the last one
  unsigned int bucket_ = TOV_PID_BUCKETS;  // the next, while it looks
  bool has_ended_ = false;
};
using tov_look_t = tov_look_s;

#endif  // TOV_CORE_POLICY_LOOK_H
