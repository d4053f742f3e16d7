// The mass-crash rule: many registered processes that dump core within a short span make the unit
// reload, because restarting them one by one is no cure.
#ifndef TOV_CORE_POLICY_MASS_H
#define TOV_CORE_POLICY_MASS_H

#include "include/tov_registry.h"

// To be called for every exit event before it is handled, not for deferred ones.
// Remembers the time when the newest record of `pid` dumped core (bit 0x80 of `exit_code`), and
// then counts the records of `chains` that did so within the span. Span and threshold come from
// /etc/tov_config ("900 10" without it). At the threshold the platform is asked to reload the
// unit, unless /tov_no_reboot exists or the low-memory killer forbids it.
// Takes and releases the registry's lock; call without it. Sleeps 1 s when a reload is asked for.
void tov_check_continuous_multiple_process_exit(int pid, int exit_code, tov_chains_t *chains);

#endif  // TOV_CORE_POLICY_MASS_H
