// A client's connection to the daemon: making it, judging it, waiting on it.
//
// Threads: any; a socket is used by one thread at a time (tov_rpc() holds its lock meanwhile).
// Except for the diagnostics none of these keeps state.
#ifndef TOV_RPC_CONNECT_H
#define TOV_RPC_CONNECT_H

#include <sys/socket.h>
#include <sys/un.h>

// Fills a local address.
//   path  at most 107 characters of it are used
// Returns the address length that both sides use: family and path, without a terminator.
socklen_t tov_rpc_address(sockaddr_un *at, const char *path);

// Connects to the daemon's socket.
//   name  path that the client's own end is bound to; what stands there is removed first
// A daemon that is absent (ENOENT, ECONNREFUSED) is tried six times in all, a second apart; waits
// for as long as the daemon's queue of connections is full. Any other failure, EINTR included, ends
// the attempt, and the own path is removed.
// Returns the connected socket, close-on-exec, which the caller closes; or -1 (diagnostic printed).
int tov_connect(const char *name);

// Waits up to 5 s for an acknowledgement and drops it unread: any process could stand in for
// the daemon, so nothing is learnt from its content.
// Returns 0 when a message came and when none came; a negative value when the wait failed (a signal
// ends it too), the connection ended or what came was no message.
int tov_wait_msg_ack_timeout(int sd);

// The same, and tells whether the answer is still to be expected.
//   due  out, always written: true when nothing came and the connection has not ended, because of
//        silence or of a signal
int tov_rpc_await_answer(int sd, bool *due);

// Whether a kept connection may serve another request.
// Returns 0 when nothing at all is to be said about it, -1 when it is ready for reading or writing,
// in error or cannot be asked. A healthy connection is ready for writing, so the answer is nearly
// always -1; the rule is wanted so, because what lies unread on it would be taken for the answer to
// the next request.
int tov_check_socket(int sd);

#endif  // TOV_RPC_CONNECT_H
