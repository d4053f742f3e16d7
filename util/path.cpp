// Walking paths: see the header for what is followed and what is not.
//
// The text that is still to be walked lies in one buffer. A link puts its target before what is
// left, as the kernel does it.
//
// Threads: any; no state. Losses: none.
#include "util/path.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "util/owner.h"

static constexpr mode_t OPEN_DIR_MODE = 0777;

namespace {

// A walk under way.
struct walk_s {
  tov_fd_t at;  // the directory reached so far
  char rest[PATH_MAX];
  size_t callers;  // bytes at the end of `rest` that no link has brought in
  int links = 0;   // followed
};

// What happens to a name that is missing on the way.
enum missing_e { FAIL, MAKE };

}  // namespace

// ---- links ----------------------------------------------------------------------------------

static tov_fd_t open_start(int from, const char *path) {
  return tov_fd_t(path[0] == '/' ? open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)
                                 : openat(from, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

static void skip_slashes(walk_s *walk) {
  const size_t slashes = strspn(walk->rest, "/");
  memmove(walk->rest, walk->rest + slashes, strlen(walk->rest) - slashes + 1);
}

// Reads the target of an open link of our own user. Returns its length or -errno.
static ssize_t read_own_link(const tov_fd_t &link, const struct stat &found,
                             char (&target)[PATH_MAX]) {
  if (found.st_uid != geteuid()) return -ELOOP;
  const ssize_t length = readlinkat(link.n, "", target, sizeof target);
  if (length < 0) return -errno;
  if (static_cast<size_t>(length) == sizeof target) return -ENAMETOOLONG;
  target[length] = '\0';
  return length;
}

// Goes on with a link's target, then with what was left.
static int take_link(walk_s *walk, const tov_fd_t &link, const struct stat &found) {
  if (++walk->links > TOV_MAX_LINKS) return -ELOOP;
  char target[PATH_MAX];
  const ssize_t length = read_own_link(link, found, target);
  if (length < 0) return static_cast<int>(length);
  const size_t left = strlen(walk->rest);
  const size_t before = static_cast<size_t>(length) + 1;  // and a slash
  if (before + left >= sizeof walk->rest) return -ENAMETOOLONG;
  memmove(walk->rest + before, walk->rest, left + 1);
  memcpy(walk->rest, target, before - 1);
  walk->rest[before - 1] = '/';
  walk->callers = std::min(walk->callers, left);
  if (target[0] == '/') {
    walk->at = open_start(AT_FDCWD, target);
    if (walk->at.n < 0) return -errno;
  }
  skip_slashes(walk);
  return 0;
}

// ---- steps ----------------------------------------------------------------------------------

tov_fd_t tov_look_at(int dir, const char *name, struct stat *found) {
  tov_fd_t entry(openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (entry.n >= 0 && fstat(entry.n, found) < 0) entry.reset();
  return entry;
}

// Takes the next name off the text, with the slashes behind it.
static int take_name(walk_s *walk, char (&name)[NAME_MAX + 1]) {
  const size_t length = strcspn(walk->rest, "/");
  if (length > NAME_MAX) return -ENAMETOOLONG;
  memcpy(name, walk->rest, length);
  name[length] = '\0';
  memmove(walk->rest, walk->rest + length, strlen(walk->rest) - length + 1);
  skip_slashes(walk);
  return 0;
}

// Lets every user read, write and search a directory.
//   judged  the directory itself (O_PATH)
static int open_up(const tov_fd_t &judged) {
  const tov_fd_t dir(openat(judged.n, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.n < 0) return -errno;
  return fchmod(dir.n, OPEN_DIR_MODE) < 0 ? -errno : 0;
}

// Makes a missing directory. One that another process makes under that name at the same moment is
// judged like any other.
static int make_missing(int dir, const char *name, tov_fd_t *entry, struct stat *found) {
  const bool made = mkdirat(dir, name, OPEN_DIR_MODE) == 0;
  if (!made && errno != EEXIST) return -errno;
  *entry = tov_look_at(dir, name, found);
  if (entry->n < 0) return -errno;
  return made && S_ISDIR(found->st_mode) ? open_up(*entry) : 0;
}

// Goes one name further.
static int step(walk_s *walk, const char *name, bool may_make) {
  struct stat found {};
  tov_fd_t entry = tov_look_at(walk->at.n, name, &found);
  int res = entry.n < 0 ? -errno : 0;
  if (res == -ENOENT && may_make) res = make_missing(walk->at.n, name, &entry, &found);
  if (res < 0) return res;
  if (S_ISLNK(found.st_mode)) return take_link(walk, entry, found);
  if (!S_ISDIR(found.st_mode)) return -ENOTDIR;
  walk->at = std::move(entry);
  return 0;
}

static int find_place(int from, const char *path, missing_e missing, tov_place_t *place) {
  walk_s walk;
  const size_t length = strlen(path);
  if (length == 0) return -ENOENT;
  if (length >= sizeof walk.rest) return -ENAMETOOLONG;
  walk.at = open_start(from, path);
  if (walk.at.n < 0) return -errno;
  memcpy(walk.rest, path, length + 1);
  skip_slashes(&walk);
  walk.callers = strlen(walk.rest);
  for (;;) {
    const bool callers = strlen(walk.rest) <= walk.callers;
    int res = take_name(&walk, place->name);
    if (res == 0 && walk.rest[0] == '\0') break;
    if (res == 0) res = step(&walk, place->name, missing == MAKE && callers);
    if (res < 0) return res;
  }
  if (place->name[0] == '\0') strcpy(place->name, ".");  // the path was "/"
  place->dir = std::move(walk.at);
  return 0;
}

int tov_find_place(int from, const char *path, tov_place_t *place) {
  return find_place(from, path, FAIL, place);
}

int tov_follow_own_link(int dir, tov_fd_t *entry, struct stat *found) {
  tov_place_t place;  // of the link, once it is not in `dir` any more
  for (int links = 0; links < TOV_MAX_LINKS; links++) {
    if (!S_ISLNK(found->st_mode)) return 0;
    char target[PATH_MAX];
    const ssize_t length = read_own_link(*entry, *found, target);
    if (length < 0) return static_cast<int>(length);
    tov_place_t next;
    const int res = tov_find_place(place.dir.n < 0 ? dir : place.dir.n, target, &next);
    if (res < 0) return res;
    place = std::move(next);
    *entry = tov_look_at(place.dir.n, place.name, found);
    if (entry->n < 0) return -errno;
  }
  return -ELOOP;
}

int tov_make_dir(const char *path) {
  tov_place_t place;
  int res = find_place(AT_FDCWD, path, MAKE, &place);
  if (res < 0) return res;
  if (mkdirat(place.dir.n, place.name, OPEN_DIR_MODE) < 0 && errno != EEXIST) return -errno;
  struct stat found;
  tov_fd_t entry = tov_look_at(place.dir.n, place.name, &found);
  if (entry.n < 0) return -errno;
  res = tov_follow_own_link(place.dir.n, &entry, &found);
  return res < 0 ? res : open_up(entry);
}
