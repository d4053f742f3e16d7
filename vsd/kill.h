// Sending a signal to every process of a group id.
#ifndef TOV_VSD_KILL_H
#define TOV_VSD_KILL_H

// Sends `signo` to every process whose "Groups:" line in /proc/PID/status contains the decimal text
// of `supplement_id`. A plain search for the text: 3100 also hits a process with the group 31000,
// and the caller itself if it carries the group. A process that vanishes is passed over; whether a
// signal arrived is not asked.
// Returns 0, or a negative errno when "/proc/" cannot be read. Any thread.
int kill_proc_by_groups(int signo, int supplement_id);

#endif  // TOV_VSD_KILL_H
