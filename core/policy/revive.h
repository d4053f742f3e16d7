// Starting the task of a record again: one procedure for every occasion on which that happens.
//
// What differs between the occasions - who is told, which markers count, what follows from a start
// that failed - stands in one row for each (revive.cpp).
// Threads: those of core/policy/exit.h, main in the alarm's handler and, silently, at the rebuild.
#ifndef TOV_CORE_POLICY_REVIVE_H
#define TOV_CORE_POLICY_REVIVE_H

#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

enum tov_revive_e {
  TOV_REVIVE_AFTER_EXIT,        // the rules said so
  TOV_REVIVE_AFTER_SUSPENSION,  // the self-check alarm has come
  TOV_REVIVE_AT_REBUILD,        // it died while no daemon was there
  TOV_REVIVE_NUM
};

// Starts the record's task and gives the record its new process.
//   held    the guard of the registry
//   record  its process is gone; file and id are still the dead one's
// A start that the burst limit forbids suspends the record. One that fails leaves it with the dead
// process's id and file - at a rebuild without either, since no later step would read that file.
// Waits for the record's `restart_time`, and as long as forks fail.
// Returns the result of the start as tov_proc_restart() does; -1 also when the start could not be
// journalled, which operators asked for, and was not made.
pid_t tov_revive(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion);

#endif  // TOV_CORE_POLICY_REVIVE_H
