// Recognises the process of a registration file.
//
// The file names it by its id, which may have been given out again since. Who it was says the last
// daemon's row (core/registry/supervised.h). Where there is none - the process registered while no
// daemon ran, or the rows were lost - signs decide: who holds the lock on the file, when it was
// written, and what the process executes.
#ifndef TOV_CORE_POLICY_RECOGNISE_H
#define TOV_CORE_POLICY_RECOGNISE_H

#include <stdint.h>

#include <vector>

#include "core/registry/supervised.h"
#include "include/tov_registry.h"

// Which process a registration file means.
struct tov_recognised_s {
  tov_identity_t identity;  // unknown: whoever has the id
  bool is_dead;             // it has ended, for certain
  bool seen;                // it was seen as what is registered
  int row;                  // that says so, 0: none
};
using tov_recognised_t = tov_recognised_s;

// What the last daemon knew. Start-up, one thread.
class tov_recognition_s {
 public:
  // Opens the file of rows for the daemon's life.
  tov_recognition_s();
  ~tov_recognition_s() = default;

  tov_recognition_s(const tov_recognition_s &) = delete;
  tov_recognition_s &operator=(const tov_recognition_s &) = delete;

  // Recognises the process of a record that was read from `path`.
  //   written_us  CLOCK_BOOTTIME when the file was written
  // Reads /proc, so without a lock. May wait for a command line where the last daemon had not seen
  // the process yet.
  tov_recognised_t ask(const tov_pid_t &record, const char *path, int64_t written_us);

  // Frees the rows that no answer named: their registrations are gone. To be called when all files
  // were read.
  void end();

 private:
  const tov_supervised_left_t *row_of(const tov_pid_t &record) const;

  std::vector<tov_supervised_left_t> left_;  // in the order of `file`
  std::vector<bool> named_;                  // by an answer, likewise
};
using tov_recognition_t = tov_recognition_s;

#endif  // TOV_CORE_POLICY_RECOGNISE_H
