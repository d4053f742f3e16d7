// Descriptor flags and the hex dump of messages.
//
// Threads: any; no state. A dump holds the lock of standard output for its whole length, so that
// lines of other threads do not fall into it.
#include "alive/tov_ras_os.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>

static constexpr unsigned int DUMP_WIDTH = 16;  // bytes a line
static constexpr const char *DUMP_HEAD =
    " Offset  |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F | 0123456789ABCDEF";
static constexpr const char *DUMP_RULE =
    "---------+-------------------------------------------------+-----------------";

int ras_os_set_fd_close_on_exec(int fd) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  const int flags = fcntl(fd, F_GETFD);
  if (flags < 0) return -1;
  return fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0 ? -1 : 0;
}

// One line of `count` bytes (1 to DUMP_WIDTH); a short line is padded to the columns of a full one.
static void dump_line(unsigned int offset, const unsigned char *bytes, unsigned int count) {
  char text[DUMP_WIDTH + 1];
  printf("%08X |", offset);
  for (unsigned int i = 0; i < DUMP_WIDTH; i++) {
    if (i >= count) {
      printf("   ");
      continue;
    }
    printf(" %02X", bytes[i]);
    text[i] = isgraph(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
  }
  text[count] = '\0';
  printf(" | %s\n", text);
}

void ras_os_dump_msg(const char *prefix, const void *message, unsigned int len) {
  if (prefix == nullptr || message == nullptr || len == 0) {
    printf("argument err(prx:%p, msg:%p, len%u)!\n", static_cast<const void *>(prefix), message,
           len);
    return;
  }
  const unsigned char *bytes = static_cast<const unsigned char *>(message);
  flockfile(stdout);
  printf("dump %s msg(addr:%p, len:%u):\n%s\n%s\n", prefix, message, len, DUMP_HEAD, DUMP_RULE);
  for (unsigned int at = 0, count; at < len; at += count) {
    count = len - at < DUMP_WIDTH ? len - at : DUMP_WIDTH;
    dump_line(at, bytes + at, count);
  }
  printf("%s\n", DUMP_RULE);
  funlockfile(stdout);
}
