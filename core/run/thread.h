// How a thread of the daemon begins and ends.
#ifndef TOV_CORE_RUN_THREAD_H
#define TOV_CORE_RUN_THREAD_H

// Names the calling thread (the kernel keeps 15 characters).
// Returns 0 or -errno. Leaves errno, too: the thread ends with it.
int tov_core_thread_name(const char *name);

// The last thing a joined thread does, whatever ended it: asks all other threads to end, writes to
// the event log that the daemon will be restarted, brings the logs to storage and gives them a
// second to get there.
//   res  the thread's own result code, 0 when `quit` was set by somebody else
//   err  errno of the failure
void tov_core_thread_end(const char *name, int res, int err);

#endif  // TOV_CORE_RUN_THREAD_H
