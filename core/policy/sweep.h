// The status sweep: finds exits whose report was lost.
//
// The kernel drops process events when our socket is full and reports none of the time before we
// subscribed. So once a minute every supervised process is looked at; one that has ended, or has
// executed another program than was registered, at two sweeps in a row is treated as gone. One
// that lives and only looks different is told about at each. What cannot be known counts for
// nothing: a line in the error log says how many those were.
//
// Thread: "tov_proc_stat_check", detached, at ordinary priority. One bucket at a time, so that the
// lock of `tov_chains` is never held for a whole sweep.
#ifndef TOV_CORE_POLICY_SWEEP_H
#define TOV_CORE_POLICY_SWEEP_H

// Thread body.
void *tov_proc_stat_check(void *);

// One bucket's share of a sweep: counts the processes that were not found, and treats as gone
// those that were not found twice in a row. Takes the lock of `tov_chains`; call it without, since
// /proc is read without it, and since a third-part program that runs again is registered with our
// own server after the lock. Returns how many processes could not be looked at.
int tov_sweep_bucket(unsigned int bucket);

#endif  // TOV_CORE_POLICY_SWEEP_H
