// Socket options, the filter, and the subscription; byte offsets of a datagram are those of
// nlmsghdr, cn_msg and proc_event, one behind the other.
//
// Tested by: tests/unit/core/events/connector_test.cpp,
// tests/module/core/events/connector_test.cpp (the kernel's own)
#include "core/events/connector.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_sys.h"

enum {
  SOCKET_BUFFER_BYTES = 0x400000,
  TAKE_BYTES = TOV_CONNECTOR_DATAGRAM_MAX,  // of a datagram that is let through: all
  DROP_BYTES = 0,
  KERNEL_PORT_ID = 0,
};

// ---- options --------------------------------------------------------------------------------

// More than the system's limit where we are allowed to, else as much as we get: SO_RCVBUF alone is
// clamped without a word.
static bool set_buffer(int sock) {
  int bytes = SOCKET_BUFFER_BYTES;
  return tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0 ||
         tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0;
}

static void set_options(int sock) {
  if (!set_buffer(sock)) TOV_DBG("socket set recvbuffer error\n");
  timeval timeout{TOV_CONNECTOR_TIMEOUT_S, 0};  // bounds how late `quit` is noticed
  if (tov_sys_setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
    TOV_DBG("socket set recv timeout error\n");
  }
}

// Lets through what is of interest, or (not `of_interest`) the rest; executions belong to the one
// or to the other. What is not clearly an event counts as of interest and is judged by the reader.
// Returns whether the kernel has taken it: it replaces an earlier one in one step.
static bool filter_in_kernel(int sock, bool of_interest, bool executions) {
  // The program loads words as big-endian numbers.
  constexpr uint32_t type_at = offsetof(nlmsghdr, nlmsg_type);
  constexpr uint32_t idx_at = NLMSG_HDRLEN + offsetof(cn_msg, id.idx);
  constexpr uint32_t what_at = NLMSG_HDRLEN + sizeof(cn_msg) + offsetof(proc_event, what);
  constexpr uint32_t none = proc_event::PROC_EVENT_NONE;
  const uint32_t taken = of_interest ? TAKE_BYTES : DROP_BYTES;
  const uint32_t dropped = of_interest ? DROP_BYTES : TAKE_BYTES;
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, type_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(NLMSG_DONE), 0, 6),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, idx_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(CN_IDX_PROC), 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, what_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(TOV_EVENT_EXEC), 3, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(TOV_EVENT_EXIT), 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(none), 0, 2),
      BPF_STMT(BPF_RET | BPF_K, taken),
      BPF_STMT(BPF_RET | BPF_K, executions ? TAKE_BYTES : DROP_BYTES),
      BPF_STMT(BPF_RET | BPF_K, dropped),
  };
  sock_fprog attached{static_cast<unsigned short>(std::size(program)), program};
  return tov_sys_setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached) == 0;
}

// ---- sockets --------------------------------------------------------------------------------

static tov_fd_t new_socket() {
  return tov_fd_t(tov_sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
}

// Joins the group. `port_id` 0: the kernel chooses one.
static bool join(int sock, uint32_t port_id) {
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_groups = CN_IDX_PROC;
  own.nl_pid = port_id;
  return tov_sys_bind(sock, reinterpret_cast<sockaddr *>(&own), sizeof own) == 0;
}

// The socket for what is not of interest, or none.
static tov_fd_t open_others() {
  tov_fd_t sock = new_socket();
  if (sock.n < 0) return sock;
  (void)set_buffer(sock.n);  // a small one only overflows earlier
  if (!filter_in_kernel(sock.n, false, false) || !join(sock.n, 0)) sock.reset();
  return sock;
}

static bool subscribe(int sock, uint32_t port_id) {
  constexpr uint32_t listen = PROC_CN_MCAST_LISTEN;
  constexpr size_t length = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof listen;
  static_assert(length == 40);
  char buffer[length] = {};
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

int tov_connector_open(tov_connector_t *connector) {
  connector->events.reset();  // its port is the one that is wanted again
  connector->others.reset();
  connector->is_complete = connector->hears_executions = true;
  connector->events = new_socket();
  const int sock = connector->events.n;
  if (sock < 0) return TOV_CONNECTOR_NO_SOCKET;
  set_options(sock);
  const bool is_filtered = filter_in_kernel(sock, true, true);
  const auto port_id = static_cast<uint32_t>(tov_sys_getpid());
  if (!join(sock, port_id)) return TOV_CONNECTOR_NOT_BOUND;
  if (is_filtered) connector->others = open_others();
  if (is_filtered && connector->others.n < 0) {
    int unused = 0;
    connector->is_complete =
        tov_sys_setsockopt(sock, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused) == 0;
  }
  return subscribe(sock, port_id) ? 0 : TOV_CONNECTOR_NOT_SUBSCRIBED;
}

// The one that is to have them takes them before the other leaves them.
void tov_connector_hear_executions(tov_connector_t *connector, bool hears) {
  if (connector->others.n < 0 || hears == connector->hears_executions) return;
  const int taker = hears ? connector->events.n : connector->others.n;
  const int leaver = hears ? connector->others.n : connector->events.n;
  if (!filter_in_kernel(taker, hears, true)) {
    int unused =
        0;  // without a filter everything comes over the first one, and works at that price
    if (!hears ||
        tov_sys_setsockopt(taker, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused) < 0)
      return;
  }
  (void)filter_in_kernel(leaver, !hears, false);  // else they come over both
  connector->hears_executions = hears;
}

// ---- datagrams ------------------------------------------------------------------------------

// Walks the netlink messages of a datagram; every length is checked before what it covers is read.
static void walk_messages(const char *data, size_t remaining, const tov_connector_visit_t &visit) {
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
          visit(reinterpret_cast<const cn_msg *>(payload));
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

static void take(const char *data, size_t length, const sockaddr_nl &sender,
                 socklen_t sender_length, const tov_connector_visit_t &visit) {
  if (sender_length != sizeof sender) {
    TOV_DBG("bad address size reading netlink socket\n");
    return;
  }
  if (sender.nl_pid != KERNEL_PORT_ID || sender.nl_groups != CN_IDX_PROC) return;
  walk_messages(data, length, visit);
}

int tov_connector_receive(int sock, int flags, const tov_connector_visit_t &visit) {
  alignas(nlmsghdr) char buffer[TOV_CONNECTOR_DATAGRAM_MAX];
  sockaddr_nl sender{};
  socklen_t sender_length = sizeof sender;
  const ssize_t length = tov_sys_recvfrom(sock, buffer, sizeof buffer, flags,
                                          reinterpret_cast<sockaddr *>(&sender), &sender_length);
  if (length < 0) return -errno;
  take(buffer, static_cast<size_t>(length), sender, sender_length, visit);
  return 0;
}

tov_datagrams_s::tov_datagrams_s() : data_{}, senders_{}, rooms_{}, headers_{} {
  for (size_t i = 0; i < AT_ONCE; i++) {
    rooms_[i] = {data_[i], sizeof data_[i]};
    headers_[i].msg_hdr.msg_name = &senders_[i];
    headers_[i].msg_hdr.msg_namelen = sizeof senders_[i];
    headers_[i].msg_hdr.msg_iov = &rooms_[i];
    headers_[i].msg_hdr.msg_iovlen = 1;
  }
}

int tov_datagrams_s::receive(int sock, int flags, const tov_connector_visit_t &visit) {
  const int count = tov_sys_recvmmsg(sock, headers_, AT_ONCE, flags);
  if (count < 0) return -errno;
  for (size_t i = 0; i < static_cast<size_t>(count); i++) {
    // What the call has replaced is as before again.
    const socklen_t sender_length =
        std::exchange(headers_[i].msg_hdr.msg_namelen, socklen_t{sizeof senders_[i]});
    take(data_[i], std::min<size_t>(headers_[i].msg_len, sizeof data_[i]), senders_[i],
         sender_length, visit);
  }
  return count;
}

std::optional<uint32_t> tov_connector_drops(int sock) {
  uint32_t answers[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof answers;
  if (tov_sys_getsockopt(sock, SOL_SOCKET, SO_MEMINFO, answers, &size) < 0 ||
      size <= SK_MEMINFO_DROPS * sizeof answers[0])
    return std::nullopt;
  return answers[SK_MEMINFO_DROPS];
}
