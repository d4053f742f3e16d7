// A client's connection to the daemon.
//
// The client binds its own end to a path before it connects; the path carries its process id and
// stays after the connection ended, until a process with the same id binds again. Both ends use the
// address length without the terminator: a peer that counts differently would name another file.
//
// Threads: any. Locks: none. Blocks: connecting while the daemon's queue is full, the pauses
// between attempts, the wait for an acknowledgement.
#include "client/tov_rpc_connect.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/tov_rpc_message.h"
#include "client/tov_rpc_stop.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_utils.h"

enum {
  TOV_CONNECT_RETRIES = 5,  // after the first attempt
  TOV_CONNECT_PAUSE_S = 1,
  TOV_ACK_WAITS = 5,
  TOV_ACK_WAIT_MS = 1000
};

socklen_t tov_rpc_address(sockaddr_un *at, const char *path) {
  *at = {};
  at->sun_family = AF_UNIX;
  const size_t length = strnlen(path, sizeof at->sun_path - 1);
  memcpy(at->sun_path, path, length);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

// Gives the client's end its path. Returns 0 or -1 with errno.
static int bind_own_end(int sd, const char *name) {
  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, name);
  unlink(at.sun_path);  // usually absent; if it cannot go, bind says why
  return bind(sd, reinterpret_cast<sockaddr *>(&at), length);
}

// Connects, patiently while the daemon is absent. Returns 0 or -1.
static int connect_daemon(int sd) {
  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, TOV_SOCKET_PATH);
  for (int retry = 0;; retry++) {
    if (connect(sd, reinterpret_cast<sockaddr *>(&at), length) == 0) return 0;
    TOV_DBG("%s: connect refused, wait and retry(sd:%d, retry:%d, err:%d,%s)\n", "tov_connect", sd,
            retry, errno, strerror(errno));
    const bool absent = errno == ENOENT || errno == ECONNREFUSED;
    if (!absent || retry >= TOV_CONNECT_RETRIES || tov_rpc_stopping()) return -1;
    safe_sleep(TOV_CONNECT_PAUSE_S);
  }
}

int tov_connect(const char *name) {
  tov_fd_t sd(tov_fd_above_streams(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)));
  if (sd.n < 0) {
    TOV_DBG("%s: socket fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  if (bind_own_end(sd.n, name) < 0) {
    TOV_DBG("%s: bind fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  if (connect_daemon(sd.n) < 0) {
    unlink(name);
    return -1;
  }
  return tov_fd_take(sd);
}

// Asks a socket for `events`. Returns poll's result with *revents; a failure is printed.
static int ask_socket(const char *caller, int sd, short events, int timeout_ms, short *revents) {
  pollfd asked = {.fd = sd, .events = events, .revents = 0};
  const int ready = poll(&asked, 1, timeout_ms);
  if (ready < 0) {
    TOV_DBG("%s: poll fail(ret:%d, err:%d,%s)\n", caller, ready, errno, strerror(errno));
  }
  *revents = asked.revents;
  return ready;
}

// Receives one message and drops it. Returns the receiver's result.
static int drop_message(int sd) {
  tov_msg_head_t *msg = nullptr;
  const int ret = tov_inner_recv_msg(sd, &msg);
  free(msg);
  return ret;
}

int tov_rpc_await_answer(int sd, bool *due) {
  *due = true;
  for (int waits = TOV_ACK_WAITS; waits > 0; waits--) {
    short revents = 0;
    const int ready = ask_socket("tov_wait_msg_ack_timeout", sd, POLLIN, TOV_ACK_WAIT_MS, &revents);
    if (ready < 0) return -1;
    if (ready == 0) continue;
    *due = false;
    if ((revents & POLLIN) == 0) return -1;
    return drop_message(sd);
  }
  return 0;  // silence is success: the request was taken, its receiver may be busy for long
}

int tov_wait_msg_ack_timeout(int sd) {
  bool due = false;
  return tov_rpc_await_answer(sd, &due);
}

int tov_check_socket(int sd) {
  short revents = 0;
  return ask_socket(__func__, sd, POLLIN | POLLOUT | POLLERR, 0, &revents) == 0 ? 0 : -1;
}
