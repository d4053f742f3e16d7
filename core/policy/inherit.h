// Listed programs that run already: a record gets the process that somebody else has started.
//
// A listed program may be started beside its record: by an operator's hand, by an upgrade that
// starts the new one before it ends the old one, by itself. Such a process is the record's heir: it
// is taken where the daemon would start another one, and where the old one is stopped on purpose.
//
// Threads: those of core/policy/exit, and the event handler. All take the guard of `tov_chains`.
#ifndef TOV_CORE_POLICY_INHERIT_H
#define TOV_CORE_POLICY_INHERIT_H

#include <sys/types.h>

#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

// Whether no record stands for the process: of two records that have found it, the first has it.
bool tov_inherit_is_free(const tov_chains_guard_t &held, pid_t pid);

// The record stands for that process from now on, with its registration file; what it executes is
// noted at once.
//   before  what was read of the process when it was found, its start at least: of one that has
//           ended since, perhaps because it went to the background, nothing more is to be read
void tov_inherit_process(const tov_chains_guard_t &held, tov_pid_t *record, pid_t pid,
                         const tov_identity_t &before);

// Removes the note that says in which virtual device the process is, if it has certainly ended: one
// that is given its id later is not there. For the base system there is none.
void tov_inherit_drop_member(int vsd_id, pid_t pid, const tov_identity_t &identity);

// The same for the process that the look has found (tov_start_t): the record begins as if that had
// been registered just now, and says so, but goes on with its burst where the dead process has made
// it of itself.
void tov_inherit_running(const tov_chains_guard_t &held, tov_pid_t *record);

// The program was executed beside a record of it: one that is suspended has that process from now
// on, any other remembers it as its heir. A worker of its own process, or of its child, is none,
// nor is one that started earlier: what a process before it has left behind.
void tov_inherit_heard(const tov_chains_guard_t &held, tov_pid_t *record, pid_t pid);

// Whether a process that seems to be in no device has given up the groups of one: it is a worker of
// a record's program there.
//   program  its id, device, identity and command line
bool tov_inherit_is_worker(const tov_chains_guard_t &held, const tov_pid_t &program);

// Whether the record has an heir that lives.
bool tov_inherit_heir_lives(const tov_chains_guard_t &held, const tov_pid_t &record);

// Takes it: the record has that process now, as if it had been registered just now. Returns false
// where there is none.
bool tov_inherit_heir(const tov_chains_guard_t &held, tov_pid_t *record);

// Notes what a process has executed that is about to be registered by a request of our own: it may
// go to the background, and end, or rewrite its title, before the request is carried out.
//   program  its id, identity and command line
void tov_inherit_note_execution(const tov_chains_guard_t &held, const tov_pid_t &program);

// What is known of a process: what was read of it, or what was noted, where it has shown nothing.
// That is told once, as is the command line.
tov_identity_t tov_inherit_more_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity);

// The command line that was noted of a process; empty: none.
std::string tov_inherit_command_of(const tov_chains_guard_t &held, pid_t pid,
                                   const tov_identity_t &identity);

#endif  // TOV_CORE_POLICY_INHERIT_H
