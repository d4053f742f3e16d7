/*
 * A netlink reader whose socket fails when the test says so, preloaded into the daemon.
 *
 * From the moment when the file /tmp/reader_fails exists, recvfrom(2) finds nobody at the other
 * end. The reader alone makes this call; nothing from outside can break its socket.
 */
#include <errno.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

ssize_t recvfrom(int fd, void *restrict buf, size_t size, int flags, __SOCKADDR_ARG sender,
                 socklen_t *restrict sender_size) {
  if (access("/tmp/reader_fails", F_OK) == 0) {
    errno = ENOTCONN;
    return -1;
  }
  errno = 0;
  return syscall(SYS_recvfrom, fd, buf, size, flags, sender.__sockaddr__, sender_size);
}
