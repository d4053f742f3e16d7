// The right to start a task anew, as a file.
//
// Two daemons may be about to start the same task: one that was killed has left a child that has
// not come far, and the next one finds the dead process registered. So the registration file of the
// dead process is the right to start. Before the fork it gets a name of its own beside the
// registrations, and the child removes it under that name before it does anything else; a child
// that finds it gone leaves. The next daemon removes it, too, before it starts anything
// (core/policy/rebuild): the removal succeeds once.
//
// Threads: the taking and the giving back under the lock of `tov_chains`; the use in the child.
#ifndef TOV_PROC_CLAIM_H
#define TOV_PROC_CLAIM_H

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

struct tov_claim_s {
  unsigned int number = 0;  // 0: there was no registration file, so there is nothing to claim
  char path[128] = {};
};
using tov_claim_t = tov_claim_s;

// Claims the start of the record's task: rename(2) of its registration file.
//   stays  the registration file stays under its name, too (link(2)), because the record has it as
//          its own until the process to supervise is found
tov_claim_t tov_claim_take(const tov_chains_guard_t &held, const tov_pid_t &record, bool stays);

// No child was made: the registration file is as it was.
void tov_claim_give_back(const tov_pid_t &record, const tov_claim_t &claim, bool stays);

// In the child: false when the claim was lost to another daemon. Async-signal-safe.
bool tov_claim_use(const tov_claim_t &claim);

// The child has ended: removes what one that did not come as far as its first act has left.
void tov_claim_drop(const tov_pid_t &record);

// Whether a name among the registration files is that of a claim.
bool tov_claim_is_name(const char *name);

// Ends the claim of a daemon that is gone: the file at `path`, from which `record` was read,
// becomes its registration file again. Returns false when the claim was used: the child has
// started.
bool tov_claim_settle(const char *path, const tov_pid_t &record);

#endif  // TOV_PROC_CLAIM_H
