// Log files on stock Linux: one write per line on an O_APPEND descriptor.
//
// Without a user-space buffer and without a lock a line is in the file as soon as the call
// returns, also when the process crashes right after it, and a forked child can write while
// another thread of its parent was in the middle of doing so. The kernel keeps concurrent appends
// apart.
//
// A file that reaches its limit is renamed to "NAME.1", in the place of an older one, and begun
// anew. The new file is put on the old descriptor's number by dup3(2), which is atomic: a thread
// that is writing at that moment writes into the one file or the other, never into a closed or
// foreign descriptor.
//
// Threads: any. A handle's fields but `turning` never change once the handle is given out.
// Losses: what a full disk refuses; the ".1" file of the turn before last.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/tov_platform.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/regular_file.h"

static constexpr off_t KILOBYTE = 1024;
static constexpr mode_t LOG_MODE = 0644;
static constexpr const char *OLD_SUFFIX = ".1";

namespace {

// One open log file. Never freed: handles are valid to the end of the process.
struct log_file_s {
  tov_fd_t fd;                        // its number stays, what it refers to changes at a turn
  pid_t owner = 0;                    // a forked child leaves the turning to its parent
  off_t limit = 0;                    // bytes; 0: none
  std::atomic<bool> turning = false;  // one thread turns the file, the others go on writing
  std::string path;
  std::string old_path;
};

}  // namespace

static int open_log(const char *path) {
  return tov_open_regular(path, O_WRONLY | O_CREAT | O_APPEND, LOG_MODE);
}

// Returns 0 or an error number.
static int open_handle(const char *path, off_t limit, void **handle) {
  auto file = std::make_unique<log_file_s>();
  file->path = path;
  file->old_path = file->path + OLD_SUFFIX;
  file->fd.n = open_log(path);
  if (file->fd.n < 0) return errno;
  file->owner = getpid();
  file->limit = limit;
  *handle = file.release();
  return 0;
}

int ras_logfile_init(const char *path, int limit_kb, void **handle, int /*reserved_a*/,
                     int /*reserved_b*/) {
  if (path == nullptr || handle == nullptr || limit_kb < 0) return EINVAL;
  try {
    return open_handle(path, limit_kb * KILOBYTE, handle);
  } catch (const std::bad_alloc &) {
    return ENOMEM;
  }
}

// ---- turning --------------------------------------------------------------------------------

static bool is_full(const log_file_s &file) {
  struct stat now;
  return fstat(file.fd.n, &now) == 0 && now.st_size >= file.limit;
}

// Puts a new file in the place of the full one. When a step fails the old file goes on growing,
// under whatever name it has by then, and the next line tries again.
static void turn(const log_file_s &file) {
  if (rename(file.path.c_str(), file.old_path.c_str()) < 0 && errno != ENOENT) return;
  const tov_fd_t fresh(open_log(file.path.c_str()));
  if (fresh.n < 0) return;
  (void)dup3(fresh.n, file.fd.n, O_CLOEXEC);
}

static void turn_if_full(log_file_s &file) {
  if (file.limit == 0 || !is_full(file) || file.owner != getpid()) return;
  if (file.turning.exchange(true, std::memory_order_acquire)) return;
  // Another thread may have turned the file between our look and our turn.
  if (is_full(file)) turn(file);
  file.turning.store(false, std::memory_order_release);
}

// ---- services -------------------------------------------------------------------------------

int ras_logfile_write_buf(void *handle, const char *data, int length) {
  if (handle == nullptr || data == nullptr || length < 0) return -EINVAL;
  log_file_s &file = *static_cast<log_file_s *>(handle);
  const ssize_t written = write(file.fd.n, data, static_cast<size_t>(length));
  if (written < 0) return -errno;
  if (written < length) return -ENOSPC;  // the rest would only be a torn line somewhere else
  turn_if_full(file);
  return 0;
}

void ras_logfile_flush_buf_in_emergency(void *handle) {
  if (handle == nullptr) return;
  (void)fsync(static_cast<log_file_s *>(handle)->fd.n);  // no way is left to report a failure
}

// ---- pruning --------------------------------------------------------------------------------

namespace {

struct old_log_s {
  timespec changed;
  std::string name;

  // Names carry the time of the start, so of two files of one moment the larger name is newer.
  bool is_newer_than(const old_log_s &other) const {
    if (changed.tv_sec != other.changed.tv_sec) return changed.tv_sec > other.changed.tv_sec;
    if (changed.tv_nsec != other.changed.tv_nsec) return changed.tv_nsec > other.changed.tv_nsec;
    return name > other.name;
  }
};

}  // namespace

static std::vector<old_log_s> list_logs(tov_entries_t &dir, const char *base_name) {
  std::vector<old_log_s> logs;
  while (const char *name = dir.next()) {
    if (strncmp(name, base_name, strlen(base_name)) != 0) continue;
    struct stat found;
    if (fstatat(dir.fd(), name, &found, AT_SYMLINK_NOFOLLOW) < 0) continue;
    if (S_ISREG(found.st_mode)) logs.push_back({found.st_mtim, name});
  }
  return logs;
}

// Collects first and deletes afterwards: deleting while reading a directory may skip entries.
static int prune(const char *directory, const char *base_name, size_t keep) {
  tov_entries_t dir(directory);
  if (!dir) return -errno;
  std::vector<old_log_s> logs = list_logs(dir, base_name);
  if (logs.size() <= keep) return 0;
  std::sort(logs.begin(), logs.end(),
            [](const old_log_s &a, const old_log_s &b) { return a.is_newer_than(b); });
  int res = 0;
  for (size_t i = keep; i < logs.size(); i++)
    if (unlinkat(dir.fd(), logs[i].name.c_str(), 0) < 0 && res == 0) res = -errno;
  return res;
}

int ras_remove_obsolete_files(const char *directory, const char *base_name, int keep,
                              int /*reserved*/) {
  if (directory == nullptr || base_name == nullptr || keep < 0) return -EINVAL;
  try {
    return prune(directory, base_name, static_cast<size_t>(keep));
  } catch (const std::bad_alloc &) {
    return -ENOMEM;
  }
}
