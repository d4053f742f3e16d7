// The daemon's core: start-up, process events, the decision after an exit, the background duties.
// This header brings the module's rooms with it; `main` itself is in tov_core.cpp.
#ifndef TOV_CORE_H
#define TOV_CORE_H

#include "tov_core_announce.h"
#include "tov_core_config.h"
#include "tov_core_defer.h"
#include "tov_core_delay.h"
#include "tov_core_events.h"
#include "tov_core_exit.h"
#include "tov_core_leave.h"
#include "tov_core_mass.h"
#include "tov_core_netlink.h"
#include "tov_core_notifer.h"
#include "tov_core_rebuild.h"
#include "tov_core_running.h"
#include "tov_core_server.h"
#include "tov_core_setup.h"
#include "tov_core_state.h"
#include "tov_core_sweep.h"
#include "tov_core_third_part.h"
#include "tov_core_thread.h"
#include "tov_core_watcher.h"

#endif  // TOV_CORE_H
