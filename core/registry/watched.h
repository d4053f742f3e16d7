// What the next daemon is told of the watched threads.
//
// A thread that hangs never speaks again: when the daemon ends, whoever comes after it would not
// hear of that thread, and a program that stands still would stand still for ever. The shared area
// cannot tell, since every user may write it. So each watched thread has a row in /run/tov/watched,
// a file of rows (core/registry/row_file.h).
//
// The order of the steps makes sure that dying between any two of them may lose a watch and never
// invents one, for which a process would be killed: the row is written before the thread's bit is
// set, and freed before the bit is cleared. An orderly end frees no row: it hands over, too.
//
// Threads: any. Locks: that of `tov_alive_chains` guards the file. Losses: threads beyond TOV_ROWS.
#ifndef TOV_CORE_REGISTRY_WATCHED_H
#define TOV_CORE_REGISTRY_WATCHED_H

#include <stdint.h>

#include <vector>

#include "core/registry/row_file.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

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
  uint64_t check;
};
using tov_watched_row_t = tov_watched_row_s;
using tov_watched_left_t = tov_row_left_s<tov_watched_row_t>;

// Opens the file and returns the rows that are left; tov_row_file_s::open(). Those that nobody can
// have written are passed over.
std::vector<tov_watched_left_t> tov_watched_open(void) TOV_REQUIRES(tov_alive_chains);

// Reads the rows of an open file; tov_row_file_s::read(). What the call above believes.
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
