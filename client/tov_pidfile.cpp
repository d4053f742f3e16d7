// Writing, locking, reading and removing registration files.
//
// Threads: any; the table of kept descriptors has one lock, which is held over the few system
// calls of a registration because another thread must not remove or replace the same file in
// between. None of them waits: the files lie in memory (/tmp) and F_SETLK refuses at once.
// Losses: a registration file that could not be written or locked is only printed about; the
// registration then does not survive a restart of the daemon.
#include "client/tov_pidfile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum {
  FILE_NAME_SIZE = 256,
  READ_MAX = 256,        // bytes of a registration file that count
  MODE_EVERYBODY = 0777  // less the umask
};
static constexpr size_t NUMBERS_SIZE = 24;  // two ints in decimal with their line feeds
static constexpr size_t CMDLINE_SIZE = TOV_PROCESS_SIZE;

// ---- the table of kept descriptors ---------------------------------------------------------

namespace {

// A registration file that this process wrote. It is the same file for as long as path, device
// and inode agree; any other file at that path belongs to another process.
struct kept_s {
  kept_s *next;
  dev_t dev;
  ino_t ino;
  int fd;  // owned; holds the lock, unless locking failed for want of resources. -1: forgotten
  char path[FILE_NAME_SIZE];
};

}  // namespace

// A plain mutex without priority inheritance: the library must not need an initialiser in its
// host, and in the daemon the callers come under the registry's lock, which does inherit.
static tov_mutex_t kept_lock = PTHREAD_MUTEX_INITIALIZER;

// A list whose links are whole at every instant: a fork may copy it while another thread is at
// work, and the child then walks the copy. No destructor, because threads of the host may register
// while the process ends.
static kept_s *kept_files TOV_GUARDED_BY(kept_lock) = nullptr;

// The link that points to the entry of `path`; its target is null when there is none.
static kept_s **find_kept(const char *path) TOV_REQUIRES(kept_lock) {
  kept_s **link = &kept_files;
  while (*link != nullptr && strcmp((*link)->path, path) != 0)
    link = &(*link)->next;
  return link;
}

// Unlinks an entry, if there is one, then closes and frees it. Keeps errno.
static void drop_kept(kept_s **link) TOV_REQUIRES(kept_lock) {
  kept_s *entry = *link;
  if (entry == nullptr) return;
  __atomic_store_n(link, entry->next, __ATOMIC_RELEASE);
  const tov_fd_t close_it(entry->fd);
  free(entry);
}

// Keeps `fd` open for the file at `path`. Without an entry (no memory) it stays open all the same,
// since the lock is what counts.
static void keep(const char *path, tov_fd_t &fd) TOV_REQUIRES(kept_lock) {
  struct stat status {};
  const int number = tov_fd_take(fd);
  if (tov_sys_fstat(number, &status) < 0) return;
  auto *entry = static_cast<kept_s *>(calloc(1, sizeof(kept_s)));
  if (entry == nullptr) return;

  entry->next = kept_files;
  entry->dev = status.st_dev;
  entry->ino = status.st_ino;
  entry->fd = number;
  snprintf(entry->path, sizeof entry->path, "%s", path);
  __atomic_store_n(&kept_files, entry, __ATOMIC_RELEASE);
}

// The descriptor under which this process registered the file that is at `path` now, or -1. An
// entry whose file was removed or replaced is dropped; its lock protects nothing any more.
static int kept_descriptor(const char *path) TOV_REQUIRES(kept_lock) {
  kept_s **link = find_kept(path);
  if (*link == nullptr) return -1;
  struct stat status {};
  const bool same = (*link)->fd >= 0 && tov_sys_lstat(path, &status) == 0 &&
                    status.st_dev == (*link)->dev && status.st_ino == (*link)->ino;
  if (same) return (*link)->fd;
  drop_kept(link);
  return -1;
}

// Not analysed: in the child of a fork no other thread is there.
void tov_pidfile_forget_locks(void) TOV_NO_THREAD_SAFETY {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  kept_lock = fresh;  // the thread that may have held it does not exist here
  // The entries stay, without a descriptor: freeing memory is nothing for a child between fork and
  // exec. Whoever comes upon one later drops it.
  for (kept_s *entry = kept_files; entry != nullptr; entry = entry->next)
    const tov_fd_t close_it(std::exchange(entry->fd, -1));
}

// ---- names ---------------------------------------------------------------------------------

// The program part of a file name; see the header for its rule.
// (Not by substr(), which can throw: the client library is to need no C++ runtime.)
static std::string_view program_of(std::string_view cmdline) {
  std::string_view word = cmdline;
  word.remove_suffix(word.size() - std::min(word.find(' '), word.size()));
  word.remove_prefix(word.rfind('/') + 1);  // npos + 1 is 0: the whole word
  return word;
}

static void file_name(int vsd_id, int pid, std::string_view cmdline, char *out, int size) {
  const std::string_view program = program_of(cmdline);
  snprintf(out, static_cast<size_t>(size), TOV_VSD_DB_DIR_FMT "/%.*s.%d", vsd_id,
           static_cast<int>(program.size()), program.data(), pid);
}

void tov_get_db_file_name(int vsd_id, int pid, const char *cmdline, char *out, int size) {
  if (size > 0) file_name(vsd_id, pid, cmdline, out, size);
}

// ---- writing -------------------------------------------------------------------------------

namespace {

// The file's content in one buffer, so that one write brings it all.
struct content_s {
  char text[NUMBERS_SIZE + CMDLINE_SIZE];
  size_t length;
};

}  // namespace

static void make_content(content_s &content, int pid, int action, const char *cmdline) {
  const int cmdline_length = static_cast<int>(strnlen(cmdline, CMDLINE_SIZE - 1));
  const int length = snprintf(content.text, sizeof content.text, "%d\n%d\n%.*s", pid, action,
                              cmdline_length, cmdline);
  content.length = std::min(static_cast<size_t>(length), sizeof content.text - 1);
}

// Overwrites first and cuts afterwards, so that a reader of a file that is written again never
// finds it empty.
static void write_content(int fd, const content_s &content) {
  if (tov_sys_lseek(fd, 0, SEEK_SET) == 0) (void)safe_write(fd, content.text, content.length);
  (void)!tov_sys_ftruncate(fd, static_cast<off_t>(content.length));
}

// Locks `fd` and keeps it. A file that another process holds locked is left to that one.
static void lock_and_keep(const char *path, tov_fd_t &fd) TOV_REQUIRES(kept_lock) {
  const int locked = lock_file(fd.n);
  const int cause = errno;
  if (locked < 0) TOV_DBG("%s: file %s fd < 0: %s\n", "tov_db_create", path, strerror(cause));
  if (locked < 0 && (cause == EACCES || cause == EAGAIN)) return;
  keep(path, fd);
}

int tov_db_create(int vsd_id, int pid, int action, const char *cmdline) {
  char path[FILE_NAME_SIZE];
  content_s content;
  tov_get_db_file_name(vsd_id, pid, cmdline, path, sizeof path);
  make_content(content, pid, action, cmdline);
  TOV_DBG("%s vsd:%d path:%s file:%s\n", __func__, vsd_id, cmdline, path);

  const tov_lock_guard_t guard(kept_lock);
  const int kept = kept_descriptor(path);
  if (kept >= 0) {  // opening it again would drop our lock at the close
    write_content(kept, content);
    if (lock_file(kept) < 0) TOV_DBG("%s: file %s fd < 0: %s\n", __func__, path, strerror(errno));
    return 0;
  }
  tov_fd_t fd(tov_open_regular(path, O_RDWR | O_CREAT, MODE_EVERYBODY));
  if (fd.n < 0) {
    TOV_DBG("%s: fd < 0: %s\n", __func__, strerror(errno));
    return -1;
  }
  write_content(fd.n, content);
  lock_and_keep(path, fd);
  return 0;
}

// Removes a file that came to nothing. Keeps errno. Returns -1.
static int give_up(const char *path) {
  const tov_errno_keeper_s keep;
  (void)tov_sys_unlink(path);
  return -1;
}

// Writes the file of the record's task for the process `pid` where there is none. Returns 0, or -1
// with errno set: there is none then either.
static int write_new(const tov_pid_s *record, pid_t pid, const char *path) {
  const tov_fd_t fd(tov_open_regular(path, O_WRONLY | O_CREAT | O_EXCL, MODE_EVERYBODY));
  if (fd.n < 0) return -1;
  content_s content;
  make_content(content, pid, record->action, record->process);
  errno = ENOSPC;  // of a write that ends early
  const ssize_t written = safe_write(fd.n, content.text, content.length);
  return written == static_cast<ssize_t>(content.length) ? 0 : give_up(path);
}

// Under a name that only this daemon has, `path`.
static int write_interim(const tov_pid_s *record, pid_t pid, const char *prefix,
                         char (&path)[FILE_NAME_SIZE]) {
  (void)snprintf(path, sizeof path, TOV_VSD_DB_DIR_FMT "/%s%d", record->vsd_id, prefix,
                 tov_sys_getpid());
  (void)tov_sys_unlink(path);
  return write_new(record, pid, path);
}

// Where there is no room for a second file: in the place of the first one.
static int overwrite(const tov_pid_s *record, pid_t pid, const char *path) {
  const tov_fd_t fd(tov_open_regular(path, O_WRONLY));
  if (fd.n < 0) return -1;
  content_s content;
  make_content(content, pid, record->action, record->process);
  write_content(fd.n, content);
  return 0;
}

// Gives a file a name that no other has. (Kernels before 3.15 and some file systems cannot do it at
// once; tov_db_settle() and the daemon's rebuild read two names of one file as one.)
static int rename_new(const char *from, const char *to) {
  if (tov_sys_rename_new(from, to) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  return tov_sys_link(from, to) == 0 ? tov_sys_unlink(from) : -1;
}

int tov_db_keep(const tov_pid_s *record) {
  char path[FILE_NAME_SIZE], interim[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, path, sizeof path);
  struct stat status {};
  if (tov_sys_lstat(path, &status) == 0) return 0;
  // Somebody else may have taken the other name.
  if (write_interim(record, record->pid, TOV_DB_KEPT_PREFIX, interim) < 0)
    return errno == EEXIST ? write_new(record, record->pid, path) : -1;
  if (rename_new(interim, path) == 0) return 0;
  return give_up(interim), errno == EEXIST ? 0 : -1;
}

int tov_db_hand_over(const tov_pid_s *record, pid_t to) {
  char old[FILE_NAME_SIZE], path[FILE_NAME_SIZE], interim[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, old, sizeof old);
  tov_get_db_file_name(record->vsd_id, to, record->process, path, sizeof path);

  const tov_lock_guard_t guard(kept_lock);
  drop_kept(find_kept(old));
  // First the content, then the name: what a killed daemon leaves in between tells of the living
  // process, and tov_db_settle() mends its name.
  if (write_interim(record, to, TOV_DB_NEW_PREFIX, interim) == 0) {
    if (tov_sys_rename(interim, old) < 0) return give_up(interim);
  } else if (overwrite(record, to, old) < 0) {
    return -1;
  }
  if (strcmp(old, path) == 0 || rename_new(old, path) == 0) return 0;
  return errno == EEXIST ? (give_up(old), 0) : -1;
}

// The name of a registration without its process id, up to its dot.
static std::string_view without_id(std::string_view path) {
  return path.substr(0, path.rfind('.') + 1);
}

bool tov_db_settle(const tov_pid_s *record, const char *path) {
  char own[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, own, sizeof own);
  if (strcmp(path, own) == 0 || without_id(path) != without_id(own)) return true;
  if (rename_new(path, own) == 0 || errno != EEXIST) return true;
  return give_up(path), false;
}

void save_vsd_flag(int vsd_id, int pid) {
  if (vsd_id == 0) return;
  char path[FILE_NAME_SIZE];
  snprintf(path, sizeof path, TOV_VSD_MEMBER_FMT, vsd_id, pid);
  const tov_fd_t close_it(tov_open_regular(path, O_RDWR | O_CREAT, MODE_EVERYBODY));
}

int tov_mk_pidfile(tov_msg_xtach_s *request, int type) {
  char cmdline[TOV_PATHNAME_SIZE + 1];  // the field may be full without a terminator
  snprintf(cmdline, sizeof cmdline, "%.*s", TOV_PATHNAME_SIZE, request->pathname);
  const int action = type == TOV_RESTART ? RESPAWN : SHELL_RESTART;
  const int result = tov_db_create(request->vsd_id, request->pid, action, cmdline);
  if (result < 0) {
    TOV_DBG("%s: tov create db failed! (ret=%d)\r\n", __func__, result);
    return result;
  }
  save_vsd_flag(request->vsd_id, request->pid);
  return result;
}

// ---- removing ------------------------------------------------------------------------------

int tov_db_destroy(const tov_pid_s *record) {
  char path[FILE_NAME_SIZE];
  const std::string_view cmdline(record->process, strnlen(record->process, CMDLINE_SIZE));
  file_name(record->vsd_id, record->pid, cmdline, path, sizeof path);

  const tov_lock_guard_t guard(kept_lock);
  const int result = tov_sys_unlink(path);
  drop_kept(find_kept(path));
  return result;
}

bool tov_db_is_own(int vsd_id, int pid, const char *cmdline) {
  char path[FILE_NAME_SIZE];
  tov_get_db_file_name(vsd_id, pid, cmdline, path, sizeof path);
  const tov_lock_guard_t guard(kept_lock);
  return kept_descriptor(path) >= 0;
}

int tov_rm_pidfile(const tov_pid_s *record) {
  char path[FILE_NAME_SIZE];
  snprintf(path, sizeof path, TOV_VSD_OLD_DB_FILE_FMT, record->vsd_id, record->pid);
  return tov_sys_unlink(path);
}

// ---- reading -------------------------------------------------------------------------------

// Reads a decimal number at `*at`, white space before it allowed, and moves behind it. Returns
// false when there is none or it does not fit an int.
static bool take_number(const char **at, int *number) {
  char *end = nullptr;
  errno = 0;
  const long value = strtol(*at, &end, 10);
  if (end == *at || errno == ERANGE || value < INT_MIN || value > INT_MAX) return false;
  *at = end;
  *number = static_cast<int>(value);
  return true;
}

// The two numbers at the beginning of a registration file. An id of 0 or below is refused like a
// word: given to kill() it would mean everybody.
static bool parse_numbers(const char *text, int *pid, int *action) {
  if (!take_number(&text, pid) || strchr(" \t\r\n", *text) == nullptr) return false;
  return take_number(&text, action) && *pid > 0;
}

int tov_read_pidfile(const char *path, tov_pid_s *record) {
  const tov_fd_t fd(tov_open_regular(path, O_RDONLY));
  if (fd.n < 0) {
    TOV_DBG("%s: open pid file fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  char text[READ_MAX + 1] = {};
  if (safe_read(fd.n, text, READ_MAX) < 0) {
    TOV_DBG("%s: read pid file fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  int pid = 0;
  int action = 0;
  if (!parse_numbers(text, &pid, &action)) {
    TOV_DBG("%s: read pid fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  const char *cmdline = strchr(text, '/');
  if (cmdline == nullptr) return -1;

  record->pid = pid;
  record->action = action;
  snprintf(record->pathname, sizeof record->pathname, "%s", cmdline);
  return 0;
}
