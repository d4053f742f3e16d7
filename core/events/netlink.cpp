// The socket, its filter in the kernel, and the way from a datagram to an entry of the ring. An
// event is copied out of its datagram, where it stands unaligned; each length is checked before
// what it covers is read.
#include "core/events/netlink.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <iterator>

#include "core/events/tov_fifo.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "util/owner.h"
#include "util/priority.h"
#include "util/tov_sys.h"

static constexpr char thread_name[] = "tov_process_netlink";

enum {
  RECEIVE_SIZE = 1024,
  SOCKET_BUFFER_BYTES = 0x400000,
  RECEIVE_TIMEOUT_S = 5,
  RECEIVE_TIMEOUT_MS = RECEIVE_TIMEOUT_S * 1000,
  KERNEL_PORT_ID = 0,
};

namespace {

enum result_e {
  RESULT_PRIORITY = -1,
  RESULT_SOCKET = -2,
  RESULT_BIND = -3,
  RESULT_SUBSCRIBE = -4,
  RESULT_RECEIVE = -5,
};

}  // namespace

// ---- one event ------------------------------------------------------------------------------

void tov_send_fifo_cnmsg(uint32_t what, int pid, uint32_t exit_code) {
  if (kfifo_is_full(&tov_cnmsg_fifo)) {
    (void)tov_log_with_type(
        TOV_LOG_ERROR, "TOV: fifo is full,pid:%d %s action will be discard! exit_code=%d \n", pid,
        what == TOV_EVENT_EXEC ? "exec" : "exit", static_cast<int>(exit_code));
    return;
  }
  tov_cnmsg_data_t event{what, pid, exit_code};
  (void)__kfifo_in(&tov_cnmsg_fifo, &event, sizeof event);
  tov_cnmsg_fifo_wake();
}

void tov_dispatch_netlink_msg(const struct cn_msg *message) {
  // The data stands unaligned behind the header, and may be shorter than the newest kernel's.
  proc_event event{};
  const size_t length = message->len < sizeof event ? message->len : sizeof event;
  memcpy(&event, message->data, length);

  constexpr size_t exec_end =
      offsetof(proc_event, event_data) + sizeof(proc_event::event_data.exec);
  constexpr size_t exit_end = offsetof(proc_event, event_data) +
                              offsetof(decltype(proc_event::event_data.exit), exit_signal);
  switch (static_cast<uint32_t>(event.what)) {
    case TOV_EVENT_EXEC:
      if (length < exec_end) return;
      tov_send_fifo_cnmsg(TOV_EVENT_EXEC, event.event_data.exec.process_pid, 0);
      break;
    case TOV_EVENT_EXIT:
      if (length < exit_end) return;
      // A thread that ends is no process that ends.
      if (event.event_data.exit.process_pid != event.event_data.exit.process_tgid) return;
      tov_send_fifo_cnmsg(TOV_EVENT_EXIT, event.event_data.exit.process_pid,
                          event.event_data.exit.exit_code);
      break;
    default:
      break;
  }
}

// ---- one datagram ---------------------------------------------------------------------------

// Walks the netlink messages of a datagram; every length is checked before what it covers is read.
static void walk_messages(const char *data, size_t remaining) {
  while (remaining >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    memcpy(&header, data, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > remaining) return;
    if (header.nlmsg_type == NLMSG_ERROR || header.nlmsg_type == NLMSG_OVERRUN) return;

    if (header.nlmsg_type != NLMSG_NOOP) {
      const char *payload = data + NLMSG_HDRLEN;
      const size_t payload_length = header.nlmsg_len - NLMSG_HDRLEN;
      cn_msg message;
      if (payload_length >= sizeof message) {
        memcpy(&message, payload, sizeof message);
        if (message.len <= payload_length - sizeof message) {
          tov_dispatch_netlink_msg(reinterpret_cast<const cn_msg *>(payload));
        }
      }
      if (header.nlmsg_type == NLMSG_DONE) return;
    }
    const size_t advance = NLMSG_ALIGN(header.nlmsg_len);
    if (advance > remaining) return;
    data += advance;
    remaining -= advance;
  }
}

static bool is_fatal(int error) {
  return error == EBADF || error == ENOTSOCK || error == ENOTCONN || error == ECONNREFUSED;
}

// Receives one datagram. Returns 0, or -errno when there was none.
static int take_datagram(int sock, int flags) {
  alignas(nlmsghdr) char buffer[RECEIVE_SIZE];
  sockaddr_nl sender{};
  socklen_t sender_length = sizeof sender;
  const ssize_t length = tov_sys_recvfrom(sock, buffer, sizeof buffer, flags,
                                          reinterpret_cast<sockaddr *>(&sender), &sender_length);
  if (length < 0) return -errno;
  if (sender_length != sizeof sender) {
    TOV_DBG("bad address size reading netlink socket\n");
    return 0;
  }
  // Any process with the privilege may send to the group; only the kernel is believed.
  if (sender.nl_pid != KERNEL_PORT_ID || sender.nl_groups != CN_IDX_PROC) return 0;
  walk_messages(buffer, static_cast<size_t>(length));
  return 0;
}

// What tov_recv_netlink_msg() makes of a result of take_datagram().
static int judge(int res) {
  if (res == 0) return 0;
  TOV_DBG("%s: netlink recvfrom fail: %s\n", "tov_recv_netlink_msg", strerror(-res));
  errno = -res;
  return is_fatal(errno) ? -1 : 0;
}

int tov_recv_netlink_msg(int sock) {
  return judge(take_datagram(sock, 0));
}

// ---- the thread -----------------------------------------------------------------------------

// More than the system's limit where we are allowed to, else as much as we get: SO_RCVBUF alone is
// clamped without a word.
static void set_options(int sock) {
  int bytes = SOCKET_BUFFER_BYTES;
  if (tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) < 0 &&
      tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) < 0) {
    TOV_DBG("socket set recvbuffer error\n");
  }
  timeval timeout{RECEIVE_TIMEOUT_S, 0};  // bounds how late `quit` is noticed without its event
  if (tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
    TOV_DBG("socket set recv timeout error\n");
  }
}

// Lets the kernel drop what we would: forks, name changes and the ends of threads make up most of
// the connector's events, and each would wake a thread at priority 99. Whatever is not clearly one
// of those comes through and is judged here. Without the filter everything works, at that price.
static void filter_in_kernel(int sock) {
  // Byte offsets in a datagram; the program loads words as big-endian numbers.
  constexpr uint32_t type_at = offsetof(nlmsghdr, nlmsg_type);
  constexpr uint32_t idx_at = NLMSG_HDRLEN + offsetof(cn_msg, id.idx);
  constexpr uint32_t event_at = NLMSG_HDRLEN + sizeof(cn_msg);
  constexpr uint32_t what_at = event_at + offsetof(proc_event, what);
  constexpr uint32_t pid_at = event_at + offsetof(proc_event, event_data.exit.process_pid);
  constexpr uint32_t tgid_at = event_at + offsetof(proc_event, event_data.exit.process_tgid);
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, type_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(NLMSG_DONE), 0, 9),  // else take
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, idx_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(CN_IDX_PROC), 0, 7),  // else take
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, what_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(TOV_EVENT_EXEC), 5, 0),  // take
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(TOV_EVENT_EXIT), 0, 5),  // else drop
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, pid_at),
      BPF_STMT(BPF_MISC | BPF_TAX, 0),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, tgid_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 1),  // a process, else drop
      BPF_STMT(BPF_RET | BPF_K, RECEIVE_SIZE),       // take
      BPF_STMT(BPF_RET | BPF_K, 0),                  // drop
  };
  sock_fprog attached{static_cast<unsigned short>(std::size(program)), program};
  (void)tov_sys_setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached);
}

static bool subscribe(int sock, uint32_t port_id) {
  constexpr uint32_t listen = PROC_CN_MCAST_LISTEN;
  constexpr size_t length = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof listen;
  static_assert(length == 40);
  char buffer[RECEIVE_SIZE] = {};
  nlmsghdr header{};
  header.nlmsg_len = length;
  header.nlmsg_type = NLMSG_DONE;
  header.nlmsg_pid = port_id;
  cn_msg message{};
  message.id.idx = CN_IDX_PROC;
  message.id.val = CN_VAL_PROC;
  message.len = sizeof listen;
  memcpy(buffer, &header, sizeof header);
  memcpy(buffer + NLMSG_HDRLEN, &message, sizeof message);
  memcpy(buffer + NLMSG_HDRLEN + sizeof message, &listen, sizeof listen);
  return tov_sys_send(sock, buffer, length, 0) == static_cast<ssize_t>(length);
}

// Sets the thread and its socket up. Returns 0, or the result code of the step that failed.
static int open_connector(tov_fd_t *sock) {
  errno = tov_set_priority(TOV_RT_PRIORITY);
  if (errno != 0) return RESULT_PRIORITY;
  *sock = tov_fd_t(tov_sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
  if (sock->n < 0) return RESULT_SOCKET;
  set_options(sock->n);
  filter_in_kernel(sock->n);
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_groups = CN_IDX_PROC;
  own.nl_pid = static_cast<uint32_t>(tov_sys_getpid());
  if (tov_sys_bind(sock->n, reinterpret_cast<sockaddr *>(&own), sizeof own) < 0) return RESULT_BIND;
  return subscribe(sock->n, own.nl_pid) ? 0 : RESULT_SUBSCRIBE;
}

// The same as tov_recv_netlink_msg() for a thread that has to hear `quit`. Nothing is waited for
// before the socket is empty: a storm costs one call a datagram.
static int receive_or_hear(int sock) {
  if (tov_quit_fd() < 0) return tov_recv_netlink_msg(sock);
  const int res = take_datagram(sock, MSG_DONTWAIT);
  if (res != -EAGAIN) return judge(res);
  pollfd waited[] = {{sock, POLLIN, 0}, {tov_quit_fd(), POLLIN, 0}};
  const int ready = tov_sys_poll(waited, std::size(waited), RECEIVE_TIMEOUT_MS);
  if (ready < 0) return tov_recv_netlink_msg(sock);  // no memory: a bounded wait all the same
  return ready == 0 ? judge(-EAGAIN) : 0;            // silence is told about
}

void *tov_process_netlink(void *) {
  if (tov_core_thread_name(thread_name) < 0) {
    TOV_DBG("%s: %s\n", thread_name, strerror(errno));
    return nullptr;
  }
  tov_fd_t sock;
  errno = 0;
  int result = open_connector(&sock);
  while (result == 0 && !tov_flag_get(quit)) {
    if (receive_or_hear(sock.n) < 0) result = RESULT_RECEIVE;
  }
  const int saved_errno = errno;
  sock.reset();
  tov_core_thread_end(thread_name, result, saved_errno);
  return nullptr;
}
