// Starting the task of a record again: one procedure for every occasion on which that happens.
//
// What differs between the occasions - who is told, which markers count, what follows from a start
// that failed - stands in one row for each (revive.cpp).
// What comes of the look and the search for a listed program's process: core/policy/search.
// Threads: the event handler, the sweep, the hand-back of deferred exits, the server's when a
// process registers for which a restart searches, main in the alarm's handler and at the rebuild.
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

// Begins the restart of the record's task, or goes on with the one that is under way. What has to
// be waited for - its `restart_time`, forks that fail, the search for a listed program's process -
// the record waits for (tov_record_wait()); the event handler asks the rules again when the time
// has come. Nothing here sleeps.
//   held      the guard of the registry
//   record    its process is gone; file and id are still the dead one's
//   occasion  counts at the beginning only
// A start that the burst limit forbids suspends the record. One that fails leaves it with the dead
// process's id and file, from which a next daemon goes on.
// One that cannot be journalled, which operators asked for, is not made.
void tov_revive(const tov_chains_guard_t &held, tov_pid_t *record, tov_revive_e occasion);

// Goes on with the restart of a daemon that is gone, in its search for the program that its child
// was to execute: as long as that daemon would have searched. Then, if the child is gone, the
// restart begins anew.
//   has_ended  the child is gone already, or its id has been given out again
void tov_revive_follow(const tov_chains_guard_t &held, tov_pid_t *record, pid_t child,
                       bool has_ended);

// Gives the restart up, and the record: a child that has not used its claim yet leaves.
void tov_revive_give_up(const tov_chains_guard_t &held, tov_pid_t *record);

// Lets the record wait until it was looked whether its listed program runs again by itself.
void tov_revive_look(const tov_chains_guard_t &held, tov_pid_t *record);

// Lets the record wait until its registration file is unlocked: the exit is parked
// (core/policy/defer) and comes back with tov_hand_back_exit().
void tov_revive_defer(const tov_chains_guard_t &held, tov_pid_t *record);

// The virtual device in which a record's process ran, -1: none. Its member file says so, which has
// its id for a name; where another process may have the id, the file may be that one's, and what is
// registered counts.
int tov_revive_device(const tov_pid_t &record);

// Whether nothing is to be started any more for a restart that is under way: the device of the dead
// process is being deleted, or is gone.
bool tov_revive_is_in_vain(const tov_pid_t &record);

// Whether a new process is wanted: at a rebuild for whatever was registered, afterwards if the
// action asks for one.
bool tov_revive_is_wanted(const tov_pid_t &record);

// ---- for the search behind a start (core/policy/search) -----------------------------------------

// Notes what the child has executed: what it forks is known by that when it has ended itself.
void tov_revive_note_executed(const tov_chains_guard_t &held, tov_pid_t *record);

// The restart is over.
//   result    the process to supervise; below 1, none: the record keeps the dead one's id and file
//   identity  of a listed one, when it was found
void tov_revive_finish(const tov_chains_guard_t &held, tov_pid_t *record, pid_t result,
                       const tov_identity_t &identity);

#endif  // TOV_CORE_POLICY_REVIVE_H
