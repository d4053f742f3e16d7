// The child's side of starting a program: from fork to exec.
//
// The daemon is threaded, so between fork and exec another thread's locks - stdio, heap,
// environment, time zone, ours - may be held for ever. Everything that needs one of them is done
// in the parent and handed over in a plan; the child makes async-signal-safe calls only. The one
// exception is the platform's environment call, which has to run in the child.
#ifndef TOV_PROC_CHILD_H
#define TOV_PROC_CHILD_H

#include "include/tov_registry.h"
#include "log/tov_log.h"
#include "proc/claim.h"
#include "proc/how.h"
#include "vsd/entry.h"

enum {
  TOV_WORDS_MAX = 14  // of a command line; what follows them is ignored
};

// A command line split at blanks and tabs.
struct tov_words_s {
  char text[TOV_PROCESS_SIZE];    // the words, each terminated
  char *word[TOV_WORDS_MAX + 1];  // ends with a null pointer
  explicit tov_words_s(const char *command);
};
using tov_words_t = tov_words_s;

// What the child needs; it uses the parent's memory as it was at the fork.
struct tov_proc_plan_s {
  const tov_proc_how_t *how = nullptr;
  const char *file = nullptr;  // searched along PATH
  char *const *argv = nullptr;
  tov_claim_t claim;       // used before anything else
  bool in_device = false;  // enter `env`'s virtual device, otherwise go to "/"
  tov_proc_env_t env;
  tov_log_child_line_t exec_failed = {};
};
using tov_proc_plan_t = tov_proc_plan_s;

// Sets the child up and executes the program; ends it with status 0 when another daemon has claimed
// the start. Returns only when the child could not change to "/"
// (-1): the caller must then leave with _exit(). A failed exec ends the child with status 1.
int tov_proc_child_run(tov_proc_plan_t *plan);

#endif  // TOV_PROC_CHILD_H
