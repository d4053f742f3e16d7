// The registration server: the thread that takes clients' requests.
//
// One epoll instance for the thread's life: a descriptor is registered when it is accepted and
// taken out before it is closed, so that a request costs the same however many clients are
// connected. Closing alone would not do. A child that another thread has just forked holds copies
// of all descriptors until it executes its program; until then the kernel would go on reporting the
// closed client, under a number that the next one may have by now. For the same reason a new client
// is accepted behind all other events of a pass. Events are level-triggered and each descriptor is
// asked for one request a pass, so a client that sends without pause cannot keep the others out.
//
// A peer that hangs up raises an input event too (its socket reads as ended), which makes an event
// without input a failure of our own machinery. The kernel marks a hang-up in two steps, though,
// and one that is looked at in between shows its error alone: so a client is looked at a second
// time.
//
// Thread: "tov_process_domain" alone owns everything here. It must never make a request to itself.
//
// Tested by: tests/module/core/server/server_test.cpp, tests/module/core/server/server_end_test.cpp
#include "core/server/server.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <span>

#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "core/server/clients.h"
#include "core/server/listener.h"
#include "core/server/request.h"
#include "core/server/result.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/priority.h"
#include "util/tov_sys.h"

enum {
  TOV_EVENT_NUM = TOV_CLIENT_NUM + 1,  // the listening socket has one too
  TOV_WAIT_MS = 10000                  // bounds how late `quit` is noticed without its event
};

// All zeros whenever it is waited for: what a wait has filled is cleared when it was served.
static epoll_event tov_ep_eset[TOV_EVENT_NUM];

namespace {

struct server_s {
  tov_fd_t listener;
  tov_fd_t ep;
};

}  // namespace

// ---- what is watched --------------------------------------------------------------------------

// A client's event says where in the table it stands; the other descriptors stand nowhere.
enum { NO_SLOT = -1 };

namespace {

struct source_s {
  int32_t fd;
  int32_t slot;
};
static_assert(sizeof(source_s) == sizeof(epoll_data_t));

}  // namespace

static source_s source_of(const epoll_event &event) {
  return std::bit_cast<source_s>(event.data);
}

static tov_server_result_e watch(const server_s &server, source_s source,
                                 tov_server_result_e failure) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data = std::bit_cast<epoll_data_t>(source);
  const int ret = epoll_ctl(server.ep.n, EPOLL_CTL_ADD, source.fd, &wanted);
  if (ret == 0) return TOV_SERVER_QUIT;
  const int err = errno;
  TOV_DBG("%s: epoll_ctl err(ep_fd:%d, fd:%d, ret:%d, err:%d)!\n", TOV_SERVER_THREAD, server.ep.n,
          source.fd, ret, err);
  errno = err;
  return failure;
}

static tov_server_result_e open_event_set(server_s *server) {
  server->ep = tov_fd_t(epoll_create1(EPOLL_CLOEXEC));
  if (server->ep.n < 0) {
    TOV_DBG("%s: epoll_create err(ret:%d, err:%d)!\n", TOV_SERVER_THREAD, server->ep.n, errno);
    return TOV_SERVER_EPOLL;
  }
  // Without it `quit` is seen when the wait is over.
  if (tov_quit_fd() >= 0) (void)watch(*server, {tov_quit_fd(), NO_SLOT}, TOV_SERVER_QUIT);
  return watch(*server, {server->listener.n, NO_SLOT}, TOV_SERVER_WATCH_LISTENER);
}

// ---- clients ----------------------------------------------------------------------------------

static void close_clients() {
  for (const int sd : tov_clients()) {
    if (sd >= 0) close(sd);
  }
  tov_clients_init();
}

static tov_server_result_e drop_client(const server_s &server, source_s client) {
  if (!tov_clients_remove(client.slot, client.fd)) {
    TOV_DBG("%s: logic err, clnt_sd:%d lost!\n", TOV_SERVER_THREAD, client.fd);
    return TOV_SERVER_LOST;
  }
  // It is registered, so this cannot fail.
  (void)epoll_ctl(server.ep.n, EPOLL_CTL_DEL, client.fd, nullptr);
  close(client.fd);
  return TOV_SERVER_QUIT;
}

static tov_server_result_e accept_client(const server_s &server) {
  tov_fd_t client(accept4(server.listener.n, nullptr, nullptr, SOCK_CLOEXEC));
  if (client.n < 0) {
    TOV_DBG("%s: accept fail: %s\n", TOV_SERVER_THREAD, strerror(errno));
    return errno == EINTR ? TOV_SERVER_QUIT : TOV_SERVER_ACCEPT;
  }
  const int slot = tov_clients_add(client.n);
  if (slot < 0) {
    TOV_DBG("%s: logic err, clnt_sd full, now_sd:%d!\n", TOV_SERVER_THREAD, client.n);
    return TOV_SERVER_FULL;
  }
  return watch(server, {tov_fd_take(client), slot}, TOV_SERVER_WATCH_CLIENT);
}

// ---- one pass ---------------------------------------------------------------------------------

static bool has_input_now(source_s source) {
  pollfd again{source.fd, POLLIN, 0};
  return source.slot != NO_SLOT && tov_sys_poll(&again, 1, 0) > 0 && (again.revents & POLLIN) != 0;
}

static bool has_input(const epoll_event &event) {
  if ((event.events & EPOLLIN) != 0 || has_input_now(source_of(event))) return true;
  errno = 0;  // what the event log names is to be this event's
  TOV_DBG("%s: event err: %s\n", TOV_SERVER_THREAD, strerror(errno));
  return false;
}

static tov_server_result_e serve_client(const server_s &server, source_s client) {
  return tov_recv_domain_msg(client.fd) == 0 ? TOV_SERVER_QUIT : drop_client(server, client);
}

static tov_server_result_e serve_events(const server_s &server,
                                        std::span<const epoll_event> events) {
  bool has_new_client = false;
  for (const epoll_event &event : events) {
    if (!has_input(event)) return TOV_SERVER_EVENT;
    const source_s source = source_of(event);
    if (source.fd == server.listener.n) {
      has_new_client = true;
    } else if (source.fd != tov_quit_fd()) {
      const tov_server_result_e res = serve_client(server, source);
      if (res != TOV_SERVER_QUIT) return res;
    }
  }
  errno = 0;
  return has_new_client ? accept_client(server) : TOV_SERVER_QUIT;
}

static tov_server_result_e run_pass(const server_s &server) {
  // Only a signal can make it fail (-1): the next pass waits again.
  const int ready = epoll_wait(server.ep.n, tov_ep_eset, 1 + tov_clients_count(), TOV_WAIT_MS);
  if (ready <= 0) return TOV_SERVER_QUIT;
  const std::span<epoll_event> events(tov_ep_eset, static_cast<size_t>(ready));
  const tov_server_result_e res = serve_events(server, events);
  const int err = errno;
  std::ranges::fill(events, epoll_event{});
  errno = err;
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
  server_s server;
  tov_server_result_e res = tov_server_listen(&server.listener);
  if (res == TOV_SERVER_QUIT) res = open_event_set(&server);
  while (res == TOV_SERVER_QUIT && tov_flag_get(quit) == 0)
    res = run_pass(server);
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
