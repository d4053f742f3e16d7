// The registration server: the thread that takes clients' requests.
//
// The table of client descriptors is the record of who is connected; the epoll instance is made
// anew from it in every pass. That costs a little for each connected client and saves all
// bookkeeping between two records: an event can never belong to a descriptor that was closed and
// given out again.
// Events are level-triggered and each descriptor is asked for one request a pass, so a client that
// sends without pause cannot keep the others out.
//
// A peer that hangs up raises an input event too (its socket reads as ended), which makes an event
// without input a failure of our own machinery.
//
// Thread: "tov_process_domain" alone owns everything here. It must never make a request to itself.
// Losses: a request whose acknowledgement cannot be sent at once is not carried out.
#include "core/server/server.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "client/requests/table.h"
#include "client/tov_rpc.h"
#include "core/run/flags.h"
#include "core/run/thread.h"
#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "util/owner.h"
#include "util/priority.h"

static constexpr const char *THREAD_NAME = "tov_process_domain";
static constexpr mode_t SOCKET_MODE = 0777;  // every user's processes may register

enum {
  TOV_LISTEN_BACKLOG = 2048,
  TOV_EVENT_NUM = TOV_CLIENT_NUM + 1,  // the listening socket has one too
  TOV_WAIT_MS = 10000,                 // bounds how late `quit` is noticed
  FD_PATH_SIZE = 32                    // "/proc/self/fd/%d"
};

// Why the thread ends; the numbers stand in the event log.
enum result_e {
  RES_QUIT = 0,
  RES_SOCKET = -1,
  RES_BIND = -2,
  RES_LISTEN = -3,
  RES_EPOLL = -4,
  RES_WATCH_LISTENER = -5,
  RES_WATCH_CLIENT = -6,
  RES_EVENT = -7,
  RES_ACCEPT = -8,
  RES_FULL = -9,
  RES_LOST = -10
};

static epoll_event tov_ep_eset[TOV_EVENT_NUM];

struct free_received_s {
  void operator()(tov_msg_head_t *msg) const { free(msg); }
};
using received_t = std::unique_ptr<tov_msg_head_t, free_received_s>;

// ---- one request ------------------------------------------------------------------------------

// What comes of a type that has no row.
static void print_unknown(int type) {
  TOV_DBG("recv unknown type msg %d\n", type);
}

int tov_rsp_domain_msg(int sd, tov_msg_head_t *msg) {
  const int type = static_cast<int>(msg->type);
  const tov_request_t *request = tov_request_of(type);
  if (request == nullptr) {
    print_unknown(type);
    return -1;
  }
  if (!request->acknowledged) return 0;
  tov_msg_head_t answer{};
  const int ret = tov_inner_send_msg(sd, &answer);
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_send_msg err(ret:%d, sk:%d, type:%d)!\n", __func__, ret, sd, type);
  }
  return ret;
}

// A type without a row. The acknowledgement refuses it first, so only another caller of the
// dispatch can come here.
static int refuse_type(int type) {
  print_unknown(type);
  tov_log_with_type(TOV_LOG_ERROR, "domain recv unknown type[%d] msg.\n", type);
  return -1;
}

// Says what came of a request. Nobody else hears of it: the client was acknowledged before.
static void print_result(int type, int err) {
  TOV_DBG("%s type:%d err:%d\n", "tov_dispatch_domain_msg", type, err);
}

void tov_dispatch_domain_msg(int type, char *pathname, [[maybe_unused]] int sd, void *data) {
  const tov_request_t *request = tov_request_of(type);
  print_result(type, request != nullptr ? request->handle(pathname, data) : refuse_type(type));
}

int tov_recv_domain_msg(int sd) {
  tov_msg_head_t *received = nullptr;
  int ret = tov_inner_recv_msg(sd, &received);
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_recv_msg err(ret:%d, sk:%d)!\n", __func__, ret, sd);
    return -1;
  }
  const received_t msg(received);
  ret = tov_rsp_domain_msg(sd, msg.get());
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_rsp_msg err(ret:%d, sk:%d)!\n", __func__, ret, sd);
    return -1;
  }
  // A record that came in part was acknowledged like any other and is refused here, before a
  // handler could read what was not sent.
  const int type = static_cast<int>(msg->type);
  if (tov_msg_check_payload(type, msg->len) == 0) {
    tov_dispatch_domain_msg(type, msg->pathname, sd, msg->data);
  } else {
    print_result(type, -1);
  }
  return 0;
}

// ---- clients ----------------------------------------------------------------------------------

static void close_clients() {
  for (const int sd : tov_clients()) {
    if (sd >= 0) close(sd);
  }
  tov_clients_init();
}

static int drop_client(int sd) {
  if (!tov_clients_remove(sd)) {
    TOV_DBG("%s: logic err, clnt_sd:%d lost!\n", THREAD_NAME, sd);
    return RES_LOST;
  }
  close(sd);
  return RES_QUIT;
}

// ---- one pass ---------------------------------------------------------------------------------

// The functions below return RES_QUIT to go on, or the result that ends the thread, with errno
// (which diagnostics and owners keep).

static int accept_client(int listener) {
  tov_fd_t client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (client.n < 0) {
    TOV_DBG("%s: accept fail: %s\n", THREAD_NAME, strerror(errno));
    return errno == EINTR ? RES_QUIT : RES_ACCEPT;
  }
  if (!tov_clients_add(client.n)) {
    TOV_DBG("%s: logic err, clnt_sd full, now_sd:%d!\n", THREAD_NAME, client.n);
    return RES_FULL;
  }
  (void)tov_fd_take(client);  // the table's from here on
  return RES_QUIT;
}

static int watch(int ep_fd, int fd, int failure) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data.fd = fd;
  const int ret = epoll_ctl(ep_fd, EPOLL_CTL_ADD, fd, &wanted);
  if (ret == 0) return RES_QUIT;
  const int err = errno;
  TOV_DBG("%s: epoll_ctl err(ep_fd:%d, fd:%d, ret:%d, err:%d)!\n", THREAD_NAME, ep_fd, fd, ret,
          err);
  errno = err;
  return failure;
}

// Registers the listening socket and every client. `count` receives how many descriptors that is.
static int watch_all(int ep_fd, int listener, int *count) {
  int res = watch(ep_fd, listener, RES_WATCH_LISTENER);
  *count = 1;
  for (const int sd : tov_clients()) {
    if (res != RES_QUIT) break;
    if (sd < 0) continue;
    res = watch(ep_fd, sd, RES_WATCH_CLIENT);
    ++*count;
  }
  return res;
}

static int serve_event(const epoll_event &event, int listener) {
  errno = 0;  // what the event log names is to be this event's
  if ((event.events & EPOLLIN) == 0) {
    TOV_DBG("%s: event err: %s\n", THREAD_NAME, strerror(errno));
    return RES_EVENT;
  }
  if (event.data.fd == listener) return accept_client(listener);
  if (tov_recv_domain_msg(event.data.fd) == 0) return RES_QUIT;
  return drop_client(event.data.fd);
}

static int run_pass(int listener) {
  const tov_fd_t ep(epoll_create1(EPOLL_CLOEXEC));
  if (ep.n < 0) {
    TOV_DBG("%s: epoll_create err(ret:%d, err:%d)!\n", THREAD_NAME, ep.n, errno);
    return RES_EPOLL;
  }
  int count = 0;
  int res = watch_all(ep.n, listener, &count);
  if (res != RES_QUIT) return res;

  std::fill_n(tov_ep_eset, count, epoll_event{});
  // Only a signal can make it fail (-1): the next pass waits again.
  const int ready = epoll_wait(ep.n, tov_ep_eset, count, TOV_WAIT_MS);
  for (int i = 0; i < ready && res == RES_QUIT; i++)
    res = serve_event(tov_ep_eset[i], listener);
  return res;
}

// ---- the thread -------------------------------------------------------------------------------

// Prints which step of the set-up failed. Returns `res`.
static int setup_failed(const char *step, int res) {
  TOV_DBG("%s: %s fail: %s\n", THREAD_NAME, step, strerror(errno));
  return res;
}

// Lets everybody connect; bind() left what the umask allows. The directory is open to strangers,
// who may have put something else in the socket's place since: a path would lead to that, and
// through a link anywhere. So what is there is opened first and changed only if it is a socket.
static void open_to_everybody() {
  const tov_fd_t found(open(TOV_SOCKET_PATH, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (found.n < 0 || fstat(found.n, &status) < 0 || !S_ISSOCK(status.st_mode)) return;
  char self[FD_PATH_SIZE];  // fchmod() refuses a descriptor of this kind
  (void)snprintf(self, sizeof self, "/proc/self/fd/%d", found.n);
  (void)chmod(self, SOCKET_MODE);
}

// Makes the listening socket. What stands at its path, usually the socket of an earlier daemon, is
// removed first.
static int open_listener(tov_fd_t *listener) {
  *listener = tov_fd_t(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (listener->n < 0) return setup_failed("socket sk_unix", RES_SOCKET);

  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, TOV_SOCKET_PATH);
  unlink(TOV_SOCKET_PATH);
  if (bind(listener->n, reinterpret_cast<sockaddr *>(&at), length) < 0) {
    return setup_failed("bind sk_unix", RES_BIND);
  }
  open_to_everybody();
  if (listen(listener->n, TOV_LISTEN_BACKLOG) < 0)
    return setup_failed("listen sk_unix", RES_LISTEN);
  return RES_QUIT;
}

// Sets up and serves until `quit` is set or something failed. Returns why, with errno.
static int serve() {
  const int err = tov_set_priority(TOV_RT_PRIORITY);
  if (err != 0) {
    errno = err;
    return setup_failed("set priority", RES_SOCKET);
  }
  tov_fd_t listener;
  int res = open_listener(&listener);
  while (res == RES_QUIT && tov_flag_get(quit) == 0)
    res = run_pass(listener.n);
  return res;
}

void *tov_process_domain(void * /*arg*/) {
  if (prctl(PR_SET_NAME, THREAD_NAME) < 0) {
    TOV_DBG("%s: %s\n", THREAD_NAME, strerror(errno));
    return nullptr;
  }
  tov_clients_init();
  const int res = serve();
  const int err = res == RES_QUIT ? 0 : errno;
  close_clients();
  tov_core_thread_end(THREAD_NAME, res, err);
  return nullptr;
}
