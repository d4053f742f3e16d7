// Questions to the registries that several rules ask.
#ifndef TOV_CORE_REGISTRY_QUERY_H
#define TOV_CORE_REGISTRY_QUERY_H

#include <sys/types.h>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "util/identity.h"

// Another record in `tov_chains` of the same task: same `process`, same device, other process.
// Returns null when there is none. Otherwise it returns that record when `record->flags` is not 0,
// and `record` itself when they are 0: a record that never went through a restart gives way, so
// its caller only tests the answer for null.
// Caller holds the lock of `tov_chains`; the answer is borrowed under it. Walks all buckets.
tov_pid_t *tov_proc_is_running(tov_pid_t *record) TOV_REQUIRES(tov_chains);

// The same record, or null, without more ado.
tov_pid_t *tov_twin_of(const tov_pid_t &record) TOV_REQUIRES(tov_chains);

// Whether `pid` has a record in `tov_alive_chains`. Caller holds that registry's lock.
bool tov_is_reg_alive_inlock(pid_t pid) TOV_REQUIRES(tov_alive_chains);

// Whether the process for which a record stands lives; asks the kernel.
tov_life_e tov_record_life(const tov_pid_t &record);

// 0 while the registered process is alive and still what was registered: same command line, same
// device; -1 otherwise. Reads /proc; an end costs three looks, about 30 ms.
int tov_check_process_alive(tov_pid_t *record);

// ---- what is registered, and what is found --------------------------------------------------

// What /proc says of a process.
struct tov_reading_s {
  enum { COMMAND_SIZE = 512 };

  tov_life_e life = TOV_LIFE_UNKNOWN;  // of these, LIVES alone has the rest
  tov_identity_t now{};
  int vsd_id = 0;
  char command[COMMAND_SIZE] = {};
};
using tov_reading_t = tov_reading_s;

// Reads it, of the very process `identity`. A process can make the reader of its command line wait:
// call it without any registry's lock.
void tov_read_process(pid_t pid, const tov_identity_t &identity, tov_reading_t *reading);

enum tov_found_e {
  TOV_FOUND_AS_REGISTERED,
  TOV_FOUND_ALIVE,    // it lives; what it executes cannot be compared, or not yet
  TOV_FOUND_UNLIKE,   // it lives, and differs: a title, a replaced executable, a cut text, a device
  TOV_FOUND_OTHER,    // it has executed another program
  TOV_FOUND_GONE,     // it has ended
  TOV_FOUND_UNKNOWN,  // it cannot be known
};

// Whether the command line of a living process may still be what is registered: an executable was
// removed or replaced, which the kernel says behind its path, or the record is from a file, which
// holds no more of the text.
bool tov_reading_fits(const tov_pid_t &record, const tov_reading_t &reading);

// Compares a record with a reading of its process. A command line is the process's own choice, and
// the file of an executable may be replaced while it runs: a difference alone says nothing, but
// that operators want to know of it. Only together with an execution since the process was seen as
// registered it says that another program runs there. Until it was seen so once, it may be the
// shell of a start script, or a child that has not executed its program yet.
tov_found_e tov_compare_process(const tov_pid_t &record, const tov_reading_t &reading);

#endif  // TOV_CORE_REGISTRY_QUERY_H
