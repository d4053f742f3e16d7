#include "tov_core_watcher.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tov_core_config.h"
#include "tov_core_leave.h"
#include "tov_core_thread.h"
#include "tov_dbg.h"
#include "tov_log.h"
#include "tov_platform.h"
#include "tov_ras_comp_config.h"
#include "tov_utils.h"

static constexpr char thread_name[] = "tov_inotify_fork";

enum {
  WATCH_MASK = IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF,
  EVENTS_SIZE = 1024,
  POLL_TIMEOUT_MS = 60000,
  MOUNT_WAIT_MS = 10000,
  MOUNT_SETTLE_US = 1000,
  INIT_RETRY_US = 100,
  VANISHED_RETRY_US = 10000,
  EVENT_PAUSE_US = 1000,
  REASON_SIZE = 200,
};

struct watch_s {
  tov_fd_t inotify;
  int wd_fork = -1;
  int wd_tov_cfg = -1;
  int fd_num = -1;  // last result of poll
};

// ---- fatal end ------------------------------------------------------------------------------

[[noreturn]] static void end_daemon(const watch_s &watch) {
  char text[REASON_SIZE];
  (void)snprintf(text, sizeof text,
                 "tov_inotify_fork_error!(inotifyfd, wd_fork, wd_tov_cfg, fd_num)=(%d, %d, %d, "
                 "%d).",
                 watch.inotify.n, watch.wd_fork, watch.wd_tov_cfg, watch.fd_num);
  (void)protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", text);
  protect_selfhealing_flush_buf_in_emergency();
  safe_sleep(2);
  tov_log_record_reboot_info(TOV_EXIT_REASON_FILE, "%s", text);
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "Thread \"%s\" exit, tov will be restart. (inotifyfd, wd_fork, "
                          "wd_tov_cfg, fd_num)=(%d, %d, %d, %d).",
                          "tov_inotify_fork_error", watch.inotify.n, watch.wd_fork,
                          watch.wd_tov_cfg, watch.fd_num);
  tov_log_flush_emergency();
  safe_sleep(1);
  tov_core_leave(1);
}

// ---- set-up ---------------------------------------------------------------------------------

// The kernel marks /proc/mounts as exceptional whenever the mounts change, so there is nothing to
// poll for while /data is missing.
static void wait_for_data() {
  tov_fd_t mounts(open("/proc/mounts", O_RDONLY | O_CLOEXEC));
  while (tov_check_data_mount() != 1) {
    pollfd changed{mounts.n, POLLPRI, 0};
    if (poll(&changed, mounts.n >= 0 ? 1 : 0, MOUNT_WAIT_MS) < 0) safe_usleep(MOUNT_SETTLE_US);
  }
  safe_usleep(MOUNT_SETTLE_US);
}

static void make_missing_files() {
  if (!tov_file_exists(TOV_RUN_DIR)) (void)tov_make_dir(TOV_RUN_DIR);
  for (const char *path : {TOV_FORK_FILE, TOV_HA_CONFIG_FILE}) {
    if (!tov_file_exists(path)) (void)tov_write_buf_to_file(nullptr, 0, path);
  }
}

static tov_fd_t open_inotify() {
  for (;;) {
    tov_fd_t fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (fd.n >= 0) return fd;
    safe_usleep(INIT_RETRY_US);
    TOV_DBG("tov inotify_init failed, %s.\n", strerror(errno));
  }
}

// Returns false when the file vanished meanwhile: the set-up begins again.
static bool add_watch(const watch_s &watch, const char *path, int *wd) {
  *wd = inotify_add_watch(watch.inotify.n, path, WATCH_MASK);
  if (*wd >= 0) return true;
  if (errno == ENOENT) {
    safe_usleep(VANISHED_RETRY_US);
    return false;
  }
  TOV_DBG("inotify_add_watch %s failed, %s.\n", path, strerror(errno));
  end_daemon(watch);
}

static watch_s set_up() {
  for (;;) {
    watch_s watch;
    make_missing_files();
    watch.inotify = open_inotify();
    if (!add_watch(watch, TOV_FORK_FILE, &watch.wd_fork)) continue;
    if (!add_watch(watch, TOV_HA_CONFIG_FILE, &watch.wd_tov_cfg)) continue;
    // What happened before the watches stood is seen now or never.
    tov_update_cfg();
    tov_deal_forkfile_change();
    TOV_DBG("inotifyfd %d, wd_fork %d, wd_tov_cfg %d\r\n", watch.inotify.n, watch.wd_fork,
            watch.wd_tov_cfg);
    return watch;
  }
}

// ---- events ---------------------------------------------------------------------------------

// Waits until there is something to read.
static void wait_for_events(watch_s *watch) {
  for (;;) {
    pollfd readable{watch->inotify.n, POLLIN, 0};
    watch->fd_num = poll(&readable, 1, POLL_TIMEOUT_MS);
    int error = errno;
    TOV_DBG("poll ret: %d\r\n", watch->fd_num);
    if (watch->fd_num < 0) {
      if (error != EINTR) {
        TOV_DBG("poll error:%s\r\n", strerror(error));
        end_daemon(*watch);
      }
      TOV_DBG("poll errno is EINTR\r\n");
      continue;
    }
    if (watch->fd_num == 0) continue;
    if ((readable.revents & POLLIN) != 0) {
      TOV_DBG("pollin\r\n");
      return;
    }
    TOV_DBG("not pollin revents\r\n");
  }
}

// Acts on one event. Returns false when the watches have to be set up again: a watched file or its
// watch is gone, or events were lost (the kernel says so with a descriptor that is neither).
static bool handle_event(const watch_s &watch, const inotify_event &event) {
  bool known = event.wd == watch.wd_fork || event.wd == watch.wd_tov_cfg;
  if ((event.mask & (IN_DELETE_SELF | IN_IGNORED)) != 0 || !known) {
    TOV_DBG("event mask %x (inc IN_DELETE_SELF)\r\n", event.mask);
    return false;
  }
  safe_usleep(EVENT_PAUSE_US);
  TOV_DBG("event wd %d, len %d\r\n", event.wd, static_cast<int>(event.len));
  if (event.wd == watch.wd_fork) {
    tov_deal_forkfile_change();
  } else {
    tov_update_cfg();
  }
  return true;
}

// Reads and handles what has come. Returns false when the watches have to be set up again.
static bool handle_events(const watch_s &watch) {
  alignas(inotify_event) char events[EVENTS_SIZE];
  ssize_t length = read(watch.inotify.n, events, sizeof events);
  if (length <= 0) {
    TOV_DBG("numread %d(invalid)\r\n", static_cast<int>(length));
    return true;
  }
  TOV_DBG("numread %d\r\n", static_cast<int>(length));
  for (const char *at = events; at < events + length;) {
    inotify_event event;
    memcpy(&event, at, sizeof event);
    if (!handle_event(watch, event)) return false;
    at += sizeof event + event.len;
  }
  return true;
}

void *tov_inotify_fork_error(void *) {
  (void)tov_core_thread_name(thread_name);  // only for those who look at the process
  wait_for_data();
  (void)tov_parse_dbg_file();  // it lies below /data
  TOV_DBG("tov_check_data_mount ok.\n");
  for (;;) {
    watch_s watch = set_up();
    do {
      wait_for_events(&watch);
    } while (handle_events(watch));
  }
}
