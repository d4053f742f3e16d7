// Self-healing on stock Linux: a line in the system log and an operator's program.
//
// Every request is logged at critical priority and handed to the executable /etc/tov/selfhealing
// with the arguments ACTION PID MODULE REASON. What a reload or a reset means is that program's
// business: without it only "kill the process" is carried out, as an abort that leaves a core, and
// a development machine is never rebooted by default.
//
// Requests come from real-time threads that hold registry locks, so nothing here waits for the
// program: it is forked and forgotten, and the daemon's SIGCHLD handler reaps it.
//
// Threads: any; no state. Losses: a request is not repeated when the program cannot be started.
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "platform/tov_platform.h"
#include "util/owner.h"

static constexpr const char *HOOK = "/etc/tov/selfhealing";
static constexpr size_t NUMBER_SIZE = 16;
static constexpr size_t MODULE_SIZE = 64;
static constexpr size_t REASON_SIZE = 1024;
static constexpr int LAST_SIGNAL = 64;
static constexpr int EXIT_NOT_STARTED = 127;

namespace {

// One request, with every text that the child needs.
struct request_s {
  int action_number;
  pid_t target;
  char action[NUMBER_SIZE];
  char pid[NUMBER_SIZE];
  char module[MODULE_SIZE];
  char reason[REASON_SIZE];
};

}  // namespace

// Copies a text without the line end it may have; null counts as empty.
template <size_t SIZE>
static void copy_line(char (&to)[SIZE], const char *from) {
  snprintf(to, SIZE, "%s", from != nullptr ? from : "");
  size_t length = strlen(to);
  while (length > 0 && (to[length - 1] == '\n' || to[length - 1] == '\r'))
    to[--length] = '\0';
}

static request_s make_request(int action, int pid, const char *module, const char *reason) {
  request_s request{};
  request.action_number = action;
  request.target = pid;
  snprintf(request.action, sizeof request.action, "%d", action);
  snprintf(request.pid, sizeof request.pid, "%d", pid);
  copy_line(request.module, module);
  copy_line(request.reason, reason);
  return request;
}

// What is done without the operator's program. Returns 0 or -errno. Async-signal-safe.
// 0 and negative numbers mean groups or everybody, 1 is the system itself, and the caller is the
// supervisor: none of them is ever a hung process.
static int act_alone(const request_s &request) {
  if (request.action_number != PSH_KILL_PROCESS_ACT) return 0;
  if (request.target <= 1 || request.target == getpid()) return -EINVAL;
  return kill(request.target, SIGABRT) < 0 ? -errno : 0;
}

static bool hook_is_there() {
  struct stat found;
  return stat(HOOK, &found) == 0 && S_ISREG(found.st_mode) && access(HOOK, X_OK) == 0;
}

// ---- the child ------------------------------------------------------------------------------

// The caller may be a real-time thread with blocked signals: none of that is for the hook.
static void become_ordinary() {
  const sched_param ordinary{};
  (void)sched_setscheduler(0, SCHED_OTHER, &ordinary);
  struct sigaction by_default {};
  by_default.sa_handler = SIG_DFL;
  for (int number = 1; number <= LAST_SIGNAL; number++)
    (void)sigaction(number, &by_default, nullptr);  // some numbers cannot be set
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)setsid();
}

// Async-signal-safe; `argv` was made before the fork.
[[noreturn]] static void child_main(const request_s &request, char *const *argv) {
  become_ordinary();
  execve(HOOK, argv, environ);
  static constexpr char failed[] = "tov: cannot execute /etc/tov/selfhealing\n";
  (void)!write(STDERR_FILENO, failed, sizeof failed - 1);
  (void)act_alone(request);
  _exit(EXIT_NOT_STARTED);
}

// Returns 0 once the child exists, or -errno.
static int start_hook(request_s &request) {
  char name[] = "selfhealing";
  char *const argv[] = {name, request.action, request.pid, request.module, request.reason, nullptr};

  // No handler of ours may run in the child before the dispositions are reset.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  const pid_t child = fork();
  if (child == 0) child_main(request, argv);
  const int failure = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return child < 0 ? -failure : 0;
}

// ---- services -------------------------------------------------------------------------------

int psh_lib_common_init(void) {
  return 0;  // nothing to connect to
}

int protect_selfhealing_do_action(int action, int pid, const char *module, const char *reason) {
  if (action < PSH_UNDEF_ACT || action >= PSH_ACT_MAX) return -EINVAL;
  const tov_errno_keeper_s keep;
  request_s request = make_request(action, pid, module, reason);
  qx_syslog(LOG_CRIT, "self-healing action %s, process %s, asked by %s: %s", request.action,
            request.pid, request.module, request.reason);
  if (!hook_is_there()) return act_alone(request);
  const int res = start_hook(request);
  if (res < 0) qx_syslog(LOG_CRIT, "cannot start %s: %s", HOOK, strerror(-res));
  return res;
}

void protect_selfhealing_flush_buf_in_emergency(void) {
  // A request has left this process when its call returns: nothing is buffered.
}
