/*
 * A netlink reader whose socket fails when the test says so, preloaded into the daemon.
 *
 * From the moment when the file /tmp/reader_fails exists, recvmmsg(2) finds nobody at the other
 * end. The reader alone makes this call; nothing from outside can break its socket.
 */
#include <errno.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int recvmmsg(int fd, struct mmsghdr *datagrams, unsigned int count, int flags,
             struct timespec *timeout) {
  (void)timeout; /* it gives none */
  if (access("/tmp/reader_fails", F_OK) == 0) {
    errno = ENOTCONN;
    return -1;
  }
  errno = 0;
  return (int)syscall(SYS_recvmmsg, fd, datagrams, count, flags, NULL);
}
