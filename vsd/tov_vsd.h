// Virtual devices: groups of processes with a group id, directories, environment variables and
// control groups of their own. This header brings the module's rooms with it.
//
// Nearly everything here runs in the command-line tool: short-lived, single-threaded, root. What
// the daemon uses is in two rooms, tov_vsd_member.h and tov_vsd_marker.h. Between the tool and the
// daemon there is no connection but files: the member files, the delete marker, the registrations.
// docs/vsd.md tells the operator's side.
#ifndef TOV_VSD_H
#define TOV_VSD_H

#include "tov_vsd_create.h"
#include "tov_vsd_delete.h"
#include "tov_vsd_group.h"
#include "tov_vsd_kill.h"
#include "tov_vsd_marker.h"
#include "tov_vsd_member.h"
#include "tov_vsd_memory.h"
#include "tov_vsd_remove.h"
#include "tov_vsd_show.h"

#endif  // TOV_VSD_H
