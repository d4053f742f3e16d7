// The two ways to start a registered task again, as data.
//
// Executing the command line and running the start script are one procedure (tov_proc.cpp); all
// that differs between them stands in this record, and the procedure never asks which way it is on.
#ifndef TOV_PROC_HOW_H
#define TOV_PROC_HOW_H

#include "include/tov_wire.h"

struct tov_proc_how_s {
  int action;               // restarts of records with this action count towards the burst limit
  const char *function;     // how messages name the procedure
  const char *suspended;    // mnemonic of the suspension notice
  const char *exec_failed;  // diagnostic of a failed exec, up to the error text
  bool by_script;           // run /etc/cmdmap's script instead of the command line
};
using tov_proc_how_t = tov_proc_how_s;

inline constexpr tov_proc_how_t tov_proc_by_exec = {RESPAWN, "tov_spawn", "HA_WAIT_SELF_CHECK",
                                                    "HA_RESTART execvp fail, error = ", false};

inline constexpr tov_proc_how_t tov_proc_by_script = {
    SHELL_RESTART, "tov_shell_spawn", "HA_WAIT_SCRIPT_SELF_CHECK",
    "HA_SCRIPT_RESTART execvp fail, error = ", true};

#endif  // TOV_PROC_HOW_H
