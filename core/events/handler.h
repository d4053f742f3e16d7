// The event handler: takes process events out of the ring and acts on them.
//
// It waits for the ring to become non-empty, so an idle machine does not wake it, and then handles
// at most one event of a registered process, or of a listed program, a millisecond: a storm of
// exits must not let a thread at real-time priority 99 keep a core to itself. What comes faster
// waits in the ring, which holds over forty thousand events. The events of all other processes cost
// a look-up each and wait for nothing: behind ten thousand of them an exit is still handled at
// once.
//
// Between events it goes on with the restarts that wait (core/policy/waits), each when its deadline
// comes, and sleeps until the next event or deadline. When events were lost it looks at every
// record (core/policy/look).
//
// Thread: "tov_cnmsg_handle" at real-time priority 99, the ring's only consumer.
#ifndef TOV_CORE_EVENTS_HANDLER_H
#define TOV_CORE_EVENTS_HANDLER_H

#include "include/tov_registry.h"

// Acts on one event; unknown codes are dropped. That of a child for which its restart still
// searches is kept until the search has ended.
void tov_cnmsg_dispatch(const tov_cnmsg_data_t *event);

// A program was executed: when its executable is in the third-part list and no other instance is
// registered, it is registered on its behalf through our own server. The second argument is
// always 0 and not read. Takes no lock while it registers.
void tov_cn_msg_exec(int pid, int reserved);

// A process ended: the mass-crash rule, then the decision about it. While any virtual device is
// being deleted its record and file are removed instead.
void tov_cn_msg_exit(int pid, int exit_code);

// Thread body. Ends with result -1 name, -2 priority, or 0 when `quit` was set; then ends the
// daemon.
void *tov_cnmsg_handle(void *);

#endif  // TOV_CORE_EVENTS_HANDLER_H
