// What the watcher reads and writes: the record of failed forks, the switch with its mirror, and
// the list of mounts.
#ifndef TOV_CORE_WATCH_WATCHED_FILES_H
#define TOV_CORE_WATCH_WATCHED_FILES_H

// Reads the fork-error file; with more than six characters in it, reports and ends the process with
// status 1 (after 3 s). A file that cannot be read, or is no regular one, is a diagnostic only.
void tov_deal_forkfile_change(void);

// Reads the switch from the configuration file into `tov_single_ps_ha_enable`, notes the time when
// it goes on, and mirrors it. An unreadable file means on.
void tov_update_cfg(void);

// 1 when a line of /proc/mounts mentions "/data" anywhere, else 0.
int tov_check_data_mount(void);

// Replaces the content of a file (created with mode 0777) by `len` bytes and brings it to storage;
// a null `buf` or `len` below 1 empties it.
// Returns the bytes written, or -1 when the file cannot be opened.
int tov_write_buf_to_file(const void *buf, int len, const char *path);

#endif  // TOV_CORE_WATCH_WATCHED_FILES_H
