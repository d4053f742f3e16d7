// The listening socket "/tmp/tov/.tov".
//
// Its directory is open to strangers, who may put anything in the socket's place at any time.
//
// Thread: the server's, once.
#ifndef TOV_CORE_SERVER_LISTENER_H
#define TOV_CORE_SERVER_LISTENER_H

#include "core/server/result.h"
#include "util/owner.h"

// Makes the socket, close-on-exec, which every user's processes may connect to. What stands at its
// path, usually the socket of an earlier daemon, is removed first.
//   listener  out: the socket, the caller's own
// Returns TOV_SERVER_QUIT, or with errno which step failed (diagnostic printed).
tov_server_result_e tov_server_listen(tov_fd_t *listener);

#endif  // TOV_CORE_SERVER_LISTENER_H
