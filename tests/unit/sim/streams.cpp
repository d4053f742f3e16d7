// The functions of the seam over the simulated kernel: directories, streams, counters, sockets.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/sim/kernel.h"
#include "util/tov_sys.h"

using tov_test::kernel;
using tov_test::kernel_s;
using tov_test::open_file_s;

static constexpr int64_t US_PER_S = 1'000'000;
static constexpr int64_t US_PER_MS = 1'000;

static int returned(int result) {
  if (result >= 0) return result;
  errno = -result;
  return -1;
}

// ---- directories ----------------------------------------------------------------------------

// What a DIR * of the simulated kernel points to: the names at the moment of the opening.
struct directory_s {
  int fd;
  std::vector<std::string> names;
  size_t next = 0;
  dirent entry = {};
};

static directory_s *directory_of(DIR *dir) {
  return reinterpret_cast<directory_s *>(dir);
}

DIR *tov_sys_opendir(const char *path) {
  if (!kernel().enter(tov_test::CALL_OPENDIR)) return nullptr;
  const int fd = kernel().open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0) {
    errno = -fd;
    return nullptr;
  }
  int error = 0;
  std::vector<std::string> names = kernel().names_in(path, &error);
  names.insert(names.begin(), {".", ".."});
  return reinterpret_cast<DIR *>(new directory_s{fd, std::move(names)});
}

const dirent *tov_sys_readdir(DIR *dir) {
  if (!kernel().enter(tov_test::CALL_READDIR)) return nullptr;
  directory_s *directory = directory_of(dir);
  if (directory->next == directory->names.size()) return nullptr;
  const std::string &name = directory->names[directory->next++];
  memcpy(directory->entry.d_name, name.c_str(), name.size() + 1);
  return &directory->entry;
}

int tov_sys_dirfd(DIR *dir) {
  return kernel().enter(tov_test::CALL_DIRFD) ? directory_of(dir)->fd : -1;
}

int tov_sys_closedir(DIR *dir) {
  (void)kernel().enter(tov_test::CALL_CLOSEDIR);  // it is closed whatever it says
  const int fd = directory_of(dir)->fd;
  delete directory_of(dir);
  return kernel().close(fd);
}

// ---- streams --------------------------------------------------------------------------------

// What the stream's cookie points to.
struct stream_s {
  int fd;
};

static ssize_t read_stream(void *cookie, char *buf, size_t size) {
  return tov_sys_read(static_cast<stream_s *>(cookie)->fd, buf, size);
}

// Here, unlike in write(2), 0 is the failure.
static ssize_t write_stream(void *cookie, const char *buf, size_t size) {
  return std::max<ssize_t>(tov_sys_write(static_cast<stream_s *>(cookie)->fd, buf, size), 0);
}

static int close_stream(void *cookie) {
  const std::unique_ptr<stream_s> stream(static_cast<stream_s *>(cookie));
  return tov_sys_close(stream->fd);
}

FILE *tov_simulated_fdopen(int fd, const char *how) {
  const cookie_io_functions_t calls = {read_stream, write_stream, nullptr, close_stream};
  return fopencookie(new stream_s{fd}, how, calls);
}

// ---- watches --------------------------------------------------------------------------------

static int refuse_watches() {
  errno = ENOSYS;
  return -1;
}

int tov_sys_inotify_open() {
  return refuse_watches();
}

int tov_sys_inotify_watch(int, const char *, uint32_t) {
  return refuse_watches();
}

int tov_sys_inotify_unwatch(int, int) {
  return refuse_watches();
}

// ---- counters -------------------------------------------------------------------------------

int tov_sys_eventfd(unsigned int count, int flags) {
  if (!kernel().enter(tov_test::CALL_EVENTFD)) return -1;
  open_file_s file;
  file.flags = O_RDWR | flags;  // EFD_CLOEXEC and EFD_NONBLOCK are open(2)'s
  file.counter = count;
  return returned(kernel().install(std::move(file)));
}

bool kernel_s::is_readable(int fd) {
  const open_file_s *file = file_of(fd);
  if (file == nullptr || file->inode != nullptr) return true;
  if (file->pid != 0) return is_over(file->pid, file->serial);
  if (file->socket == nullptr) return file->counter > 0;
  return file->socket->error != 0 || !file->socket->queue.empty();
}

int kernel_s::poll(pollfd *waited, nfds_t count, int timeout_ms) {
  const auto look = [&] {
    int ready = 0;
    for (nfds_t i = 0; i < count; i++) {
      const bool readable = waited[i].fd >= 0 && is_readable(waited[i].fd);
      waited[i].revents = readable ? static_cast<short>(waited[i].events & POLLIN) : short{0};
      ready += waited[i].revents != 0;
    }
    return ready;
  };
  const int64_t span_us = timeout_ms < 0 ? -1 : int64_t{timeout_ms} * US_PER_MS;
  const wait_e woken = wait(span_us, [&] { return look() > 0; });
  return woken == INTERRUPTED ? -EINTR : look();
}

// ---- sockets --------------------------------------------------------------------------------

// Calls on a socket: body() returns the result or -errno.
template <typename Body>
static ssize_t call_on_socket(tov_test::call_e kind, int fd, Body body) {
  if (!kernel().enter(kind)) return -1;
  open_file_s *file = kernel().file_of(fd);
  const ssize_t result = file == nullptr           ? -EBADF
                         : file->socket == nullptr ? -ENOTSOCK
                                                   : body(*file->socket);
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

int tov_sys_socket(int, int type, int) {
  if (!kernel().enter(tov_test::CALL_SOCKET)) return -1;
  open_file_s file;
  file.flags = O_RDWR | (type & (SOCK_CLOEXEC | SOCK_NONBLOCK));
  file.socket = std::make_shared<tov_test::socket_s>();
  return returned(kernel().install(std::move(file)));
}

int tov_sys_setsockopt(int fd, int, int name, const void *value, socklen_t size) {
  return static_cast<int>(call_on_socket(tov_test::CALL_SETSOCKOPT, fd, [&](auto &socket) {
    socket.set[name] = std::string(static_cast<const char *>(value), size);
    if (name == SO_DETACH_FILTER) socket.filter.clear();
    if (name == SO_ATTACH_FILTER) {
      const auto *program = static_cast<const sock_fprog *>(value);
      socket.filter.assign(program->filter, program->filter + program->len);
    }
    return ssize_t{0};
  }));
}

// Only what a socket's memory is.
int tov_sys_getsockopt(int fd, int, int name, void *value, socklen_t *size) {
  return static_cast<int>(call_on_socket(tov_test::CALL_GETSOCKOPT, fd, [&](auto &socket) {
    if (name != SO_MEMINFO) return ssize_t{-ENOPROTOOPT};
    uint32_t answers[SK_MEMINFO_VARS] = {};
    answers[SK_MEMINFO_DROPS] = socket.drops;
    *size = std::min<socklen_t>(*size, sizeof answers);
    memcpy(value, answers, *size);
    return ssize_t{0};
  }));
}

int tov_sys_bind(int fd, const sockaddr *address, socklen_t size) {
  return static_cast<int>(call_on_socket(tov_test::CALL_BIND, fd, [&](auto &socket) {
    socket.bound = std::string(reinterpret_cast<const char *>(address), size);
    return ssize_t{0};
  }));
}

ssize_t tov_sys_send(int fd, const void *data, size_t size, int) {
  return call_on_socket(tov_test::CALL_SEND, fd, [&](auto &socket) {
    socket.sent.emplace_back(static_cast<const char *>(data), size);
    kernel().answer_subscription(socket.sent.back());
    return static_cast<ssize_t>(size);
  });
}

// How long a receiver waits at the most; negative: for ever.
static int64_t receive_limit_us(const open_file_s &file) {
  if ((file.flags & SOCK_NONBLOCK) != 0) return 0;
  const auto found = file.socket->set.find(SO_RCVTIMEO);
  if (found == file.socket->set.end()) return -1;
  timeval limit{};
  memcpy(&limit, found->second.data(), std::min(found->second.size(), sizeof limit));
  return limit.tv_sec * US_PER_S + limit.tv_usec;
}

ssize_t kernel_s::receive(int fd, void *buf, size_t size, int flags, sockaddr *sender,
                          socklen_t *sender_size) {
  const open_file_s file = *file_of(fd);
  const int64_t limit_us = (flags & MSG_DONTWAIT) != 0 ? 0 : receive_limit_us(file);
  const wait_e woken = wait(limit_us, [&] { return is_readable(fd); });
  if (woken == INTERRUPTED) return -EINTR;
  if (woken == TIMED_OUT) return -EAGAIN;
  if (file.socket->error != 0) return -std::exchange(file.socket->error, 0);
  const tov_test::datagram_s datagram = std::move(file.socket->queue.front());
  file.socket->queue.pop_front();
  if (file.socket->queue.empty()) file.socket->congested = false;
  memcpy(sender, datagram.sender.data(), std::min<size_t>(*sender_size, datagram.sender.size()));
  *sender_size = static_cast<socklen_t>(datagram.sender.size());
  const size_t count = std::min(size, datagram.data.size());
  memcpy(buf, datagram.data.data(), count);
  return static_cast<ssize_t>(count);
}

ssize_t tov_sys_recvfrom(int fd, void *buf, size_t size, int flags, sockaddr *sender,
                         socklen_t *sender_size) {
  return call_on_socket(tov_test::CALL_RECVFROM, fd, [&](auto &) {
    return kernel().receive(fd, buf, size, flags, sender, sender_size);
  });
}

int tov_sys_recvmmsg(int fd, mmsghdr *datagrams, unsigned int count, int flags) {
  return static_cast<int>(call_on_socket(tov_test::CALL_RECVMMSG, fd, [&](auto &) {
    unsigned int taken = 0;
    for (; taken < count; taken++) {
      msghdr &header = datagrams[taken].msg_hdr;
      const int how = taken > 0 || (flags & MSG_WAITFORONE) == 0 ? flags | MSG_DONTWAIT : 0;
      const ssize_t length = kernel().receive(
          fd, header.msg_iov->iov_base, header.msg_iov->iov_len, how & ~MSG_WAITFORONE,
          static_cast<sockaddr *>(header.msg_name), &header.msg_namelen);
      if (length < 0 && taken == 0) return length;
      if (length < 0) break;
      datagrams[taken].msg_len = static_cast<unsigned int>(length);
    }
    return ssize_t{taken};
  }));
}
