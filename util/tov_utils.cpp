// Blocking wrappers: see the header for what each one promises.
//
// Threads: any; no state. Losses: none.
#include "util/tov_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_sys.h"

static constexpr int MALLOC_RETRY_S = 5;
static constexpr mode_t PID_FILE_MODE = 0700;

void safe_sleep_common(int sec, int usec) {
  timeval left{};
  left.tv_sec = sec;
  left.tv_usec = usec;
  // The kernel leaves the time that remains in `left`, so a signal costs nothing of the sleep.
  while (tov_sys_sleep(&left) < 0 && errno == EINTR) {
  }
}

void safe_sleep(int sec) {
  safe_sleep_common(sec, 0);
}

void safe_usleep(int usec) {
  safe_sleep_common(0, usec);
}

void *safe_malloc(size_t size) {
  void *block = malloc(size);
  while (block == nullptr) {
    safe_sleep(MALLOC_RETRY_S);
    block = malloc(size);
  }
  return memset(block, 0, size);
}

// The common part of safe_read() and safe_write(): `transfer` is one call for what remains, at an
// offset from the beginning.
template <typename Transfer>
static ssize_t transfer_all(size_t len, Transfer transfer) {
  size_t total = 0;
  while (total < len) {
    const ssize_t n = transfer(total, len - total);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    total += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(total);
}

ssize_t safe_read(int fd, void *buf, size_t len) {
  char *bytes = static_cast<char *>(buf);
  return transfer_all(len,
                      [=](size_t at, size_t left) { return tov_sys_read(fd, bytes + at, left); });
}

ssize_t safe_write(int fd, const void *buf, size_t len) {
  const char *bytes = static_cast<const char *>(buf);
  return transfer_all(len,
                      [=](size_t at, size_t left) { return tov_sys_write(fd, bytes + at, left); });
}

int tov_read_to_buf(const char *filename, void *buf, int len) {
  if (len < 1) return -1;
  char *text = static_cast<char *>(buf);
  text[0] = '\0';

  // O_NONBLOCK: a FIFO in the place of a settings file reads as empty instead of holding its
  // reader, who may be the event handler, until a writer comes.
  const tov_fd_t fd(tov_sys_open(filename, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (fd.n < 0) return -1;
  const ssize_t count = safe_read(fd.n, text, static_cast<size_t>(len) - 1);
  text[count < 0 ? 0 : count] = '\0';
  return static_cast<int>(count);
}

bool tov_file_exists(const char *path) {
  return tov_sys_access(path, F_OK) == 0;
}

int lock_file(int fd) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return tov_sys_lock(fd, &whole);
}

pid_t tov_lock_holder(const char *path) {
  const tov_fd_t fd(tov_open_regular(path, O_RDONLY));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (fd.n < 0 || tov_sys_lock_holder(fd.n, &lock) < 0) return -1;
  return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

int already_running(const char *path) {
  tov_fd_t fd(tov_open_regular(path, O_RDWR | O_CREAT, PID_FILE_MODE));
  if (fd.n < 0) return -1;
  if (lock_file(fd.n) < 0) return -1;

  // The lock alone decides. The number is for people, so a full disk is no reason to refuse.
  char text[16];
  const int length = snprintf(text, sizeof text, "%d", tov_sys_getpid());
  (void)!tov_sys_ftruncate(fd.n, 0);
  (void)!safe_write(fd.n, text, static_cast<size_t>(length) + 1);
  return tov_fd_take(fd);
}

const char *tov_digits(int number, char (&room)[TOV_DIGITS_SIZE]) {
  char *first = room + sizeof room - 1;
  *first = '\0';
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  return first;
}

bool tov_parse_int(const char *text, int *out) {
  char *end = nullptr;
  const tov_errno_keeper_s keep;
  const long number = strtol(text, &end, 10);  // out of its own range it gives LONG_MIN, LONG_MAX
  if (end == text) return false;
  *out = number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : static_cast<int>(number);
  return true;
}

int tov_atoi(const char *text) {
  int number = 0;
  (void)tov_parse_int(text, &number);
  return number;
}

void rtrim(char *str) {
  size_t length = strlen(str);
  while (length > 0 && (str[length - 1] == ' ' || str[length - 1] == '\t'))
    str[--length] = '\0';
}
