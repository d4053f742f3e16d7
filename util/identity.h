// Which process it is, and whether it still lives.
//
// A process id is a name that is given out again; the id together with the moment of the start is
// one process. The moment is the kernel's, in clock ticks (10 ms) since boot: it outlasts
// executions, also one by another thread than the first, and is compared for equality alone, so no
// clock matters. What a process executes is told by its executable's device and inode, which a
// replaced file does not change, and by the place of its stack, which an execution draws anew; its
// command line is its own choice and proves nothing by itself.
//
// "It cannot be known" is an answer of its own: without a descriptor, without memory, without
// /proc. Ended has only who has no entry in /proc and is unknown to kill(2) as well, or who is a
// zombie without another thread.
//
// Reads stat and the link to the executable, which no process can make wait; of the command line
// the same is not true. Any thread, no state; nothing allocates or sleeps.
#ifndef TOV_UTIL_IDENTITY_H
#define TOV_UTIL_IDENTITY_H

#include <stdint.h>
#include <sys/types.h>

#include "include/tov_registry.h"

enum tov_life_e {
  TOV_LIFE_LIVES,
  TOV_LIFE_THREADS,  // the first thread has ended, others run: no command line, no executable
  TOV_LIFE_ENDED,    // no process has the id any more, or a zombie without threads has it
  TOV_LIFE_REUSED,   // ended, and another process has the id
  TOV_LIFE_UNKNOWN,  // it could not be found out
};

// Whether the answer is that the process has ended.
constexpr bool tov_life_is_over(tov_life_e life) {
  return life == TOV_LIFE_ENDED || life == TOV_LIFE_REUSED;
}

// Reads who has the id `pid` now. Returns 0; -ESRCH: nobody, and `identity` becomes one that no
// process has (TOV_NEVER_STARTED); another -errno: it cannot be known, `identity` is untouched.
// What the kernel hides stays unknown: the executable of a kernel thread or an ended first thread.
int tov_identity_take(pid_t pid, tov_identity_t *identity);

// Whether the process lives. Of an identity that is not known any process of that id is the one
// that is meant. Ids below 1 name no process: ENDED.
tov_life_e tov_identity_life(pid_t pid, const tov_identity_t &identity);

// The same for a single thread, a first one included: as a zombie it has ended, whatever becomes
// of its process.
tov_life_e tov_identity_thread_life(pid_t tid, const tov_identity_t &identity);

// Whether it is the start of a process that was read, in tov_identity_t.
constexpr bool tov_identity_is_start(uint64_t started) {
  return started != 0 && started != TOV_NEVER_STARTED;
}

// Of a process of which no more than its start is known.
constexpr tov_identity_t tov_identity_of_start(uint64_t started) {
  return {started, 0, 0, 0, 0};
}

// Whether two processes are the same one for certain, and whether they are two for certain.
bool tov_identity_equals(pid_t one, const tov_identity_t &one_is, pid_t other,
                         const tov_identity_t &other_is);
bool tov_identity_differs(pid_t one, const tov_identity_t &one_is, pid_t other,
                          const tov_identity_t &other_is);

// Whether one process is known to have started before another one. Within one tick the lower id
// counts as the earlier: the kernel gives ids out in their order.
bool tov_identity_is_older(pid_t one, const tov_identity_t &one_is, pid_t other,
                           const tov_identity_t &other_is);

// Whether an execution lies between two readings of one process: it has another executable, or its
// stack begins elsewhere. What is not known in one of them proves nothing.
bool tov_identity_executed(const tov_identity_t &then, const tov_identity_t &now);

// Whether two processes execute one and the same program, of which one is the other's child, or
// both are children of a third: a fork keeps the executable and the place of the stack, and every
// execution draws the place anew. What is not known in one of them proves nothing.
bool tov_identity_are_kin(const tov_identity_t &one, const tov_identity_t &other);

// Whether that can be told on this machine: not where the kernel was told to draw no places.
bool tov_identity_kin_are_known();

// Whether the process executes the program that `word` names, the first word of a command line. A
// file that was removed or replaced since counts by its path; a word without a "/" by its name.
// Unable to know is no.
bool tov_identity_executes(pid_t pid, const char *word);

#endif  // TOV_UTIL_IDENTITY_H
