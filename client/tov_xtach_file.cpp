// Look-ups in the small text files that operators write: one line, one entry.
//
// Nothing is opened but a regular file: a FIFO under the name of the exemption file would hang
// every thread that says it is alive. Nothing is taken from the heap, which belongs to the host.
// A file is asked for by name before it is opened: when it is absent, which is nearly always so,
// that answer costs half as much as a failing open().
//
// Threads: any; no state.
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "client/tov_rpc_fork.h"
#include "include/tov_xtach.h"
#include "util/lines.h"
#include "util/owner.h"
#include "util/tov_utils.h"

enum {
  TOV_LOOKUP_LINE_SIZE = 1024,
  TOV_LOOKUP_WORD_SIZE = 16,  // of a key, of a value, of a process id
  TOV_LOOKUP_WORD_LEN = TOV_LOOKUP_WORD_SIZE - 1
};

// Opens a regular file; owns nothing otherwise. Links are followed: an operator may keep the file
// elsewhere.
static tov_fd_t open_text(const char *name) {
  struct stat found {};
  if (stat(name, &found) < 0 || !S_ISREG(found.st_mode)) return tov_fd_t();
  tov_fd_t fd(tov_fd_above_streams(open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)));
  if (fd.n < 0) return fd;
  if (fstat(fd.n, &found) < 0 || !S_ISREG(found.st_mode)) fd.reset();  // replaced meanwhile
  return fd;
}

// Reads the next line without its last character into `line`. False at the end of the file.
static bool next_line(tov_lines_s &lines, char (&line)[TOV_LOOKUP_LINE_SIZE]) {
  const char *piece = lines.next();
  if (piece == nullptr) return false;
  const size_t length = strnlen(piece, sizeof line - 1);
  memcpy(line, piece, length);
  line[length > 0 ? length - 1 : 0] = '\0';
  return true;
}

// Splits "key value" at the first blank; both words are cut to their size.
// Returns false for a line without a blank.
static bool split_line(const char *line, char (&key)[TOV_LOOKUP_WORD_SIZE],
                       char (&value)[TOV_LOOKUP_WORD_SIZE]) {
  const char *blank = strchr(line, ' ');
  if (blank == nullptr) return false;
  const ptrdiff_t key_length = std::min<ptrdiff_t>(blank - line, TOV_LOOKUP_WORD_LEN);
  snprintf(key, sizeof key, "%.*s", static_cast<int>(key_length), line);
  snprintf(value, sizeof value, "%.*s", TOV_LOOKUP_WORD_LEN, blank + 1);
  return true;
}

// Whether a line of the file equals `text`.
static int find_line(int fd, const char *text) {
  tov_lines_s lines(fd, TOV_LOOKUP_LINE_SIZE - 1);
  char line[TOV_LOOKUP_LINE_SIZE];
  while (next_line(lines, line)) {
    if (strcmp(line, text) == 0) return 1;
  }
  return 0;
}

extern "C" int string_exist_in_file(const char *text, const char *file) noexcept {
  if (text == nullptr || file == nullptr) return 0;
  const tov_rpc_no_cancel_t no_cancel;
  const tov_fd_t fd = open_text(file);
  return fd.n < 0 ? 0 : find_line(fd.n, text);
}

extern "C" int pid_exist_in_file(pid_t pid, const char *file) noexcept {
  if (file == nullptr) return 0;
  const tov_rpc_no_cancel_t no_cancel;
  const tov_fd_t fd = open_text(file);
  if (fd.n < 0) return 0;  // nearly always: each sign of life asks
  char text[TOV_LOOKUP_WORD_SIZE];
  snprintf(text, sizeof text, "%d", pid);
  return find_line(fd.n, text);
}

extern "C" int get_pid_notify_counter(const char *key, const char *file) noexcept {
  if (key == nullptr || file == nullptr) return 0;
  const tov_rpc_no_cancel_t no_cancel;
  const tov_fd_t fd = open_text(file);
  if (fd.n < 0) return 0;
  tov_lines_s lines(fd.n, TOV_LOOKUP_LINE_SIZE - 1);
  char line[TOV_LOOKUP_LINE_SIZE];
  char found_key[TOV_LOOKUP_WORD_SIZE];
  char value[TOV_LOOKUP_WORD_SIZE];
  while (next_line(lines, line)) {
    if (split_line(line, found_key, value) && strcmp(found_key, key) == 0) return tov_atoi(value);
  }
  return 0;
}

extern "C" int pid_reset_counter_in_file(pid_t pid, const char *file) noexcept {
  char text[TOV_LOOKUP_WORD_SIZE];
  snprintf(text, sizeof text, "%d", pid);
  return get_pid_notify_counter(text, file);
}
