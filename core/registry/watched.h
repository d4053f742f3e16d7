// What the next daemon is told of the watched threads.
//
// A thread that hangs never speaks again: when the daemon ends, whoever comes after it would not
// hear of that thread, and a program that stands still would stand still for ever. The shared area
// cannot tell, since every user may write it. So each watched thread has a row in a file that is
// root's alone, /run/tov/watched: by the daemon's own word, to be believed by the next one.
//
// The file outlives the daemon, not the machine: it lies in memory, is never synchronised, and
// carries the id of the boot it belongs to. Native byte order:
//   0    header: magic "TOVWATCH", version, size of a row, boot id
//   128  rows of 64 bytes; free is one whose check does not fit, as that of zeroes
// A row is written by one pwrite(2) that crosses no page: who is killed between two calls leaves
// whole rows, and what is torn all the same fails its check.
//
// The order of the steps makes sure that dying between any two of them may lose a watch and never
// invents one, for which a process would be killed: the row is written before the thread's bit is
// set, and freed before the bit is cleared. An orderly end frees no row: it hands over, too.
//
// What cannot be written or read is one line in the error log: the daemon goes on, and the next one
// does not know the threads. No file is open before tov_watched_open(), and all of this does
// nothing.
//
// Threads: any. Locks: that of `tov_alive_chains` guards the file; a write into memory is some
// microseconds and waits for nobody. Losses: threads beyond TOV_WATCHED_ROWS.
#ifndef TOV_CORE_REGISTRY_WATCHED_H
#define TOV_CORE_REGISTRY_WATCHED_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <type_traits>
#include <vector>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

enum {
  TOV_WATCHED_VERSION = 1,
  TOV_WATCHED_ROWS = 16384,  // 1 MiB
  TOV_BOOT_ID_SIZE = 37,     // terminator included
};

inline constexpr char TOV_WATCHED_MAGIC[8] = {'T', 'O', 'V', 'W', 'A', 'T', 'C', 'H'};

struct tov_watched_header_s {
  char magic[sizeof TOV_WATCHED_MAGIC];
  uint32_t version;
  uint32_t row_size;
  char boot_id[TOV_BOOT_ID_SIZE];
  char unused[75];
};

struct tov_watched_row_s {
  int32_t tid;
  int32_t owner;           // the process
  uint64_t started;        // the thread's tov_identity_t
  uint64_t owner_started;  // of the process
  uint64_t stack;          // these three of the thread again
  uint64_t exe_dev;
  uint64_t exe_ino;
  uint32_t period_s;
  uint32_t budget;
  uint64_t check;  // FNV-1a of the bytes before it
};
using tov_watched_row_t = tov_watched_row_s;

static_assert(sizeof(tov_watched_header_s) == 128);
static_assert(sizeof(tov_watched_row_s) == 64 && offsetof(tov_watched_row_s, check) == 56);
static_assert(std::is_trivially_copyable_v<tov_watched_header_s> &&
              std::is_trivially_copyable_v<tov_watched_row_s>);

// A row that the last daemon left.
struct tov_watched_left_s {
  int row;  // its number, from 1
  tov_watched_row_t thread;
};
using tov_watched_left_t = tov_watched_left_s;

// Opens the file for the daemon's life and reads what is left in it. What belongs to another boot
// is thrown away; a file that no daemon can have left (another user's, a link, a strange header) is
// moved aside to "watched.wrong". At start-up, once. Writes the error line of any failure; the
// result then is empty.
std::vector<tov_watched_left_t> tov_watched_open(void) TOV_REQUIRES(tov_alive_chains);

// Reads the whole rows of an open file, whoever owns it; those that nobody can have written are
// passed over. What the call above believes.
//   left  receives them; untouched after a failure of the first two kinds
// Returns 0; -EILSEQ: the header is not of this kind; -ESTALE: another boot's; another -errno.
// Any thread, without a lock.
int tov_watched_read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                     std::vector<tov_watched_left_t> *left);

// Closes it. The rows stay.
void tov_watched_close(void) TOV_REQUIRES(tov_alive_chains);

// Writes a record's row, a new one if it has none. No row for a thread whose start, or whose
// process's, is not known: the next daemon could not tell it from another one.
void tov_watched_write(tov_pid_t *record) TOV_REQUIRES(tov_alive_chains);

// Frees a record's row, if it has one. To be called before the thread's slot is released.
void tov_watched_free(tov_pid_t *record) TOV_REQUIRES(tov_alive_chains);

// Frees a row that the last daemon left and that no record takes over.
void tov_watched_free_row(int row) TOV_REQUIRES(tov_alive_chains);

#endif  // TOV_CORE_REGISTRY_WATCHED_H
