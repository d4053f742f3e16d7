// The daemon's signals: children are reaped, and the alarm ends suspensions.
//
// A task that went beyond the burst limit waits for the self-check alarm. When SIGALRM comes, every
// task whose waiting time is over is started again, and the alarm is armed once more for those
// that still wait.
//
// The alarm's handler locks the registry, forks, allocates and logs. That is safe because of where
// it runs, and only there: SIGALRM and SIGCHLD are blocked in main before the first thread starts
// and unblocked in the main thread alone once all threads run. From then on main sits in
// pthread_join() and holds no lock, neither ours nor one of the C library's, so whatever the
// handler waits for is held by a thread that goes on running. Both are blocked again before
// shutdown. In particular:
//
// - The lock of `tov_chains`: its holder never waits for main, so the handler gets its turn. Main
//   itself never holds it while the signals are let in; that the lock is recursive is not needed
//   here. A restart that the handler begins and that has to wait is finished by the event handler.
// - malloc, stdio, the event logs, the system log: main holds none of their locks, and no other
//   thread stops while it holds one.
// - fork: another thread may hold any of these locks at that moment, and in the child it stays held
//   for ever. The child takes none (proc/child.cpp).
// - A second SIGALRM waits until the handler returns. SIGCHLD may come in between, even with those
//   locks held: its handler calls waitpid() and nothing else, takes no lock and keeps errno.
// - pthread_join() goes on waiting afterwards; it never ends for a signal's sake.
// - alarm(): the handler arms it after the unlock. A task that another thread suspends in between
//   is due later than those that the handler saw waiting, so the alarm comes in time, and the run
//   that it leads to arms the next one for that task.
#ifndef TOV_SIGNALS_H
#define TOV_SIGNALS_H

// Ignores every signal that can be ignored, but SIGINT (default), SIGALRM and SIGCHLD (handlers
// below). Children that ended in the instant in which SIGCHLD was ignored are reaped by the kernel;
// the caller reaps the others with one call of tov_chld_handler().
void tov_setup_signals(void);

// SIGALRM: see above. Keeps errno. Takes the lock of `tov_chains`.
void tov_alrm_handler(int sig);

// SIGCHLD: reaps every child that has ended. Keeps errno. Their statuses are not looked at, exits
// are learned from the process-event connector.
void tov_chld_handler(int sig);

// Blocks or unblocks SIGALRM and SIGCHLD in the calling thread.
void tov_signals_block(void);
void tov_signals_unblock(void);

#endif  // TOV_SIGNALS_H
