// Withdrawing a process from supervision: its registration file first, then the daemon's record.
//
// The file goes first so that a daemon which starts in between does not take the process up again.
// Its name follows from the command line that the process has now; a program that rewrote its
// title since it registered leaves its file to the daemon, which removes it with the record.
//
// Threads: any; takes tov_rpc_lock through tov_rpc().
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "client/tov_pidfile.h"
#include "client/tov_rpc.h"
#include "client/tov_rpc_fork.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/member.h"

enum {
  TOV_DB_FILE_NAME_SIZE = 256,
  TOV_CANCEL_PAUSE_S = 1  // lets the daemon carry the request out before the caller goes on
};

void tov_rm_db_file_by_pid(pid_t pid) {
  const int vsd_id = tov_vsd_or_base(pid);

  char cmdline[TOV_PATHNAME_SIZE] = "";
  if (pid_to_cmdline(pid, cmdline, sizeof cmdline) == nullptr) {
    TOV_DBG("%s pid_to_cmdline(%d) fail\n", __func__, pid);
    return;
  }
  char file[TOV_DB_FILE_NAME_SIZE] = "";
  tov_get_db_file_name(vsd_id, pid, cmdline, file, sizeof file);
  const int ret = unlink(file);
  TOV_DBG("%s unlink file %s ret %d\n", __func__, file, ret);
}

extern "C" int tov_cancel_proc(pid_t pid) noexcept {
  const tov_rpc_call_t call;
  TOV_DBG("tov_cancel_proc:%d\n", pid);
  if (pid < 0) {
    TOV_DBG("The pid you enter is %d < 0 \n", pid);
    return -1;
  }
  if (pid == 0) pid = getpid();

  tov_rm_db_file_by_pid(pid);
  tov_msg_cons_t request = {.event = TOV_CONS_DUMP_ALL, .pid = pid};
  const int ret = tov_rpc_persist(TOV_MSG_CONS, &request, sizeof request);
  if (ret >= 0) {
    safe_sleep(TOV_CANCEL_PAUSE_S);
  } else {
    TOV_DBG("%s: cancel fail: %s\n", __func__, strerror(errno));
  }
  return ret;
}
