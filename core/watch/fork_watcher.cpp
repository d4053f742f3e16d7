// The watcher's thread: its inotify watches and what an event leads to. What the two files say is
// read in watched_files.cpp.
//
// Thread: "tov_inotify_fork" owns the watches. Losses: see the header.
#include "core/watch/fork_watcher.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>

#include "core/run/farewell.h"
#include "core/run/flags.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "core/watch/watched_files.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/plain_files.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "util/owner.h"
#include "util/path.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

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

namespace {

// Which file stands under a name; the inode 0 is no file.
struct file_id_s {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const file_id_s &) const = default;
};

struct watch_s {
  tov_fd_t inotify;
  int wd_fork = -1;
  int wd_tov_cfg = -1;
  int fd_num = -1;  // last result of poll
  file_id_s fork_file;
  file_id_s config_file;
};

}  // namespace

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
  tov_log_flush_and_wait();
  tov_core_leave(1);
}

// ---- set-up ---------------------------------------------------------------------------------

// The kernel marks /proc/mounts as exceptional whenever the mounts change, so there is nothing to
// poll for while /data is missing. Returns false when `quit` was set meanwhile.
static bool wait_for_data() {
  const tov_fd_t mounts(open("/proc/mounts", O_RDONLY | O_CLOEXEC));
  while (tov_check_data_mount() != 1) {
    if (tov_flag_get(quit) != 0) return false;
    pollfd waited[] = {{mounts.n, POLLPRI, 0}, {tov_quit_fd(), POLLIN, 0}};
    if (poll(waited, std::size(waited), MOUNT_WAIT_MS) < 0) safe_usleep(MOUNT_SETTLE_US);
  }
  safe_usleep(MOUNT_SETTLE_US);
  return true;
}

// A link in the place of the fork-error file would be watched where it leads to, while failures are
// recorded here. The configuration may be a link, but not one that leads nowhere: that can neither
// be watched nor made.
static void make_missing_files() {
  if (!tov_file_exists(TOV_RUN_DIR)) (void)tov_make_dir(TOV_RUN_DIR);
  (void)tov_clear_file_place(TOV_FORK_FILE);
  if (!tov_file_exists(TOV_HA_CONFIG_FILE)) (void)tov_clear_file_place(TOV_HA_CONFIG_FILE);
  for (const char *path : {TOV_FORK_FILE, TOV_HA_CONFIG_FILE}) {
    if (!tov_file_exists(path)) (void)tov_write_buf_to_file(nullptr, 0, path);
  }
}

// Owns nothing when the kernel gave none: the set-up begins again.
static tov_fd_t open_inotify() {
  tov_fd_t fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (fd.n >= 0) return fd;
  const int error = errno;
  safe_usleep(INIT_RETRY_US);
  TOV_DBG("tov inotify_init failed, %s.\n", strerror(error));
  return fd;
}

static file_id_s file_under(const char *path) {
  struct stat found;
  if (stat(path, &found) < 0) return {};
  return {found.st_dev, found.st_ino};
}

static bool is_link(const char *path) {
  struct stat found;
  return lstat(path, &found) == 0 && S_ISLNK(found.st_mode);
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

// One attempt. Returns false when it has to be made again.
static bool try_to_watch(watch_s *watch) {
  *watch = watch_s();
  make_missing_files();
  watch->inotify = open_inotify();
  if (watch->inotify.n < 0) return false;
  if (!add_watch(*watch, TOV_FORK_FILE, &watch->wd_fork)) return false;
  if (is_link(TOV_FORK_FILE)) {  // it came between the two
    safe_usleep(VANISHED_RETRY_US);
    return false;
  }
  if (!add_watch(*watch, TOV_HA_CONFIG_FILE, &watch->wd_tov_cfg)) return false;
  watch->fork_file = file_under(TOV_FORK_FILE);
  watch->config_file = file_under(TOV_HA_CONFIG_FILE);
  // What happened before the watches stood is seen now or never.
  tov_update_cfg();
  tov_deal_forkfile_change();
  TOV_DBG("inotifyfd %d, wd_fork %d, wd_tov_cfg %d\r\n", watch->inotify.n, watch->wd_fork,
          watch->wd_tov_cfg);
  return true;
}

// ---- events ---------------------------------------------------------------------------------

// A file that was removed while a process holds it open ends no watch and sends no event. (An
// operator's "tail -f" of the fork-error file is enough, since every restart removes it.)
static bool watches_what_is_there(const watch_s &watch) {
  return watch.fork_file == file_under(TOV_FORK_FILE) &&
         watch.config_file == file_under(TOV_HA_CONFIG_FILE);
}

// Waits until there is something to read. Returns false when the watches have to be set up again,
// or `quit` is set.
static bool wait_for_events(watch_s *watch) {
  while (tov_flag_get(quit) == 0) {
    pollfd waited[] = {{watch->inotify.n, POLLIN, 0}, {tov_quit_fd(), POLLIN, 0}};
    watch->fd_num = poll(waited, std::size(waited), POLL_TIMEOUT_MS);
    const int error = errno;
    TOV_DBG("poll ret: %d\r\n", watch->fd_num);
    if (watch->fd_num < 0) {
      if (error != EINTR) {
        TOV_DBG("poll error:%s\r\n", strerror(error));
        end_daemon(*watch);
      }
      TOV_DBG("poll errno is EINTR\r\n");
      continue;
    }
    if (watch->fd_num == 0) {
      if (!watches_what_is_there(*watch)) return false;
      continue;
    }
    if ((waited[0].revents & POLLIN) != 0) {
      TOV_DBG("pollin\r\n");
      return true;
    }
    if (waited[1].revents == 0) TOV_DBG("not pollin revents\r\n");
  }
  return false;
}

// Acts on one event. Returns false when the watches have to be set up again: a watched file or its
// watch is gone, or events were lost (the kernel says so with a descriptor that is neither).
static bool handle_event(const watch_s &watch, const inotify_event &event) {
  const bool known = event.wd == watch.wd_fork || event.wd == watch.wd_tov_cfg;
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
  const ssize_t length = read(watch.inotify.n, events, sizeof events);
  if (length < static_cast<ssize_t>(sizeof(inotify_event))) {
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
  if (!wait_for_data()) return nullptr;
  (void)tov_parse_dbg_file();  // it lies below /data
  TOV_DBG("tov_check_data_mount ok.\n");
  watch_s watch;
  // Once even if `quit` is set: failed forks that nobody has looked at are reported.
  do {
    while (!try_to_watch(&watch) && tov_flag_get(quit) == 0) {
    }
    while (wait_for_events(&watch) && handle_events(watch)) {
    }
  } while (tov_flag_get(quit) == 0);
  return nullptr;
}
