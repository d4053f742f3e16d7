// Event logs: six files, one per kind of event, begun anew at each start of the daemon.
//
// A line is "2026-11-15 102541 004512 TEXT" and CR LF, at most 254 bytes in all, and goes to the
// platform's log-file service in one call. Without a file (a directory that cannot be made, a full
// disk) its writes return -1 and the daemon runs on. The plain-file writers stand in
// plain_files.h.
//
// Threads: tov_log_init() once, before the threads start; everything else from any thread without
// a lock of this module, the service serialises writers. Only what says so may be called between
// fork and exec.
#ifndef TOV_LOG_H
#define TOV_LOG_H

#include <stdarg.h>

#include "include/tov_registry.h"
#include "log/plain_files.h"  // IWYU pragma: export
#include "log/tov_dbg.h"

// Handles of the platform's log-file service by TOV_LOG_TYPE; null: that log is not available.
// Written by tov_log_logfile_init() alone, valid to the end of the process.
extern void *tov_logfile_info[TOV_LOG_TYPE_NUM];

// Makes the log directory when it is missing and opens the six logs. Failures are diagnostics.
void tov_log_init(void);

// Opens the log of one type under its name and a stamp ("-YYYYMMDDhhmmss-PID") and deletes older
// files of that type until ten remain. Failures are diagnostics; the handle then stays null.
void tov_log_logfile_init(int type);

// Writes the stamp of a file name into `buf` of `len` bytes, cut to len - 1.
// Returns the characters written, -202 (no buffer) or -201 (the time cannot be read).
int tov_logfile_add_stamp(char *buf, int len);

// Writes the stamp of a line, "2026-11-15 102541 004512 " (local time, microseconds, a trailing
// blank), into `buf` of `len` bytes, cut to len - 1.
// Returns the characters written, -ENOENT (null buffer) or -1 (no room, or the time cannot be
// read).
int tov_log_get_timestr(char *buf, int len);

// Writes one event. One line feed and then one carriage return at the end of the text are dropped,
// so the line ends in exactly one CR LF whatever the text ended in. A long text is cut.
// Returns 0, -1 (no such type or log, empty text, no time) or the platform's negative result.
// Keeps errno.
int tov_log_with_type(int type, const char *format, ...) __attribute__((format(printf, 2, 3)));
int tov_log_vwith_type(int type, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

// Brings all logs to storage: right before a reset or a deliberate end of the daemon.
void tov_log_flush_emergency(void);

// The same, and waits a second for them to get there: storage may take its time to write what it
// has accepted.
void tov_log_flush_and_wait(void);

// The same text as a diagnostic of the daemon and as an event. The arguments are evaluated twice.
#define TOV_DBG_AND_LOG(type, ...)              \
  do {                                          \
    TOV_DBG(__VA_ARGS__);                       \
    (void)tov_log_with_type(type, __VA_ARGS__); \
  } while (0)

// ---- events of a forked child ---------------------------------------------------------------

// A child between fork and exec can neither read the local time nor format: the locks behind both
// may be held for ever by a thread that does not exist in it. So the parent prepares the beginning
// of the line and the child only joins texts.

// The beginning of a line, made before the fork; the maker's own.
struct tov_log_child_line_s {
  char text[256];
  int length;  // bytes in `text`; below 1: there was no time, or no text
};
using tov_log_child_line_t = tov_log_child_line_s;

// Parent, before the fork: puts the stamp and `beginning` (not empty) into `line`.
void tov_log_prepare(tov_log_child_line_s *line, const char *beginning);

// Child: writes the prepared line with the texts of `rest` (ended by a null pointer) behind it, to
// the same rules as tov_log_with_type(). Async-signal-safe as far as the platform's write is.
// Returns 0, -EINVAL (no such type or log, nothing prepared) or the platform's negative result.
int tov_log_write_prepared(int type, const tov_log_child_line_s *line, const char *const *rest);

#endif  // TOV_LOG_H
