// A client that says what it likes: packets byte by byte, without the library.
#ifndef TOV_TEST_RAW_CLIENT_H
#define TOV_TEST_RAW_CLIENT_H

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>

#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "util/owner.h"

namespace tov_test {

class RawClient {
 public:
  RawClient() : sd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}

  // Returns 0 or errno.
  int connect(const std::string &path = TOV_SOCKET_PATH) {
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    snprintf(at.sun_path, sizeof at.sun_path, "%s", path.c_str());
    return ::connect(sd_.n, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0 ? 0 : errno;
  }

  bool send(const std::string &packet, int flags = 0) {
    return ::send(sd_.n, packet.data(), packet.size(), MSG_NOSIGNAL | flags) ==
           static_cast<ssize_t>(packet.size());
  }

  enum Answer { ACKNOWLEDGED, CLOSED, SILENCE, ODD };

  // What the daemon does within `limit`. Where it closes with a packet of ours unread, the kernel
  // says so once (ECONNRESET), to a send or to a receive, whichever comes first, and ahead of the
  // answers that lie there: these are what is asked for.
  Answer answer(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    pollfd asked = {sd_.n, POLLIN, 0};
    if (poll(&asked, 1, static_cast<int>(limit.count())) <= 0) return SILENCE;
    char bytes[512];
    ssize_t length = recv(sd_.n, bytes, sizeof bytes, 0);
    if (length < 0 && errno == ECONNRESET) length = recv(sd_.n, bytes, sizeof bytes, 0);
    if (length <= 0) return CLOSED;
    static constexpr char zeroes[sizeof(tov_msg_head_t)] = {};
    const bool plain = length == sizeof zeroes && memcmp(bytes, zeroes, sizeof zeroes) == 0;
    return plain ? ACKNOWLEDGED : ODD;
  }

  int sd() const { return sd_.n; }

 private:
  tov_fd_t sd_;
};

// A packet whose head says `type` and `len` and that brings `payload`.
inline std::string packet(uint32_t type, int32_t len, const std::string &payload,
                          const std::string &path = "") {
  tov_msg_head_t head{};
  head.type = type;
  head.len = len;
  memcpy(head.pathname, path.data(), std::min(path.size(), sizeof head.pathname));
  return std::string(reinterpret_cast<const char *>(&head), sizeof head) + payload;
}

// A well-formed one.
inline std::string packet(uint32_t type, const std::string &payload, const std::string &path = "") {
  return packet(type, static_cast<int32_t>(payload.size()), payload, path);
}

// Noise of every kind: random bytes, and packets that are well-formed but for one thing.
inline std::string random_packet(std::mt19937 &random) {
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const size_t size = below(8) == 0 ? below(20000) : below(700);
  std::string bytes(size, '\0');
  for (char &byte : bytes)
    byte = static_cast<char>(random());
  if (below(4) == 0) return bytes;
  const int32_t len = below(4) == 0 ? static_cast<int32_t>(random()) : static_cast<int32_t>(size);
  return packet(below(8), len, bytes, std::string(below(257), 'n'));
}

template <typename Record>
std::string bytes_of(const Record &record) {
  return {reinterpret_cast<const char *>(&record), sizeof record};
}

}  // namespace tov_test

#endif  // TOV_TEST_RAW_CLIENT_H
