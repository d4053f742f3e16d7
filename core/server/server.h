// The registration server: the thread that takes clients' requests.
//
// One thread serves all clients, one request at a time, on the socket "/tmp/tov/.tov". A bad
// request costs its sender the connection; only the failures of the thread's own machinery listed
// below end the daemon, which the system then starts again.
//
// Result codes of the closing event line: 0 `quit` was set elsewhere; -1 priority or socket; -2
// bind; -3 listen; -4 no epoll instance; -5 the listening socket, -6 a client could not be
// registered in it; -7 an event that was no input; -8 accept; -9 a client more than the table
// holds; -10 a failing client that is not in the table.
#ifndef TOV_CORE_SERVER_SERVER_H
#define TOV_CORE_SERVER_SERVER_H

#include "core/server/clients.h"
#include "include/tov.h"

// Thread body; the parameter is ignored and the result is null. Runs at real-time priority 99 until
// `quit` is set, which it notices within 10 s, or its machinery fails; sets `quit` itself when it
// ends. Uses tov_chains and tov_alive_chains through the handlers; makes no request of its own.
// One at a time in a process: the table of clients is static.
void *tov_process_domain(void *arg);

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

#endif  // TOV_CORE_SERVER_SERVER_H
