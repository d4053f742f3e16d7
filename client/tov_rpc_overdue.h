// Connections whose last request the daemon has yet to answer.
//
// The daemon acknowledges a request before it carries it out, and a request whose acknowledgement
// cannot be delivered is not carried out at all. So the end of a connection loses a request that
// the daemon has not come to, however long ago the call that made it has returned. A connection
// that is done with, but owed an answer, is therefore put away here instead of being closed, and
// closed when the answer has come, which the next requests test for. It is never used
// again: what it will bring would be taken for the answer to another request.
//
// There are a few places only, because each costs the host a descriptor and the daemon one of its
// clients. A call that needs one when all are taken waits for the first answer, as long as for any
// acknowledgement; then the oldest is closed, and its request may be lost.
//
// All but the last are called with tov_rpc_lock held, which guards the places.
#ifndef TOV_RPC_OVERDUE_H
#define TOV_RPC_OVERDUE_H

#include "client/tov_rpc_lock.h"
#include "include/tov_thread_safety.h"

enum { TOV_RPC_OVERDUE_NUM = 4 };

// Puts a connection away, or closes it at once when the answer is there or can come no more.
//   sd  connected socket, >= 0; the caller's no longer
// Waits up to 5 s when all places are taken.
void tov_rpc_overdue_add(int sd) TOV_REQUIRES(tov_rpc_lock);

// Closes what has been answered or ended since. Without a system call when nothing is put away.
void tov_rpc_overdue_look() TOV_REQUIRES(tov_rpc_lock);

// For the child of a fork: closes its copies, which ends no connection of the parent's, and waits
// for nothing. Takes no lock; async-signal-safe.
void tov_rpc_overdue_forget();

#endif  // TOV_RPC_OVERDUE_H
