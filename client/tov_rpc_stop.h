// How the daemon ends the waiting that this transport does on its behalf.
//
// The client library repeats requests for minutes, which is right for a client and wrong for the
// daemon's own threads once the daemon is to end: the server that would answer them is gone then.
// The library knows no daemon, so the daemon hands in the question.
#ifndef TOV_RPC_STOP_H
#define TOV_RPC_STOP_H

#include <atomic>

using tov_rpc_stop_fn = bool (*)();

// Null in clients. The daemon stores a function here before its threads start; it is called from
// any thread, may hold no lock, and its `true` ends resending and retrying at the next look.
extern std::atomic<tov_rpc_stop_fn> tov_rpc_stop_asked;

inline bool tov_rpc_stopping() {
  tov_rpc_stop_fn asked = tov_rpc_stop_asked.load(std::memory_order_relaxed);
  return asked != nullptr && asked();
}

#endif  // TOV_RPC_STOP_H
