// System log on stock Linux: the datagrams that syslog(3) sends, without its waiting and locks.
//
// Why not syslog(3): it holds a process-wide lock while it sends, waits when the receiver's queue
// is full, and falls back to the console; the daemon holds registry locks when it reports. Here
// each message has a socket of its own for the one send, which never waits: without a receiver, or
// with a full one, the message is dropped.
//
// Threads: any; no state, no allocation. Not between fork and exec (the local time takes a lock).
// Losses: messages that no receiver takes; text behind 8 KiB.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "platform/tov_platform.h"
#include "util/owner.h"

static constexpr size_t MESSAGE_SIZE = 8192;
static constexpr size_t TIME_SIZE = 32;
static constexpr sockaddr_un LOG_ADDRESS = {AF_UNIX, "/dev/log"};
static constexpr const char *TAG = "tov";

namespace {

// A message under construction. Texts that do not fit are cut.
struct message_s {
  char bytes[MESSAGE_SIZE];
  size_t length = 0;

  __attribute__((format(printf, 2, 0))) void vadd(const char *format, va_list arguments) {
    const size_t room = sizeof bytes - length;
    const int n = vsnprintf(bytes + length, room, format, arguments);
    if (n < 0) return;
    length += static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
  }

  __attribute__((format(printf, 2, 3))) void add(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vadd(format, arguments);
    va_end(arguments);
  }

  // Receivers take a datagram for one line: the line end that callers write is not part of it.
  void drop_line_end() {
    while (length > 0 && (bytes[length - 1] == '\n' || bytes[length - 1] == '\r'))
      length--;
  }
};

}  // namespace

// "<PRI>Mmm dd hh:mm:ss tov[PID]: "
static void begin_message(message_s &message, int severity) {
  char when[TIME_SIZE] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) strftime(when, sizeof when, "%h %e %T ", &local);
  message.add("<%d>%s%s[%d]: ", LOG_DAEMON | LOG_PRI(severity), when, TAG, getpid());
}

// Returns 0 or -errno; never waits.
static int send_message(message_s &message) {
  message.drop_line_end();
  const tov_fd_t sd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sd.n < 0) return -errno;
  const ssize_t sent = sendto(sd.n, message.bytes, message.length, MSG_DONTWAIT | MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&LOG_ADDRESS), sizeof LOG_ADDRESS);
  return sent < 0 ? -errno : 0;
}

int printk_syslog_ext(int level, const char *module, const char *mnemonic, int /*flag*/,
                      const char *format, ...) {
  const tov_errno_keeper_s keep;
  message_s message;
  begin_message(message, level);
  message.add("%%%s-%d-%s: ", module, level, mnemonic);
  va_list arguments;
  va_start(arguments, format);
  message.vadd(format, arguments);
  va_end(arguments);
  return send_message(message);
}

void qx_syslog(int priority, const char *format, ...) {
  const tov_errno_keeper_s keep;
  message_s message;
  begin_message(message, priority);
  va_list arguments;
  va_start(arguments, format);
  message.vadd(format, arguments);
  va_end(arguments);
  (void)send_message(message);
}
