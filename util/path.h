// Paths through directories that every user may write, walked one name at a time.
//
// The kernel follows every link on a path, whoever planted it; the daemon and its tool are root and
// most of their directories have mode 0777 without a sticky bit. So a name is opened without
// following (O_PATH | O_NOFOLLOW), judged on that descriptor, and a link is followed only when it
// belongs to the caller's own user. What was judged is what is used: no other process can
// exchange it meanwhile.
//
// Any thread; no state, nothing is allocated.
#ifndef TOV_UTIL_PATH_H
#define TOV_UTIL_PATH_H

#include <limits.h>
#include <sys/stat.h>

#include "util/owner.h"

enum { TOV_MAX_LINKS = 40 };  // on one path, as the kernel allows

// Where the last name of a path stands.
struct tov_place_s {
  tov_fd_t dir;             // open (O_PATH)
  char name[NAME_MAX + 1];  // in it, never with a slash; "." for "/"
};
using tov_place_t = tov_place_s;

// Finds the place of the last name of `path`; whether anything has that name is not asked. Slashes
// at the end do not matter.
//   from  where a relative path begins: an open directory or AT_FDCWD
// Returns 0 or -errno: -ELOOP for another user's link on the way (and for too many links), -ENOENT,
// -ENOTDIR, -ENAMETOOLONG (a name above NAME_MAX, or PATH_MAX bytes and more).
int tov_find_place(int from, const char *path, tov_place_t *place);

// Opens a name, without following it and without any access to what it stands for. The empty owner,
// with errno, when that fails.
//   dir    the open directory in which it stands
//   found  what fstat(2) says about it
tov_fd_t tov_look_at(int dir, const char *name, struct stat *found);

// Replaces an open entry that is a link by what it leads to, as long as the links belong to the
// caller's own user. An entry that is no link stays as it is.
//   dir     the open directory in which the entry stands
//   entry   from tov_look_at(); its value after a failure is unspecified
//   found   of the entry; afterwards of what it was replaced by
// Returns 0 or -errno (-ELOOP: another user's link).
int tov_follow_own_link(int dir, tov_fd_t *entry, struct stat *found);

// Makes a directory of mode 0777 whatever the umask is (mkdir, then chmod), and the missing ones
// above it in the same way. An existing directory is no error and gets the mode too; existing ones
// above it are left as they are. Links, on the way and at the end, are followed only when they
// belong to the caller's own user, and nothing is made where such a link leads to nothing.
//   path  at most PATH_MAX - 1 bytes; trailing slashes do not matter
// Returns 0 or -errno (-ELOOP: another user's link, -ENOTDIR: no directory).
int tov_make_dir(const char *path);

#endif  // TOV_UTIL_PATH_H
