// The daemon's core: start-up, process events, the decision after an exit, the background duties.
// This header brings the headers of the rooms that others may call; `main` itself is in
// tov_core.cpp.
#ifndef TOV_CORE_H
#define TOV_CORE_H

#include "core/events/handler.h"       // IWYU pragma: export
#include "core/events/netlink.h"       // IWYU pragma: export
#include "core/policy/announce.h"      // IWYU pragma: export
#include "core/policy/defer.h"         // IWYU pragma: export
#include "core/policy/delay.h"         // IWYU pragma: export
#include "core/policy/exit.h"          // IWYU pragma: export
#include "core/policy/mass.h"          // IWYU pragma: export
#include "core/policy/rebuild.h"       // IWYU pragma: export
#include "core/policy/sweep.h"         // IWYU pragma: export
#include "core/registry/query.h"       // IWYU pragma: export
#include "core/run/farewell.h"         // IWYU pragma: export
#include "core/run/flags.h"            // IWYU pragma: export
#include "core/run/lowmem.h"           // IWYU pragma: export
#include "core/run/settings.h"         // IWYU pragma: export
#include "core/run/thread.h"           // IWYU pragma: export
#include "core/server/clients.h"       // IWYU pragma: export
#include "core/server/request.h"       // IWYU pragma: export
#include "core/server/server.h"        // IWYU pragma: export
#include "core/setup.h"                // IWYU pragma: export
#include "core/third_part.h"           // IWYU pragma: export
#include "core/watch/fork_watcher.h"   // IWYU pragma: export
#include "core/watch/watchdog.h"       // IWYU pragma: export
#include "core/watch/watched_files.h"  // IWYU pragma: export

#endif  // TOV_CORE_H
