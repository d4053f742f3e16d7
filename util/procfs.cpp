// Readers of the kernel's /proc files of a process.
//
// The files are read with plain reads into buffers on the stack instead of streams: the liveness
// question is asked for every exit of a supervised process and every sweep, the command line for
// every process of the machine in a search, and a stream costs an allocation each time.
//
// Threads: any; no state. Losses: a process that dies between two reads of its files is described
// by what was read before.
#include "util/procfs.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "util/owner.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

static constexpr int EXE_PATH_SIZE = 32;
static constexpr int STATUS_PATH_SIZE = 64;
static constexpr int STAT_SIZE = 1024;
static constexpr size_t CMDLINE_CHUNK = 4096;

// ---- command line ---------------------------------------------------------------------------

namespace {

// Hands out the bytes of a file one by one.
struct byte_reader_s {
  int fd;
  int error = 0;  // of the read that ended it
  size_t at = 0;
  size_t filled = 0;
  unsigned char chunk[CMDLINE_CHUNK];

  explicit byte_reader_s(int file) : fd(file) {}

  // The next byte, or -1 at the end of the file; a read error ends it too.
  int next() {
    if (at == filled) {
      const ssize_t n = TEMP_FAILURE_RETRY(tov_sys_read(fd, chunk, sizeof chunk));
      if (n < 0) error = errno;
      if (n <= 0) return -1;
      filled = static_cast<size_t>(n);
      at = 0;
    }
    return chunk[at++];
  }
};

}  // namespace

// Skips argv[0] with its NUL. Returns false when the file ends before the NUL.
static bool skip_first_argument(byte_reader_s &reader) {
  int byte = reader.next();
  while (byte > 0)
    byte = reader.next();
  return byte == 0;
}

// Appends a blank and the remaining arguments at buf[n]; there is room for 3 bytes at least.
static void append_arguments(byte_reader_s &reader, char *buf, int n, int len) {
  int p = n;
  buf[p++] = ' ';
  for (int byte = reader.next(); byte >= 0; byte = reader.next()) {
    if (byte == '\0') byte = ' ';
    // A line feed would break the one-line texts and files that carry the result: it cuts instead.
    if (byte == '\n') byte = '\0';
    buf[p++] = static_cast<char>(byte);
    if (p >= len - 1) break;
  }
  if (buf[p - 1] == ' ') p--;
  buf[p] = '\0';
}

// The path of the executable. Returns its length, or -errno, and leaves buf as it was.
static int read_executable(pid_t pid, char *buf, int len) {
  if (pid < 1) return -ENOENT;
  if (len < 2) return -EINVAL;
  char path[EXE_PATH_SIZE];
  snprintf(path, sizeof path, "/proc/%d/exe", pid);
  const ssize_t target = tov_sys_readlink(path, buf, static_cast<size_t>(len) - 1);
  if (target < 0) return -errno;
  buf[target] = '\0';
  return static_cast<int>(target);
}

static bool has_executable(pid_t pid) {
  char path[2];
  return read_executable(pid, path, sizeof path) > 0;
}

// Appends the arguments behind the path of n bytes. Returns 0 or -errno.
static int read_arguments(pid_t pid, char *buf, int n, int len) {
  if (n + 3 > len) return 0;
  char path[EXE_PATH_SIZE];
  snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
  const tov_fd_t fd(tov_sys_open(path, O_RDONLY | O_CLOEXEC));
  if (fd.n < 0) return -errno;
  byte_reader_s reader(fd.n);
  if (skip_first_argument(reader)) append_arguments(reader, buf, n, len);
  const bool is_empty = reader.filled == 0 && reader.error == 0;
  return is_empty && !has_executable(pid) ? -ESRCH : -reader.error;
}

char *pid_to_cmdline(pid_t pid, char *buf, int len) {
  const int n = read_executable(pid, buf, len);
  if (n < 0) return nullptr;
  (void)read_arguments(pid, buf, n, len);
  return buf;
}

int tov_read_cmdline(pid_t pid, char *buf, int len) {
  const int n = read_executable(pid, buf, len);
  return n < 0 ? n : read_arguments(pid, buf, n, len);
}

// ---- status file ----------------------------------------------------------------------------

static tov_fd_t open_status(pid_t task) {
  char path[STATUS_PATH_SIZE];
  snprintf(path, sizeof path, "/proc/%d/status", task);
  errno = ENOENT;  // no task has an id of 0 or below
  return tov_fd_t(task > 0 ? tov_sys_open(path, O_RDONLY | O_CLOEXEC) : -1);
}

tov_status_file_s::tov_status_file_s(pid_t task)
    : file_(open_status(task)), lines_(file_.n, PIECE_MAX) {}

const char *tov_status_file_s::find(const char *key) {
  const size_t length = strlen(key);
  for (const char *line = next(); line != nullptr; line = next())
    if (strncmp(line, key, length) == 0) return line + length;
  return nullptr;
}

pid_t tov_get_ppid_form_pid(pid_t pid) {
  tov_status_file_t status(pid);
  const char *value = status.find("Tgid:");
  int owner = -1;
  if (value == nullptr || !tov_parse_int(value, &owner)) return -1;
  return owner;
}

int tov_get_pid_name(pid_t pid, char *pid_name, int len) {
  if (pid_name == nullptr || len < 1) return -1;
  tov_status_file_t status(pid);
  const char *value = status.find("Name:");
  if (value == nullptr) return -1;

  // A task can give itself any name: leading white space is no part of it, a CR ends it.
  while (isspace(static_cast<unsigned char>(*value)))
    value++;
  const int length = static_cast<int>(strcspn(value, "\r\n"));
  if (length == 0) return -1;
  snprintf(pid_name, static_cast<size_t>(len), "%.*s", length, value);
  return 0;
}

bool tov_is_ignorance(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR || error == EIO;
}

// ---- stat file ------------------------------------------------------------------------------

// The state letter in the text of a stat file, or null.
static const char *state_in(const char *stat) {
  // The name stands in parentheses and may hold some itself, hence the last one.
  const char *name_end = strrchr(stat, ')');
  return name_end != nullptr && name_end[1] == ' ' && name_end[2] != '\0' ? name_end + 2 : nullptr;
}

// A numeric field of a stat file, from the text at the state letter, which is field 3; `otherwise`
// when the text has no such field.
static uint64_t stat_field(const char *state, int number, uint64_t otherwise = 0) {
  static constexpr int STATE_NUMBER = 3;
  const char *field = state;
  for (int i = STATE_NUMBER; i < number; i++) {
    field = strchr(field, ' ');
    if (field == nullptr) return otherwise;
    field++;
  }
  if (!isdigit(static_cast<unsigned char>(*field))) return otherwise;
  char *end = nullptr;
  const uint64_t value = strtoull(field, &end, 10);
  return *end == ' ' ? value : otherwise;
}

int tov_read_stat(pid_t task, tov_stat_t *stat) {
  enum { PARENT = 4, SESSION = 6, THREADS = 20, START_TIME = 22, START_STACK = 28 };
  static constexpr uint64_t NO_COUNT = UINT64_MAX;  // -1 as an int
  if (task < 1) return -ENOENT;
  char path[STATUS_PATH_SIZE];
  char text[STAT_SIZE];
  snprintf(path, sizeof path, "/proc/%d/stat", task);
  if (tov_read_to_buf(path, text, sizeof text) < 0) return -errno;
  const char *state = state_in(text);
  if (state == nullptr) return -EIO;
  stat->state = *state;
  stat->parent = static_cast<pid_t>(stat_field(state, PARENT));
  stat->session = static_cast<pid_t>(stat_field(state, SESSION));
  stat->threads = static_cast<int>(stat_field(state, THREADS, NO_COUNT));
  stat->started = stat_field(state, START_TIME);
  stat->stack = stat_field(state, START_STACK);
  return 0;
}

bool tov_stat_is_end(char state) {
  return state == 'Z' || state == 'X' || state == 'x';
}

int64_t tov_ticks_us(uint64_t ticks) {
  static constexpr int64_t US_PER_S = 1000000;
  return static_cast<int64_t>(ticks) * (US_PER_S / sysconf(_SC_CLK_TCK));
}

// ---- liveness -------------------------------------------------------------------------------

int process_life(pid_t pid) {
  for (int attempt = 0; attempt < TOV_LIFE_LOOKS; attempt++) {
    tov_stat_t stat;
    if (tov_read_stat(pid, &stat) == 0 && !tov_stat_is_end(stat.state)) return 0;
    tov_sys_usleep(TOV_LIFE_PAUSE_US);
  }
  return -1;
}
