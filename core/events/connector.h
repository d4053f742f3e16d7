// The sockets over which the kernel tells of its processes.
//
// Every event of the machine has a number, and only who gets all of them knows that none is
// missing. But few are of interest: ends, and executions while programs are listed. Forks, new
// names and the rest would each wake a thread at priority 99, and anybody may make as many of them
// as he likes. So there are two sockets, and each event comes over one of them: the first has what
// is of interest, and is waited for; the second has everything else, and is only read when a number
// is missing in what the first has brought. A flood of others' events thus fills the second
// socket's buffer, at most.
//
// Which socket an event comes over is decided by a filter in the kernel. Where a filter or a second
// socket cannot be had, everything comes over the first one, and works at that price.
#ifndef TOV_CORE_EVENTS_CONNECTOR_H
#define TOV_CORE_EVENTS_CONNECTOR_H

#include <linux/connector.h>
#include <linux/netlink.h>
#include <stdint.h>
#include <sys/socket.h>

#include <functional>
#include <optional>

#include "util/owner.h"

enum {
  TOV_CONNECTOR_DATAGRAM_MAX = 1024,  // bytes; an event's has below a hundred
  TOV_CONNECTOR_TIMEOUT_S = 5,        // of a receive that may wait
};

// Why there are no events; results of the reader's thread.
enum tov_connector_result_e {
  TOV_CONNECTOR_NO_SOCKET = -2,
  TOV_CONNECTOR_NOT_BOUND = -3,
  TOV_CONNECTOR_NOT_SUBSCRIBED = -4,
};

struct tov_connector_s {
  tov_fd_t events;  // executions as long as they are heard, all ends, answers to subscriptions,
                    // what is not known
  tov_fd_t others;  // everything else; none: it comes over `events`
  bool is_complete = true;       // every event comes over one of them
  bool hears_executions = true;  // over `events`
};
using tov_connector_t = tov_connector_s;

// Opens, binds and subscribes; what is open already is closed first. Returns 0, or one of the
// results above with errno. What was sent to the first socket before the second was bound may have
// gaps.
int tov_connector_open(tov_connector_t *connector);

// Whether executions come over the first socket, where each wakes its reader, or over the second.
// While that changes one may come over both. Where there is one socket, or the kernel refuses, all
// stays as it is.
void tov_connector_hear_executions(tov_connector_t *connector, bool hears);

// Is handed a message whose `len` bytes of data follow it in memory, unaligned perhaps.
using tov_connector_visit_t = std::function<void(const cn_msg *)>;

// Receives one datagram and hands over its messages, in their order. Only the kernel's own (port id
// 0, group 1) are looked at: any process with the privilege may send to the group. Returns 0, or
// -errno when there was none; -ENOBUFS comes once, before what is left, when the kernel has begun
// to drop what does not fit into the buffer. It goes on dropping until the socket was read empty.
int tov_connector_receive(int sock, int flags, const tov_connector_visit_t &visit);

// Receives what is there with one call.
class tov_datagrams_s {
 public:
  enum { AT_ONCE = 16 };

  tov_datagrams_s();
  tov_datagrams_s(const tov_datagrams_s &) = delete;
  tov_datagrams_s &operator=(const tov_datagrams_s &) = delete;

  // Like tov_connector_receive(), of up to AT_ONCE datagrams; returns how many there were. Fewer
  // than that: the socket was read empty.
  //   flags  MSG_DONTWAIT, or MSG_WAITFORONE
  int receive(int sock, int flags, const tov_connector_visit_t &visit);

 private:
  alignas(nlmsghdr) char data_[AT_ONCE][TOV_CONNECTOR_DATAGRAM_MAX];
  sockaddr_nl senders_[AT_ONCE];
  iovec rooms_[AT_ONCE];
  mmsghdr headers_[AT_ONCE];
};
using tov_datagrams_t = tov_datagrams_s;

// How many datagrams the kernel has dropped since the socket was opened, because its buffer was
// full; nothing where the kernel does not say.
std::optional<uint32_t> tov_connector_drops(int sock);

#endif  // TOV_CORE_EVENTS_CONNECTOR_H
