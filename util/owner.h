// Owners: what releases a descriptor, directory, stream or lock on every path.
//
// Functions borrow the plain value; only an owner lives across a `return`. All of them keep
// `errno`, so that a failure can be reported after its resource is gone. None allocates.
#ifndef TOV_UTIL_OWNER_H
#define TOV_UTIL_OWNER_H

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "include/tov_thread_safety.h"
#include "util/tov_sys.h"

// Restores `errno` when it goes out of scope: for signal handlers and for clean-up.
struct tov_errno_keeper_s {
  int saved = errno;
  tov_errno_keeper_s() = default;
  tov_errno_keeper_s(const tov_errno_keeper_s &) = delete;
  tov_errno_keeper_s &operator=(const tov_errno_keeper_s &) = delete;
  ~tov_errno_keeper_s() { errno = saved; }
};

// Owns one descriptor; below 0, as a failed call answers, it owns nothing.
struct tov_fd_s {
  int n;
  explicit tov_fd_s(int fd = -1) noexcept : n(fd) {}
  tov_fd_s(tov_fd_s &&other) noexcept : n(std::exchange(other.n, -1)) {}
  tov_fd_s &operator=(tov_fd_s &&other) noexcept {
    if (this != &other) {
      reset();
      n = std::exchange(other.n, -1);
    }
    return *this;
  }
  tov_fd_s(const tov_fd_s &) = delete;
  tov_fd_s &operator=(const tov_fd_s &) = delete;
  ~tov_fd_s() { reset(); }

  // Closes now.
  void reset() noexcept {
    if (n < 0) return;
    const tov_errno_keeper_s keep;
    tov_sys_close(std::exchange(n, -1));
  }
};
using tov_fd_t = tov_fd_s;

// Takes the descriptor out of its owner: the caller closes it.
inline int tov_fd_take(tov_fd_t &fd) {
  return std::exchange(fd.n, -1);
}

// Moves a descriptor that was just made off the numbers of the standard streams, which a host may
// have closed: what is printed there would land in it. Close-on-exec.
//   fd  what the call that makes one returned: -1, with errno, when it failed
// Returns the descriptor, the caller's own; or -errno, and `fd` is closed. Leaves errno, too.
inline int tov_fd_above_streams(int fd) {
  if (fd < 0) return -errno;
  if (fd > STDERR_FILENO) return fd;
  const tov_fd_t low(fd);
  const int high = tov_sys_dup_above(low.n, STDERR_FILENO + 1);
  return high < 0 ? -errno : high;
}

struct tov_close_s {
  void operator()(FILE *file) const {
    const tov_errno_keeper_s keep;
    fclose(file);
  }
  void operator()(DIR *dir) const {
    const tov_errno_keeper_s keep;
    tov_sys_closedir(dir);
  }
};
using tov_file_t = std::unique_ptr<FILE, tov_close_s>;
using tov_dir_t = std::unique_ptr<DIR, tov_close_s>;

// Owns a block of malloc(3), calloc(3) or safe_malloc().
struct tov_free_s {
  void operator()(void *block) const {
    const tov_errno_keeper_s keep;  // older C libraries' free() may change it
    free(block);
  }
};
template <typename T>
using tov_block_t = std::unique_ptr<T, tov_free_s>;

// A mutex of which the analysis of locks knows; otherwise the plain type.
typedef pthread_mutex_t TOV_CAPABILITY("mutex") tov_mutex_t;

// Holds a mutex for as long as it lives.
class TOV_SCOPED_CAPABILITY tov_lock_guard_s {
 public:
  explicit tov_lock_guard_s(tov_mutex_t &mutex) TOV_ACQUIRE(mutex) : mutex_(&mutex) {
    pthread_mutex_lock(mutex_);
  }
  tov_lock_guard_s(const tov_lock_guard_s &) = delete;
  tov_lock_guard_s &operator=(const tov_lock_guard_s &) = delete;
  ~tov_lock_guard_s() TOV_RELEASE() { release(); }

  // Unlocks before the end of the scope.
  // Not analysed: this is the unlocking, of which the C library's header does not tell.
  void release() TOV_RELEASE() TOV_NO_THREAD_SAFETY {
    if (mutex_ != nullptr) pthread_mutex_unlock(std::exchange(mutex_, nullptr));
  }

 private:
  pthread_mutex_t *mutex_;
};
using tov_lock_guard_t = tov_lock_guard_s;

#endif  // TOV_UTIL_OWNER_H
