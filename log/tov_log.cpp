// Event logs: six files, one per kind of event.
//
// Each start of the daemon begins a new set of files whose names carry the time and the process
// id, so the logs of a daemon that crashed are never overwritten by the next one; old sets are
// pruned at that moment only.
//
// Threads: any, without a lock of this module: the handles are written once before the threads
// start, and the platform's service appends each line in one piece.
// Losses: text behind the 252nd byte of a line; every line while a log is not available.
#include "log/tov_log.h"

#include <dirent.h>
#include <errno.h>
#include <libgen.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <iterator>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "platform/tov_platform.h"
#include "util/owner.h"
#include "util/tov_utils.h"

static constexpr size_t LINE_SIZE = 256;
static constexpr size_t LINE_END_SIZE = 3;                      // CR, LF and the terminator
static constexpr size_t TEXT_ROOM = LINE_SIZE - LINE_END_SIZE;  // stamp and text, with a terminator
static constexpr size_t PATH_SIZE = 128;
static constexpr size_t NAME_SIZE = 100;
static constexpr size_t STAMP_SIZE = 64;
static constexpr size_t DIR_LENGTH = sizeof TOV_LOG_DIR - 1;
static constexpr mode_t DIR_MODE = 0777;
static constexpr int LOG_LIMIT_KB = 1000;
static constexpr int LOG_KEEP = 10;  // files of one type that remain
static constexpr int FLUSH_WAIT_S = 1;

static constexpr int NO_TIME = -201;
static constexpr int NO_BUFFER = -202;

void *tov_logfile_info[TOV_LOG_TYPE_NUM];

static constexpr struct {
  TOV_LOG_TYPE type;  // the key: equals the row's index
  const char *name;
} log_files[] = {
    {TOV_LOG_KILL, "tov_kill_process.log"},
    {TOV_LOG_RESTART, "tov_restart_process.log"},
    {TOV_LOG_RUN_EVENT, "tov_run_event.log"},
    {TOV_LOG_ERROR, "tov_error_event.log"},
    {TOV_LOG_REG_ALIVE, "user_register_alive.log"},
    {TOV_LOG_REG_RESTART, "user_register_restart.log"},
};
static_assert([] {
  for (int i = 0; i < TOV_LOG_TYPE_NUM; i++)
    if (log_files[i].type != i) return false;
  return std::size(log_files) == TOV_LOG_TYPE_NUM;
}());
static_assert(sizeof(tov_log_child_line_s::text) == LINE_SIZE);

static bool is_type(int type) {
  return type >= 0 && type < TOV_LOG_TYPE_NUM;
}

// ---- stamps ---------------------------------------------------------------------------------

// The wall clock as local time, with its microseconds. False when it cannot be read.
static bool local_now(struct tm *local, long *usec) {
  timeval now;
  if (gettimeofday(&now, nullptr) < 0) return false;
  *usec = now.tv_usec;
  return localtime_r(&now.tv_sec, local) != nullptr;
}

int tov_logfile_add_stamp(char *buf, int len) {
  if (buf == nullptr || len < 1) return NO_BUFFER;
  struct tm local;
  long usec = 0;
  if (!local_now(&local, &usec)) return NO_TIME;
  const size_t room = static_cast<size_t>(len);
  const int n =
      snprintf(buf, room, "-%4d%02d%02d%02d%02d%02d-%d", local.tm_year + 1900, local.tm_mon + 1,
               local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, getpid());
  return static_cast<int>(tov_printed(n, room));
}

int tov_log_get_timestr(char *buf, int len) {
  if (buf == nullptr) return -ENOENT;
  if (len < 1) return -1;
  struct tm local;
  long usec = 0;
  if (!local_now(&local, &usec)) return -1;
  const size_t room = static_cast<size_t>(len);
  const int n =
      snprintf(buf, room, "%4d-%02d-%02d %02d%02d%02d %06ld ", local.tm_year + 1900,
               local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, usec);
  return static_cast<int>(tov_printed(n, room));
}

// ---- opening --------------------------------------------------------------------------------

// Makes sure that the log directory is there. False, after a diagnostic, when it cannot be made.
static bool make_log_dir() {
  tov_dir_t dir(opendir(TOV_LOG_DIR));
  if (dir != nullptr) {
    if (closedir(dir.release()) < 0)
      TOV_DBG("tov_log closedir %s fail: %s.\n", TOV_LOG_DIR, strerror(errno));
    return true;
  }
  if (mkdir(TOV_LOG_DIR, DIR_MODE) < 0) {
    TOV_DBG("tov_log mkdir %s fail: %s.\n", TOV_LOG_DIR, strerror(errno));
    return false;
  }
  if (chmod(TOV_LOG_DIR, DIR_MODE) < 0) {  // the umask has narrowed the mode
    TOV_DBG("tov_log chmod %s fail: %s.\n", TOV_LOG_DIR, strerror(errno));
    return false;
  }
  return true;
}

void tov_log_init(void) {
  if (!make_log_dir()) {
    TOV_DBG("tov_log disable all new log.\n");
    return;
  }
  for (const auto &file : log_files)
    tov_log_logfile_init(file.type);
}

void tov_log_logfile_init(int type) {
  if (!is_type(type)) {
    TOV_DBG("[tov_log_logfile_init] error: unkown log file type!\n");
    return;
  }
  char path[PATH_SIZE];
  snprintf(path, sizeof path, "%s/%s", TOV_LOG_DIR, log_files[type].name);
  char base[NAME_SIZE];
  snprintf(base, sizeof base, "%s", path + DIR_LENGTH + 1);

  char stamp[STAMP_SIZE];
  if (tov_logfile_add_stamp(stamp, sizeof stamp) > 0)
    strncat(path, stamp, sizeof path - 1 - strlen(path));

  const int res = ras_logfile_init(path, LOG_LIMIT_KB, &tov_logfile_info[type], 0, 1);
  if (res != 0) {
    TOV_DBG("tov_log init restart process log fail:%d.\n", res);
    return;
  }
  const char *directory = dirname(path);  // cuts the path in place
  if (directory == nullptr) {
    TOV_DBG("tov_log_logfile_init fail to get dirname,path:%s\n", path);
    path[DIR_LENGTH] = '\0';
    directory = path;
  }
  (void)ras_remove_obsolete_files(directory, base, LOG_KEEP, 1);  // too many do no harm
}

// ---- writing --------------------------------------------------------------------------------

// Ends the line and hands it to the platform. `line` has LINE_SIZE bytes of which `length`, at
// most TEXT_ROOM - 1, are filled; the stamp in front ends in a blank and is never dropped.
static int write_line(int type, char *line, size_t length) {
  if (line[length - 1] == '\n') length--;
  if (line[length - 1] == '\r') length--;
  line[length++] = '\r';
  line[length++] = '\n';
  const int res = ras_logfile_write_buf(tov_logfile_info[type], line, static_cast<int>(length));
  return res < 0 ? res : 0;
}

int tov_log_vwith_type(int type, const char *format, va_list arguments) {
  const tov_errno_keeper_s keep;
  if (!is_type(type) || tov_logfile_info[type] == nullptr) return -1;

  char line[LINE_SIZE] = {};
  const int stamp = tov_log_get_timestr(line, sizeof line);
  if (stamp < 0) return -1;
  const size_t start = static_cast<size_t>(stamp);
  const size_t room = TEXT_ROOM - start;
  const int n = vsnprintf(line + start, room, format, arguments);
  if (n < 1) return -1;
  return write_line(type, line, start + tov_printed(n, room));
}

int tov_log_with_type(int type, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int res = tov_log_vwith_type(type, format, arguments);
  va_end(arguments);
  return res;
}

void tov_log_flush_emergency(void) {
  for (void *handle : tov_logfile_info)
    ras_logfile_flush_buf_in_emergency(handle);
}

void tov_log_flush_and_wait(void) {
  tov_log_flush_emergency();
  safe_sleep(FLUSH_WAIT_S);
}

// ---- events of a forked child ---------------------------------------------------------------

static size_t append_text(char *line, size_t length, const char *text) {
  return tov_append(line, length, TEXT_ROOM - 1, text);
}

void tov_log_prepare(tov_log_child_line_s *line, const char *beginning) {
  line->length = 0;
  const int stamp = tov_log_get_timestr(line->text, sizeof line->text);
  if (stamp < 0 || beginning[0] == '\0') return;
  line->length = static_cast<int>(append_text(line->text, static_cast<size_t>(stamp), beginning));
}

int tov_log_write_prepared(int type, const tov_log_child_line_s *line, const char *const *rest) {
  if (!is_type(type) || tov_logfile_info[type] == nullptr || line->length < 1) return -EINVAL;
  const tov_errno_keeper_s keep;
  char text[LINE_SIZE];
  size_t length = static_cast<size_t>(line->length);
  memcpy(text, line->text, length);
  for (; *rest != nullptr; rest++)
    length = append_text(text, length, *rest);
  return write_line(type, text, length);
}
