// How a thread of the daemon begins and ends.
#ifndef TOV_CORE_RUN_THREAD_H
#define TOV_CORE_RUN_THREAD_H

// Names the calling thread (the kernel keeps 15 characters).
// Returns 0 or -errno. Leaves errno, too: the thread ends with it.
int tov_core_thread_name(const char *name);

// The last thing that a thread does whose failure ends the daemon, whatever ended it: raises
// `quit`, writes to the event log that the daemon will be restarted, brings the logs to storage and
// gives them a second to get there. (The watchdog has nothing that could fail and does without.)
//   name  of the thread, for the log
//   res   the thread's own result code, 0 when another thread set `quit`
//   err   errno of the failure, else 0
// Call it with no registry lock held: it sleeps a second.
void tov_core_thread_end(const char *name, int res, int err);

#endif  // TOV_CORE_RUN_THREAD_H
