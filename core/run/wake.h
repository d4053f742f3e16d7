// What wakes the event handler: an event in the ring, or a deadline that has become the first one.
//
// One eventfd, on a low floor because records begin to wait in every thread. Any thread may wake,
// the event handler alone waits. A wake-up is kept until it is taken; several are one.
#ifndef TOV_CORE_RUN_WAKE_H
#define TOV_CORE_RUN_WAKE_H

// Makes the descriptor (close-on-exec), unless it is there. Before the threads. It stays open for
// the process's life, since detached threads may wake to the end. Returns 0 or -errno.
int tov_wake_open(void);

// Closes it, for tests: when no other thread is there.
void tov_wake_close(void);

// Wakes the event handler for a pass of its loop; one that is awake makes another pass. Before
// tov_wake_open() it does nothing: the handler begins with a pass. Async-signal-safe.
void tov_wake(void);

// Wakes the event handler to look at the ring, for the ring's producer. One write(2).
void tov_wake_for_ring(void);

// Sleeps until somebody wakes, `timeout_ms` (negative: no limit) have passed or a signal comes.
// Returns whether a pass was asked for, by tov_wake() or because `quit` was raised. The event
// handler alone.
bool tov_wake_wait(int timeout_ms);

#endif  // TOV_CORE_RUN_WAKE_H
