// A question to the daemon that shows that it has done what it was asked before.
//
// A registration is acknowledged before it is carried out, and some are not acknowledged at all. A
// program that ends in between is handled by other rules than the same program a moment later, so
// the model must not guess: one thread of the daemon takes all requests, in the order in which
// their senders connected.
#ifndef TOV_CHAOS_REQUESTS_H
#define TOV_CHAOS_REQUESTS_H

#include <sys/types.h>

#include "tests/support/device.h"

namespace tov_chaos {

// True when every request that was sent before this call has been carried out. False when the
// daemon could not be asked.
bool requests_are_done(const tov_test::Device &device);

// Withdraws the registration of a process that is dead. True when that has been carried out.
bool withdraw(const tov_test::Device &device, pid_t pid);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_REQUESTS_H
