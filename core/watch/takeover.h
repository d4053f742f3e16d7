// Threads that the last daemon watched.
//
// A living thread finds itself unknown to a new daemon and registers again. One that hangs does
// not, so the new daemon takes over what the last one wrote down (core/registry/watched.h): each
// thread that still is the one of its row gets a record with its terms and a full budget, and is
// found in its time. Its place in the shared area is cleared as everybody's; if it lives after all,
// its next sign of life registers it, as with any new daemon, and replaces the record.
//
// Nobody is watched who has withdrawn: the client leaves a mark for the case that no daemon heard
// of it (alive/tov_sys_alive.h).
#ifndef TOV_CORE_WATCH_TAKEOVER_H
#define TOV_CORE_WATCH_TAKEOVER_H

#include "core/registry/watched.h"

// Opens the file of the watched threads and takes over those of the last daemon. At start-up, after
// the registries are made and before the shared area is cleared. Never fails: see the header above
// for what is said then.
void tov_watch_take_over(void);

// Whether a row's thread is certainly no more, or has become another one.
bool tov_watch_is_gone(const tov_watched_row_t &row);

#endif  // TOV_CORE_WATCH_TAKEOVER_H
