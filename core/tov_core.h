// The daemon's core: start-up, process events, the decision after an exit, the background duties.
// This header brings the headers of the rooms that others may call; `main` itself is in
// tov_core.cpp.
#ifndef TOV_CORE_H
#define TOV_CORE_H

#include "core/events/handler.h"
#include "core/events/netlink.h"
#include "core/policy/announce.h"
#include "core/policy/defer.h"
#include "core/policy/delay.h"
#include "core/policy/exit.h"
#include "core/policy/mass.h"
#include "core/policy/rebuild.h"
#include "core/policy/sweep.h"
#include "core/registry/query.h"
#include "core/run/farewell.h"
#include "core/run/flags.h"
#include "core/run/lowmem.h"
#include "core/run/settings.h"
#include "core/run/thread.h"
#include "core/server/server.h"
#include "core/setup.h"
#include "core/third_part.h"
#include "core/watch/fork_watcher.h"
#include "core/watch/watchdog.h"

#endif  // TOV_CORE_H
