// A watch is set on a directory before what stands in it is looked at, from the root on: what
// changes behind that look is told.
//
// Tested by: tests/module/util/path_watch_test.cpp
#include "util/path_watch.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "util/owner.h"
#include "util/tov_sys.h"

// Names that come, go or change hands, and what becomes of the directory itself.
static constexpr uint32_t OF_DIRECTORY = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                         IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                         IN_DONT_FOLLOW;
static constexpr uint32_t OF_FILE =
    IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;

tov_path_watch_s::tov_path_watch_s(const char *path)
    : path_(path), inotify_(tov_sys_inotify_open()) {
  if (inotify_.n >= 0) mounts_ = tov_fd_t(tov_sys_open("/proc/self/mounts", O_RDONLY | O_CLOEXEC));
}

// Takes what was told. Another file in a directory on the way is news, too: that is rare, and costs
// one reading.
bool tov_path_watch_s::has_news() {
  pollfd asked[] = {{inotify_.n, POLLIN, 0}, {mounts_.n, POLLPRI, 0}};
  const int ready = tov_sys_poll(asked, std::size(asked), 0);
  if (ready == 0) return false;
  alignas(inotify_event) char events[sizeof(inotify_event) + NAME_MAX + 1];
  while (tov_sys_read(inotify_.n, events, sizeof events) > 0)
    continue;
  return true;
}

// Sets the watches of the way as it is now. Returns whether all of it is seen.
bool tov_path_watch_s::watch_way(std::vector<int> *watches) {
  for (size_t end = 0; end != std::string::npos;) {
    // "/", "/etc", "/etc/tov", and at last the file.
    const size_t next = path_.find('/', end + 1);
    const bool is_root = end == 0 && watches->empty();
    const std::string place = is_root ? "/" : path_.substr(0, next);
    const bool is_last = !is_root && next == std::string::npos;
    struct stat status {};
    if (tov_sys_lstat(place.c_str(), &status) < 0) return errno == ENOENT;
    if (is_last ? !S_ISREG(status.st_mode) : !S_ISDIR(status.st_mode)) return false;
    const int watch =
        tov_sys_inotify_watch(inotify_.n, place.c_str(), is_last ? OF_FILE : OF_DIRECTORY);
    if (watch < 0) return false;
    watches->push_back(watch);
    if (is_last) return true;
    if (!is_root) end = next;
  }
  return true;
}

void tov_path_watch_s::watch() {
  std::vector<int> watches;
  is_seen_ = inotify_.n >= 0 && mounts_.n >= 0 && watch_way(&watches);
  // Of a place that is no longer on the way.
  for (const int old : watches_)
    if (std::find(watches.begin(), watches.end(), old) == watches.end())
      tov_sys_inotify_unwatch(inotify_.n, old);
  watches_ = std::move(watches);
}

bool tov_path_watch_s::may_have_changed() {
  const bool is_told =
      inotify_.n >= 0 && has_news();  // also where it does not see all: who waits for it would spin
  if (is_seen_ && !is_told) return false;
  watch();
  return true;
}
