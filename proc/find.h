// Finding a running process by its command line.
#ifndef TOV_PROC_FIND_H
#define TOV_PROC_FIND_H

#include <sys/types.h>

// Finds a process whose command line equals `proc`, whose trailing blanks and tabs are stripped in
// place first. Scans /proc once, and again after 100, 200, ... ms for up to `retry_times` retries:
// with 10 retries the search takes about 5.5 s at the most, with 0 it is one scan.
//   pid  written on success only
// Returns 1, 0 when no process was found, negative errno when the last scan could not be finished.
int tov_proc_to_pid(char *proc, pid_t *pid, int retry_times);

#endif  // TOV_PROC_FIND_H
