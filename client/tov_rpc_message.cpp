// Sending and receiving of one framed message.
//
// Receiving looks twice: a peek at the head, which together with MSG_TRUNC also tells how long the
// packet really is, and then the read of the whole. The peek is what makes a hostile `len`
// harmless: nothing is allocated for bytes that did not come, so the memory that one packet can
// cost is bounded by what a local socket lets through. malloc() is called plainly, because the
// server has one thread for all its clients and must not wait for memory on behalf of one.
//
// Threads: any, one at a time for each socket. Locks: none.
// Losses: what lies in a packet behind the announced length.
#include "client/tov_rpc_message.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "client/tov_rpc_stop.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_utils.h"

// Callers may run at real-time priority; without a pause they would take the processor from those
// who could free memory.
enum { TOV_RESEND_PAUSE_US = 50 };

// True when a send that failed with `err` is to be made again; pauses first where that helps.
static bool send_again(int err) {
  if (err == EINTR) return true;
  if (err != ENOBUFS && err != ENOMEM) return false;
  if (tov_rpc_stopping()) return false;
  safe_usleep(TOV_RESEND_PAUSE_US);
  return true;
}

int tov_inner_send_msg(int sd, tov_msg_head_t *msg) {
  if (sd < 0 || msg == nullptr || msg->len < 0) {
    TOV_DBG("%s: argument err(sd:%d, msg:%p)!\n", __func__, sd, static_cast<void *>(msg));
    return -1;
  }
  TOV_DBG("%s: send msg(sd:%d, msg_type:%d, msg_len:%d)!\n", __func__, sd,
          static_cast<int>(msg->type), msg->len);

  const size_t size = TOV_MSG_HEAD_SIZE + static_cast<size_t>(msg->len);
  ssize_t sent = 0;
  do {
    errno = 0;
    sent = send(sd, msg, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && send_again(errno));
  if (sent == static_cast<ssize_t>(size)) return 0;

  TOV_DBG("%s: send msg err(tid:%d, sd:%d, msg_type:%d, msg_len:%d, ret:%d, err:%d, %s)!\n",
          __func__, gettid(), sd, static_cast<int>(msg->type), msg->len, static_cast<int>(sent),
          errno, strerror(errno));
  return -1;
}

// Copies the head of the next packet out of the queue's front and leaves the packet there.
// Returns the packet's whole length, 0 at the end of the connection, or -1 with errno.
static ssize_t peek_head(int sd, tov_msg_head_t *head) {
  for (;;) {
    errno = 0;  // the diagnostics name it even where a short count is the trouble
    const ssize_t length = recv(sd, head, TOV_MSG_HEAD_SIZE, MSG_PEEK | MSG_TRUNC);
    if (length >= 0 || errno != EINTR) return length;
    TOV_DBG("%s: recv peek broken(ret:%d, err:%d,%s)!\n", "tov_inner_recv_msg",
            static_cast<int>(length), errno, strerror(errno));
  }
}

// Takes a packet off the queue. Returns how much of it was stored, or -1 with errno.
static ssize_t take_packet(int sd, void *buf, size_t size) {
  for (;;) {
    errno = 0;
    const ssize_t length = recv(sd, buf, size, 0);
    if (length >= 0 || errno != EINTR) return length;
    TOV_DBG("%s: recv broken(ret:%d, err:%d,%s)!\n", "tov_inner_recv_msg", static_cast<int>(length),
            errno, strerror(errno));
  }
}

// Prints why the packet itself was not taken. Always -1.
static int refuse_packet(ssize_t ret) {
  TOV_DBG("%s: recv err(ret:%d, err:%d,%s)!\n", "tov_inner_recv_msg", static_cast<int>(ret), errno,
          strerror(errno));
  return -1;
}

int tov_inner_recv_msg(int sd, tov_msg_head_t **msg) {
  if (sd < 0 || msg == nullptr) {
    TOV_DBG("%s: argument err(sd:%d, msg:%p)!\n", __func__, sd, static_cast<void *>(msg));
    return -1;
  }
  tov_msg_head_t head{};
  const ssize_t length = peek_head(sd, &head);
  if (length < TOV_MSG_HEAD_SIZE) {
    TOV_DBG("%s: recv peek err(ret:%d, err:%d,%s)!\n", __func__, static_cast<int>(length), errno,
            strerror(errno));
    return -1;
  }
  if (head.len < 0) {
    TOV_DBG("recv domain msg with len=%d\r\n", head.len);
    return -1;
  }
  const size_t size = TOV_MSG_HEAD_SIZE + static_cast<size_t>(head.len);
  if (static_cast<size_t>(length) < size) return refuse_packet(length);

  errno = 0;
  tov_block_t<tov_msg_head_t> whole(static_cast<tov_msg_head_t *>(malloc(size)));
  if (whole == nullptr) return refuse_packet(-1);
  const ssize_t taken = take_packet(sd, whole.get(), size);
  if (taken != static_cast<ssize_t>(size)) return refuse_packet(taken);
  *msg = whole.release();
  return 0;
}
