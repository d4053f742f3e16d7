// What the next daemon is told of the supervised processes.
//
// A registration file names a process by its id, and ids are given out again: who reads the file
// later could only guess by command lines and times whether the process that has the id now is the
// one that registered, and whether it still executes what it did. So each record whose process is
// known has a row in /run/tov/supervised, a file of rows (core/registry/row_file.h). It says which
// process that was, and whether it was seen as what is registered.
//
// Rows are found by the names of the registration files. The file stays the registration: a row
// without one means nothing, and a file without a row is judged as well as it can be
// (core/policy/recognise.h). So the order in which both are written matters little; a row that is
// older than its file's lock holder is not believed.
//
// Threads: any. Locks: that of `tov_chains` guards the file. Losses: processes beyond TOV_ROWS.
#ifndef TOV_CORE_REGISTRY_SUPERVISED_H
#define TOV_CORE_REGISTRY_SUPERVISED_H

#include <stdint.h>

#include <vector>

#include "core/registry/row_file.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

struct tov_supervised_row_s {
  int32_t pid;
  int32_t vsd_id;
  uint64_t started;  // these four are the process's tov_identity_t
  uint64_t stack;
  uint64_t exe_dev;
  uint64_t exe_ino;
  uint64_t file;      // tov_supervised_file()
  uint32_t was_seen;  // 1: the process was seen as what is registered
  uint32_t session;   // its session; 0: not known
  uint64_t check;
};
using tov_supervised_row_t = tov_supervised_row_s;
using tov_supervised_left_t = tov_row_left_s<tov_supervised_row_t>;

// The hash of the name of a record's registration file.
uint64_t tov_supervised_file(const tov_pid_t &record);

// As those of the watched threads, core/registry/watched.h.
std::vector<tov_supervised_left_t> tov_supervised_open(void) TOV_REQUIRES(tov_chains);
int tov_supervised_read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                        std::vector<tov_supervised_left_t> *left);
void tov_supervised_close(void) TOV_REQUIRES(tov_chains);

// Writes a record's row, a new one if it has none. A record whose process is not known, or has
// never been, has none: one that it had is freed.
void tov_supervised_write(tov_pid_t *record) TOV_REQUIRES(tov_chains);

// Frees a record's row, if it has one.
void tov_supervised_free(tov_pid_t *record) TOV_REQUIRES(tov_chains);

// Frees a row that the last daemon left and that no record takes over.
void tov_supervised_free_row(int row) TOV_REQUIRES(tov_chains);

#endif  // TOV_CORE_REGISTRY_SUPERVISED_H
