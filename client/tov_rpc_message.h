// One framed message in one packet: sending and receiving, for both sides.
//
// A message is a head of 268 bytes and the `len` bytes that the head announces (layout:
// include/tov_wire.h); it travels as exactly one packet of a local sequenced-packet socket, so
// there is no reassembly. The sender of a packet is never believed: its `len` is only compared with
// what really came.
//
// Threads: any; a socket is used by one thread at a time.
#ifndef TOV_RPC_MESSAGE_H
#define TOV_RPC_MESSAGE_H

#include <stdint.h>

#include "include/tov_wire.h"

enum { TOV_MSG_HEAD_SIZE = sizeof(tov_msg_head_t) };

// Whether the sender of a request gets a head of zeros before the request is carried out. Both
// sides ask here.
//   type  of the message
constexpr bool tov_msg_is_acknowledged(uint32_t type) {
  return type != TOV_RESET;
}

// Sends a message as one packet, without waiting for room and without SIGPIPE.
//   sd   connected socket, >= 0
//   msg  head and `msg->len` (>= 0) bytes of payload; borrowed
// A kernel short of memory is tried again, without limit, until tov_rpc_stop_asked() says so.
// Returns 0, or -1 (diagnostic printed) with errno of the failed send; errno 0 for a short count.
int tov_inner_send_msg(int sd, tov_msg_head_t *msg);

// Receives one message; waits while none has come (the socket is a blocking one).
//   sd   connected socket, >= 0
//   msg  on success the message in a block of its own, to be released with free(); bytes of the
//        packet beyond 268 + `len` are dropped. Untouched on failure.
// A packet that is shorter than its head says, or whose `len` is negative, is refused before
// anything is allocated and stays queued: after a failure close the connection.
// Texts in the message may lack their terminators.
// Returns 0, or -1 (diagnostic printed).
int tov_inner_recv_msg(int sd, tov_msg_head_t **msg);

#endif  // TOV_RPC_MESSAGE_H
