// The open-file watch: a process that leaks descriptors ends itself, to be started again.
//
// The check needs a descriptor itself, so at the very moment when it ought to fire it cannot list
// its own directory any more. For the calling process the descriptors are then counted one by one,
// which needs none.
//
// Threads: one; `fd_count` has no lock.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "client/tov_rpc_fork.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "util/entries.h"
#include "util/procfs.h"

enum {
  TOV_FD_DIR_SIZE = 32,
  TOV_FD_WATCH_LIMIT = 3  // consecutive checks over the limit that are let pass
};

// Consecutive checks that found too many open files.
static int fd_count = 0;

extern "C" int get_resource_limit(int resource) noexcept {
  const tov_rpc_no_cancel_t no_cancel;
  rlimit limit{};
  // The C library declares the parameter as an enumeration for C++ only.
  if (getrlimit(static_cast<__rlimit_resource_t>(resource), &limit) < 0) {
    TOV_DBG("%s: %s\n", __func__, strerror(errno));
    return -1;
  }
  return limit.rlim_cur > INT_MAX ? INT_MAX : static_cast<int>(limit.rlim_cur);
}

// Counts the calling process's descriptors without opening one.
static int count_own_fds() {
  const int limit = get_resource_limit(RLIMIT_NOFILE);
  int count = 0;
  for (int fd = 0; fd < limit; fd++) {
    if (fcntl(fd, F_GETFD) >= 0) count++;
  }
  return count;
}

// Counts the entries of /proc/PID/fd. Returns the count, or -1 with errno.
static int count_fds(pid_t pid) {
  char path[TOV_FD_DIR_SIZE];
  snprintf(path, sizeof path, "/proc/%d/fd", pid);
  tov_entries_t fds(path);
  if (!fds) {
    return errno == EMFILE && pid == getpid() ? count_own_fds() : -1;
  }
  int count = 0;
  while (const char *name = fds.next()) {
    if (name[0] >= '0' && name[0] <= '9') count++;
  }
  if (fds.error() == 0) return count;
  errno = fds.error();
  return -1;
}

static void tell_over_limit(pid_t pid) {
  char cmdline[TOV_PATHNAME_SIZE];
  if (pid_to_cmdline(pid, cmdline, sizeof cmdline) != nullptr) {
    TOV_DBG("process %s/%d: open files exceed the system upper limit.\n", cmdline, pid);
  } else {
    TOV_DBG("process %d open files exceed the system upper limit.\n", pid);
  }
}

extern "C" void tov_client_watch_process_fd(pid_t pid) noexcept {
  const tov_rpc_no_cancel_t no_cancel;
  const int count = count_fds(pid);
  if (count < 0) {
    TOV_DBG("%s: %s\n", __func__, strerror(errno));
    return;
  }
  const int limit = get_resource_limit(RLIMIT_NOFILE);
  if (limit < 0) return;
  if (count < limit) {
    fd_count = 0;
    return;
  }
  tell_over_limit(pid);
  if (++fd_count > TOV_FD_WATCH_LIMIT) {
    fd_count = 0;
    exit(EXIT_FAILURE);
  }
}
