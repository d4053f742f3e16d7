// What the rooms of the virtual-device module share: names built from a device's number, the
// group id, the member file, the failure line.
//
// No state. Everything lives on the caller's stack.
#ifndef TOV_VSD_PATH_H
#define TOV_VSD_PATH_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"

// A path that holds one or two numbers; every format of tov_ras_comp_config.h fits.
struct tov_vsd_path_s {
  char text[64];
};
using tov_vsd_path_t = tov_vsd_path_s;

inline tov_vsd_path_t tov_vsd_path(const char *format, int vsd_no) {
  tov_vsd_path_t path;
  (void)snprintf(path.text, sizeof path.text, format, vsd_no);
  return path;
}

// The member file of a process.
inline tov_vsd_path_t tov_vsd_member_path(int vsd_no, pid_t pid) {
  tov_vsd_path_t path;
  (void)snprintf(path.text, sizeof path.text, TOV_VSD_MEMBER_FMT, vsd_no, pid);
  return path;
}

// Mode of every file that the module creates, narrowed by the umask.
enum { TOV_VSD_FILE_MODE = 0754 };

// The group id of a device. Unsigned: an absurd number from the command line wraps instead of
// overflowing.
inline unsigned int tov_vsd_gid(int vsd_no) {
  return TOV_VSD_GID_BASE + TOV_VSD_GID_STEP * static_cast<unsigned int>(vsd_no);
}

// Makes the marker file of a member, empty, below the device's directory, which is open to
// everybody. Returns 0 or -errno.
inline int tov_vsd_make_member_file(int vsd_no, pid_t pid) {
  const tov_vsd_path_t path = tov_vsd_member_path(vsd_no, pid);
  const tov_fd_t file(tov_open_regular(path.text, O_RDWR | O_CREAT, TOV_VSD_FILE_MODE));
  return file.n < 0 ? -errno : 0;
}

// Says that `what` ("open fail") failed in function `caller`, with the text of errno. Returns the
// negative errno; -EINVAL when none was set, so that a failure never reads as success.
inline int tov_vsd_failed(const char *file, int line, const char *caller, const char *what) {
  const int cause = errno > 0 ? errno : EINVAL;
  if (tov_dbg_is_open(TOV_MODULE_PUB))
    tov_dbg_print(file, line, "%s: %s: %s\n", caller, what, strerror(cause));
  return -cause;
}
#define TOV_VSD_FAILED(caller, what) tov_vsd_failed(__FILE_NAME__, __LINE__, caller, what)

#endif  // TOV_VSD_PATH_H
