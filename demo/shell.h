// An interactive shell inside the running device.
#ifndef TOV_DEMO_SHELL_H
#define TOV_DEMO_SHELL_H

#include "demo/stage.h"

namespace tov_demo {

// Leaves the user in the device until the shell ends. Meanwhile the device's system log is written
// to /var/log/messages and its console to /var/log/console, both in the device.
// Returns the shell's exit status.
int run_shell(Stage &stage);

}  // namespace tov_demo

#endif  // TOV_DEMO_SHELL_H
