// Blocking wrappers that every other module uses: sleeps that a signal does not shorten, an
// allocator that never fails, full-length reads and writes, whole-file reads, the single-instance
// lock.
//
// Nothing here prints or logs: the caller knows the story, so failures are return values only.
// No state: every function is reentrant and may be called from any thread. The readers of /proc
// stand in procfs.h, the maker of directories in path.h, the owners of resources in owner.h, the
// clock in clock.h; this header brings them with it.
#ifndef TOV_UTILS_H
#define TOV_UTILS_H

#include <stddef.h>
#include <sys/types.h>

#include "util/clock.h"         // IWYU pragma: export
#include "util/owner.h"         // IWYU pragma: export
#include "util/path.h"          // IWYU pragma: export
#include "util/procfs.h"        // IWYU pragma: export
#include "util/regular_file.h"  // IWYU pragma: export

// Sleeps `sec` seconds and `usec` microseconds (0 to 999999; larger values are not normalised).
// Signals interrupt the wait and do not shorten it. Blocks the calling thread only (select(2)).
void safe_sleep_common(int sec, int usec);
void safe_sleep(int sec);
void safe_usleep(int usec);

// Returns a zero-filled block of `size` bytes for free(3), never null: without memory it waits in
// steps of 5 s until there is some. Not for sizes that a stranger chose.
void *safe_malloc(size_t size);

// Transfer `len` bytes, resuming after short transfers and signals (EINTR).
// Return the bytes transferred, less than `len` only at the end of the file, or -1 with errno of
// read(2) or write(2); what was transferred before the error is then not told.
// safe_write() is async-signal-safe, and so is safe_read().
ssize_t safe_read(int fd, void *buf, size_t len);
ssize_t safe_write(int fd, const void *buf, size_t len);

// Reads at most `len` - 1 bytes of a file from its beginning and puts a NUL behind them.
//   len  size of `buf`, at least 1
// Returns the bytes read, or -1 with errno; `buf` then holds an empty text.
// Follows links: not for files in world-writable directories that must not be links. Never waits
// for a writer: a FIFO reads as empty. Allocates nothing.
int tov_read_to_buf(const char *filename, void *buf, int len);

// Whether a file of this name exists, whatever its kind (access(2)).
bool tov_file_exists(const char *path);

// Asks for a write lock on the whole file without waiting (fcntl F_SETLK).
// Returns 0, or -1 with errno (EACCES or EAGAIN: another process holds it).
// The lock belongs to the process, not to the descriptor: closing any descriptor of the same file
// drops it, and a forked child does not have it.
int lock_file(int fd);

// Which other process has a lock on the regular file `path`, fcntl(F_GETLK); 0: none has; -1: it
// cannot be said. Opens and closes the file: a lock that this process has on it is gone then.
pid_t tov_lock_holder(const char *path);

// Makes sure that only one process runs: opens and locks the file `path` (created with mode 0700)
// and writes the own process id into it, decimal and followed by one NUL.
// Returns the locked descriptor, to be kept open for the life of the process, or -1: the file
// cannot be opened, or another process holds the lock (its id stays in the file).
int already_running(const char *path);

// Reads a decimal number as atoi(3) does (leading white space, sign, digits up to the first other
// character), with a defined result for every text: numbers outside the range of int give its
// nearest end, so an overflow can never turn into the id of a process.
// tov_parse_int() returns false, with *out untouched, when the text begins with no number;
// tov_atoi() gives 0 then.
bool tov_parse_int(const char *text, int *out);
int tov_atoi(const char *text);

// How many bytes a call of the printf family left in a buffer of `room` bytes (at least 1): it
// returns the length of the uncut text, or a negative value when it failed.
inline size_t tov_printed(int returned, size_t room) {
  if (returned < 0) return 0;
  const size_t length = static_cast<size_t>(returned);
  return length < room ? length : room - 1;
}

// Appends `text`, without its NUL, behind the `length` bytes of `to` until `limit` bytes are
// filled. Returns the new length. Async-signal-safe, unlike the printf family: for a child between
// fork and exec.
inline size_t tov_append(char *to, size_t length, size_t limit, const char *text) {
  while (length < limit && *text != '\0')
    to[length++] = *text++;
  return length;
}

// The decimal digits of a number that is not negative, in `room`. Async-signal-safe.
enum { TOV_DIGITS_SIZE = 16 };
const char *tov_digits(int number, char (&room)[TOV_DIGITS_SIZE]);

// Strips trailing blanks and tabs, and only those, in place.
void rtrim(char *str);

#endif  // TOV_UTILS_H
