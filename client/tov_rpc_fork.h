// The client library across fork().
//
// A host may fork while another of its threads is inside a call: the child then holds a copy of a
// taken lock that no thread of it will release, and a copy of the connection whose answers belong
// to the parent. From the first call on, a handler puts this right in every child.
#ifndef TOV_RPC_FORK_H
#define TOV_RPC_FORK_H

#include <pthread.h>

// Makes sure that children start afresh: own locks, no connection, no registration files held.
// Cheap after the first time.
// Any thread; not from a signal handler.
void tov_rpc_guard_forks();

// Holds off cancellation of the calling thread while it lives, so that no lock and no descriptor
// is left behind by a host that cancels its threads.
class tov_rpc_no_cancel_s {
 public:
  tov_rpc_no_cancel_s() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  tov_rpc_no_cancel_s(const tov_rpc_no_cancel_s &) = delete;
  tov_rpc_no_cancel_s &operator=(const tov_rpc_no_cancel_s &) = delete;
  ~tov_rpc_no_cancel_s() { pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};
using tov_rpc_no_cancel_t = tov_rpc_no_cancel_s;

// Stands at the head of every call that takes a lock of the library: children start afresh from
// then on, and the calling thread is not cancelled while the call lasts.
class tov_rpc_call_s {
 public:
  tov_rpc_call_s() { tov_rpc_guard_forks(); }

 private:
  tov_rpc_no_cancel_t no_cancel_;
};
using tov_rpc_call_t = tov_rpc_call_s;

#endif  // TOV_RPC_FORK_H
