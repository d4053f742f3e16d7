// One request of a client process to the daemon.
//
// Why a connection is kept although tov_check_socket() rejects nearly every one: an acknowledgement
// that no call waited for may lie on it, and the next request would take it for its own. Keeping
// the socket still has a use: as long as it is open, the daemon can answer the last request, and it
// carries out only what it can answer. A connection that is still owed an answer when it is to be
// dropped (the call did not wait, a signal ended the wait, or the daemon was silent for too long)
// is therefore put away, see tov_rpc_overdue.h. All connections are bound to the same path in turn.
//
// Threads: any; `tov_rpc_lock` is held for the whole of a request, connecting and waiting included,
// which is what keeps a request and its acknowledgement together.
#include "client/tov_rpc.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "alive/tov_sys_alive.h"
#include "client/tov_pidfile.h"
#include "client/tov_rpc_connect.h"
#include "client/tov_rpc_fork.h"
#include "client/tov_rpc_message.h"
#include "client/tov_rpc_overdue.h"
#include "client/tov_rpc_stop.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_utils.h"

enum { TOV_CLIENT_PATH_SIZE = 32, TOV_PERSIST_ATTEMPTS = 60, TOV_PERSIST_PAUSE_S = 1 };

tov_mutex_t tov_rpc_lock = PTHREAD_MUTEX_INITIALIZER;
int tov_rpc_sd = -1;
std::atomic<tov_rpc_stop_fn> tov_rpc_stop_asked{nullptr};

// The daemon has yet to answer the last request on tov_rpc_sd.
static bool answer_is_due TOV_GUARDED_BY(tov_rpc_lock) = false;

using message_t = tov_block_t<tov_msg_head_t>;

// ---- fork -----------------------------------------------------------------------------------

// Runs in the child, which has this one thread: what other threads of the parent held is put back
// to its first state, because their copies here will never go on. Not analysed: the lock that
// guards this is one of them, and no other thread is there to guard it from.
static void start_afresh_in_child() TOV_NO_THREAD_SAFETY {
  const tov_errno_keeper_s keep;
  pthread_mutex_init(&tov_rpc_lock, nullptr);
  if (tov_rpc_sd >= 0) close(std::exchange(tov_rpc_sd, -1));
  answer_is_due = false;
  tov_rpc_overdue_forget();
  tov_sys_alive_renew_lock();
  tov_pidfile_forget_locks();
}

static void install_fork_handler() {
  // Without memory for the handler children keep the parent's state; no caller could help it.
  (void)pthread_atfork(nullptr, nullptr, start_afresh_in_child);
}

void tov_rpc_guard_forks() {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, install_fork_handler);
}

// ---- the kept connection -----------------------------------------------------------------------

// Ends the connection, at once or when its answer has come.
static void drop_connection() TOV_REQUIRES(tov_rpc_lock) {
  const bool due = std::exchange(answer_is_due, false);
  tov_fd_t sd(std::exchange(tov_rpc_sd, -1));
  if (due && sd.n >= 0) tov_rpc_overdue_add(tov_fd_take(sd));
}

// Drops a kept connection that may not serve again.
static void drop_used_connection() TOV_REQUIRES(tov_rpc_lock) {
  if (tov_rpc_sd >= 0 && tov_check_socket(tov_rpc_sd) != 0) drop_connection();
}

// Returns 0 with a connection in tov_rpc_sd, or -1.
static int make_connection() TOV_REQUIRES(tov_rpc_lock) {
  if (tov_rpc_sd >= 0) return 0;
  char own_path[TOV_CLIENT_PATH_SIZE];
  snprintf(own_path, sizeof own_path, TOV_CLIENT_SOCKET_FMT, getpid());
  tov_rpc_sd = tov_connect(own_path);
  return tov_rpc_sd < 0 ? -1 : 0;
}

// Sends, and waits for the acknowledgement where one is wanted.
static int exchange_message(tov_msg_head_t *msg, bool need_ack) TOV_REQUIRES(tov_rpc_lock) {
  int ret = tov_inner_send_msg(tov_rpc_sd, msg);
  if (ret != 0) {
    TOV_DBG("%s: send fail(ret:%d, err:%d,%s)\n", "tov_rpc", ret, errno, strerror(errno));
    drop_connection();
    return ret;
  }
  answer_is_due = tov_msg_is_acknowledged(msg->type);
  if (!need_ack) return 0;

  ret = tov_rpc_await_answer(tov_rpc_sd, &answer_is_due);
  if (ret != 0) {
    TOV_DBG("%s: recv ack err(ret:%d, err:%d,%s)\n", "tov_rpc", ret, errno, strerror(errno));
    drop_connection();
  }
  return ret;
}

// ---- requests ---------------------------------------------------------------------------------

// The message as it will travel, null without memory.
static message_t build_message(TOV_MSG_TYPE type, const char *path, const void *data,
                               size_t datalen) {
  message_t msg(static_cast<tov_msg_head_t *>(calloc(1, TOV_MSG_HEAD_SIZE + datalen)));
  if (msg == nullptr) return msg;
  msg->type = type;
  msg->len = static_cast<int32_t>(datalen);
  if (path != nullptr) memcpy(msg->pathname, path, strnlen(path, sizeof msg->pathname - 1));
  if (datalen != 0) memcpy(msg->data, data, datalen);
  return msg;
}

int tov_rpc(TOV_MSG_TYPE type, char *path, void *data, int datalen, bool need_ack,
            bool allow_tov_exit) {
  if ((data == nullptr && datalen != 0) || datalen < 0) {
    TOV_DBG("%s: argument err!\n", __func__);
    return -1;
  }
  const message_t msg = build_message(type, path, data, static_cast<size_t>(datalen));
  if (msg == nullptr) {
    TOV_DBG("%s: malloc fail: %s\n", __func__, strerror(errno));
    return -1;
  }

  const tov_rpc_call_t call;
  const tov_lock_guard_t hold(tov_rpc_lock);
  tov_rpc_overdue_look();
  drop_used_connection();
  if (make_connection() != 0) {
    const int ret = allow_tov_exit ? 0 : -1;
    TOV_DBG("%s: connect fail(ret:%d)\n", __func__, ret);
    return ret;
  }
  const int ret = exchange_message(msg.get(), need_ack);
  tov_rpc_overdue_look();  // the server works in turn: what was asked before is answered by now
  return ret;
}

int tov_rpc_persist(TOV_MSG_TYPE type, void *data, int datalen) {
  int ret = -1;
  for (int attempt = 1;; attempt++) {
    ret = tov_rpc(type, nullptr, data, datalen, true, false);
    if (ret >= 0 || attempt >= TOV_PERSIST_ATTEMPTS || tov_rpc_stopping()) return ret;
    safe_sleep(TOV_PERSIST_PAUSE_S);
  }
}
