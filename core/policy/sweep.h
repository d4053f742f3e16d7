// The status sweep: finds exits whose report was lost.
//
// The kernel drops process events when our socket is full and reports none of the time before we
// subscribed. So once a minute every supervised process is looked at; one that two sweeps in a row
// do not find as it was registered is treated as gone.
//
// Thread: "tov_proc_stat_check", detached, at ordinary priority. One bucket at a time, so that the
// lock of `tov_chains` is never held for a whole sweep.
#ifndef TOV_CORE_POLICY_SWEEP_H
#define TOV_CORE_POLICY_SWEEP_H

// Thread body.
void *tov_proc_stat_check(void *);

// One bucket's share of a sweep: counts the processes that were not found, and treats as gone
// those that were not found twice in a row. Takes the lock of `tov_chains`; call it without, since
// a third-part program that runs again is registered with our own server after the lock.
void tov_sweep_bucket(unsigned int bucket);

#endif  // TOV_CORE_POLICY_SWEEP_H
