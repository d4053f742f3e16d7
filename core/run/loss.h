// What makes the event handler look at every record at once: that process events are lost, or may
// be.
//
// Who finds that out is a thread that touches no registry and writes no file (the reader of process
// events); so it only says it here, and the event handler takes it and looks.
#ifndef TOV_CORE_RUN_LOSS_H
#define TOV_CORE_RUN_LOSS_H

#include <stdint.h>

// Reasons, as bits.
enum tov_loss_e {
  TOV_LOSS_EVENTS = 1 << 0,       // events were lost, in number `count`
  TOV_LOSS_UNCOUNTED = 1 << 1,    // events were lost, nobody knows how many
  TOV_LOSS_STOOD_STILL = 1 << 2,  // the reader was late by more than a second
  TOV_LOSS_SUBSCRIBED = 1 << 3,   // events come from now on; what was before was not heard
};

struct tov_loss_s {
  uint32_t reasons = 0;  // 0: there is nothing to look for
  uint64_t count = 0;    // of events
};
using tov_loss_t = tov_loss_s;

// Adds a reason and wakes the event handler. What is said before it is taken is one.
// Any thread; async-signal-safe.
void tov_loss_tell(uint32_t reasons, uint64_t count);

// Takes what was said since it was last taken. The event handler alone.
tov_loss_t tov_loss_take(void);

#endif  // TOV_CORE_RUN_LOSS_H
