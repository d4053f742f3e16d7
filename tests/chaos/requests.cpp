// Two round trips with a request that changes nothing. When the first one is answered every earlier
// connection is known to the daemon, whose next pass serves them all; the second answer comes after
// that pass.
#include "tests/chaos/requests.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "include/tov_wire.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_chaos {

static constexpr int ROUND_TRIPS = 2;
static constexpr int ANSWER_LIMIT_MS = 10'000;
static constexpr char SOCKET[] = "/tmp/tov/.tov";

static tov_fd_t connect_to(const std::string &path) {
  sockaddr_un at{};
  at.sun_family = AF_UNIX;
  if (path.size() >= sizeof at.sun_path) return tov_fd_t();
  memcpy(at.sun_path, path.c_str(), path.size());
  // Non-blocking: a full backlog is answered with EAGAIN instead of a wait without end.
  tov_fd_t fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.n >= 0 && connect(fd.n, reinterpret_cast<const sockaddr *>(&at), sizeof at) < 0)
    fd.reset();
  return fd;
}

static std::string request_about(int event, pid_t pid) {
  tov_msg_head_t head{};
  tov_msg_cons_t body{};
  head.type = TOV_MSG_CONS;
  head.len = sizeof body;
  body.event = event;
  body.pid = pid;
  std::string request(reinterpret_cast<const char *>(&head), sizeof head);
  request.append(reinterpret_cast<const char *>(&body), sizeof body);
  return request;
}

// "Watch this thread no longer", of an id that no thread has.
static std::string harmless_request() {
  return request_about(TOV_UNREG_THREAD_NOTIFY, -1);
}

static bool is_answered(int fd, const std::string &request) {
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return false;
  pollfd answered{fd, POLLIN, 0};
  char answer[sizeof(tov_msg_head_t)];
  return poll(&answered, 1, ANSWER_LIMIT_MS * tov_test::patience()) > 0 &&
         recv(fd, answer, sizeof answer, 0) > 0;
}

bool withdraw(const tov_test::Device &device, pid_t pid) {
  const tov_fd_t fd = connect_to(device.path(SOCKET));
  return fd.n >= 0 && is_answered(fd.n, request_about(TOV_CONS_DUMP_ALL, pid)) &&
         requests_are_done(device);
}

bool requests_are_done(const tov_test::Device &device) {
  const tov_fd_t fd = connect_to(device.path(SOCKET));
  if (fd.n < 0) return false;
  for (int trip = 0; trip < ROUND_TRIPS; trip++)
    if (!is_answered(fd.n, harmless_request())) return false;
  return true;
}

}  // namespace tov_chaos
