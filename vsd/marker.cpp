// Testing the marker files, making and removing one.
#include "vsd/marker.h"

#include <errno.h>
#include <fcntl.h>

#include "include/tov_ras_comp_config.h"
#include "util/owner.h"
#include "util/tov_sys.h"
#include "vsd/path.h"

// Opens and closes a marker read-write. O_NONBLOCK: whatever an operator left under that name must
// not hold the caller, who may have the registry locked. Returns 0 or -errno.
static int open_marker(const char *path, int more_flags) {
  const tov_fd_t fd(tov_sys_open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | more_flags,
                                 TOV_VSD_FILE_MODE));
  return fd.n < 0 ? -errno : 0;
}

int dev_mon_restart(void) {
  return open_marker(TOV_DEV_MON_FILE, O_CREAT);
}

int del_dev_mon_log(void) {
  return open_marker(TOV_DEV_MON_FILE, 0);
}

int del_dev_mon_restart(void) {
  const int present = open_marker(TOV_DEV_MON_FILE, 0);
  if (present < 0) return present;
  // What could be opened for writing is no directory: nothing to descend into.
  return tov_sys_unlink(TOV_DEV_MON_FILE) < 0 ? -errno : 0;
}

int debug_log(void) {
  return open_marker(TOV_DEBUG_LOG_FILE, 0);
}
