// Opening files that may lie under world-writable directories.
//
// Most of what the daemon reads and writes lies in directories of mode 0777 without a sticky bit,
// so any user can plant a link, a FIFO or a device under a name that we are about to open: a FIFO
// would block start-up for ever, a link would lead a root process elsewhere. Every file there is
// therefore opened through this one function. What stands in the place of a file that the daemon
// cannot do without is removed.
//
// A header alone, without a source: the platform services use it too, and they are linked below
// the daemon's library.
#ifndef TOV_UTIL_REGULAR_FILE_H
#define TOV_UTIL_REGULAR_FILE_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include "util/owner.h"
#include "util/tov_sys.h"

// Opens a regular file and nothing else; never blocks, never follows a link at the last component,
// never acquires a terminal. The descriptor is close-on-exec and above the standard streams.
//   flags  of open(2); O_NOFOLLOW, O_NONBLOCK, O_NOCTTY and O_CLOEXEC are added (O_NONBLOCK means
//          nothing on a regular file, so it stays set)
//   mode   for O_CREAT, narrowed by the umask
// Returns the descriptor, the caller's own, or -errno: that of open(2) (-ELOOP: a link; -ENXIO: a
// FIFO or socket) or -EINVAL for anything else that is no regular file. Leaves errno, too.
// Any thread; async-signal-safe.
inline int tov_open_regular(const char *path, int flags, mode_t mode = 0) {
  tov_fd_t fd(tov_fd_above_streams(
      tov_sys_open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode)));
  if (fd.n < 0) return fd.n;

  struct stat found;
  if (tov_sys_fstat(fd.n, &found) < 0) return -errno;
  if (!S_ISREG(found.st_mode)) {
    errno = EINVAL;
    return -EINVAL;
  }
  return tov_fd_take(fd);
}

// Opens a file, making it if need be. Never O_CREAT on one that exists: in a sticky directory the
// kernel (fs.protected_regular) refuses that even to root when another user owns the file.
//   open  called with the flags of open(2) that come to its own: 0, or O_CREAT and O_EXCL;
//         returns a descriptor, or a number below 0 with errno
// Returns what its last call did. Any thread.
template <typename Open>
int tov_open_or_make(Open open) {
  constexpr int TRIES = 8;  // while the file is made and removed under our hands
  int fd = -1;
  for (int tries = 0; tries < TRIES; tries++) {
    fd = open(0);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = open(O_CREAT | O_EXCL);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return fd;
}

// Removes what stands in the place of a regular file without being one: a link (what it leads to is
// left alone), a FIFO, a socket, a device, an empty directory.
// Returns whether something was removed.
// Any thread; async-signal-safe.
inline bool tov_clear_file_place(const char *path) {
  struct stat found;
  if (tov_sys_lstat(path, &found) < 0 || S_ISREG(found.st_mode)) return false;
  return (S_ISDIR(found.st_mode) ? tov_sys_rmdir(path) : tov_sys_unlink(path)) == 0;
}

// Opens a regular file as tov_open_regular() does, as a stream; a created file gets mode 0666,
// narrowed by the umask, as with fopen(3). Allocates: not in a forked child.
//   flags  of open(2)
//   how    of fdopen(3), agreeing with `flags`
// Returns the stream, or an empty owner with errno.
inline tov_file_t tov_fopen_regular(const char *path, int flags, const char *how) {
  tov_fd_t fd(tov_open_regular(path, flags, 0666));
  if (fd.n < 0) return nullptr;
  tov_file_t file(fdopen(fd.n, how));
  if (file != nullptr) (void)tov_fd_take(fd);  // the stream closes it
  return file;
}

#endif  // TOV_UTIL_REGULAR_FILE_H
