// The directories as tables, and the limit. A directory that cannot be made is passed over, since
// whoever needs it reports it; a limit that cannot be set ends the daemon.
#include "core/setup.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/path.h"
#include "util/tov_utils.h"
#include "vsd/path.h"

enum {
  OPEN_FILES = 2304,
  DEVICE_FIRST = 0,
  DEVICE_LAST = 15,
};

// In the order in which they are made.
static constexpr const char *directories[] = {
    "/qx_cfg/",
    "/qx_cfg/vsd_common/",
    "/qx_cfg/vsd/",
    "/qx_cfg/vsd/0",
    "/qxos/",
    "/qxos/vsd_common/",
    "/qxos/vsd/",
    "/qxos/vsd/0",
    "/qxos/vsd/0/tov",
    "/data/.qxos/",
    "/data/.qxos/vsd_common/",
    "/data/.qxos/vsd/",
    "/data/.qxos/vsd/0",
};

static constexpr const char *data2_directories[] = {
    "/data2/.qxos/", "/data2/.qxos/vsd/", "/data2/.qxos/vsd/0",
    "/data2/var/",   "/data2/var/run/",   "/data2/var/run/vsd/",
};

static constexpr const char *later_directories[] = {
    "/tmp/vsd_common/",
    "/tmp/vsd",
    "/tmp/vsd/0",
    "/etc/vsd",
    "/etc/vsd/0",
    "/data/var/",
    "/data/var/run/",
    "/data/var/run/vsd/",
    // Not formatted: installed tools look for a directory that is really called "%d".
    TOV_VSD_DB_DIR_FMT,
};

template <typename List>
static void make_all(const List &list) {
  for (const char *path : list)
    (void)tov_make_dir(path);
}

void tov_make_directories(void) {
  make_all(directories);
  if (tov_file_exists(TOV_DATA2_DIR)) make_all(data2_directories);
  make_all(later_directories);
  (void)chmod("/data/", 0777);
  for (int vsd_no = DEVICE_FIRST; vsd_no <= DEVICE_LAST; vsd_no++) {
    (void)tov_make_dir(tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no).text);
    (void)tov_make_dir(tov_vsd_path(TOV_VSD_DB_DIR_FMT, vsd_no).text);
  }
}

[[noreturn]] static void give_up(const char *text) {
  (void)fputs(text, stdout);
  (void)fflush(stdout);  // the texts end without a line feed
  abort();
}

void tov_set_file_limit(void) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) < 0) give_up("[TOV]ULIMIT: Get ulimit error.\r");
  TOV_DBG("Origin ulimit cur %d, max %d\r\n", static_cast<int>(limit.rlim_cur),
          static_cast<int>(limit.rlim_max));
  if (limit.rlim_max < OPEN_FILES) limit.rlim_max = OPEN_FILES;
  limit.rlim_cur = OPEN_FILES;
  if (setrlimit(RLIMIT_NOFILE, &limit) < 0) give_up("[TOV]ULIMIT: Set ulimit error.\r");
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  TOV_DBG("Set ulimit cur %d, max %d\r\n", static_cast<int>(limit.rlim_cur),
          static_cast<int>(limit.rlim_max));
}
