// The right to start a task anew, as a file.
//
// Two daemons may be about to start the same task: one that was killed has left a child that has
// not come far, and the next one finds the dead process registered. So the registration file of the
// dead process is the right to start. Before the fork it gets a name of its own beside the
// registrations, and the child removes it under that name before it does anything else; a child
// that finds it gone leaves. The next daemon removes it, too, before it starts anything
// (core/policy/rebuild): the removal succeeds once.
//
// A program that does not register by itself is known by its command line alone, which its child
// does not have before it executes it. Such a child renames the file instead of removing it, to a
// name with its own id: as long as the restart searches for the program, the next daemon, too,
// knows whom to wait for.
//
// Threads: the taking and the giving back under the lock of `tov_chains`; the use in the child.
#ifndef TOV_PROC_CLAIM_H
#define TOV_PROC_CLAIM_H

#include <stdint.h>
#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

struct tov_claim_s {
  unsigned int number = 0;  // 0: there was no registration file, so there is nothing to claim
  char path[128] = {};
  char used[128] =
      {};  // what the name of a child that renames it begins with; empty: it removes it
};
using tov_claim_t = tov_claim_s;

// Claims the start of the record's task: rename(2) of its registration file.
//   stays  the registration file stays under its name, too (link(2)), because the record has it as
//          its own until the process to supervise is found; the child renames the claim
tov_claim_t tov_claim_take(const tov_chains_guard_t &held, const tov_pid_t &record, bool stays);

// No child was made: the registration file is as it was.
void tov_claim_give_back(const tov_pid_t &record, const tov_claim_t &claim, bool stays);

// In the child: false when the claim was lost to another daemon. Async-signal-safe.
bool tov_claim_use(const tov_claim_t &claim);

// The restart is over, or given up: takes the claim from a child that has not come as far as its
// first act, or has ended before it, and removes what one has renamed.
//   child  the child of a listed program's search; below 1: there is none
void tov_claim_drop(const tov_pid_t &record, pid_t child);

// The same for a child of the last daemon.
void tov_claim_end_child(int vsd_id, pid_t child);

// Whether a name among the registration files is that of a claim, or of a file that the daemon
// wrote and was killed before it could give it its name.
bool tov_claim_is_name(const char *name);

// Whether it is that of a claim that a child has used, and which child.
bool tov_claim_is_used(const char *name);
pid_t tov_claim_child_of(const char *name);

// Ends the claim of a daemon that is gone: the file at `path`, from which `record` was read,
// becomes its registration file again. Returns false when the claim was used: the child has
// started.
bool tov_claim_settle(const char *path, const tov_pid_t &record);

#endif  // TOV_PROC_CLAIM_H
