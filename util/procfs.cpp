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
#include <stdio.h>
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
static constexpr int LIFE_ATTEMPTS = 3;
static constexpr useconds_t LIFE_PAUSE_US = 10000;

// ---- command line ---------------------------------------------------------------------------

namespace {

// Hands out the bytes of a file one by one.
struct byte_reader_s {
  int fd;
  size_t at = 0;
  size_t filled = 0;
  unsigned char chunk[CMDLINE_CHUNK];

  explicit byte_reader_s(int file) : fd(file) {}

  // The next byte, or -1 at the end of the file; a read error ends it too.
  int next() {
    if (at == filled) {
      const ssize_t n = TEMP_FAILURE_RETRY(tov_sys_read(fd, chunk, sizeof chunk));
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

char *pid_to_cmdline(pid_t pid, char *buf, int len) {
  if (pid < 1 || len < 2) return nullptr;

  char path[EXE_PATH_SIZE];
  snprintf(path, sizeof path, "/proc/%d/exe", pid);
  const ssize_t target = tov_sys_readlink(path, buf, static_cast<size_t>(len) - 1);
  if (target < 0) return nullptr;
  const int n = static_cast<int>(target);
  buf[n] = '\0';
  if (n + 3 > len) return buf;

  snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
  const tov_fd_t fd(tov_sys_open(path, O_RDONLY | O_CLOEXEC));
  if (fd.n < 0) return buf;
  byte_reader_s reader(fd.n);
  if (skip_first_argument(reader)) append_arguments(reader, buf, n, len);
  return buf;
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

// ---- liveness -------------------------------------------------------------------------------

// One look at the state letter: true when it says neither zombie nor dead.
static bool looks_alive(const char *path) {
  char stat[STAT_SIZE];
  if (tov_read_to_buf(path, stat, sizeof stat) < 0) return false;
  // The name stands in parentheses and may hold some itself, hence the last one.
  const char *name_end = strrchr(stat, ')');
  if (name_end == nullptr || name_end[1] != ' ') return false;
  return strchr("ZXx", name_end[2]) == nullptr;  // finds the end of the text, too
}

int process_life(pid_t pid) {
  char path[STATUS_PATH_SIZE];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  for (int attempt = 0; attempt < LIFE_ATTEMPTS; attempt++) {
    if (pid > 0 && looks_alive(path)) return 0;
    tov_sys_usleep(LIFE_PAUSE_US);
  }
  return -1;
}
