// The files that steer the killer are written and never created; those that say whether a reload
// is permitted are read at each question.
// Losses: a value for a process that is gone, or for a switch that the kernel does not have.
#include "core/run/lowmem.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/run/settings.h"
#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_sys.h"

enum {
  OOM_ADJ_EXEMPT = -1000,
  OOM_ADJ_ORDINARY = 0,
};

int tov_is_reboot_available(void) {
  int status = 1;
  return tov_get_file_config(TOV_LMK_REBOOT_FILE, &status) < 0 || status != 0;
}

// What a shell's echo into the file would do, without creating it.
static void write_switch(const char *path, const char *text) {
  const tov_fd_t fd(tov_sys_open(path, O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY));
  if (fd.n < 0) return;
  (void)!tov_sys_write(fd.n, text, strlen(text));  // as ignored as an echo's failure would be
}

void change_proc_oom_adj(int para, pid_t pid) {
  if (pid <= 0) return;
  char path[64];
  char text[16];
  (void)snprintf(path, sizeof path, TOV_OOM_ADJ_FMT, pid);
  (void)snprintf(text, sizeof text, "%d\n", para);
  write_switch(path, text);
}

void tov_ignore_lmk(pid_t pid) {
  change_proc_oom_adj(OOM_ADJ_EXEMPT, pid);
}

void tov_reset_lmk(pid_t pid) {
  change_proc_oom_adj(OOM_ADJ_ORDINARY, pid);
}

void tov_flush_lmk(void) {
  if (tov_sys_access(TOV_LMK_FLUSH_FILE, F_OK) == 0) {
    write_switch(TOV_LMK_FLUSH_FILE, "1\n");
    return;
  }
  TOV_DBG_CHILD(TOV_LMK_FLUSH_FILE, " find fail, error = ", strerrordesc_np(errno), ".\n");
}
