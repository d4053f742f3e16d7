// The seam, as pure tests see it: the functions of util/tov_sys.h over the simulated kernel
// (tests/unit/sim/kernel.h). This header stands first in the include path of everything that a pure
// test is made of, so it takes the other one's place in each of its files.
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
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
// IWYU pragma: end_exports

// ---- time and waiting -----------------------------------------------------------------------

int tov_sys_clock_gettime(clockid_t clock, timespec *now);
int tov_sys_kernel_clock(clockid_t clock, timespec *now);
int tov_sys_sleep(timeval *left);
int tov_sys_usleep(useconds_t span_us);
int tov_sys_poll(pollfd *waited, nfds_t count, int timeout_ms);
unsigned int tov_sys_alarm(unsigned int seconds);

// ---- the calling thread ---------------------------------------------------------------------

int tov_sys_set_name(const char *name);
int tov_sys_set_schedule(int policy, const sched_param *param);
int tov_sys_sched_setscheduler(int policy, const sched_param *param);

// ---- processes ------------------------------------------------------------------------------

pid_t tov_sys_getpid();
pid_t tov_sys_fork();
int tov_sys_kill(pid_t pid, int sig);
pid_t tov_sys_waitpid(pid_t pid, int *status, int options);
int tov_sys_pidfd_open(pid_t pid);
int tov_sys_pidfd_signal(int fd, int sig);

// ---- files ----------------------------------------------------------------------------------

int tov_sys_open(const char *path, int flags, mode_t mode = 0);
ssize_t tov_sys_read(int fd, void *buf, size_t size);
ssize_t tov_sys_write(int fd, const void *buf, size_t size);
int tov_sys_openat(int dir, const char *name, int flags, mode_t mode = 0);
ssize_t tov_sys_pread(int fd, void *buf, size_t size, off_t offset);
ssize_t tov_sys_pwrite(int fd, const void *buf, size_t size, off_t offset);
off_t tov_sys_lseek(int fd, off_t offset, int whence);
int tov_sys_ftruncate(int fd, off_t length);
int tov_sys_fsync(int fd);
int tov_sys_close(int fd);
int tov_sys_dup_above(int fd, int lowest);
int tov_sys_set_flags(int fd, int flags);
int tov_sys_lock(int fd, struct flock *lock);
int tov_sys_lock_holder(int fd, struct flock *lock);
int tov_sys_fstat(int fd, struct stat *status);
int tov_sys_lstat(const char *path, struct stat *status);
int tov_sys_fstatat(int dir, const char *name, struct stat *status, int flags);
int tov_sys_access(const char *path, int mode);
int tov_sys_faccessat(int dir, const char *name, int mode, int flags);
ssize_t tov_sys_readlink(const char *path, char *buf, size_t size);
int tov_sys_unlink(const char *path);
int tov_sys_link(const char *from, const char *to);
int tov_sys_rename(const char *from, const char *to);
int tov_sys_renameat(int dir, const char *from, const char *to);
int tov_sys_unlinkat(int dir, const char *name);
int tov_sys_rename_new(const char *from, const char *to);
int tov_sys_mkdir(const char *path, mode_t mode);
int tov_sys_rmdir(const char *path);

DIR *tov_sys_opendir(const char *path);
const dirent *tov_sys_readdir(DIR *dir);
int tov_sys_dirfd(DIR *dir);
int tov_sys_closedir(DIR *dir);

// A stream over a descriptor of the simulated kernel, which the C library does not know. It is no
// call of the seam: whoever opens streams asks fdopen(3) for them.
FILE *tov_simulated_fdopen(int fd, const char *how);
#define fdopen tov_simulated_fdopen

// Nothing can be watched there: it is looked at each time.
int tov_sys_inotify_open();
int tov_sys_inotify_watch(int fd, const char *path, uint32_t events);
int tov_sys_inotify_unwatch(int fd, int watch);

// ---- sockets and counters -------------------------------------------------------------------

int tov_sys_eventfd(unsigned int count, int flags);
int tov_sys_socket(int domain, int type, int protocol);
int tov_sys_setsockopt(int fd, int level, int name, const void *value, socklen_t size);
int tov_sys_getsockopt(int fd, int level, int name, void *value, socklen_t *size);
int tov_sys_bind(int fd, const sockaddr *address, socklen_t size);
ssize_t tov_sys_send(int fd, const void *data, size_t size, int flags);
ssize_t tov_sys_recvfrom(int fd, void *buf, size_t size, int flags, sockaddr *sender,
                         socklen_t *sender_size);

int tov_sys_recvmmsg(int fd, mmsghdr *datagrams, unsigned int count, int flags);

#endif  // TOV_UTIL_TOV_SYS_H
