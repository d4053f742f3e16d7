// The module of the client calls, as the daemon and its tests see it: the public calls, which are
// installed, and what is not.
#ifndef TOV_CLIENT_XTACH_H
#define TOV_CLIENT_XTACH_H

#include <sys/types.h>

#include "client/tov_xtach_sem.h"  // IWYU pragma: export
#include "include/tov_xtach.h"     // IWYU pragma: keep

// The same as reg_third_part_process_exit_action(), under a command line that the caller has read:
// by the time of the request the process may show a title, or nothing.
//   command  null: what the process shows
int tov_register_third_part(pid_t pid, const char *type, const char *command);

#endif  // TOV_CLIENT_XTACH_H
