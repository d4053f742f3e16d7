// The simulated kernel: process events on their way to the sockets that listen.
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

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/netlink_messages.h"
#include "tests/unit/sim/kernel.h"

namespace tov_test {

static constexpr uint64_t NS_PER_US = 1'000;
enum { SUBSCRIPTION_SIZE = 40 };

// ---- filters --------------------------------------------------------------------------------

// The words that a filter loads: big-endian, and nothing beyond the end.
static bool load(const std::string &datagram, const sock_filter &how, uint32_t *word) {
  const size_t size = BPF_SIZE(how.code) == BPF_W ? sizeof(uint32_t) : sizeof(uint16_t);
  if (how.k + size > datagram.size()) return false;
  uint32_t whole = 0;
  uint16_t half = 0;
  memcpy(size == sizeof whole ? static_cast<void *>(&whole) : &half, datagram.data() + how.k, size);
  *word = size == sizeof whole ? ntohl(whole) : ntohs(half);
  return true;
}

// How many bytes of a datagram a filter takes; 0: none of it.
static uint32_t taken_by(const std::vector<sock_filter> &program, const std::string &datagram) {
  uint32_t word = 0;
  for (size_t at = 0; at < program.size(); at++) {
    const sock_filter &step = program[at];
    switch (BPF_CLASS(step.code)) {
      case BPF_LD:
        if (!load(datagram, step, &word)) return 0;
        break;
      case BPF_JMP:
        at += word == step.k ? step.jt : step.jf;
        break;
      case BPF_RET:
        return step.k;
      default:
        throw std::runtime_error("a filter of instructions that are not simulated");
    }
  }
  throw std::runtime_error("a filter without an end");
}

// ---- events ---------------------------------------------------------------------------------

// Whether a socket has joined the group of process events.
static bool listens(const socket_s &socket) {
  sockaddr_nl own{};
  if (socket.bound.size() != sizeof own) return false;
  memcpy(&own, socket.bound.data(), sizeof own);
  return own.nl_family == AF_NETLINK && own.nl_groups == CN_IDX_PROC;
}

static void deliver(socket_s *socket, const datagram_s &datagram) {
  if (!listens(*socket)) return;
  if (!socket->filter.empty() && taken_by(socket->filter, datagram.data) == 0) return;
  if (!socket->congested && socket->queue.size() < socket->room)
    return socket->queue.push_back(datagram);
  socket->drops++;
  if (!std::exchange(socket->congested, true)) socket->error = ENOBUFS;
}

void kernel_s::post(proc_event event, uint32_t processor, int64_t late_us) {
  event.cpu = processor;
  event.timestamp_ns = static_cast<uint64_t>(now_us_ - late_us) * NS_PER_US;
  netlink::Bytes payload = netlink::connector(event);
  const uint32_t number = connector.next[processor]++;
  memcpy(payload.data() + offsetof(cn_msg, seq), &number, sizeof number);
  const netlink::Bytes whole = netlink::message(NLMSG_DONE, payload);
  sockaddr_nl sender{};
  sender.nl_family = AF_NETLINK;
  sender.nl_groups = CN_IDX_PROC;
  const datagram_s datagram{std::string(reinterpret_cast<const char *>(&sender), sizeof sender),
                            std::string(whole.begin(), whole.end())};
  for (auto &[fd, file] : files_)
    if (file.socket != nullptr) deliver(file.socket.get(), datagram);
}

void kernel_s::answer_subscription(const std::string &message) {
  if (message.size() != SUBSCRIPTION_SIZE || !connector.answers) return;
  proc_event answer = netlink::event_of(proc_event::PROC_EVENT_NONE);
  answer.event_data.ack.err = static_cast<uint32_t>(connector.refusal);
  post(answer);
}

void kernel_s::tell_name() {
  if (connector.answers) post(netlink::event_of(proc_event::PROC_EVENT_COMM));
}

}  // namespace tov_test
