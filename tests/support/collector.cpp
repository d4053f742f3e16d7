// Drains the device's console and its system log.
//
// The queue of a datagram socket is short (net.unix.max_dgram_qlen), and a sender that does not
// wait drops what finds no room. The thread therefore runs at real-time priority: it is the only
// one that a busy machine must not keep waiting, and it sleeps in poll nearly always. Now and then
// it buries orphans, see children.h.
#include "tests/support/collector.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <utility>
#include <vector>

#include "tests/support/children.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

static constexpr size_t READ_BYTES = 65536;
static constexpr int PRIORITY = 50;
static constexpr int BURY_PERIOD_MS = 10;

Collector::Collector(tov_fd_t log, tov_fd_t console)
    : log_(std::move(log)), console_(std::move(console)), wake_(eventfd(0, EFD_CLOEXEC)) {
  if (console_.n >= 0) fcntl(console_.n, F_SETFL, O_NONBLOCK);
  thread_ = std::thread([this] { run(); });
}

void Collector::stop() {
  if (!thread_.joinable()) return;
  eventfd_write(wake_.n, 1);
  thread_.join();
}

bool Collector::read_log() {
  char text[READ_BYTES];
  const std::lock_guard guard(mutex_);  // before the packet is taken, so that order is kept
  const ssize_t got = recv(log_.n, text, sizeof text, MSG_DONTWAIT);
  if (got < 0) return false;
  Notice notice{monotonic_ns() / 1'000'000, std::string(text, static_cast<size_t>(got))};
  while (!notice.text.empty() && (notice.text.back() == '\n' || notice.text.back() == '\0'))
    notice.text.pop_back();
  notices_.push_back(std::move(notice));
  return true;
}

bool Collector::read_console() {
  char text[READ_BYTES];
  const std::lock_guard guard(mutex_);
  const ssize_t got = read(console_.n, text, sizeof text);
  if (got <= 0) return false;
  console_text_.append(text, static_cast<size_t>(got));
  return true;
}

void Collector::run() {
  sched_param priority{};
  priority.sched_priority = PRIORITY;
  // Without the privilege it works as well, only with a smaller margin.
  (void)pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
  pollfd watched[] = {{wake_.n, POLLIN, 0}, {log_.n, POLLIN, 0}, {console_.n, POLLIN, 0}};
  bool stopping = false;
  while (!stopping) {
    const bool quiet = poll(watched, 3, BURY_PERIOD_MS) <= 0;
    bury_orphans();
    if (quiet) continue;
    stopping = watched[0].revents != 0;
    while (read_log()) {
    }
    while (read_console()) {
    }
  }
}

std::vector<Notice> Collector::notices() {
  while (read_log()) {
  }
  const std::lock_guard guard(mutex_);
  return notices_;
}

std::string Collector::console() {
  while (read_console()) {
  }
  const std::lock_guard guard(mutex_);
  return console_text_;
}

}  // namespace tov_test
