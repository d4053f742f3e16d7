// The fixture of pure tests: a kernel that was just booted, a platform that has heard nothing, and
// a daemon without records.
#ifndef TOV_TEST_UNIT_SIMULATED_H
#define TOV_TEST_UNIT_SIMULATED_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>

#include "client/tov_pidfile.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"

namespace tov_test {

class Simulated : public testing::Test {
 protected:
  Simulated() {
    boot();
    reset_platform();
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_init_chains(chains);
    tov_flag_set(quit, 0);
    tov_flag_set(tov_single_ps_ha_enable, 1);
    tov_flag_set(tov_single_ps_ha_enable_time, 0);
  }
  ~Simulated() override {
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_destroy_chains(chains);
    tov_pidfile_forget_locks();
  }

  static tov_pid_t *add(pid_t pid, const std::string &process, int action = RESPAWN, int vsd_id = 0,
                        tov_chains_t &chains = tov_chains) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    record->vsd_id = vsd_id;
    record->action = action;
    (void)snprintf(record->process, sizeof record->process, "%s", process.c_str());
    tov_chains_guard_t guard(chains);
    tov_chain_insert(&chains, record);
    return record;
  }

  template <typename Call>
  static std::string diagnostics(Call call) {
    return caught_diagnostics(TOV_MODULE_PUB, call);
  }

  // Simulated microseconds that a call takes.
  template <typename Call>
  static int64_t span_us(Call call) {
    const int64_t before_us = kernel().now_us();
    call();
    return kernel().now_us() - before_us;
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_SIMULATED_H
