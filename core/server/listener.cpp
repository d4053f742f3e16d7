// Tested by: tests/module/core/server/server_end_test.cpp
#include "core/server/listener.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/tov_rpc_connect.h"
#include "core/server/result.h"
#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"

static constexpr mode_t SOCKET_MODE = 0777;  // every user's processes may register

enum {
  TOV_LISTEN_BACKLOG = 2048,
  FD_PATH_SIZE = 32  // "/proc/self/fd/%d"
};

// Prints which step failed, with errno. Returns `result`.
static tov_server_result_e failed(const char *step, tov_server_result_e result) {
  TOV_DBG("%s: %s fail: %s\n", TOV_SERVER_THREAD, step, strerror(errno));
  return result;
}

// Lets everybody connect; bind() left what the umask allows. Something else may be in the socket's
// place by now: a path would lead to that, and through a link anywhere. So what is there is opened
// first and changed only if it is a socket.
static void open_to_everybody() {
  const tov_fd_t found(open(TOV_SOCKET_PATH, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (found.n < 0 || fstat(found.n, &status) < 0 || !S_ISSOCK(status.st_mode)) return;
  char self[FD_PATH_SIZE];  // fchmod() refuses a descriptor of this kind
  (void)snprintf(self, sizeof self, "/proc/self/fd/%d", found.n);
  (void)chmod(self, SOCKET_MODE);
}

tov_server_result_e tov_server_listen(tov_fd_t *listener) {
  *listener = tov_fd_t(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (listener->n < 0) return failed("socket sk_unix", TOV_SERVER_SOCKET);

  sockaddr_un at{};
  const socklen_t length = tov_rpc_address(&at, TOV_SOCKET_PATH);
  unlink(TOV_SOCKET_PATH);
  if (bind(listener->n, reinterpret_cast<sockaddr *>(&at), length) < 0)
    return failed("bind sk_unix", TOV_SERVER_BIND);
  open_to_everybody();
  if (listen(listener->n, TOV_LISTEN_BACKLOG) < 0)
    return failed("listen sk_unix", TOV_SERVER_LISTEN);
  return TOV_SERVER_QUIT;
}
