// A directory that is root's alone.
//
// Most directories of this system may be written by every user, so nothing that lies in them can be
// taken for the daemon's own word. What the next daemon has to believe lies in a directory which
// belongs to root and which nobody else may write: there neither a name nor a file can be planted.
// One that is not so is not mended, since who had his hands in it may still have it open: it is
// refused.
#ifndef TOV_UTIL_ROOT_DIR_H
#define TOV_UTIL_ROOT_DIR_H

// Opens such a directory, for openat(2) and its like; a missing one is made (0755, less the umask),
// the ones above it are not.
// Returns the descriptor, the caller's own, close-on-exec and above the standard streams; or
// -errno: -ENOTDIR or -ELOOP (a link, or another kind of file), -EPERM (another user's, or others
// may write it), or what mkdir(2) and open(2) say.
// Any thread; async-signal-safe.
int tov_open_root_dir(const char *path);

#endif  // TOV_UTIL_ROOT_DIR_H
