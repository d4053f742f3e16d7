// Whether what stands at a path may have changed since it was last read, asked with one or two
// system calls instead of reading it anew.
//
// What is watched (inotify(7)): every directory on the way, because one of them may be renamed,
// replaced or come into being, and the file itself, because it has other names perhaps. A mount
// over any of them shows in /proc/self/mounts. What no watch can see counts as changed each time:
// a link on the way, a file that is no regular one, a kernel that has no watch to give. Changes
// through a mapping in memory, or behind the back of an overlay, are seen by nobody; whoever
// remembers something looks anew from time to time as well.
//
// Any thread, one at a time.
#ifndef TOV_UTIL_PATH_WATCH_H
#define TOV_UTIL_PATH_WATCH_H

#include <string>
#include <vector>

#include "util/owner.h"

class tov_path_watch_s {
 public:
  //   path  absolute
  explicit tov_path_watch_s(const char *path);
  tov_path_watch_s(const tov_path_watch_s &) = delete;
  tov_path_watch_s &operator=(const tov_path_watch_s &) = delete;

  // Whether it may have changed since this was last asked; true the first time. Ask right before
  // what is remembered is used, and read it after each true.
  bool may_have_changed();

  // It counts as changed when next asked, and is watched anew.
  void doubt() { is_seen_ = false; }

  // Whether a change can be waited for: one of the descriptors can be read from (`changes`,
  // POLLIN) or has something urgent (`mounts`, POLLPRI) then. Else it counts as changed each time.
  // Of the latter poll(2) tells once: who has waited for it says doubt().
  bool is_seen() const { return is_seen_; }
  int changes() const { return inotify_.n; }
  int mounts() const { return mounts_.n; }

 private:
  bool has_news();
  void watch();
  bool watch_way(std::vector<int> *watches);

  std::string path_;
  tov_fd_t inotify_;
  tov_fd_t mounts_;
  std::vector<int> watches_;  // of the way as it was last seen
  bool is_seen_ = false;
};
using tov_path_watch_t = tov_path_watch_s;

#endif  // TOV_UTIL_PATH_WATCH_H
