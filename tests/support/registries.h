// The registries in a test: their beginning and end, and records put straight into them.
#ifndef TOV_TEST_REGISTRIES_H
#define TOV_TEST_REGISTRIES_H

#include <stdio.h>
#include <sys/types.h>

#include <array>
#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "util/identity.h"
#include "util/procfs.h"

namespace tov_test {

// What a fixture inherits beside its world.
class Registries {
 protected:
  static std::array<tov_chains_t *, 3> registries() {
    return {&tov_chains, &tov_alive_chains, &tov_chains_delay};
  }
  static void init_registries() {
    for (tov_chains_t *chains : registries())
      tov_init_chains(chains);
  }
  static void empty_registries() {
    for (tov_chains_t *chains : registries())
      tov_destroy_chains(chains);
  }

  // Of the process that has the id now, as if it had registered; of none when there is none.
  static tov_pid_t *add(pid_t pid, const std::string &process, int action = RESPAWN, int vsd_id = 0,
                        tov_chains_t &chains = tov_chains) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    record->vsd_id = vsd_id;
    record->action = action;
    (void)snprintf(record->process, sizeof record->process, "%s", process.c_str());
    char command[TOV_PROCESS_SIZE];
    (void)tov_identity_take(pid, &record->identity);
    record->seen =
        pid_to_cmdline(pid, command, sizeof command) != nullptr && process == command ? 1 : 0;
    tov_chains_guard_t guard(chains);
    tov_chain_insert(&chains, record);
    return record;
  }

  static tov_pid_t *find(pid_t pid, tov_chains_t &chains = tov_chains) {
    tov_chains_guard_t guard(chains);
    return __tov_find_pid(&chains, pid);
  }

  // A copy of the newest record of an id, for tests beside which the server runs; its `pid` is 0
  // when there is none.
  static tov_pid_t record_of(tov_chains_t &chains, pid_t pid) {
    tov_chains_guard_t guard(chains);
    const tov_pid_t *found = __tov_find_pid(&chains, pid);
    return found != nullptr ? *found : tov_pid_t{};
  }

  static int count(tov_chains_t &chains = tov_chains) {
    tov_chains_guard_t guard(chains);
    return chains.node_num;
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_REGISTRIES_H
