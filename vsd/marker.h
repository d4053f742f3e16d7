// The marker files by which operators steer the next restart: "/etc/dev_mon" asks for one restart
// without the usual announcements, "/etc/debug_log" for the text journal.
//
// Each call tests the file anew; nothing is kept open or remembered. A marker
// counts when it can be opened for reading and writing, so a directory of that name does not.
//
// Any thread.
#ifndef TOV_VSD_MARKER_H
#define TOV_VSD_MARKER_H

// Creates "/etc/dev_mon" (mode 0754 less the umask). Returns 0, also when it exists, or -errno.
int dev_mon_restart(void);

// Tests for "/etc/dev_mon", which stays; the name notwithstanding. Returns 0 or -errno.
int del_dev_mon_log(void);

// Tests for "/etc/dev_mon" and removes it. Returns 0 or -errno (-ENOENT: there was none).
int del_dev_mon_restart(void);

// Tests for "/etc/debug_log". Returns 0 or -errno.
int debug_log(void);

#endif  // TOV_VSD_MARKER_H
