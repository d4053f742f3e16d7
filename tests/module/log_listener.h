// Listens at /dev/log in the place of a system-log daemon. Only inside a private root.
#ifndef TOV_TEST_MODULE_LOG_LISTENER_H
#define TOV_TEST_MODULE_LOG_LISTENER_H

#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "util/owner.h"

namespace tov_test {

class LogListener {
 public:
  explicit LogListener(int type = SOCK_DGRAM)
      : sd_(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_un at = {AF_UNIX, "/dev/log"};
    unlink(at.sun_path);
    if (bind(sd_.n, reinterpret_cast<const sockaddr *>(&at), sizeof at) != 0)
      throw std::runtime_error("bind /dev/log");
  }
  ~LogListener() { unlink("/dev/log"); }
  LogListener(const LogListener &) = delete;
  LogListener &operator=(const LogListener &) = delete;

  // The next datagram whole, if there is one. Senders are done before they return, so there is
  // nothing to wait for.
  std::optional<std::string> next() {
    std::string text(65536, '\0');
    const ssize_t n = recv(sd_.n, text.data(), text.size(), 0);
    if (n < 0) return std::nullopt;
    text.resize(static_cast<size_t>(n));
    return text;
  }

  // The next datagram behind "<PRI>Mmm dd hh:mm:ss tov[PID]: "; "(none)" when there is none.
  std::string next_text() {
    const std::optional<std::string> whole = next();
    if (!whole) return "(none)";
    const size_t tag_end = whole->find("]: ");
    return tag_end == std::string::npos ? "(no tag) " + *whole : whole->substr(tag_end + 3);
  }

 private:
  tov_fd_t sd_;
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_LOG_LISTENER_H
