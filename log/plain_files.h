// Plain-file writers beside the event logs: why the daemon ended, the ring of notifications (for
// other programs; the daemon writes none) and the restart journal.
//
// The files lie in directories that every user may write: what is no regular file counts as
// unreadable. Records that must survive a reset are flushed and synced.
//
// Threads: the writers of records open, write and close in each call and share nothing but the
// files themselves. The journal is described at its functions.
#ifndef TOV_LOG_PLAIN_FILES_H
#define TOV_LOG_PLAIN_FILES_H

// Appends "TIME TEXT\n" to the file `path` (made when missing) and syncs it; TIME reads like
// "Sun Nov 15 10:25:41 2026". A file that cannot be opened is passed over in silence: this runs
// when the daemon is about to end.
void tov_log_record_reboot_info(const char *path, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// ---- ring of ten notifications --------------------------------------------------------------

// Returns the number in the count file, 0 when it holds none, -ENOENT when it is absent, -1 when
// it cannot be read.
int tov_log_notify_get_count(const char *path);

// Writes `count` into the count file and syncs it. Returns 0, or -1.
int tov_log_notify_update_count(const char *path, int count);

// Writes "TIME TEXT\n" over the next of the ten records of the file `path`. The next record's
// number is kept in TOV_NOTIFY_COUNT_FILE; without that file the ring begins anew. A record counts
// as two lines of at most 127 bytes (a text that ends in a line feed makes two).
// Not for two callers at once: the count is read and written back without a lock.
void tov_log_notify_info(const char *path, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// ---- restart journal ------------------------------------------------------------------------

// Opens the journal for appending. Returns 0, or -1 with errno.
// The three functions here are serialised by a lock of their own, and what belongs together by that
// of `tov_chains`, which their callers hold from the opening to the closing of each line.
int tov_openlog(const char *path);

// Appends "TIME TEXT\n" to the open journal and flushes it; nothing while no journal is open.
void tov_log(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Closes the journal; nothing when none is open.
void tov_closelog(void);

#endif  // TOV_LOG_PLAIN_FILES_H
