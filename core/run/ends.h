// How the last processes of the machine ended, strangers' included.
//
// An exit that is known without its event (the process was dead when its registration came, or the
// event was lost on its way to the handler) has an exit code all the same if the reader has heard
// the event: it notes every end here before anything else is done with it. What a table without a
// lock needs is one writer; the reader of the kernel's events is that, and never waits.
//
// It keeps the last TOV_ENDS_KEPT ends of first threads, which stand for their processes, and the
// last TOV_ENDS_OF_THREADS_KEPT of other threads in a room of their own, so that a crowd of threads
// does not push the processes out. A process whose first thread has ended lives on in its others;
// its code is that of the last one, or of the signal that has killed them.
//
// What it is not: proof that a process has ended. Who asks has found it dead (in /proc) and takes
// only the code from here. Ends that the kernel did not tell us of are not here, nor old ones.
#ifndef TOV_CORE_RUN_ENDS_H
#define TOV_CORE_RUN_ENDS_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>

enum {
  TOV_ENDS_KEPT = 4096,
  TOV_ENDS_OF_THREADS_KEPT = 1024,
};

// Notes an end. Returns whether it is that of another thread than the first, of a process that is
// awaited (below): then it is to be handled like the end of a process. The reader of process events
// alone; some nanoseconds, no system call.
//   tgid   the process
//   tid    the thread that ended, `tgid` for the first one
//   code   wait status, as the kernel tells it
//   at_us  when, microseconds of CLOCK_MONOTONIC
bool tov_ends_note(pid_t tgid, pid_t tid, uint32_t code, int64_t at_us);

// Whether a wait status is that of a signal.
constexpr bool tov_ends_is_signal(uint32_t code) {
  constexpr uint32_t signal = 0x7f;
  return (code & signal) != 0;
}

// The wait status of a process that is known to have ended, or nothing where its end is not here.
// That is the code of the thread that ended last, or of a signal that ended another one just
// before: it has ended all of them, and the kernel may tell of the first one after the others. Has
// the id been given out again and that process ended, too, the earlier one counts; in that case
// threads that outlived their first one do not. Any thread; it walks the whole table (some
// microseconds). Not from a signal handler.
//   not_before_us  microseconds of CLOCK_MONOTONIC, not later than the end that is asked for: the
//                  process's start, for example
std::optional<uint32_t> tov_ends_code(pid_t pid, int64_t not_before_us);

// From now on each end of a thread of this process reaches the event handler as an exit of the
// process, with the thread's code. For a process whose first thread has ended while others run: the
// kernel's event of its end was that of the first thread, and the end of the last one is the end of
// a thread like any other. By then /proc says that it is over; to ask whether one end was the last
// is the handler's business. Call it before asking /proc whether threads are left, so that none can
// end unheard in between.
// Nothing is searched for while nobody is awaited: that costs the reader one load for each end of a
// thread. At most TOV_ENDS_AWAITED_MAX are told from others; beyond that every process is awaited,
// until the number has come down again. Awaited twice is awaited once. Any thread; it takes a lock
// for an instant.
enum { TOV_ENDS_AWAITED_MAX = 64 };
void tov_ends_await(pid_t pid);

// Its threads are not awaited any more: it has ended, has executed a program, or its record is
// gone. Unknown ids are passed over. Any thread.
void tov_ends_await_no_more(pid_t pid);

// Forgets everything, for tests: while no other thread uses it.
void tov_ends_forget(void);

#endif  // TOV_CORE_RUN_ENDS_H
