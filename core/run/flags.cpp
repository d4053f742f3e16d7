// The flags' values at the start of the daemon: running, reloads permitted.
// Tested by: tests/module/core/run/thread_test.cpp, tests/module/core/watch/watched_files_test.cpp
#include "core/run/flags.h"

int quit = 0;
int tov_single_ps_ha_enable = 1;
int tov_single_ps_ha_enable_time = 0;
