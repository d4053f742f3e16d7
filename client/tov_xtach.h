// The module of the client calls, as the daemon and its tests see it: the public calls, which are
// installed, and the system semaphore, which is not.
#ifndef TOV_CLIENT_XTACH_H
#define TOV_CLIENT_XTACH_H

#include "client/tov_xtach_sem.h"  // IWYU pragma: export
#include "include/tov_xtach.h"     // IWYU pragma: keep

#endif  // TOV_CLIENT_XTACH_H
