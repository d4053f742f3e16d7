// The cutting of a command line into words, before the fork, and the child's steps as a table that
// is walked from top to bottom after it.
#include "proc/child.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/run/lowmem.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "proc/claim.h"
#include "proc/files.h"
#include "util/priority.h"
#include "vsd/entry.h"

enum {
  SIGNAL_FIRST = 1,
  SIGNAL_LAST = 64,
};

tov_words_s::tov_words_s(const char *command) : text{}, word{} {
  (void)snprintf(text, sizeof text, "%s", command);
  char *at = text;
  for (int i = 0; i < TOV_WORDS_MAX; i++) {
    at += strspn(at, " \t");
    if (*at == '\0') return;
    word[i] = at;
    at += strcspn(at, " \t");
    if (*at == '\0') return;
    *at++ = '\0';
  }
}

static int use_claim(tov_proc_plan_t *plan) {
  if (!tov_claim_use(plan->claim)) _exit(0);
  return 0;
}

static int close_standard_streams(tov_proc_plan_t *) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    close(fd);
  return 0;
}

// Dispositions first, the mask after them: a signal that waited must not meet a handler of the
// daemon. The mask of the thread that forked never reaches the program.
static int reset_signals(tov_proc_plan_t *) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int signal = SIGNAL_FIRST; signal <= SIGNAL_LAST; signal++) {
    (void)sigaction(signal, &action, nullptr);  // some numbers cannot be changed
  }
  (void)sigprocmask(SIG_SETMASK, &action.sa_mask, nullptr);
  return 0;
}

static int leave_session(tov_proc_plan_t *) {
  (void)setsid();
  return 0;
}

// Before the console, whose open may sleep: nothing of a child sleeps or spins at priority 99.
static int reset_priority(tov_proc_plan_t *) {
  tov_reset_priority();
  return 0;
}

// A program without a console runs all the same. Every other descriptor of ours is close-on-exec,
// so the streams are placed by number and not by luck.
static int attach_console(tov_proc_plan_t *) {
  const int console = console_open(O_RDWR | O_NOCTTY);
  if (console < 0) return 0;
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fd != console) (void)dup2(console, fd);
  }
  if (console > STDERR_FILENO) close(console);
  return 0;
}

static int enter_place(tov_proc_plan_t *plan) {
  if (plan->in_device) {
    tov_proc_env_enter(&plan->env);
    return 0;
  }
  if (chdir("/") == 0) return 0;
  (void)tov_record_abnormal_fork("a", TOV_FORK_FILE);
  TOV_DBG_CHILD(plan->how->function, "--> chdir failed, ret: -1\n");
  return -1;
}

// A child that came this far proves that forking works again.
static int clear_fork_record(tov_proc_plan_t *) {
  tov_remove_abnormal_fork_file(TOV_FORK_FILE);
  return 0;
}

static int flush_low_memory_killer(tov_proc_plan_t *) {
  tov_flush_lmk();
  return 0;
}

// execvpe() and not execve(): the program is searched along PATH, and a file without an
// interpreter line is run by the shell. It takes neither heap nor lock.
[[noreturn]] static int execute(tov_proc_plan_t *plan) {
  if (plan->file != nullptr) {
    execvpe(plan->file, plan->argv, environ);
  } else {
    errno = ENOENT;
  }
  const char *reason = strerrordesc_np(errno);
  TOV_DBG_CHILD(plan->how->exec_failed, reason, ".\n");
  const char *const rest[] = {reason, ".\n", nullptr};
  (void)tov_log_write_prepared(TOV_LOG_RUN_EVENT, &plan->exec_failed, rest);
  _exit(1);  // not exit(): the parent's buffers are not ours to flush
}

// From top to bottom; the last step does not return.
static constexpr int (*child_steps[])(tov_proc_plan_t *) = {
    use_claim,     close_standard_streams, reset_signals,
    leave_session, reset_priority,         attach_console,
    enter_place,   clear_fork_record,      flush_low_memory_killer,
    execute,
};

int tov_proc_child_run(tov_proc_plan_t *plan) {
  for (auto step : child_steps) {
    if (step(plan) < 0) return -1;
  }
  _exit(1);
}
