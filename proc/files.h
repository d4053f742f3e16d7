// Small files around starting a program: the record of failed forks, the self-check period, the
// console.
#ifndef TOV_PROC_FILES_H
#define TOV_PROC_FILES_H

enum {
  TOV_SELF_CHECK_PERIOD_S = 300  // without a usable /debug_time
};

// The self-check period in seconds: the number in /debug_time, read anew at each call, 300 when
// there is none or it is not above 0. Negative errno when the file is there but cannot be opened.
int debug_time(void);

// Opens /dev/console with `mode` (open(2) flags). Tries five times, 10 ms apart, without blocking
// on the device, then sets the status flags back to `mode`.
// Returns the descriptor, or the last negative result. The one descriptor that is not
// close-on-exec: a child makes it the standard streams of its program. Async-signal-safe.
int console_open(int mode);

// Appends `text` to `file` (created with mode 0755) and brings it to storage.
// Returns 0, or negative errno. Async-signal-safe.
int tov_record_abnormal_fork(const char *text, const char *file);

// Removes `file` if it exists. Called in a child; async-signal-safe.
void tov_remove_abnormal_fork_file(const char *file);

#endif  // TOV_PROC_FILES_H
