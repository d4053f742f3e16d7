// The seam between decisions and the kernel: the system calls on which a decision can depend.
//
// A room that decides something asks the kernel through these functions and not directly. Each is
// its system call and nothing else: same result, same errno, no state. What a pure test is compiled
// with is another header of this path (tests/unit/sim), which stands first in its include path and
// declares the same functions over a simulated kernel: time that passes only when a caller waits,
// processes and files in memory, and calls that fail when a test says so.
//
// Whoever adds a call here adds it there; a pure test does not link before.
//
// Any thread. All but the directory calls are as async-signal-safe as the call itself.
#ifndef TOV_UTIL_TOV_SYS_H
#define TOV_UTIL_TOV_SYS_H

// Whoever makes these calls has their constants too.
// IWYU pragma: begin_exports
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
// IWYU pragma: end_exports

// ---- time and waiting -----------------------------------------------------------------------

// clock_gettime(2).
inline int tov_sys_clock_gettime(clockid_t clock, timespec *now) {
  return clock_gettime(clock, now);
}

// clock_gettime(2), bare: no library that scales a program's time comes in between.
inline int tov_sys_kernel_clock(clockid_t clock, timespec *now) {
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

// select(2) without descriptors: sleeps for *left, where a signal (EINTR) leaves what remains.
inline int tov_sys_sleep(timeval *left) {
  return select(0, nullptr, nullptr, nullptr, left);
}

// usleep(3): a signal ends it early, with EINTR.
inline int tov_sys_usleep(useconds_t span_us) {
  return usleep(span_us);
}

// poll(2): a negative time-out waits without limit.
inline int tov_sys_poll(pollfd *waited, nfds_t count, int timeout_ms) {
  return poll(waited, count, timeout_ms);
}

// alarm(2): 0 disarms; returns what was left of the alarm before.
inline unsigned int tov_sys_alarm(unsigned int seconds) {
  return alarm(seconds);
}

// ---- the calling thread ---------------------------------------------------------------------

// prctl(PR_SET_NAME): names the calling thread.
inline int tov_sys_set_name(const char *name) {
  return prctl(PR_SET_NAME, name, 0, 0, 0);
}

// pthread_setschedparam(3) on the calling thread: returns an error number, errno stays.
inline int tov_sys_set_schedule(int policy, const sched_param *param) {
  return pthread_setschedparam(pthread_self(), policy, param);
}

// sched_setscheduler(2) on the calling thread, without any lock of the C library.
inline int tov_sys_sched_setscheduler(int policy, const sched_param *param) {
  return sched_setscheduler(0, policy, param);
}

// ---- processes ------------------------------------------------------------------------------

// getpid(2).
inline pid_t tov_sys_getpid() {
  return getpid();
}

// fork(2): the simulated one never returns 0, its children are entries of a table.
inline pid_t tov_sys_fork() {
  return fork();
}

// kill(2). The caller has made sure that the id is above 1 and still the process it means; the
// signal 0 is none and asks whether there is one.
inline int tov_sys_kill(pid_t pid, int sig) {
  return kill(pid, sig);
}

// waitpid(2).
inline pid_t tov_sys_waitpid(pid_t pid, int *status, int options) {
  return waitpid(pid, status, options);
}

// pidfd_open(2): a descriptor of the process, close-on-exec. It can be read from when the process
// has ended with its last thread, whether or not it was waited for. An id of another thread than
// the first is refused (EINVAL, ENOENT); ENOSYS before Linux 5.3.
inline int tov_sys_pidfd_open(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// pidfd_send_signal(2): to that very process, whoever has its id by now (ESRCH when it was waited
// for).
inline int tov_sys_pidfd_signal(int fd, int sig) {
  return static_cast<int>(syscall(SYS_pidfd_send_signal, fd, sig, nullptr, 0));
}

// ---- files ----------------------------------------------------------------------------------

// open(2). The caller says O_CLOEXEC.
inline int tov_sys_open(const char *path, int flags, mode_t mode = 0) {
  return open(path, flags, mode);
}

// read(2): may be short, may be interrupted.
inline ssize_t tov_sys_read(int fd, void *buf, size_t size) {
  return read(fd, buf, size);
}

// write(2): may be short, may be interrupted.
inline ssize_t tov_sys_write(int fd, const void *buf, size_t size) {
  return write(fd, buf, size);
}

// openat(2). The caller says O_CLOEXEC.
inline int tov_sys_openat(int dir, const char *name, int flags, mode_t mode = 0) {
  return openat(dir, name, flags, mode);
}

// pread(2): may be short, may be interrupted.
inline ssize_t tov_sys_pread(int fd, void *buf, size_t size, off_t offset) {
  return pread(fd, buf, size, offset);
}

// pwrite(2): may be short, may be interrupted.
inline ssize_t tov_sys_pwrite(int fd, const void *buf, size_t size, off_t offset) {
  return pwrite(fd, buf, size, offset);
}

// lseek(2).
inline off_t tov_sys_lseek(int fd, off_t offset, int whence) {
  return lseek(fd, offset, whence);
}

// ftruncate(2).
inline int tov_sys_ftruncate(int fd, off_t length) {
  return ftruncate(fd, length);
}

// fsync(2).
inline int tov_sys_fsync(int fd) {
  return fsync(fd);
}

// close(2): drops every record lock of this process on the file, whatever descriptor took it.
inline int tov_sys_close(int fd) {
  return close(fd);
}

// fcntl(F_DUPFD_CLOEXEC): the copy has a number of at least `lowest`.
inline int tov_sys_dup_above(int fd, int lowest) {
  return fcntl(fd, F_DUPFD_CLOEXEC, lowest);
}

// fcntl(F_SETFL): status flags, not the access mode.
inline int tov_sys_set_flags(int fd, int flags) {
  return fcntl(fd, F_SETFL, flags);
}

// fcntl(F_SETLK): a record lock of the process, refused at once (EACCES, EAGAIN).
inline int tov_sys_lock(int fd, struct flock *lock) {
  return fcntl(fd, F_SETLK, lock);
}

// fcntl(F_GETLK): what is in the way of such a lock, with the process that holds it, or F_UNLCK.
// The caller's own locks are in nobody's way. A descriptor for reading is enough.
inline int tov_sys_lock_holder(int fd, struct flock *lock) {
  return fcntl(fd, F_GETLK, lock);
}

// fstat(2).
inline int tov_sys_fstat(int fd, struct stat *status) {
  return fstat(fd, status);
}

// lstat(2): of a link itself.
inline int tov_sys_lstat(const char *path, struct stat *status) {
  return lstat(path, status);
}

// fstatat(2).
inline int tov_sys_fstatat(int dir, const char *name, struct stat *status, int flags) {
  return fstatat(dir, name, status, flags);
}

// access(2).
inline int tov_sys_access(const char *path, int mode) {
  return access(path, mode);
}

// faccessat(2).
inline int tov_sys_faccessat(int dir, const char *name, int mode, int flags) {
  return faccessat(dir, name, mode, flags);
}

// readlink(2): adds no terminator.
inline ssize_t tov_sys_readlink(const char *path, char *buf, size_t size) {
  return readlink(path, buf, size);
}

// unlink(2).
inline int tov_sys_unlink(const char *path) {
  return unlink(path);
}

// link(2).
inline int tov_sys_link(const char *from, const char *to) {
  return link(from, to);
}

// rename(2).
inline int tov_sys_rename(const char *from, const char *to) {
  return rename(from, to);
}

// renameat(2), within one directory.
inline int tov_sys_renameat(int dir, const char *from, const char *to) {
  return renameat(dir, from, dir, to);
}

// unlinkat(2), of a name that is no directory.
inline int tov_sys_unlinkat(int dir, const char *name) {
  return unlinkat(dir, name, 0);
}

// renameat2(2), which refuses to replace a file (EEXIST).
inline int tov_sys_rename_new(const char *from, const char *to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

// mkdir(2): the mode is narrowed by the umask.
inline int tov_sys_mkdir(const char *path, mode_t mode) {
  return mkdir(path, mode);
}

// rmdir(2).
inline int tov_sys_rmdir(const char *path) {
  return rmdir(path);
}

// opendir(3): close-on-exec. Allocates.
inline DIR *tov_sys_opendir(const char *path) {
  return opendir(path);
}

// readdir(3): null at the end, with errno unchanged, and after a failure.
inline const dirent *tov_sys_readdir(DIR *dir) {
  return readdir(dir);
}

// dirfd(3): borrowed.
inline int tov_sys_dirfd(DIR *dir) {
  return dirfd(dir);
}

// closedir(3).
inline int tov_sys_closedir(DIR *dir) {
  return closedir(dir);
}

// inotify_init1(2): neither waits nor survives an execution.
inline int tov_sys_inotify_open() {
  return inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

// inotify_add_watch(2): of what is watched already the number stays, and the events are replaced.
inline int tov_sys_inotify_watch(int fd, const char *path, uint32_t events) {
  return inotify_add_watch(fd, path, events);
}

// inotify_rm_watch(2): one that is gone is refused.
inline int tov_sys_inotify_unwatch(int fd, int watch) {
  return inotify_rm_watch(fd, watch);
}

// ---- sockets and counters -------------------------------------------------------------------

// eventfd(2).
inline int tov_sys_eventfd(unsigned int count, int flags) {
  return eventfd(count, flags);
}

// socket(2). The caller says SOCK_CLOEXEC.
inline int tov_sys_socket(int domain, int type, int protocol) {
  return socket(domain, type, protocol);
}

// setsockopt(2).
inline int tov_sys_setsockopt(int fd, int level, int name, const void *value, socklen_t size) {
  return setsockopt(fd, level, name, value, size);
}

// getsockopt(2): `size` is the room before and the answer's length after.
inline int tov_sys_getsockopt(int fd, int level, int name, void *value, socklen_t *size) {
  return getsockopt(fd, level, name, value, size);
}

// bind(2).
inline int tov_sys_bind(int fd, const sockaddr *address, socklen_t size) {
  return bind(fd, address, size);
}

// send(2).
inline ssize_t tov_sys_send(int fd, const void *data, size_t size, int flags) {
  return send(fd, data, size, flags);
}

// recvfrom(2): a datagram is cut to `size`; SO_RCVTIMEO bounds the wait (EAGAIN).
inline ssize_t tov_sys_recvfrom(int fd, void *buf, size_t size, int flags, sockaddr *sender,
                                socklen_t *sender_size) {
  return recvfrom(fd, buf, size, flags, sender, sender_size);
}

// recvmmsg(2), without its time-out: with MSG_WAITFORONE only the first datagram is waited for.
// What fails behind the first is told by the next call.
inline int tov_sys_recvmmsg(int fd, mmsghdr *datagrams, unsigned int count, int flags) {
  return recvmmsg(fd, datagrams, count, flags, nullptr);
}

#endif  // TOV_UTIL_TOV_SYS_H
