// No open waits for a peer at the other end of a FIFO: these functions run under the registry's
// lock or between fork and exec.
#include "proc/files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum {
  CONSOLE_TRIES = 5,
  CONSOLE_PAUSE_US = 10000,
  NUMBER_FILE_SIZE = 256,
};

int debug_time(void) {
  if (!tov_file_exists(TOV_DEBUG_TIME_FILE)) return TOV_SELF_CHECK_PERIOD_S;
  // O_NONBLOCK: our own descriptor would count as the writer of a FIFO, and a read wait for ever,
  // with the registry locked.
  const tov_fd_t fd(tov_sys_open(TOV_DEBUG_TIME_FILE,
                                 O_RDWR | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0754));
  if (fd.n < 0) return -errno;

  char text[NUMBER_FILE_SIZE + 1] = {};
  if (safe_read(fd.n, text, NUMBER_FILE_SIZE) < 0) {
    TOV_DBG("%s: read fail: %s\n", __func__, strerror(errno));
    return TOV_SELF_CHECK_PERIOD_S;
  }
  const int period_s = tov_atoi(text);
  if (period_s <= 0) {
    TOV_DBG("%s: atio fail or file is null: %s\n", __func__, strerror(errno));
    return TOV_SELF_CHECK_PERIOD_S;
  }
  return period_s;
}

int console_open(int mode) {
  int fd = -1;
  for (int tries = 0; tries < CONSOLE_TRIES; tries++) {
    fd = tov_sys_open(TOV_CONSOLE, mode | O_NONBLOCK);
    if (fd >= 0) break;
    if (tries + 1 < CONSOLE_TRIES) tov_sys_usleep(CONSOLE_PAUSE_US);
  }
  if (fd >= 0 && (mode & O_NONBLOCK) == 0) (void)tov_sys_set_flags(fd, mode);
  return fd;
}

// Anybody may put a link or a FIFO into the place of the record, and failures that are not counted
// would never end the daemon: what stands there without being a file makes way.
static tov_fd_t open_fork_record(const char *file) {
  static constexpr int flags = O_RDWR | O_CREAT | O_APPEND | O_SYNC;
  tov_fd_t fd(tov_open_regular(file, flags, 0755));
  if (fd.n >= 0) return fd;
  const int error = errno;
  if (tov_clear_file_place(file)) return tov_fd_t(tov_open_regular(file, flags, 0755));
  errno = error;
  return fd;
}

int tov_record_abnormal_fork(const char *text, const char *file) {
  const tov_fd_t fd = open_fork_record(file);
  if (fd.n < 0) return -errno;
  const size_t length = strlen(text);
  const ssize_t written = safe_write(fd.n, text, length);
  if (written < 0) return -errno;
  if (static_cast<size_t>(written) != length) return -EIO;
  return tov_sys_fsync(fd.n) < 0 ? -errno : 0;
}

void tov_remove_abnormal_fork_file(const char *file) {
  if (tov_sys_unlink(file) == 0 || errno == ENOENT) return;
  TOV_DBG_CHILD("unlink file ", file, " error, reason is ", strerrordesc_np(errno), "\n");
}
