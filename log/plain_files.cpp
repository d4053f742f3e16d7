// Plain-file writers beside the event logs.
//
// Threads: see the header.
// Losses: a record that cannot be written is dropped; these files are evidence, not state.
#include "log/plain_files.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "include/tov_ras_comp_config.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

static constexpr size_t TIME_SIZE = 64;
static constexpr int RECORD_NUM = 10;
static constexpr int LINES_PER_RECORD = 2;
static constexpr int SKIP_PIECE_SIZE = 128;
static constexpr size_t COUNT_SIZE = 32;
static constexpr mode_t PLAIN_MODE = 0666;

static tov_mutex_t tov_log_lock = PTHREAD_MUTEX_INITIALIZER;

// The journal. Null while it is closed, so that a write then has no effect; a stream that was
// closed is forgotten at once and cannot be closed or written a second time.
static FILE *fp TOV_GUARDED_BY(tov_log_lock) = nullptr;

// The current time as ctime(3) puts it, without its line feed; empty when it cannot be told.
static void time_text(char (&text)[TIME_SIZE]) {
  text[0] = '\0';
  const time_t now = time(nullptr);
  if (ctime_r(&now, text) == nullptr) text[0] = '\0';
  text[strcspn(text, "\n")] = '\0';
}

// Writes one line into the stream's buffer.
__attribute__((format(printf, 3, 0))) static void write_record(FILE *file, const char *when,
                                                               const char *format,
                                                               va_list arguments) {
  fprintf(file, "%s ", when);
  vfprintf(file, format, arguments);
  fputc('\n', file);
}

// Brings a stream to storage: what it says must survive a reset.
static bool sync_stream(FILE *file) {
  return fflush(file) == 0 && fsync(fileno(file)) == 0;
}

// Writes one line under the current time and brings it to storage; when that fails nothing is left
// to be done about it.
__attribute__((format(printf, 2, 0))) static void store_record(FILE *file, const char *format,
                                                               va_list arguments) {
  char when[TIME_SIZE];
  time_text(when);
  write_record(file, when, format, arguments);
  (void)sync_stream(file);
}

void tov_log_record_reboot_info(const char *path, const char *format, ...) {
  const tov_file_t file = tov_fopen_regular(path, O_WRONLY | O_CREAT | O_APPEND, "a");
  if (file == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  store_record(file.get(), format, arguments);
  va_end(arguments);
}

// ---- ring of ten notifications --------------------------------------------------------------

int tov_log_notify_get_count(const char *path) {
  const tov_fd_t fd(tov_open_regular(path, O_RDONLY));
  if (fd.n < 0) return errno == ENOENT ? -ENOENT : -1;
  char text[COUNT_SIZE];
  const ssize_t length = safe_read(fd.n, text, sizeof text - 1);
  if (length < 0) return -1;
  text[length] = '\0';
  return tov_atoi(text);
}

int tov_log_notify_update_count(const char *path, int count) {
  const tov_file_t file = tov_fopen_regular(path, O_WRONLY | O_CREAT | O_TRUNC, "w");
  if (file == nullptr) return -1;
  fprintf(file.get(), "%d", count);
  return sync_stream(file.get()) ? 0 : -1;
}

// Without a count file the ring begins anew: what an older ring left is removed.
static void restart_ring(const char *path) {
  TOV_DBG("file: %s not exist!\n", TOV_NOTIFY_COUNT_FILE);
  if (access(path, F_OK) != 0) return;
  (void)unlink(path);
  sync();
  TOV_DBG("unlink file: %s!\n", path);
}

// Moves to the record `slot`; the end of the file ends the search, whatever number was asked for.
static void skip_records(FILE *file, int slot) {
  char piece[SKIP_PIECE_SIZE];
  for (int64_t line = 0; line < int64_t{LINES_PER_RECORD} * slot; line++)
    if (fgets(piece, sizeof piece, file) == nullptr) break;
  // A stream may be written after a read only when it was positioned in between.
  (void)fseek(file, 0, SEEK_CUR);
}

void tov_log_notify_info(const char *path, const char *format, ...) {
  int slot = tov_log_notify_get_count(TOV_NOTIFY_COUNT_FILE);
  if (slot == -1) {
    TOV_DBG("tov_log_notify_get_count error!\n");
    return;
  }
  if (slot == -ENOENT) {
    slot = 0;
    restart_ring(path);
  }
  if (access(path, F_OK) != 0) {
    slot = 0;
    const tov_fd_t created(tov_open_regular(path, O_WRONLY | O_CREAT, PLAIN_MODE));
  }
  const tov_file_t file = tov_fopen_regular(path, O_RDWR, "r+");
  if (file == nullptr) return;
  skip_records(file.get(), slot);
  va_list arguments;
  va_start(arguments, format);
  store_record(file.get(), format, arguments);
  va_end(arguments);

  // The number comes from a file that any user may have written.
  const int next = static_cast<int>((int64_t{slot} + 1) % RECORD_NUM);
  if (tov_log_notify_update_count(TOV_NOTIFY_COUNT_FILE, next) < 0)
    TOV_DBG("tov_log_notify_update_count error!\n");
}

// ---- restart journal ------------------------------------------------------------------------

static void close_journal() TOV_REQUIRES(tov_log_lock) {
  if (fp != nullptr) (void)fclose(std::exchange(fp, nullptr));
}

int tov_openlog(const char *path) {
  const tov_lock_guard_t guard(tov_log_lock);
  close_journal();
  fp = tov_fopen_regular(path, O_WRONLY | O_CREAT | O_APPEND, "a").release();
  return fp == nullptr ? -1 : 0;
}

void tov_log(const char *format, ...) {
  const tov_lock_guard_t guard(tov_log_lock);
  if (fp == nullptr) return;
  char when[TIME_SIZE];
  time_text(when);
  if (when[0] == '\0') return;
  va_list arguments;
  va_start(arguments, format);
  write_record(fp, when, format, arguments);
  va_end(arguments);
  fflush(fp);
}

void tov_closelog(void) {
  const tov_lock_guard_t guard(tov_log_lock);
  close_journal();
}
