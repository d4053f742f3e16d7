// The messages between a test and the keeper of its device.
#include "tests/support/keeper_channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

static constexpr size_t DESCRIPTORS_MAX = 4;
static constexpr size_t TEXT_MAX_BYTES = 1024;

namespace {

union ControlBuffer {
  char bytes[CMSG_SPACE(DESCRIPTORS_MAX * sizeof(int))];
  cmsghdr aligned;
};

}  // namespace

bool send_message(int socket, const std::string &text, const std::vector<int> &descriptors) {
  std::string copy = text.substr(0, TEXT_MAX_BYTES);
  iovec part{copy.data(), copy.size()};
  ControlBuffer control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (!descriptors.empty()) {
    const size_t bytes = descriptors.size() * sizeof(int);
    if (descriptors.size() > DESCRIPTORS_MAX) return false;
    message.msg_control = control.bytes;
    message.msg_controllen = CMSG_SPACE(bytes);
    cmsghdr *head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(bytes);
    memcpy(CMSG_DATA(head), descriptors.data(), bytes);
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL) >= 0;
}

static void take_descriptors(msghdr &message, std::vector<tov_fd_t> &out) {
  for (cmsghdr *head = CMSG_FIRSTHDR(&message); head != nullptr;
       head = CMSG_NXTHDR(&message, head)) {
    if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (head->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; i++) {
      int descriptor;
      memcpy(&descriptor, CMSG_DATA(head) + i * sizeof(int), sizeof descriptor);
      out.emplace_back(descriptor);
    }
  }
}

std::optional<Message> receive_message(int socket, Millis limit) {
  pollfd ready{socket, POLLIN, 0};
  if (poll(&ready, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
  char text[TEXT_MAX_BYTES];
  iovec part{text, sizeof text};
  ControlBuffer control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;
  const ssize_t got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  if (got <= 0) return std::nullopt;
  Message received;
  received.text.assign(text, static_cast<size_t>(got));
  take_descriptors(message, received.descriptors);
  return received;
}

}  // namespace tov_test
