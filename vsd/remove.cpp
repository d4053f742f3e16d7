// Removing a tree without leaving it.
//
// The trees of a device are writable for everybody, and the tool that removes them is root: a link
// planted there would turn the removal against the rest of the machine. So nothing is tested under
// one name and then used under the same name again. Every entry is opened without following
// (O_PATH | O_NOFOLLOW), judged on that descriptor, and what is descended into is the very object
// that was judged; names are only used to unlink, relative to the open directory they stand in. The
// way to the tree is walked in the same manner (util/path.h): its upper directories are open to
// everybody, too.
//
// A directory is read to its end before anything in it is removed, because removal during the
// reading may skip entries.
//
// Threads: any, no state. Losses: entries that appear after their directory was read make its
// removal fail with -ENOTEMPTY.
#include "vsd/remove.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "util/entries.h"
#include "util/owner.h"
#include "util/path.h"

static constexpr size_t PATH_ROOM = 256;  // of a whole path, its end included

namespace {

// Where an entry stands.
struct place_s {
  int dir;           // open directory, borrowed
  const char *name;  // in it
  size_t length;     // bytes of the whole path
};

}  // namespace

static int remove_place(const place_s &place);

// ---- directories ----------------------------------------------------------------------------

// Removes all entries; the last failure wins, 0 without any.
static int empty_directory(tov_entries_t &dir, size_t path_length) {
  int remembered = 0;
  for (const std::string &name : dir.rest()) {
    const size_t length = path_length + 1 + name.size();
    const int res =
        length < PATH_ROOM ? remove_place({dir.fd(), name.c_str(), length}) : -ENAMETOOLONG;
    if (res < 0) remembered = res;
  }
  return remembered;
}

// `judged` is the directory itself, the place its name.
static int remove_directory(const place_s &place, tov_fd_t judged) {
  tov_entries_t dir(tov_fd_t(openat(judged.n, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!dir) return -errno;
  judged.reset();  // one descriptor a level is enough
  const int remembered = empty_directory(dir, place.length);
  if (const int res = dir.close(); res < 0) return res;
  return unlinkat(place.dir, place.name, AT_REMOVEDIR) < 0 ? -errno : remembered;
}

static int remove_place(const place_s &place) {
  struct stat found;
  tov_fd_t entry = tov_look_at(place.dir, place.name, &found);
  if (entry.n < 0) return -errno;
  if (S_ISLNK(found.st_mode) && found.st_uid == geteuid()) {
    const int res = tov_follow_own_link(place.dir, &entry, &found);
    if (res < 0) return res;
  }
  if (S_ISDIR(found.st_mode)) return remove_directory(place, std::move(entry));
  return unlinkat(place.dir, place.name, 0) < 0 ? -errno : 0;
}

int delete_dir(char *dir) {
  tov_place_t place;
  const int res = tov_find_place(AT_FDCWD, dir, &place);
  return res < 0 ? res : remove_place({place.dir.n, place.name, strlen(dir)});
}
