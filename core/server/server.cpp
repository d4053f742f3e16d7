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
#include "core/server/server.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "core/run/flags.h"
#include "core/run/thread.h"
#include "core/server/clients.h"
#include "core/server/listener.h"
#include "core/server/request.h"
#include "core/server/result.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/priority.h"

enum {
  TOV_EVENT_NUM = TOV_CLIENT_NUM + 1,  // the listening socket has one too
  TOV_WAIT_MS = 10000                  // bounds how late `quit` is noticed
};

static epoll_event tov_ep_eset[TOV_EVENT_NUM];

// ---- clients ----------------------------------------------------------------------------------

static void close_clients() {
  for (const int sd : tov_clients()) {
    if (sd >= 0) close(sd);
  }
  tov_clients_init();
}

static tov_server_result_e drop_client(int sd) {
  if (!tov_clients_remove(sd)) {
    TOV_DBG("%s: logic err, clnt_sd:%d lost!\n", TOV_SERVER_THREAD, sd);
    return TOV_SERVER_LOST;
  }
  close(sd);
  return TOV_SERVER_QUIT;
}

// ---- one pass ---------------------------------------------------------------------------------

static tov_server_result_e accept_client(int listener) {
  tov_fd_t client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (client.n < 0) {
    TOV_DBG("%s: accept fail: %s\n", TOV_SERVER_THREAD, strerror(errno));
    return errno == EINTR ? TOV_SERVER_QUIT : TOV_SERVER_ACCEPT;
  }
  if (!tov_clients_add(client.n)) {
    TOV_DBG("%s: logic err, clnt_sd full, now_sd:%d!\n", TOV_SERVER_THREAD, client.n);
    return TOV_SERVER_FULL;
  }
  (void)tov_fd_take(client);  // the table's from here on
  return TOV_SERVER_QUIT;
}

static tov_server_result_e watch(int ep_fd, int fd, tov_server_result_e failure) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data.fd = fd;
  const int ret = epoll_ctl(ep_fd, EPOLL_CTL_ADD, fd, &wanted);
  if (ret == 0) return TOV_SERVER_QUIT;
  const int err = errno;
  TOV_DBG("%s: epoll_ctl err(ep_fd:%d, fd:%d, ret:%d, err:%d)!\n", TOV_SERVER_THREAD, ep_fd, fd,
          ret, err);
  errno = err;
  return failure;
}

// Registers the listening socket and every client. `count` receives how many descriptors that is.
static tov_server_result_e watch_all(int ep_fd, int listener, int *count) {
  tov_server_result_e res = watch(ep_fd, listener, TOV_SERVER_WATCH_LISTENER);
  *count = 1;
  for (const int sd : tov_clients()) {
    if (res != TOV_SERVER_QUIT) break;
    if (sd < 0) continue;
    res = watch(ep_fd, sd, TOV_SERVER_WATCH_CLIENT);
    ++*count;
  }
  return res;
}

static tov_server_result_e serve_event(const epoll_event &event, int listener) {
  errno = 0;  // what the event log names is to be this event's
  if ((event.events & EPOLLIN) == 0) {
    TOV_DBG("%s: event err: %s\n", TOV_SERVER_THREAD, strerror(errno));
    return TOV_SERVER_EVENT;
  }
  if (event.data.fd == listener) return accept_client(listener);
  if (tov_recv_domain_msg(event.data.fd) == 0) return TOV_SERVER_QUIT;
  return drop_client(event.data.fd);
}

static tov_server_result_e run_pass(int listener) {
  const tov_fd_t ep(epoll_create1(EPOLL_CLOEXEC));
  if (ep.n < 0) {
    TOV_DBG("%s: epoll_create err(ret:%d, err:%d)!\n", TOV_SERVER_THREAD, ep.n, errno);
    return TOV_SERVER_EPOLL;
  }
  int count = 0;
  tov_server_result_e res = watch_all(ep.n, listener, &count);
  if (res != TOV_SERVER_QUIT) return res;

  std::fill_n(tov_ep_eset, count, epoll_event{});
  // Only a signal can make it fail (-1): the next pass waits again.
  const int ready = epoll_wait(ep.n, tov_ep_eset, count, TOV_WAIT_MS);
  for (int i = 0; i < ready && res == TOV_SERVER_QUIT; i++)
    res = serve_event(tov_ep_eset[i], listener);
  return res;
}

// ---- the thread -------------------------------------------------------------------------------

// Sets up and serves until `quit` is set or something failed. Returns why, with errno.
static tov_server_result_e serve() {
  const int err = tov_set_priority(TOV_RT_PRIORITY);
  if (err != 0) {
    errno = err;
    TOV_DBG("%s: set priority fail: %s\n", TOV_SERVER_THREAD, strerror(err));
    return TOV_SERVER_SOCKET;
  }
  tov_fd_t listener;
  tov_server_result_e res = tov_server_listen(&listener);
  while (res == TOV_SERVER_QUIT && tov_flag_get(quit) == 0)
    res = run_pass(listener.n);
  return res;
}

void *tov_process_domain(void * /*arg*/) {
  if (prctl(PR_SET_NAME, TOV_SERVER_THREAD) < 0) {
    TOV_DBG("%s: %s\n", TOV_SERVER_THREAD, strerror(errno));
    return nullptr;
  }
  tov_clients_init();
  const tov_server_result_e res = serve();
  const int err = res == TOV_SERVER_QUIT ? 0 : errno;
  close_clients();
  tov_core_thread_end(TOV_SERVER_THREAD, res, err);
  return nullptr;
}
