// One start: all that the child needs is prepared (start_s), then fork, the parent's bookkeeping,
// and the choice of the process to supervise. A failed fork is recorded and tried again after 5 s.
#include "proc/tov_proc.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_log.h"
#include "proc/burst.h"
#include "proc/child.h"
#include "proc/claim.h"
#include "proc/files.h"
#include "proc/find.h"
#include "proc/how.h"
#include "util/identity.h"
#include "util/list_file.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/entry.h"

enum {
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
  int vsd_no;  // of the dead instance; asked once, before the child removes its marker
  tov_proc_plan_t plan;

  start_s(const tov_pid_t &dead, const tov_proc_how_t &way, int device);
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

start_s::start_s(const tov_pid_t &dead, const tov_proc_how_t &way, int device)
    : how(way), record(dead), words(command_of(dead, way)), vsd_no(device) {
  plan.how = &how;
  if (how.by_script) {
    choose_script(words.word[0] != nullptr ? words.word[0] : "", script, sizeof script);
    plan.file = shell;
    plan.argv = script_argv;
  } else {
    plan.file = words.word[0];
    plan.argv = words.word;
  }
  plan.in_device = TOV_SPAWN_VSD_MIN <= vsd_no && vsd_no <= TOV_SPAWN_VSD_MAX;
  // The child removes the dead one's marker, unless the id has been given out again meanwhile.
  const tov_life_e life = tov_identity_life(dead.pid, dead.identity);
  const bool reused = life == TOV_LIFE_LIVES || life == TOV_LIFE_REUSED;
  if (plan.in_device) tov_proc_env_prepare(&plan.env, vsd_no, reused ? 0 : dead.pid);
}

// ---- the choice of the process to supervise ---------------------------------------------------

const tov_proc_how_t &tov_proc_how_of(const tov_pid_t &record) {
  return record.action == SHELL_RESTART ? tov_proc_by_script : tov_proc_by_exec;
}

bool tov_proc_is_listed(const tov_pid_t &record) {
  char attribute[ATTRIBUTE_SIZE];
  return tov_proc_in_tovdb(TOV_THIRD_PART_LIST, record.process, attribute, sizeof attribute) != 0;
}

// How messages name the program.
static void name_program(const tov_pid_t &record, const tov_proc_how_t &how,
                         char (&name)[TOV_PROCESS_SIZE]) {
  const tov_words_t words(command_of(record, how));
  const char *first = words.word[0] != nullptr ? words.word[0] : "";
  (void)snprintf(name, sizeof name, "%s", how.by_script ? record.process : first);
}

// Of a listed program.
static void tell_found(const tov_pid_t &record, const tov_proc_how_t &how, pid_t forked,
                       pid_t found) {
  char name[TOV_PROCESS_SIZE];
  name_program(record, how, name);
  if (found == 0) {
    TOV_DBG_AND_LOG(TOV_LOG_ERROR, "%s--> third part[%s] Not Found new pid!\n", how.function, name);
  } else if (found == forked) {
    TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> third part Normal[%s] new pid: %d\n", how.function,
                    name, forked);
  } else {
    TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> third part Daemon[%s] new pid: %d\n", how.function,
                    name, found);
  }
}

// Of any other.
static void tell_forked(const tov_pid_t &record, const tov_proc_how_t &how, pid_t forked) {
  char name[TOV_PROCESS_SIZE];
  name_program(record, how, name);
  TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> tov_pid->process = %s, new pid: %d\n", how.function,
                  name, forked);
}

void tov_proc_tell_found(const tov_pid_t &record, pid_t forked, pid_t found) {
  tell_found(record, tov_proc_how_of(record), forked, found);
}

void tov_proc_tell_forked(const tov_pid_t &record, pid_t forked) {
  tell_forked(record, tov_proc_how_of(record), forked);
}

void tov_proc_search_key(const tov_pid_t &record, char (&command)[TOV_PROCESS_SIZE]) {
  name_program(record, tov_proc_how_of(record), command);
  rtrim(command);
}

// ---- the fork -----------------------------------------------------------------------------------

// Returns the child's id or -errno; in a child that could not change to "/" the id is 0.
static pid_t fork_child(start_s *start) {
  const sigchld_block_s blocked;
  tov_log_prepare(&start->plan.exec_failed, "Tov execvp fail,error:");
  (void)fflush(stdout);  // what waits in the buffer must not be written twice
  const pid_t forked = tov_sys_fork();
  if (forked < 0) return -errno;
  if (forked == 0) return (void)tov_proc_child_run(&start->plan), 0;
  if (start->plan.in_device) save_proc_info(start->vsd_no, forked);
  return forked;
}

static void tell_fork_failed(const tov_proc_how_t &how, int error) {
  (void)tov_record_abnormal_fork("a", TOV_FORK_FILE);
  TOV_DBG_AND_LOG(TOV_LOG_RUN_EVENT, "%s--> fork fail, err: %s(%d)\n", how.function,
                  strerror(error), error);
}

void tov_proc_fork_failed(const tov_pid_t &record, int error) {
  tov_proc_tell_forked(record, -1);
  tell_fork_failed(tov_proc_how_of(record), error);
}

pid_t tov_proc_fork(const tov_chains_guard_t &held, tov_pid_t *record, int vsd_no, bool stays) {
  start_s start(*record, tov_proc_how_of(*record), vsd_no);
  start.plan.claim = tov_claim_take(held, *record, stays);
  const pid_t forked = fork_child(&start);
  // A second daemon with our sockets and another thread's mutex if it went on.
  if (forked == 0) _exit(1);
  if (forked < 0) {
    tov_claim_give_back(*record, start.plan.claim, stays);
  } else {
    tov_record_claim(held, record, start.plan.claim.number);
  }
  return forked;
}

// ---- starts that block ------------------------------------------------------------------------

// A listed program may have forked itself away: the process to supervise is then the one that runs
// its command line, wherever it came from. After a failed fork the search is made all the same,
// because another process may have started the program meanwhile.
static pid_t search(const tov_pid_t &record, const tov_proc_how_t &how) {
  char name[TOV_PROCESS_SIZE];  // the search strips it in place
  name_program(record, how, name);
  pid_t found = 0;
  (void)tov_proc_to_pid(name, &found, TOV_SEARCH_RETRIES);
  return found;
}

// Starts once and chooses the process to supervise. Returns it, 0 for a listed program that was
// not found, or -errno of the fork; in a child that could not change to "/" -1.
static pid_t start_once(start_s *start, bool *in_child) {
  const sigchld_block_s blocked;
  const pid_t forked = fork_child(start);
  *in_child = forked == 0;
  if (*in_child) return -1;
  if (tov_proc_is_listed(start->record)) {
    const pid_t found = search(start->record, start->how);
    tell_found(start->record, start->how, forked, found);
    return found;
  }
  tell_forked(start->record, start->how, forked < 0 ? -1 : forked);
  return forked;
}

// Sets `in_child` in a child that could not change to "/".
static pid_t start_again(tov_pid_t *record, pid_t *res, const tov_proc_how_t &how, bool *in_child) {
  const tov_chains_guard_t held(tov_chains);
  *res = -1;
  if (!tov_burst_allows(held, record, how)) return -1;

  start_s start(*record, how, find_app(record->pid));
  for (;;) {
    const pid_t started = start_once(&start, in_child);
    if (started > 0) *res = started;
    if (started >= 0 || *in_child) return started;
    tell_fork_failed(how, -started);
    safe_sleep(TOV_FORK_PAUSE_S);
  }
}

static pid_t start_or_suspend(tov_pid_t *record, pid_t *res, const tov_proc_how_t &how) {
  bool in_child = false;
  const pid_t started = start_again(record, res, how, &in_child);
  if (!in_child) tov_ask_for_noted_reload();
  return started;
}

pid_t tov_spawn(tov_pid_t *tov_pid, pid_t *res) {
  return start_or_suspend(tov_pid, res, tov_proc_by_exec);
}

pid_t tov_shell_spawn(tov_pid_t *tov_pid, pid_t *res) {
  return start_or_suspend(tov_pid, res, tov_proc_by_script);
}
