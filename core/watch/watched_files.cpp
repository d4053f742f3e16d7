// The files that the watcher reads and writes are small, and read and written whole.
//
// Thread: the watcher's. Losses: a mirror that cannot be written is out of date.
#include "core/watch/watched_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/run/farewell.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/plain_files.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "util/clock.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

enum {
  READ_SIZE = 256,
  FAILURES_ALLOWED = 6,
};

// ---- failing forks --------------------------------------------------------------------------

// Every start of a program failed: what is needed to start again as a fresh process, and why.
[[noreturn]] static void end_daemon() {
  (void)protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov",
                                      "Can not restart process, must be restart itself.\n");
  protect_selfhealing_flush_buf_in_emergency();
  tov_log_record_reboot_info(TOV_FORK_REASON_FILE, "%s",
                             "tov can not restart process, must be restart itself.\n");
  (void)tov_write_buf_to_file(nullptr, 0, TOV_FORK_FILE);  // the next daemon starts clean
  safe_sleep(2);
  (void)tov_log_with_type(TOV_LOG_ERROR, "Unable to restart the process, tov will be restart.\r\n");
  tov_log_flush_and_wait();
  tov_core_leave(1);
}

void tov_deal_forkfile_change(void) {
  tov_fd_t fd(tov_open_regular(TOV_FORK_FILE, O_RDONLY));
  if (fd.n < 0) {
    TOV_DBG("open %s error, %s\n", TOV_FORK_FILE, strerror(errno));
    return;
  }
  char text[READ_SIZE + 1] = {};
  if (safe_read(fd.n, text, READ_SIZE) < 0) {
    TOV_DBG("read %s error, %s\n", TOV_FORK_FILE, strerror(errno));
    return;
  }
  fd.reset();
  if (strlen(text) > FAILURES_ALLOWED) end_daemon();
}

// ---- the switch -----------------------------------------------------------------------------

void tov_update_cfg(void) {
  static constexpr char off[] = "no tov single-process-ha auto-restart enable\r\n";
  static constexpr const char *on = off + sizeof "no " - 1;
  const bool was_on = tov_flag_get(tov_single_ps_ha_enable) != 0;

  // Unreadable is as good as empty. A link is followed, since the platform may keep the file
  // elsewhere; a FIFO does not block.
  char text[READ_SIZE];
  (void)tov_read_to_buf(TOV_HA_CONFIG_FILE, text, sizeof text);
  const bool is_on = strstr(text, "no tov single-process-ha auto-restart enable") == nullptr;
  tov_flag_set(tov_single_ps_ha_enable, is_on ? 1 : 0);

  const char *line = is_on ? on : off;
  TOV_DBG("tov_update_cfg buf %s\r\n", line);
  (void)tov_write_buf_to_file(line, static_cast<int>(strlen(line)), TOV_HA_MIRROR_FILE);
  if (!was_on && is_on) {
    tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(tov_get_time()));
  }
}

// ---- small files ----------------------------------------------------------------------------

int tov_write_buf_to_file(const void *buf, int len, const char *path) {
  const tov_fd_t fd(tov_open_regular(path, O_RDWR | O_CREAT | O_TRUNC, 0777));
  if (fd.n < 0) {
    TOV_DBG("%s: file %s fd < 0: %s\n", __func__, path, strerror(errno));
    return -1;
  }
  int written = 0;
  if (buf != nullptr && len > 0) {
    written = static_cast<int>(safe_write(fd.n, buf, static_cast<size_t>(len)));
    if (written != len) TOV_DBG("write buf to file %s fail. ret:%d\r\n", path, written);
  }
  (void)fsync(fd.n);
  return written;
}

int tov_check_data_mount(void) {
  const tov_file_t mounts(fopen("/proc/mounts", "re"));
  if (!mounts) return 0;
  char line[255];
  while (fgets(line, sizeof line, mounts.get()) != nullptr) {
    if (strstr(line, "/data") != nullptr) return 1;
  }
  return 0;
}
