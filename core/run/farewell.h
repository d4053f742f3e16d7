// The one way out of the daemon.
#ifndef TOV_CORE_RUN_FAREWELL_H
#define TOV_CORE_RUN_FAREWELL_H

// Ends the process with `status` without running destructors: detached threads may still be at
// work on what those would take down. Standard output is flushed; builds that count lines or look
// for memory leaks do so first.
[[noreturn]] void tov_core_leave(int status);

#endif  // TOV_CORE_RUN_FAREWELL_H
