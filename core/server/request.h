// One request: receiving, acknowledging, having it carried out.
//
// What differs from request to request stands in client/requests/table.h.
//
// Thread: the server's.
#ifndef TOV_CORE_SERVER_REQUEST_H
#define TOV_CORE_SERVER_REQUEST_H

#include "include/tov_wire.h"

// Receives one request from client `sd`, acknowledges it, then has it carried out.
// Returns 0 when it was received and acknowledged, else -1: the caller drops the client.
int tov_recv_domain_msg(int sd);

// Sends the acknowledgement of `msg`, a head of zeros, where its type wants one.
// Returns 0, or -1: it could not be sent, or the type is unknown.
int tov_rsp_domain_msg(int sd, tov_msg_head_t *msg);

// Carries a request out. Its result is printed and goes nowhere else.
//   pathname  of the head; at most 255 bytes of it are read
//   sd        the client
//   data      the whole record of its type
void tov_dispatch_domain_msg(int type, char *pathname, int sd, void *data);

#endif  // TOV_CORE_SERVER_REQUEST_H
