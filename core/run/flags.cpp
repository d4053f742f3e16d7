// The flags' values at the start of the daemon: running, reloads permitted.
#include "core/run/flags.h"

int quit = 0;
int tov_single_ps_ha_enable = 1;
int tov_single_ps_ha_enable_time = 0;
