// How the daemon's end is said and heard: the flag `quit`, with an event that wakes whoever waits.
//
// Each thread waits for something of its own, some of them for a minute. A flag alone is seen when
// that wait is over, and for as long nobody supervises: the daemon that is to end does so no more,
// the next one has not begun. So the flag goes with an eventfd that is readable for ever once
// `quit` was raised, and every wait includes it.
//
// The flag remains what is asked; the event only ends the wait before the question. So nothing gets
// lost without the event (it could not be made, or the flag was set directly, as those may do who
// link the archive): each wait is bounded too, and `quit` is heard a few seconds later.
#ifndef TOV_CORE_RUN_QUIT_H
#define TOV_CORE_RUN_QUIT_H

// Makes the event. Once, at start-up, before the first thread; it stays open for the process's
// life, since detached threads wait for it to the end. A call after `quit` was set makes one that
// is readable already.
// Returns 0, or -errno: there is no event.
int tov_quit_init(void);

// Sets `quit` and wakes all who wait; nothing else happens from the second call on. Leaves errno.
// Any thread; async-signal-safe. Not in a forked child: the event is its parent's, too.
void tov_quit_raise(void);

// The event, for poll(2) (POLLIN) and epoll(7) (EPOLLIN), never to be read or closed; -1 when there
// is none, which poll ignores. Any thread.
int tov_quit_fd(void);

// Sleeps until `quit` is set, for `timeout_ms` at the most; 0 or less only asks. A signal ends no
// wait. A flag that was set directly is seen within five seconds.
// Returns whether `quit` is set. Any thread.
bool tov_quit_wait(int timeout_ms);

#endif  // TOV_CORE_RUN_QUIT_H
