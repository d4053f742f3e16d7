/*
 * The services that the device's platform gives to the daemon.
 *
 * The daemon calls nothing of the platform but what is declared here. The tree carries one
 * implementation for stock Linux (platform/generic); a vendor links a library of its own in its
 * place. Every service may be called from any thread at any time, also before
 * psh_lib_common_init(): the worker threads run before main reaches that call.
 */
#ifndef TOV_PLATFORM_H
#define TOV_PLATFORM_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- self-healing --------------------------------------------------------------------------- */

/* What the service can be asked for; the numbers are its own. The daemon asks for 1, 2 and 3
 * only. */
enum {
  PSH_UNDEF_ACT = 0,
  PSH_INNER_ACT = 1,             /* nothing: the daemon tells that it ends itself */
  PSH_KILL_PROCESS_ACT = 2,      /* end a hung process */
  PSH_RELOAD_SELF_ACT = 3,       /* reload this unit */
  PSH_RELOAD_NODE_ACT = 4,       /* reload the node */
  PSH_RESET_DEVICE_ACT = 5,      /* reset the device */
  PSH_REDUNDANCE_SWITCH_ACT = 6, /* switch over to the redundant unit */
  PSH_ACT_MAX = 7
};

/* Connects to the self-healing service; once, from main. Returns 0, or -1 with errno set: the
 * daemon then goes on, and its requests may fail. */
int psh_lib_common_init(void);

/*
 * Asks the service to act.
 *   action  PSH_*
 *   pid     the process that PSH_KILL_PROCESS_ACT ends, otherwise 0
 *   module  who asks ("tov"); copied
 *   reason  one line of text, with or without its line feed; copied
 * Returns 0, or a negative value. Must not wait for the action to be carried out: callers hold
 * registry locks.
 */
int protect_selfhealing_do_action(int action, int pid, const char *module, const char *reason);

/* Makes the service write out at once whatever it still buffers. */
void protect_selfhealing_flush_buf_in_emergency(void);

/* ---- system log ----------------------------------------------------------------------------- */

/*
 * Emits one notice.
 *   level     syslog severity, 0 to 7
 *   module    e.g. "HA"
 *   mnemonic  e.g. "HA_RESTART"
 *   flag      always 1
 *   format    printf format of the text and its arguments
 * Returns 0, or a negative value. Never blocks.
 */
int printk_syslog_ext(int level, const char *module, const char *mnemonic, int flag,
                      const char *format, ...) __attribute__((format(printf, 5, 6)));

/* Emits one line at a syslog priority (0 to 7). Never blocks. */
void qx_syslog(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* ---- log files ------------------------------------------------------------------------------ */

/*
 * Creates or opens a log file.
 *   path         of the file; its directory exists
 *   limit_kb     size in kilobytes at which the file is begun anew
 *   handle       receives an opaque handle, valid to the end of the process
 *   reserved_*   always 0 and 1
 * Returns 0, or a non-zero code with *handle untouched.
 */
int ras_logfile_init(const char *path, int limit_kb, void **handle, int reserved_a, int reserved_b);

/* Appends `length` bytes in one piece: lines of several threads must not mix. Any thread, without a
 * lock of the caller's; also in a forked child, where the locks of other threads stay held for
 * ever. `handle` is of ras_logfile_init(), not null. Returns 0 or more, or a negative value. */
int ras_logfile_write_buf(void *handle, const char *data, int length);

/* Brings to storage what was written so far, for use just before a reset. A null handle is
 * allowed. */
void ras_logfile_flush_buf_in_emergency(void *handle);

/* Deletes the oldest files of `directory` whose names begin with `base_name` until no more than
 * `keep` remain. Returns 0, or a negative value. */
int ras_remove_obsolete_files(const char *directory, const char *base_name, int keep, int reserved);

/* ---- configuration -------------------------------------------------------------------------- */

/* True on the product line whose notices go straight through printk_syslog_ext(). */
bool qxconf_is_dorvik_product(void);

/* ---- virtual devices ------------------------------------------------------------------------ */

/*
 * Prepares the platform's environment of virtual device `vsd_no` (0 to 16) in the calling process.
 * Returns 0, or a negative value with errno set. Called in a child between fork and exec: must
 * take no lock that another thread of the parent may have held.
 */
int fs_set_vsd_envs(int vsd_no);

#ifdef __cplusplus
}
#endif

#endif /* TOV_PLATFORM_H */
