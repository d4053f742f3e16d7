// Ending a virtual device.
//
// The variants are one procedure; what each removes is a column of one table, because each set is a
// part of the largest in the same order.
//
//   running --marker--> marked --TERM, 5 s, KILL, 10 s--> marker off, directories removed
//                          `-- /proc cannot be read --> stays marked
//
// Threads: one; works beside the daemon, to which only the marker and the signals lead.
// The tool does not die of a reader that has gone (SIGPIPE): a marker left behind would keep the
// daemon from restarting anything.
// Losses: a process that is still ending after the 10 s keeps its control group from being removed.
#include "vsd/delete.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"
#include "vsd/create.h"
#include "vsd/kill.h"
#include "vsd/path.h"
#include "vsd/remove.h"

enum {
  TERM_TO_KILL_S = 5,
  KILL_TO_REMOVAL_S = 10,
};

namespace {

// Who removes a directory, as bits.
enum variant_e : unsigned {
  DELETE = 1,
  RELOAD = 2,
  STOP = 4,
  FILES = 8,
};

struct trace_s {
  const char *path;  // a format, takes the device
  unsigned removed_by;
  bool in_data2;  // looked for only where there is a second data tree
};

}  // namespace

// In the order of removal.
static constexpr trace_s traces[] = {
    {TOV_VSD_DIR_FMT, DELETE | RELOAD | STOP | FILES, false},
    {TOV_VSD_ETC_DIR_FMT, DELETE | RELOAD | STOP | FILES, false},
    {TOV_VSD_RUN_DIR_FMT, DELETE | FILES, false},
    {TOV_VSD_DATA_DIR_FMT, DELETE, false},
    {TOV_VSD_DATA2_DIR_FMT, DELETE, true},
    {TOV_VSD_DATA2_RUN_DIR_FMT, DELETE, true},
    {TOV_VSD_QX_CFG_DIR_FMT, DELETE, false},
    {TOV_VSD_QXOS_DIR_FMT, DELETE, false},
    {TOV_VSD_MEMORY_GROUP_FMT, DELETE | STOP, false},
    {TOV_VSD_CPU_GROUP_FMT, DELETE | STOP, false},
};

static void remove_traces(variant_e variant, int vsd_no) {
  for (const trace_s &row : traces) {
    if ((row.removed_by & variant) == 0) continue;
    if (row.in_data2 && !tov_file_exists(TOV_DATA2_DIR)) continue;
    tov_vsd_path_t path = tov_vsd_path(row.path, vsd_no);
    (void)delete_dir(path.text);  // what cannot go must not keep the rest
  }
}

namespace {

// Ignores SIGPIPE while it lives; gives the caller's disposition back for what is started later.
class deaf_to_pipe_s {
 public:
  deaf_to_pipe_s() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &ignore, &before_);
  }
  deaf_to_pipe_s(const deaf_to_pipe_s &) = delete;
  deaf_to_pipe_s &operator=(const deaf_to_pipe_s &) = delete;
  ~deaf_to_pipe_s() { (void)sigaction(SIGPIPE, &before_, nullptr); }

 private:
  struct sigaction before_ {};
};

}  // namespace

// Says what comes next; operators watch these lines, so they are shown at once and always.
static void announce(const char *format, int vsd_no) {
  printf(format, vsd_no);
  (void)fflush(stdout);
}

static int signal_members(const char *caller, int signo, int vsd_no) {
  const int res = kill_proc_by_groups(signo, static_cast<int>(tov_vsd_gid(vsd_no)));
  if (res >= 0) return 0;
  errno = -res;
  return TOV_VSD_FAILED(caller, "ret < 0");
}

static int end_members(const char *caller, int vsd_no) {
  announce("Sending vsd: %d all processes the TERM signal...\n", vsd_no);
  const int res = signal_members(caller, SIGTERM, vsd_no);
  if (res < 0) return res;
  announce("After 5s, Sending vsd: %d all processes the KILL signal...\n", vsd_no);
  safe_sleep(TERM_TO_KILL_S);
  return signal_members(caller, SIGKILL, vsd_no);
}

static int end_vsd(const char *caller, variant_e variant, int vsd_no) {
  const deaf_to_pipe_s deaf;
  const tov_vsd_path_t marker = tov_vsd_path(TOV_VSD_DELETE_MARKER_FMT, vsd_no);
  {
    const tov_fd_t file(tov_open_regular(marker.text, O_RDWR | O_CREAT, TOV_VSD_FILE_MODE));
    if (file.n < 0) return -errno;
  }
  const int res = end_members(caller, vsd_no);
  if (res < 0) return res;
  // Said before it is so: the wait and the removal follow.
  announce("After 10s, Delete vsd: %d OK.\n", vsd_no);
  safe_sleep(KILL_TO_REMOVAL_S);
  (void)unlink(marker.text);
  remove_traces(variant, vsd_no);
  return 0;
}

int delete_vsd(int vsd_no) {
  return end_vsd(__func__, DELETE, vsd_no);
}

int stop_vsd(int vsd_no) {
  return end_vsd(__func__, STOP, vsd_no);
}

int re_delete_vsd(int vsd_no) {
  return end_vsd(__func__, RELOAD, vsd_no);
}

int reload_vsd(int vsd_no) {
  int res = re_delete_vsd(vsd_no);
  if (res < 0) {
    TOV_DBG("delete %d vsd fail, error =%s\n", vsd_no, strerror(-res));
    return res;
  }
  res = create_vsd(vsd_no);
  if (res < 0) {
    TOV_DBG("create vsd fail, error = %s\n", strerror(-res));
    return res;
  }
  return 0;
}

int delete_vsd_file(int vsd_no) {
  remove_traces(FILES, vsd_no);
  return 0;
}
