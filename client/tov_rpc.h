// The transport between clients and the daemon: the module's one header, and its request.
//
// A client process keeps at most one connection and sends one request at a time; each request may
// wait for its acknowledgement. The daemon shares the message functions and makes requests itself
// for third-part programs, never from its server thread, which would wait for its own answer.
//
// Rooms: tov_rpc_lock, tov_rpc_message (framing), tov_rpc_connect (connection), tov_rpc_overdue
// (connections that are owed an answer), tov_rpc_fork (a fork between two requests), tov_rpc_stop
// (how the daemon ends long waits), tov_rpc_cancel (withdrawing).
#ifndef TOV_RPC_H
#define TOV_RPC_H

#include <sys/types.h>

#include "alive/tov_ras_os.h"  // IWYU pragma: keep (ras_os_dump_msg(), the hex dump of a message)
#include "client/tov_rpc_connect.h"  // IWYU pragma: export
#include "client/tov_rpc_fork.h"     // IWYU pragma: export
#include "client/tov_rpc_lock.h"
#include "client/tov_rpc_message.h"  // IWYU pragma: export
#include "client/tov_rpc_overdue.h"  // IWYU pragma: export
#include "client/tov_rpc_stop.h"     // IWYU pragma: export
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"  // IWYU pragma: keep (tov_cancel_proc(), which is public)

extern int tov_rpc_sd TOV_GUARDED_BY(tov_rpc_lock);  // the kept connection, -1: none

// Makes one request.
//   type            of the message
//   path            start script for the head, at most 255 bytes of it; null: empty
//   data, datalen   payload in bytes, borrowed; null with 0 sends a bare head
//   need_ack        wait up to 5 s for the acknowledgement
//   allow_tov_exit  a daemon that is not running counts as success
// The connection is kept after success, and after a failure for as long as the daemon may still
// answer: a request that left is not lost because its caller was interrupted or tired of waiting.
// Waits for other threads' requests; never in the daemon's server thread, never with a registry
// lock held.
// Returns 0, or a negative value (with a diagnostic): bad arguments, no memory, no daemon (after
// about 5 s), a failed send, or a connection that ended instead of acknowledging. 0 without an
// acknowledgement means that the request left, or that the daemon was silent for 5 s.
int tov_rpc(TOV_MSG_TYPE type, char *path, void *data, int datalen, bool need_ack,
            bool allow_tov_exit) TOV_EXCLUDES(tov_rpc_lock);

// A request that a missing daemon must not lose: waits for the acknowledgement and makes up to 60
// attempts, a second apart. Ends early when tov_rpc_stop_asked() says so.
// Waits and locks as tov_rpc() does in each attempt. Returns the last attempt's result.
int tov_rpc_persist(TOV_MSG_TYPE type, void *data, int datalen) TOV_EXCLUDES(tov_rpc_lock);

// Removes the registration file of a living process, whose name follows from its device and its
// command line. Prints what it did; nothing when the command line cannot be read.
void tov_rm_db_file_by_pid(pid_t pid);

#endif  // TOV_RPC_H
