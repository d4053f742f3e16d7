// Virtual devices: groups of processes with a group id, directories, environment variables and
// control groups of their own. This header brings the module's rooms with it.
//
// Nearly everything here runs in the command-line tool: short-lived, single-threaded, root. What
// the daemon uses is in three rooms: member.h, marker.h and entry.h, which is not brought here
// because the tool does without it. Between the tool and the daemon there is no connection but
// files: the member files, the delete marker, the registrations. docs/vsd.md tells the operator's
// side.
#ifndef TOV_VSD_H
#define TOV_VSD_H

#include "vsd/accounting.h"  // IWYU pragma: export
#include "vsd/create.h"      // IWYU pragma: export
#include "vsd/delete.h"      // IWYU pragma: export
#include "vsd/group.h"       // IWYU pragma: export
#include "vsd/kill.h"        // IWYU pragma: export
#include "vsd/marker.h"      // IWYU pragma: export
#include "vsd/member.h"      // IWYU pragma: export
#include "vsd/remove.h"      // IWYU pragma: export
#include "vsd/show.h"        // IWYU pragma: export

#endif  // TOV_VSD_H
