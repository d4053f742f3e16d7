// What comes of the look and the search for a listed program's process.
//
// Before a listed program is started it is looked whether it runs again by itself; behind the start
// it is searched for the process that the child has become. Both ask one scan of /proc after the
// other (core/policy/waits), and core/policy/succession judges what it shows. Here stands what
// follows from an answer: another scan, the start, or the end of the restart with the process that
// was found; and who ends a search otherwise: the child, or a process that registers.
//
// core/policy/revive, which lets the record wait for an answer, knows nothing of what follows.
// Threads: those that go on with what waits (core/policy/waits), and the server's when a process
// registers.
#ifndef TOV_CORE_POLICY_SEARCH_H
#define TOV_CORE_POLICY_SEARCH_H

#include <sys/types.h>

#include <vector>

#include "core/policy/succession.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

// Hands the answer of one scan to a record that looked: the rules are asked again with it.
//   result  of the scan, tov_scan_t::go_on(): one that could not be finished is made again
void tov_search_look_ended(const tov_chains_guard_t &held, tov_pid_t *record, int result,
                           const tov_successor_t &seen);

// The same for a record that searched.
//   record      may be freed
//   succession  what the scan was asked, and has found
//   heard       gets what was heard of the process meanwhile, for the caller to handle after the
//               lock
void tov_search_ended(const tov_chains_guard_t &held, tov_pid_t *record, int result,
                      const tov_succession_t &succession, std::vector<tov_cnmsg_data_t> *heard);

// Keeps an event of a child for which its restart still searches, until the search has ended.
// Returns false when it is none.
bool tov_search_keeps(const tov_cnmsg_data_t &event);

// A process asks to be registered: if a restart searches for it, the search has ended. Returns the
// record of that restart, whose process it is now; null, if none searched.
//   process  its command line
tov_pid_t *tov_search_registers(const tov_chains_guard_t &held, pid_t pid, int vsd_id,
                                const char *process);

#endif  // TOV_CORE_POLICY_SEARCH_H
