// One start: all that the child needs is prepared (start_s), then fork, the parent's bookkeeping,
// and the choice of the process to supervise. A failed fork is recorded and tried again after 5 s.
#include "proc/tov_proc.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_log.h"
#include "proc/burst.h"
#include "proc/child.h"
#include "proc/files.h"
#include "proc/find.h"
#include "proc/how.h"
#include "util/list_file.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/entry.h"

enum {
  FORK_RETRY_PAUSE_S = 5,
  FIND_RETRIES = 10,
  ATTRIBUTE_SIZE = 256,
};

namespace {

// Blocks SIGCHLD for as long as it lives: the new process must not be reaped before the parent
// has done its bookkeeping.
class sigchld_block_s {
 public:
  sigchld_block_s() {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &block, &saved_);
  }
  sigchld_block_s(const sigchld_block_s &) = delete;
  sigchld_block_s &operator=(const sigchld_block_s &) = delete;
  ~sigchld_block_s() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

 private:
  sigset_t saved_{};
};

// Everything that the child and the bookkeeping need, made before the fork.
struct start_s {
  const tov_proc_how_t &how;
  const tov_pid_t &record;
  tov_words_t words;
  char script[TOV_PROCESS_SIZE] = {};
  char shell[8] = "/bin/sh";
  char start[8] = "start";
  char *script_argv[4] = {shell, script, start, nullptr};
  const char *shown;  // how messages name the program
  int vsd_no;         // of the dead instance; asked once, before the child removes its marker
  tov_proc_plan_t plan;

  start_s(const tov_pid_t &dead, const tov_proc_how_t &way);
};

}  // namespace

// A first word with a "/" gives NAME.sh, one without gives the word itself: installed systems
// have their scripts under exactly these names.
static void choose_script(const char *word, char *out, size_t size) {
  const char *slash = strrchr(word, '/');
  const int length = slash != nullptr ? snprintf(out, size, TOV_SCRIPT_DIR "%s.sh", slash)
                                      : snprintf(out, size, TOV_SCRIPT_DIR "/%s", word);
  (void)length;  // a path that was cut names no script; the shell will say so
}

static const char *command_of(const tov_pid_t &record, const tov_proc_how_t &how) {
  return how.by_script && record.pathname[0] != '\0' ? record.pathname : record.process;
}

start_s::start_s(const tov_pid_t &dead, const tov_proc_how_t &way)
    : how(way), record(dead), words(command_of(dead, way)), vsd_no(find_app(dead.pid)) {
  const char *first = words.word[0] != nullptr ? words.word[0] : "";
  shown = how.by_script ? record.process : first;
  plan.how = &how;
  if (how.by_script) {
    choose_script(first, script, sizeof script);
    plan.file = shell;
    plan.argv = script_argv;
  } else {
    plan.file = words.word[0];
    plan.argv = words.word;
  }
  plan.in_device = TOV_SPAWN_VSD_MIN <= vsd_no && vsd_no <= TOV_SPAWN_VSD_MAX;
  if (plan.in_device) tov_proc_env_prepare(&plan.env, vsd_no, dead.pid);
}

// A listed program may have forked itself away: the process to supervise is then the one that runs
// its command line, wherever it came from. `forked` is -1 after a failed fork; the search is made
// all the same, because another process may have started the program meanwhile.
static pid_t find_third_part(const start_s &start, pid_t forked, pid_t *res) {
  const char *function = start.how.function;
  char key[TOV_PROCESS_SIZE];  // a copy: the search strips it in place
  (void)snprintf(key, sizeof key, "%s", start.shown);
  pid_t found = 0;
  if (tov_proc_to_pid(key, &found, FIND_RETRIES) == 1 && found == forked) {
    *res = forked;
    TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> third part Normal[%s] new pid: %d\n", function,
                    start.shown, forked);
  } else if (found == 0) {
    TOV_DBG_AND_LOG(TOV_LOG_ERROR, "%s--> third part[%s] Not Found new pid!\n", function,
                    start.shown);
  } else {
    *res = found;
    TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> third part Daemon[%s] new pid: %d\n", function,
                    start.shown, found);
  }
  return found;
}

// The parent's bookkeeping after fork() returned `forked`, which is -1 when it failed.
// Returns the process to supervise, 0 or -1 as tov_spawn() does.
static pid_t parent_side(const start_s &start, pid_t forked, pid_t *res) {
  if (forked > 0 && start.plan.in_device) save_proc_info(start.vsd_no, forked);

  char attribute[ATTRIBUTE_SIZE];
  if (tov_proc_in_tovdb(TOV_THIRD_PART_LIST, start.record.process, attribute, sizeof attribute)) {
    return find_third_part(start, forked, res);
  }
  *res = forked;
  TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> tov_pid->process = %s, new pid: %d\n",
                  start.how.function, start.shown, forked);
  return forked;
}

static pid_t start_again(const tov_chains_guard_t &held, tov_pid_t *record, pid_t *res,
                         const tov_proc_how_t &how) {
  *res = -1;
  if (!tov_burst_allows(held, record, how)) return -1;

  start_s start(*record, how);
  for (;;) {
    int fork_errno;
    {
      const sigchld_block_s blocked;
      tov_log_prepare(&start.plan.exec_failed, "Tov execvp fail,error:");
      (void)fflush(stdout);  // what waits in the buffer must not be written twice
      const pid_t forked = tov_sys_fork();
      fork_errno = errno;
      if (forked == 0) return tov_proc_child_run(&start.plan);
      const pid_t result = parent_side(start, forked, res);
      if (result != -1) return result;
    }
    (void)tov_record_abnormal_fork("a", TOV_FORK_FILE);
    TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> fork fail, err: %s(%d)\n", how.function,
                    strerror(fork_errno), fork_errno);
    safe_sleep(FORK_RETRY_PAUSE_S);
  }
}

pid_t tov_spawn(tov_pid_t *tov_pid, pid_t *res) {
  const tov_chains_guard_t held(tov_chains);
  return start_again(held, tov_pid, res, tov_proc_by_exec);
}

pid_t tov_shell_spawn(tov_pid_t *tov_pid, pid_t *res) {
  const tov_chains_guard_t held(tov_chains);
  return start_again(held, tov_pid, res, tov_proc_by_script);
}

pid_t tov_proc_restart(const tov_chains_guard_t &held, tov_pid_t *tov_pid, pid_t *res) {
  const pid_t self = tov_sys_getpid();
  const pid_t result = start_again(
      held, tov_pid, res, tov_pid->action == SHELL_RESTART ? tov_proc_by_script : tov_proc_by_exec);
  // The child that could not change to "/": a second daemon with our sockets and another thread's
  // mutex if it went on.
  if (tov_sys_getpid() != self) _exit(1);
  return result;
}
