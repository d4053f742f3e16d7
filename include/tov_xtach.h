/*
 * The calls that a supervised program makes: register what happens when it ends, have its threads
 * watched, withdraw both, and check its count of open files.
 *
 * Plain C: usable from C and C++, from several threads, and after fork() (the child starts with a
 * connection of its own). The library starts no thread, installs no signal handler and ends the
 * process in one documented case only. Its descriptors are close-on-exec, and it keeps none
 * below 3.
 *
 * What every call has in common:
 * - Requests of one process are sent one after the other: a call waits while another thread's
 *   request is under way, up to about 10 s each when the daemon is absent or silent.
 *   tov_client_reset_thread_notify() is the exception; see there.
 * - The daemon acknowledges that it received a request, before it carries it out. A result of 0
 *   therefore never means "done", and a daemon that stays silent for 5 s counts as success.
 * - The daemon drops a request whose sender is gone before it was acknowledged. A call that has
 *   returned keeps its connection open for that, up to four of them beside the latest; a request
 *   can be lost when the process ends, or executes another program, before the daemon came to it.
 * - No call is a cancellation point, and none may be made from a signal handler.
 * - Diagnostics go to standard output, and only when the device's debug file says so. The three
 *   calls marked [debug file] look for it at DATA_QXOS_DIR; when that environment variable is not
 *   set they print one line that begins with "[RAS]" each time.
 *
 * `pid` 0 names the calling process where a call says so. A negative `pid` is not refused there: it
 * goes on as process 0, of which the daemon knows nothing, and no registration file is written.
 */
#ifndef TOV_XTACH_H
#define TOV_XTACH_H

#include <sys/types.h>

#include "tov_wire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Public calls are all that the library exports. None throws. */
#define TOV_API __attribute__((visibility("default")))
#ifdef __cplusplus
#define TOV_NOTHROW noexcept
#else
#define TOV_NOTHROW
#endif

/* ---- what happens when the process ends ----------------------------------------------------- */

/*
 * Registers a process: when it ends, the daemon starts it again.   [debug file]
 *   pid   the process, 0: the caller
 *   type  TOV_RESTART: execute its command line again;
 *         TOV_SHELL_RESTART: run its start script /etc/cmdmap/PROGRAM.sh with the argument "start"
 * Writes the registration file /tmp/vsd/DEVICE/tov/db/NAME.PID, locks it and keeps it open for the
 * life of the calling process, then asks the daemon until it acknowledges: 60 attempts, a second
 * apart. Without a daemon the call therefore takes about six minutes.
 * Always returns 0. A second registration of the same process changes nothing at the daemon.
 */
TOV_API int reg_process_exit_action(pid_t pid, TOV_MSG_TYPE type) TOV_NOTHROW;

/*
 * The same with a start script of the caller's choice, sent once, without acknowledgement.
 *                                                                      [debug file]
 *   path  chooses the script: /etc/cmdmap/NAME.sh, where NAME is what follows the last "/" of the
 *         path's first word; a word without "/" names /etc/cmdmap/WORD, without ".sh". Copied; at
 *         most 255 bytes are used. Null or empty: chosen by the command line, as with
 *         reg_process_exit_action().
 * Returns 0 when the request left, -1 when there is no daemon (after about 5 s).
 */
TOV_API int reg_process_exit_action_shell(pid_t pid, TOV_MSG_TYPE type,
                                          const char *path) TOV_NOTHROW;

/*
 * reg_process_exit_action() for a type that is given as text, as in a configuration file: what
 * begins with "TOV_RESTART" or with "TOV_SHELL_RESTART".
 * Returns 0, or -1 for any other text.
 */
TOV_API int reg_third_part_process_exit_action(pid_t pid, const char *type) TOV_NOTHROW;

/*
 * Sets how many seconds the daemon waits before it restarts a process. To be called instead of a
 * registration, not beside it: it makes the daemon's record itself (device 0, no registration
 * file), which a later registration no longer changes; after a registration it has no effect.
 *   pid           the process, 0: the caller
 *   type          TOV_RESTART or TOV_SHELL_RESTART
 *   restart_time  seconds
 * Sent once, without acknowledgement. Returns 0 when the request left, -1 without a daemon.
 */
TOV_API int tov_time_set(pid_t pid, TOV_MSG_TYPE type, int restart_time) TOV_NOTHROW;

/*
 * Withdraws every registration of a process and removes its registration file, as before a
 * deliberate end.
 *   pid  the process, 0: the caller
 * Asks until the daemon acknowledges: 60 attempts, a second apart; takes a second when all is well.
 * Returns 0, or -1: a negative pid, or no daemon (after about six minutes).
 */
TOV_API int tov_cancel_proc(pid_t pid) TOV_NOTHROW;

/* ---- watched threads ------------------------------------------------------------------------ */

/*
 * Has the calling thread watched: it must then call tov_client_reset_thread_notify() at least once
 * a period, or the process is killed after the allowed number of missed periods. [debug file]
 *   pid              of the calling process, > 0
 *   tid              of the calling thread (gettid), not 0
 *   m_n_notify_time  not 0; odd: a period of 180 s and 4 missed periods,
 *                    even: a period of 120 s and 5 missed periods
 *   m_n_counter      not 0; otherwise unused
 * The thread with the process's own id must be registered too, or none of them is counted down.
 * Unregister before the thread ends: its id will be given to another thread, which would inherit
 * the countdown.
 * Returns 0, also without a daemon; -1 for bad arguments, another thread or a failed exchange.
 */
TOV_API int tov_client_reg_thread_notify(pid_t pid, pid_t tid, unsigned int m_n_notify_time,
                                         unsigned int m_n_counter) TOV_NOTHROW;

/*
 * The same, and makes the calling process ignore SIGABRT, the signal by which the daemon's platform
 * ends a hung process. The only call that changes a signal's disposition.
 */
TOV_API int tov_client_reg_thread_notify_no_proc(pid_t pid, pid_t tid, unsigned int m_n_notify_time,
                                                 unsigned int m_n_counter) TOV_NOTHROW;

/*
 * Tells that the calling thread is alive; arguments as for its registration. Cheap: one failing
 * stat() of the exemption file and one store into shared memory, without a message and without
 * waiting for other threads. Two cases send a message and may wait: a thread that the daemon does
 * not know (any more) is registered again, and a thread id of 163840 or more is outside the shared
 * memory.
 * A thread whose id stands alone on a line of /data/.tov_debug_pid is exempt: nothing is done.
 * Returns 0; -1 for bad arguments or another thread.
 */
TOV_API int tov_client_reset_thread_notify(pid_t pid, pid_t tid, unsigned int m_n_notify_time,
                                           unsigned int m_n_counter) TOV_NOTHROW;

/*
 * Ends the watching of a thread, which may be any; waits for the acknowledgement. Always returns 0.
 */
TOV_API int tov_client_unreg_thread_notify(pid_t tid) TOV_NOTHROW;

/* ---- open files ----------------------------------------------------------------------------- */

/*
 * Counts the open files of process `pid`. The fourth check in a row that finds as many as the
 * calling process's own soft limit, or more, ends the calling process by exit(1), so that it is
 * started again; a check below the limit starts the count anew. The descriptor that the check
 * itself needs is counted. For one thread only.
 */
TOV_API void tov_client_watch_process_fd(pid_t pid) TOV_NOTHROW;

/* Soft limit of an RLIMIT_* of the calling process, at most INT_MAX; -1 when it cannot be read. */
TOV_API int get_resource_limit(int resource) TOV_NOTHROW;

/* ---- small text files ----------------------------------------------------------------------- */

/*
 * The files are read line by line, at most 1023 characters at once; the last character of what was
 * read is dropped as the line's end, whatever it is. What is no regular file counts as unreadable.
 */

/* 1 when a line of `file` equals `text`, otherwise 0; 0 also when the file cannot be read. */
TOV_API int string_exist_in_file(const char *text, const char *file) TOV_NOTHROW;

/* The same for the decimal form of `pid`. */
TOV_API int pid_exist_in_file(pid_t pid, const char *file) TOV_NOTHROW;

/*
 * The number that follows `key` and a blank on the first such line of `file`; keys and values are
 * cut at 15 characters. 0 when there is none, when it is no number that an int can hold, or when
 * the file cannot be read.
 */
TOV_API int get_pid_notify_counter(const char *key, const char *file) TOV_NOTHROW;

/* The same for the decimal form of `pid`. */
TOV_API int pid_reset_counter_in_file(pid_t pid, const char *file) TOV_NOTHROW;

#ifdef __cplusplus
}
#endif

#undef TOV_NOTHROW
#undef TOV_API

#endif /* TOV_XTACH_H */
