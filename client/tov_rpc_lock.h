// The lock of the transport: one request of this process at a time.
//
// It is held for the whole of a request, connecting and waiting included, and guards the kept
// connection and the connections that are owed an answer.
#ifndef TOV_RPC_LOCK_H
#define TOV_RPC_LOCK_H

#include "util/owner.h"

extern tov_mutex_t tov_rpc_lock;

#endif  // TOV_RPC_LOCK_H
