// What is said about a restart: system log, event log, restart journal.
//
// The texts are the device's operational interface: operators' tools match them letter by letter,
// the differences in brackets, colons and arguments included. They stand in tables in the source.
//
// Threads: the event handler, the delayed restarts, the sweep, and main in the alarm's handler.
// All functions: caller holds the lock of `tov_chains`.
#ifndef TOV_CORE_POLICY_ANNOUNCE_H
#define TOV_CORE_POLICY_ANNOUNCE_H

#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "include/tov_thread_safety.h"

// Restarts journalled since the journal was last begun anew; above 10 nothing is written.
extern int tov_log_cnt TOV_GUARDED_BY(tov_chains);

// What the texts speak of.
struct tov_restart_news_s {
  const char *name;  // of the task
  bool by_script;
  pid_t pid;               // before the restart
  unsigned int exit_code;  // wait status; 0 makes it a re-initialisation
  int count = 0;           // after the restart only
  pid_t new_pid = -1;      // after the restart only
};
using tov_restart_news_t = tov_restart_news_s;

// "... receives event and self-checking", or "... will be re-initialized".
void tov_announce_before(const tov_restart_news_t &news) TOV_REQUIRES(tov_chains);

// "Self-checking OK", or "Re-initialized OK".
void tov_announce_after(const tov_restart_news_t &news) TOV_REQUIRES(tov_chains);

// "Self-checking OK" after a suspension, whatever the exit code was that led to it.
void tov_announce_self_check_ok(const tov_restart_news_t &news) TOV_REQUIRES(tov_chains);

// Counts a restart in the journal and appends the line before it. Other restarts may begin and end
// before this one ends: both its lines go by the slot that it gets here.
// Returns the slot, above 0, of which those behind the last line of the journal get none written;
// or -1 when the journal cannot be opened: the restart is then not made here.
int tov_journal_before(const tov_restart_news_t &news) TOV_REQUIRES(tov_chains);

// Appends the line after the restart of a slot and begins the journal's other file anew when that
// was the last of its file. Returns 0, or -1 when the journal cannot be opened.
int tov_journal_after(const tov_restart_news_t &news, int slot) TOV_REQUIRES(tov_chains);

#endif  // TOV_CORE_POLICY_ANNOUNCE_H
