// The functions of the seam over the simulated kernel: each counts itself, fails when a test has
// planned it, and turns the kernel's -errno into what the call returns.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <utility>

#include "tests/unit/sim/kernel.h"
#include "util/tov_sys.h"

using tov_test::kernel;
using tov_test::kernel_s;
using tov_test::open_file_s;

static constexpr int64_t US_PER_S = 1'000'000;
static constexpr int64_t NS_PER_US = 1'000;
static constexpr int64_t WALL_CLOCK_S = 1'700'000'000;  // when the machine was booted

template <typename Result>
static Result returned(Result result) {
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

// Makes one call: body() returns the result or -errno.
template <typename Body>
static auto call(tov_test::call_e kind, Body body) -> decltype(body()) {
  return kernel().enter(kind) ? returned(body()) : -1;
}

// The same for calls of an open descriptor.
template <typename Body>
static int call_on(tov_test::call_e kind, int fd, Body body) {
  return call(kind, [&]() -> int {
    open_file_s *file = kernel().file_of(fd);
    return file == nullptr ? -EBADF : body(*file);
  });
}

// ---- time and waiting -----------------------------------------------------------------------

static timespec time_of(clockid_t clock) {
  const int64_t begin_s = clock == CLOCK_REALTIME ? WALL_CLOCK_S : 0;
  const int64_t now_us = kernel().now_us();
  return {begin_s + now_us / US_PER_S, now_us % US_PER_S * NS_PER_US};
}

int tov_sys_clock_gettime(clockid_t clock, timespec *now) {
  return call(tov_test::CALL_CLOCK_GETTIME, [&] {
    *now = time_of(clock);
    return 0;
  });
}

int tov_sys_kernel_clock(clockid_t clock, timespec *now) {
  if (!kernel().enter(tov_test::CALL_KERNEL_CLOCK)) return -1;
  *now = time_of(clock);
  return 0;
}

int tov_sys_sleep(timeval *left) {
  return call(tov_test::CALL_SLEEP, [&]() -> int {
    if (left->tv_sec < 0 || left->tv_usec < 0) return -EINVAL;
    const int64_t span_us = left->tv_sec * US_PER_S + left->tv_usec;
    int64_t left_us = 0;
    const auto woken = kernel().wait(
        span_us, [] { return false; }, &left_us);
    left->tv_sec = left_us / US_PER_S;
    left->tv_usec = left_us % US_PER_S;
    return woken == kernel_s::INTERRUPTED ? -EINTR : 0;
  });
}

int tov_sys_usleep(useconds_t span_us) {
  return call(tov_test::CALL_USLEEP, [&] {
    const auto woken = kernel().wait(span_us, [] { return false; });
    return woken == kernel_s::INTERRUPTED ? -EINTR : 0;
  });
}

int tov_sys_poll(pollfd *waited, nfds_t count, int timeout_ms) {
  return call(tov_test::CALL_POLL, [&] { return kernel().poll(waited, count, timeout_ms); });
}

unsigned int tov_sys_alarm(unsigned int seconds) {
  (void)kernel().enter(tov_test::CALL_ALARM);  // alarm(2) cannot fail
  return kernel().set_alarm(seconds);
}

// ---- the calling thread ---------------------------------------------------------------------

int tov_sys_set_name(const char *name) {
  return call(tov_test::CALL_SET_NAME, [&] {
    kernel().thread_name = std::string(name).substr(0, 15);
    kernel().tell_name();
    return 0;
  });
}

int tov_sys_set_schedule(int policy, const sched_param *) {
  const int saved = errno;
  if (!kernel().enter(tov_test::CALL_SET_SCHEDULE)) return std::exchange(errno, saved);
  kernel().policy = policy;
  return 0;
}

int tov_sys_sched_setscheduler(int policy, const sched_param *) {
  return call(tov_test::CALL_SCHED_SETSCHEDULER, [&] {
    kernel().policy = policy;
    return 0;
  });
}

// ---- processes ------------------------------------------------------------------------------

pid_t tov_sys_getpid() {
  (void)kernel().enter(tov_test::CALL_GETPID);  // getpid(2) cannot fail
  return kernel_s::SELF;
}

pid_t tov_sys_fork() {
  return call(tov_test::CALL_FORK, [] { return kernel().fork(); });
}

int tov_sys_kill(pid_t pid, int sig) {
  return call(tov_test::CALL_KILL, [&] { return kernel().kill(pid, sig); });
}

pid_t tov_sys_waitpid(pid_t pid, int *status, int options) {
  return call(tov_test::CALL_WAITPID, [&] { return kernel().waitpid(pid, status, options); });
}

int tov_sys_pidfd_open(pid_t pid) {
  return call(tov_test::CALL_PIDFD_OPEN, [&] { return kernel().pidfd_open(pid); });
}

int tov_sys_pidfd_signal(int fd, int sig) {
  return call(tov_test::CALL_PIDFD_SIGNAL, [&] { return kernel().pidfd_signal(fd, sig); });
}

// ---- files ----------------------------------------------------------------------------------

int tov_sys_open(const char *path, int flags, mode_t mode) {
  return call(tov_test::CALL_OPEN, [&] { return kernel().open(path, flags, mode); });
}

ssize_t tov_sys_read(int fd, void *buf, size_t size) {
  return call(tov_test::CALL_READ, [&] { return kernel().read(fd, buf, size); });
}

ssize_t tov_sys_write(int fd, const void *buf, size_t size) {
  return call(tov_test::CALL_WRITE, [&] { return kernel().write(fd, buf, size); });
}

off_t tov_sys_lseek(int fd, off_t offset, int whence) {
  return call_on(tov_test::CALL_LSEEK, fd, [&](open_file_s &file) {
    if (whence != SEEK_SET) return -EINVAL;  // the product asks for no other
    file.offset = static_cast<size_t>(offset);
    return static_cast<int>(offset);
  });
}

int tov_sys_openat(int dir, const char *name, int flags, mode_t mode) {
  return call_on(tov_test::CALL_OPENAT, dir, [&](const open_file_s &file) {
    return kernel().open((file.path + "/" + name).c_str(), flags, mode);
  });
}

// A transfer at a place of its own: the descriptor's offset stays.
template <typename Transfer>
static int at_place(tov_test::call_e kind, int fd, off_t offset, Transfer transfer) {
  return call_on(kind, fd, [&](open_file_s &file) {
    const size_t before = std::exchange(file.offset, static_cast<size_t>(offset));
    const int result = static_cast<int>(transfer());
    file.offset = before;
    return result;
  });
}

ssize_t tov_sys_pread(int fd, void *buf, size_t size, off_t offset) {
  return at_place(tov_test::CALL_PREAD, fd, offset, [&] { return kernel().read(fd, buf, size); });
}

ssize_t tov_sys_pwrite(int fd, const void *buf, size_t size, off_t offset) {
  return at_place(tov_test::CALL_PWRITE, fd, offset, [&] { return kernel().write(fd, buf, size); });
}

int tov_sys_ftruncate(int fd, off_t length) {
  return call_on(tov_test::CALL_FTRUNCATE, fd, [&](open_file_s &file) {
    file.inode->text.resize(static_cast<size_t>(length));
    return 0;
  });
}

int tov_sys_fsync(int fd) {
  return call_on(tov_test::CALL_FSYNC, fd, [](open_file_s &) { return 0; });
}

// A close that fails has closed all the same.
int tov_sys_close(int fd) {
  const bool goes_on = kernel().enter(tov_test::CALL_CLOSE);
  const int error = errno;
  const int result = returned(kernel().close(fd));
  if (goes_on) return result;
  errno = error;
  return -1;
}

int tov_sys_dup_above(int fd, int lowest) {
  return call_on(tov_test::CALL_DUP_ABOVE, fd, [&](const open_file_s &file) {
    open_file_s copy = file;
    copy.flags |= O_CLOEXEC;
    return kernel().install(std::move(copy), lowest);
  });
}

int tov_sys_set_flags(int fd, int flags) {
  return call_on(tov_test::CALL_SET_FLAGS, fd, [&](open_file_s &file) {
    constexpr int kept = O_ACCMODE | O_CLOEXEC;
    file.flags = (file.flags & kept) | (flags & ~kept);
    return 0;
  });
}

int tov_sys_lock(int fd, struct flock *lock) {
  return call(tov_test::CALL_LOCK, [&] { return kernel().lock_descriptor(fd, *lock); });
}

int tov_sys_lock_holder(int fd, struct flock *lock) {
  return call(tov_test::CALL_LOCK_HOLDER, [&] { return kernel().lock_holder(fd, lock); });
}

int tov_sys_fstat(int fd, struct stat *status) {
  return call(tov_test::CALL_FSTAT, [&] { return kernel().stat_of_descriptor(fd, status); });
}

int tov_sys_lstat(const char *path, struct stat *status) {
  return call(tov_test::CALL_LSTAT, [&] { return kernel().stat_of(path, false, status); });
}

int tov_sys_fstatat(int dir, const char *name, struct stat *status, int flags) {
  return call(tov_test::CALL_FSTATAT, [&]() -> int {
    std::string path = name;
    if (name[0] != '/') {
      if (dir == AT_FDCWD) return -ENOENT;  // the directory it works in has no simulated form
      const open_file_s *file = kernel().file_of(dir);
      if (file == nullptr) return -EBADF;
      path = file->path + "/" + name;
    }
    return kernel().stat_of(path, (flags & AT_SYMLINK_NOFOLLOW) == 0, status);
  });
}

int tov_sys_access(const char *path, int) {
  return call(tov_test::CALL_ACCESS, [&] {
    struct stat unused;
    return kernel().stat_of(path, true, &unused);
  });
}

int tov_sys_faccessat(int dir, const char *name, int, int) {
  return call_on(tov_test::CALL_FACCESSAT, dir, [&](const open_file_s &file) {
    struct stat unused;
    return kernel().stat_of(file.path + "/" + name, true, &unused);
  });
}

ssize_t tov_sys_readlink(const char *path, char *buf, size_t size) {
  return call(tov_test::CALL_READLINK, [&] { return kernel().readlink(path, buf, size); });
}

int tov_sys_unlink(const char *path) {
  return call(tov_test::CALL_UNLINK, [&] { return kernel().unlink(path); });
}

int tov_sys_link(const char *from, const char *to) {
  return call(tov_test::CALL_LINK, [&] { return kernel().link(from, to, true); });
}

int tov_sys_rename(const char *from, const char *to) {
  return call(tov_test::CALL_RENAME, [&] { return kernel().link(from, to, false); });
}

int tov_sys_renameat(int dir, const char *from, const char *to) {
  return call_on(tov_test::CALL_RENAMEAT, dir, [&](const open_file_s &file) {
    const std::string below = file.path + "/";
    return kernel().link((below + from).c_str(), (below + to).c_str(), false);
  });
}

int tov_sys_unlinkat(int dir, const char *name) {
  return call_on(tov_test::CALL_UNLINKAT, dir, [&](const open_file_s &file) {
    return kernel().unlink((file.path + "/" + name).c_str());
  });
}

int tov_sys_rename_new(const char *from, const char *to) {
  return call(tov_test::CALL_RENAME, [&] {
    const int linked = kernel().link(from, to, true);
    return linked < 0 ? linked : kernel().unlink(from);
  });
}

int tov_sys_mkdir(const char *path, mode_t mode) {
  return call(tov_test::CALL_MKDIR, [&] { return kernel().mkdir(path, mode); });
}

int tov_sys_rmdir(const char *path) {
  return call(tov_test::CALL_RMDIR, [&] { return kernel().rmdir(path); });
}
