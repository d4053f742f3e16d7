// Going through the names in a directory.
//
// "." and ".." are passed over: no caller but one means them, and that one reads the directory
// itself (vsd/create.cpp). The directory is closed on every path, its descriptor is close-on-exec.
//
// A header alone, without a source: the platform services and the client library use it, too.
//
// No state but the owner's; one thread an owner.
#ifndef TOV_UTIL_ENTRIES_H
#define TOV_UTIL_ENTRIES_H

#include <dirent.h>
#include <errno.h>
#include <string.h>

#include <string>
#include <vector>

#include "util/owner.h"
#include "util/tov_sys.h"

class tov_entries_s {
 public:
  // Opens a directory. What could not be opened has no names, says so and leaves errno.
  explicit tov_entries_s(const char *path) : dir_(tov_sys_opendir(path)) {}
  // Takes an open, readable directory over; the empty owner stands for a failed open(2).
  explicit tov_entries_s(tov_fd_t dir) : dir_(dir.n < 0 ? nullptr : fdopendir(dir.n)) {
    if (dir_) (void)tov_fd_take(dir);
  }

  explicit operator bool() const { return dir_ != nullptr; }

  // The open directory, borrowed: for calls relative to it.
  int fd() const { return dirfd(dir_.get()); }

  // The next name, valid until the next call; null at the end, and when the reading fails, which
  // error() tells. Keeps errno. A caller that adds or removes entries meanwhile may miss some:
  // that one takes the rest at once.
  const char *next() {
    if (!dir_) return nullptr;
    const tov_errno_keeper_s keep;
    errno = 0;
    while (const dirent *entry = tov_sys_readdir(dir_.get()))
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return entry->d_name;
    error_ = errno;
    return nullptr;
  }
  std::vector<std::string> rest() {
    std::vector<std::string> names;
    while (const char *name = next())
      names.emplace_back(name);
    return names;
  }

  // 0, or the error number of the read that ended the names.
  int error() const { return error_; }

  // Closes now. Returns 0 or -errno.
  int close() { return closedir(dir_.release()) < 0 ? -errno : 0; }

 private:
  tov_dir_t dir_;
  int error_ = 0;
};
using tov_entries_t = tov_entries_s;

#endif  // TOV_UTIL_ENTRIES_H
