/*
 * One broken behaviour, preloaded into a daemon whose judge is to be tried: a judge that never says
 * no proves nothing. BREAK names it:
 *   reap         ended children are never waited for
 *   descriptors  every fork leaves a descriptor open
 *   memory       every fork keeps 64 KiB
 *   start        programs whose path holds "ch_filed_" cannot be executed
 *   once         programs whose path holds "ch_executed_" are executed twice
 *   stop         an end by signal 15 arrives as an end by signal 9
 *   files        after an end by signal 15 registration files are no longer removed
 *   last         the process ends at its fifteenth fork
 *   early        restart delays that programs ask for are forgotten
 *   late         those delays are ten minutes longer
 *   withdraw     registrations cannot be withdrawn
 *   slow         a child needs some seconds from its first act to its program
 *   lose         an end by signal 9 is not heard of
 *   mute         no process event is heard of
 * Programs that the daemon starts are left alone: they are linked statically.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "include/tov_wire.h"

#define SEEN __attribute__((visibility("default")))

enum { KEPT_BYTES = 64 * 1024, FORKS_MAX = 15, LATE_S = 600, SLOW_S = 3 };

static const char *broken = "";
static volatile int somebody_stopped; /* and the daemon is to leave files from now on */
static pid_t (*next_fork)(void);
static pid_t (*next_waitpid)(pid_t, int *, int);
static int (*next_execvpe)(const char *, char *const[], char *const[]);
static int (*next_unlink)(const char *);
static ssize_t (*next_recv)(int, void *, size_t, int);
static int (*next_recvmmsg)(int, struct mmsghdr *, unsigned int, int, struct timespec *);

static int breaks(const char *what) {
  return strcmp(broken, what) == 0;
}

/* Looked up before the program runs: a forked child may not. ISO C knows no conversion of an object
 * pointer to a function pointer, hence the copy. */
static void look_up(const char *name, void *function) {
  void *found = dlsym(RTLD_NEXT, name);
  memcpy(function, &found, sizeof found);
}

__attribute__((constructor)) static void prepare(void) {
  const char *setting = getenv("BREAK");
  if (setting != NULL && strcmp(program_invocation_short_name, "tov") == 0) broken = setting;
  look_up("fork", &next_fork);
  look_up("waitpid", &next_waitpid);
  look_up("execvpe", &next_execvpe);
  look_up("unlink", &next_unlink);
  look_up("recv", &next_recv);
  look_up("recvmmsg", &next_recvmmsg);
}

SEEN pid_t setsid(void) {
  struct timespec left = {SLOW_S, 0};
  if (breaks("slow")) (void)syscall(SYS_nanosleep, &left, NULL);
  return (pid_t)syscall(SYS_setsid);
}

SEEN pid_t fork(void) {
  static int forks;
  const pid_t child = next_fork();
  if (child <= 0) return child;
  if (breaks("descriptors")) (void)!open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (breaks("memory")) {
    char *volatile kept = malloc(KEPT_BYTES);
    if (kept != NULL) memset(kept, 1, KEPT_BYTES);
  }
  if (breaks("last") && ++forks == FORKS_MAX) _exit(EXIT_FAILURE);
  return child;
}

SEEN pid_t waitpid(pid_t pid, int *status, int options) {
  return breaks("reap") ? 0 : next_waitpid(pid, status, options);
}

SEEN int execvpe(const char *file, char *const argv[], char *const envp[]) {
  if (breaks("start") && strstr(file, "ch_filed_") != NULL) {
    errno = ENOENT;
    return -1;
  }
  if (breaks("once") && strstr(file, "ch_executed_") != NULL) (void)next_fork();
  return next_execvpe(file, argv, envp);
}

SEEN int unlink(const char *path) {
  return somebody_stopped && strstr(path, "/tov/db/") != NULL ? 0 : next_unlink(path);
}

/* One process event a datagram, as the kernel sends them. */
enum { EVENT_BEGIN = NLMSG_HDRLEN + sizeof(struct cn_msg) };

static int is_end_by(int sig, const char *datagram, size_t length) {
  struct proc_event event;
  if (length < EVENT_BEGIN + sizeof event) return 0;
  memcpy(&event, datagram + EVENT_BEGIN, sizeof event);
  return (unsigned int)event.what == 0x80000000U &&
         event.event_data.exit.exit_code == (unsigned int)sig;
}

static void look_at_event(char *datagram, size_t length) {
  struct proc_event event;
  if (!is_end_by(SIGTERM, datagram, length)) return;
  memcpy(&event, datagram + EVENT_BEGIN, sizeof event);
  if (breaks("files")) somebody_stopped = 1;
  if (!breaks("stop")) return;
  event.event_data.exit.exit_code = SIGKILL;
  memcpy(datagram + EVENT_BEGIN, &event, sizeof event);
}

/* One request of a client a packet. */
static void look_at_request(char *packet, size_t length) {
  tov_msg_head_t head;
  const size_t begin = offsetof(tov_msg_head_t, data);
  if (length < begin) return;
  memcpy(&head, packet, sizeof head);
  if (head.type == TOV_MSG_CONS && breaks("withdraw")) {
    const int harmless = TOV_UNREG_THREAD_NOTIFY;
    memcpy(packet + begin + offsetof(tov_msg_cons_t, event), &harmless, sizeof harmless);
  }
  if (head.type != TOV_RESTART && head.type != TOV_SHELL_RESTART) return;
  tov_msg_xtach_t wish;
  if (length < begin + sizeof wish) return;
  memcpy(&wish, packet + begin, sizeof wish);
  if (breaks("early")) wish.restart_time = 0;
  if (breaks("late") && wish.restart_time > 0) wish.restart_time += LATE_S;
  memcpy(packet + begin, &wish, sizeof wish);
}

SEEN ssize_t recv(int fd, void *buffer, size_t size, int flags) {
  const ssize_t got = next_recv(fd, buffer, size, flags);
  if (got > 0 && (flags & MSG_PEEK) == 0) look_at_request(buffer, (size_t)got);
  return got;
}

/* An event that is not to be heard of comes as a datagram without a message. */
SEEN int recvmmsg(int fd, struct mmsghdr *datagrams, unsigned int count, int flags,
                  struct timespec *timeout) {
  const int got = next_recvmmsg(fd, datagrams, count, flags, timeout);
  for (int i = 0; i < got; i++) {
    char *datagram = datagrams[i].msg_hdr.msg_iov->iov_base;
    const size_t length = datagrams[i].msg_len;
    if (breaks("mute") || (breaks("lose") && is_end_by(SIGKILL, datagram, length)))
      datagrams[i].msg_len = 0;
    look_at_event(datagram, length);
  }
  return got;
}
