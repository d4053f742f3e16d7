// The kernel's process events as they come over netlink, byte by byte: whole ones, and such as the
// kernel would never send.
#ifndef TOV_TEST_NETLINK_MESSAGES_H
#define TOV_TEST_NETLINK_MESSAGES_H

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace tov_test::netlink {

using Bytes = std::vector<char>;

inline constexpr uint32_t GROUP = CN_IDX_PROC;
inline constexpr uint16_t ORDINARY = NLMSG_MIN_TYPE;

inline proc_event event_of(uint32_t what) {
  proc_event event{};
  memcpy(&event, &what, sizeof what);
  return event;
}

inline proc_event exit_of(int pid, int tgid, uint32_t code) {
  proc_event event = event_of(proc_event::PROC_EVENT_EXIT);
  event.event_data.exit.process_pid = pid;
  event.event_data.exit.process_tgid = tgid;
  event.event_data.exit.exit_code = code;
  return event;
}

inline proc_event exec_of(int pid) {
  proc_event event = event_of(proc_event::PROC_EVENT_EXEC);
  event.event_data.exec.process_pid = pid;
  event.event_data.exec.process_tgid = pid;
  return event;
}

// A connector message whose data is `event`, cut to `length` bytes.
inline Bytes connector(const proc_event &event, size_t length = sizeof(proc_event)) {
  cn_msg head{};
  head.id = {CN_IDX_PROC, CN_VAL_PROC};
  head.len = static_cast<uint16_t>(length);
  Bytes bytes(sizeof head + length);
  memcpy(bytes.data(), &head, sizeof head);
  memcpy(bytes.data() + sizeof head, &event, length);
  return bytes;
}

// A netlink message; `claimed` is the length that its header tells, its real one by default.
inline Bytes message(uint16_t type, const Bytes &payload,
                     std::optional<uint32_t> claimed = std::nullopt) {
  nlmsghdr head{};
  head.nlmsg_len = claimed.value_or(static_cast<uint32_t>(NLMSG_HDRLEN + payload.size()));
  head.nlmsg_type = type;
  Bytes bytes(NLMSG_ALIGN(NLMSG_HDRLEN + payload.size()));
  memcpy(bytes.data(), &head, sizeof head);
  std::copy(payload.begin(), payload.end(), bytes.begin() + NLMSG_HDRLEN);
  return bytes;
}

// One datagram of several messages.
inline Bytes joined(const std::vector<Bytes> &parts) {
  Bytes all;
  for (const Bytes &part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

}  // namespace tov_test::netlink

#endif  // TOV_TEST_NETLINK_MESSAGES_H
