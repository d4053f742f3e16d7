// The ways out of the daemon.
#ifndef TOV_CORE_RUN_FAREWELL_H
#define TOV_CORE_RUN_FAREWELL_H

// Ends the process with `status` without running destructors: detached threads may still be at
// work on what those would take down. Standard output is flushed; builds that count lines or look
// for memory leaks do so first.
[[noreturn]] void tov_core_leave(int status);

// From now on a lack of memory that no caller has answered - operator new found none, and no
// caller caught it - ends the process with status 1 and one line, as a diagnostic that no switch
// turns off and in the error log. A forked child ends with status 1 alone. Whoever started the
// daemon starts it again; the registration files carry its knowledge over. For start-up, once.
void tov_core_end_without_memory(void);

#endif  // TOV_CORE_RUN_FAREWELL_H
