// Naming a thread and reporting its end.
//
// Threads: any; no state but `quit`. Losses: a name behind its 15th character.
#include "core/run/thread.h"

#include <errno.h>
#include <string.h>

#include "core/run/quit.h"
#include "include/tov_registry.h"
#include "log/tov_log.h"
#include "util/tov_sys.h"

int tov_core_thread_name(const char *name) {
  return tov_sys_set_name(name) < 0 ? -errno : 0;
}

void tov_core_thread_end(const char *name, int res, int err) {
  tov_quit_raise();
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "Thread \"%s\" exit, tov will be restart. res=%d, %s(%d)\r\n", name, res,
                          strerror(err), err);
  tov_log_flush_and_wait();
}
