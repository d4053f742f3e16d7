// Finding the processes of a device by what the kernel says about their groups.
//
// Not by the member files: those name only the processes that were there when they were written,
// a process that a member has started since has the group and no file.
// A process is held by a descriptor before its groups are read, so that the signal reaches the one
// whose groups they are, or nobody: its id may be a stranger's by then.
//
// Threads: any. Losses: a process that is born between the reading of /proc and its end can be
// missed; the second round of a deletion (SIGKILL) finds it.
#include "vsd/kill.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "log/tov_dbg.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/member.h"
#include "vsd/path.h"

static constexpr const char *FUNCTION = "kill_proc_by_groups";

namespace {

struct wanted_s {
  int signo;
  char group[16];  // decimal
};

}  // namespace

static void complain_if_negative(int number, const char *what) {
  if (number >= 0) return;
  errno = EINVAL;
  (void)TOV_VSD_FAILED(FUNCTION, what);
}

// Sends a signal to the process behind a descriptor.
//   held  of the process; none (an old kernel, no descriptor free): whoever has the id by now
static void send_to(pid_t pid, const tov_fd_t &held, int signo) {
  if (held.n < 0) {
    (void)tov_sys_kill(pid, signo);  // it may be gone by now
  } else {
    (void)tov_sys_pidfd_signal(held.n, signo);
  }
}

//   match  where the wanted number begins in the line, the number there may go on
static void send_signal(const wanted_s &wanted, const char *match, const char *name,
                        const tov_fd_t &held) {
  const int group = tov_atoi(match);
  complain_if_negative(group, "atoi fail");
  const pid_t pid = tov_atoi(name);
  complain_if_negative(pid, "atoi proc");
  TOV_DBG("delete vsd: supplement_id: %d pid: %d\n", group, pid);
  if (pid > 0) send_to(pid, held, wanted.signo);
}

static void signal_member(const wanted_s &wanted, const char *name) {
  const tov_fd_t held(tov_sys_pidfd_open(tov_atoi(name)));
  tov_status_file_t status(tov_atoi(name));
  if (!status) {
    (void)TOV_VSD_FAILED(FUNCTION, "fopen fail");
    return;
  }
  for (const char *line = status.next(); line != nullptr; line = status.next()) {
    if (strstr(line, "Groups:") == nullptr) continue;
    const char *match = strstr(line, wanted.group);
    if (match != nullptr) send_signal(wanted, match, name, held);
  }
}

int kill_proc_by_groups(int signo, int supplement_id) {
  tov_entries_t proc("/proc/");
  if (!proc) return TOV_VSD_FAILED(__func__, "opendir fail");
  wanted_s wanted = {signo, {}};
  (void)snprintf(wanted.group, sizeof wanted.group, "%d", supplement_id);
  while (const char *name = proc.next())
    if (sisdigit(name) == 0) signal_member(wanted, name);
  return 0;
}
