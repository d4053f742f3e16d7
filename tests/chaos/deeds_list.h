// Every deed there is. Each returns false when it found no program to do it to.
#ifndef TOV_CHAOS_DEEDS_LIST_H
#define TOV_CHAOS_DEEDS_LIST_H

#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

// To programs (deeds_programs.cpp).
bool kill_somebody(Run &run);
bool kill_somebody_early(Run &run);
bool stop_somebody(Run &run);
bool cancel_somebody(Run &run);
bool replace_somebody(Run &run);
bool withdraw_dead(Run &run);
bool loop_somebody(Run &run);
bool pause_somebody(Run &run);
bool start_somebody(Run &run);
bool upgrade_somebody(Run &run);
bool title_somebody(Run &run);
bool behead_somebody(Run &run);
bool reuse_id(Run &run);
bool double_somebody(Run &run);
// What double_somebody() began, as soon as both instances are registered.
void end_older_instance(Run &run, Program &program);

// To files and to the daemon (deeds_daemon.cpp).
bool remove_registration(Run &run);
bool remove_daemon_file(Run &run);
bool remove_daemon_place(Run &run);
bool empty_member_place(Run &run);
bool remove_client_socket(Run &run);
bool turn_switch(Run &run);
bool fail_forks(Run &run);
bool signal_daemon(Run &run);
bool pause_daemon(Run &run);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_DEEDS_LIST_H
