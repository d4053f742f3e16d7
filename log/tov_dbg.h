// Diagnostics: lines "[TOV:file:line]message" on standard output, switched by module.
//
// A diagnostic costs one relaxed load while it is off, which it nearly always is: the switches are
// all quiet until the device's debug file says otherwise. The file is read at start, once more by
// the watcher thread when the data directory is mounted, and by the client calls that say so.
//
// Threads: any. The switches are plain integers accessed as relaxed atomics; a reader that sees
// an old value prints or leaves out one line.
#ifndef TOV_DBG_H
#define TOV_DBG_H

#include "include/tov_registry.h"
#include "log/notice.h"  // IWYU pragma: export

// The switches by TOV_MODULE_*; TOV_DBG_END is off. Read and write through the functions below
// once other threads run.
extern tov_dbg_t g_tov_dbg_level[TOV_MODULE_END];

// Key words of the debug file, by module, and a last one that is never read.
extern const char *const tov_dbg_lvl_str_pre[TOV_MODULE_END + 1];

inline bool tov_dbg_is_open(int module) {
  return __atomic_load_n(&g_tov_dbg_level[module], __ATOMIC_RELAXED) != TOV_DBG_END;
}

// Prints "[TOV:file:line]" and the formatted message in one write to stdout. Keeps errno.
void tov_dbg_print(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Like tov_dbg_print(), but async-signal-safe: for a child between fork and exec. Writes the
// concatenation of `texts` (ended by a null pointer) straight to descriptor 1.
void tov_dbg_print_raw(const char *file, int line, const char *const *texts);

// A diagnostic of the daemon, its command line or the client library.
#define TOV_DBG(...)                                                                          \
  do {                                                                                        \
    if (tov_dbg_is_open(TOV_MODULE_PUB)) tov_dbg_print(__FILE_NAME__, __LINE__, __VA_ARGS__); \
  } while (0)

// A diagnostic of the shared area of thread liveness.
#define TOV_DBG_ALIVE(...)                                                                      \
  do {                                                                                          \
    if (tov_dbg_is_open(TOV_MODULE_ALIVE)) tov_dbg_print(__FILE_NAME__, __LINE__, __VA_ARGS__); \
  } while (0)

// A diagnostic from a forked child, given as texts to be joined.
#define TOV_DBG_CHILD(...)                                 \
  do {                                                     \
    if (tov_dbg_is_open(TOV_MODULE_PUB)) {                 \
      const char *const texts_[] = {__VA_ARGS__, nullptr}; \
      tov_dbg_print_raw(__FILE_NAME__, __LINE__, texts_);  \
    }                                                      \
  } while (0)

// Reads the debug file into `g_tov_dbg_level`. Always 0: without a file the levels stay.
int tov_parse_dbg_file(void);

// Reads the debug file into `levels`, an array of TOV_MODULE_END switches.
// Returns 0, or -1 when the file cannot be located or opened (levels untouched).
int _tov_parse_dbg_file(tov_dbg_t *levels);

// Non-zero when the PUB switch is on.
int tov_is_open_pub_dbg(void);

// Joins `prefix` and `suffix` into `path` of `len` bytes, without a separator.
// Returns path, or null (with an "[RAS]" line on stdout) when it does not fit.
char *ras_make_vsd_path(const char *prefix, const char *suffix, char *path, int len);

// The same with the value of the environment variable DATA_QXOS_DIR as prefix; null also when the
// variable is not set.
char *ras_make_vsd_data_qxos_path(const char *suffix, char *path, int len);

#endif  // TOV_DBG_H
