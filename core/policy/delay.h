// Restarts that wait: the thread that hands deferred exits back once the lock on their
// registration file is gone, or after five minutes.
//
// Thread: "tov_delay_restart", detached, at ordinary priority. It holds the lock of
// `tov_chains_delay` while it looks, and none while it hands an exit back.
#ifndef TOV_CORE_POLICY_DELAY_H
#define TOV_CORE_POLICY_DELAY_H

// Thread body. Looks once a second and hands back at most one exit each time.
void *tov_delay_restart(void *);

#endif  // TOV_CORE_POLICY_DELAY_H
