// Registry dumps for debugging: to the system log or to the daemon's standard output.
//
// A dump is put together under the registry's lock and sent after it: a console or a log reader
// that is stuck must not freeze registrations and restarts.
//
// Threads: the watchdog's; any. Call without a registry lock.
#ifndef TOV_CORE_REGISTRY_DUMP_H
#define TOV_CORE_REGISTRY_DUMP_H

#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"

// What a dump is headed by.
enum tov_dump_kind_e {
  TOV_DUMP_RESTART = 0,  // of `tov_chains`
  TOV_DUMP_HANG = 1,     // of `tov_alive_chains`
  TOV_DUMP_DELAY = 2,    // of `tov_chains_delay`
  TOV_DUMP_KIND_NUM = 3
};

// Dump a registry: its heading by `kind`, the number of its nodes, one line for every record.
// Another kind has no heading. Without memory the dump ends early.
void tov_cli_dump_process_msg_syslog(int kind, tov_chains_t *chains) TOV_EXCLUDES(*chains);
void tov_cli_dump_process_msg_console(int kind, tov_chains_t *chains) TOV_EXCLUDES(*chains);

#endif  // TOV_CORE_REGISTRY_DUMP_H
