/*
 * Notes when its program started, at the instant before `main`.
 *
 * Linked into the example programs of the demonstration, whose sources stay as a reader finds them
 * in examples/. One line a start, in the format that tests/support/birth.h reads.
 */
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static const char *program_name(char *path, size_t size) {
  const ssize_t length = readlink("/proc/self/exe", path, size - 1);
  path[length < 0 ? 0 : length] = '\0';
  const char *slash = strrchr(path, '/');
  return slash != NULL ? slash + 1 : path;
}

__attribute__((constructor)) static void stamp(void) {
  struct timespec now = {0};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char exe[PATH_MAX];
  char report[PATH_MAX + 32];
  snprintf(report, sizeof report, "/data/victim.%s", program_name(exe, sizeof exe));
  char line[128];
  const int length = snprintf(line, sizeof line, "birth\tpid=%d\tmain_ns=%lld\tend=1\n",
                              (int)getpid(), now.tv_sec * 1000000000LL + now.tv_nsec);
  const int fd = open(report, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return; /* outside the demonstration's device it has no reader */
  if (write(fd, line, (size_t)length) < 0) perror(report);
  close(fd);
}
