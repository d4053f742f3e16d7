// Removing a tree without leaving it.
//
// The trees of a device are writable for everybody, and the tool that removes them is root: a link
// planted there would turn the removal against the rest of the machine. So nothing is looked at by
// one name and then used by the same name again. Every entry is opened without following
// (O_PATH | O_NOFOLLOW), judged on that descriptor, and what is descended into is the very object
// that was judged; names are only used to unlink, relative to the open directory they stand in.
//
// A directory is read to its end before anything in it is removed, because removal during the
// reading may skip entries.
//
// Threads: any, no state. Losses: entries that appear after their directory was read make its
// removal fail with -ENOTEMPTY.
#include "tov_vsd_remove.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tov_utils_owner.h"

static constexpr size_t PATH_ROOM = 256;  // of a whole path, its end included
static constexpr int MAX_LINKS = 40;      // in a row, as the kernel allows

// Where an entry stands.
struct place_s {
  int dir;           // open directory, borrowed
  const char *name;  // in it
  size_t length;     // bytes of the whole path
};

static int remove_place(const place_s &place);

static tov_fd_t look_at(int dir, const char *name) {
  return tov_fd_t(openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Opens the directory in which the last name of `path` stands and cuts the path down to that name.
// Slashes at the end are dropped: with one the kernel would follow a link whoever owns it.
//   dir  where a relative path begins
static tov_fd_t open_parent(int dir, std::string *path) {
  while (path->size() > 1 && path->back() == '/')
    path->pop_back();
  const size_t slash = path->rfind('/');
  std::string parent = ".";
  if (slash != std::string::npos) {
    parent = path->substr(0, slash + 1);
    path->erase(0, slash + 1);
    if (path->empty()) path->push_back('.');  // it was "/"
  }
  return tov_fd_t(openat(dir, parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// ---- links ----------------------------------------------------------------------------------

// Replaces an open link of our own user by what it leads to, over further links of our own. Returns
// 0 or -errno; -ELOOP also when another user's link is on the way.
static int follow_own_link(int dir, tov_fd_t *link, struct stat *found) {
  tov_fd_t stands_in;  // of the link, once it is not `dir` any more
  for (int followed = 0; followed < MAX_LINKS; followed++) {
    if (!S_ISLNK(found->st_mode)) return 0;
    if (found->st_uid != geteuid()) return -ELOOP;
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link->n, "", target, sizeof target);
    if (length < 0) return -errno;
    if (static_cast<size_t>(length) == sizeof target) return -ENAMETOOLONG;
    std::string name(target, static_cast<size_t>(length));
    stands_in = open_parent(stands_in.n < 0 ? dir : stands_in.n, &name);
    if (stands_in.n < 0) return -errno;
    *link = look_at(stands_in.n, name.c_str());
    if (link->n < 0 || fstat(link->n, found) < 0) return -errno;
  }
  return -ELOOP;
}

// ---- directories ----------------------------------------------------------------------------

static std::vector<std::string> names_in(DIR *dir) {
  std::vector<std::string> names;
  while (const dirent *entry = readdir(dir))
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  return names;
}

static tov_dir_t open_directory(const tov_fd_t &judged) {
  tov_fd_t readable(openat(judged.n, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  tov_dir_t dir(readable.n < 0 ? nullptr : fdopendir(readable.n));
  if (dir) (void)tov_fd_take(readable);  // the directory closes it
  return dir;
}

// Removes all entries; the last failure wins, 0 without any.
static int empty_directory(DIR *dir, size_t path_length) {
  int remembered = 0;
  for (const std::string &name : names_in(dir)) {
    const size_t length = path_length + 1 + name.size();
    const int res =
        length < PATH_ROOM ? remove_place({dirfd(dir), name.c_str(), length}) : -ENAMETOOLONG;
    if (res < 0) remembered = res;
  }
  return remembered;
}

// `judged` is the directory itself, the place its name.
static int remove_directory(const place_s &place, tov_fd_t judged) {
  tov_dir_t dir = open_directory(judged);
  if (!dir) return -errno;
  judged.reset();  // one descriptor a level is enough
  const int remembered = empty_directory(dir.get(), place.length);
  if (closedir(dir.release()) < 0) return -errno;
  return unlinkat(place.dir, place.name, AT_REMOVEDIR) < 0 ? -errno : remembered;
}

static int remove_place(const place_s &place) {
  tov_fd_t entry = look_at(place.dir, place.name);
  struct stat found;
  if (entry.n < 0 || fstat(entry.n, &found) < 0) return -errno;
  if (S_ISLNK(found.st_mode) && found.st_uid == geteuid()) {
    const int res = follow_own_link(place.dir, &entry, &found);
    if (res < 0) return res;
  }
  if (S_ISDIR(found.st_mode)) return remove_directory(place, std::move(entry));
  return unlinkat(place.dir, place.name, 0) < 0 ? -errno : 0;
}

int delete_dir(char *dir) {
  const size_t length = strlen(dir);
  if (length == 0) return -ENOENT;
  std::string name(dir, length);
  const tov_fd_t parent = open_parent(AT_FDCWD, &name);
  if (parent.n < 0) return -errno;
  return remove_place({parent.n, name.c_str(), length});
}
