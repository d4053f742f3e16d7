// Judged is the open directory itself, which nobody can exchange afterwards.
//
// Threads: any; no state. Losses: none.
//
// Tested by: tests/unit/core/registry/watched_test.cpp
#include "util/root_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "util/owner.h"
#include "util/tov_sys.h"

enum { ROOT = 0, MODE_ROOT_WRITES = 0755 };

int tov_open_root_dir(const char *path) {
  if (tov_sys_mkdir(path, MODE_ROOT_WRITES) < 0 && errno != EEXIST) return -errno;
  tov_fd_t dir(
      tov_fd_above_streams(tov_sys_open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  if (dir.n < 0) return dir.n;
  struct stat found;
  if (tov_sys_fstat(dir.n, &found) < 0) return -errno;
  const bool others_write = (found.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (found.st_uid != ROOT || others_write) return -EPERM;
  return tov_fd_take(dir);
}
