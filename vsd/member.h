// Which virtual device a process belongs to.
//
// A process of device n carries the group id 3000 + 100 * n as the first of its supplementary
// groups; nothing else says so, and the kernel's status file is where one reads it.
//
// Used by the daemon, the command line and the client calls. Any thread; no state.
#ifndef TOV_VSD_MEMBER_H
#define TOV_VSD_MEMBER_H

#include <sys/types.h>

// The virtual device of a process: (first supplementary group - 3000) / 100, cut toward zero.
// Callers check the result before they index anything by it: it is -30 for a process without
// groups, 0 also for the groups 2901 to 3099, and beyond 15 for large groups (625 for 65534).
// Returns that number; a negative errno, with a diagnostic, when the status file cannot be opened.
int get_vsdid(pid_t pid);

// The same, for who must know whether it could be read: 0, or -errno.
int tov_vsd_of(pid_t pid, int *vsd_id);

// The device under which a process is registered: that of get_vsdid(), or 0, the base system, when
// that is below 0 or cannot be told.
int tov_vsd_or_base(pid_t pid);

// 0 when `text` is not empty and all decimal digits, else -1.
int sisdigit(const char *text);

#endif  // TOV_VSD_MEMBER_H
