// The fixture of pure tests: a kernel that was just booted, a platform that has heard nothing, and
// a daemon without records.
#ifndef TOV_TEST_UNIT_SIMULATED_H
#define TOV_TEST_UNIT_SIMULATED_H

#include <gtest/gtest.h>
#include <stdint.h>

#include <string>

#include "client/tov_pidfile.h"
#include "core/run/flags.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/registries.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"

namespace tov_test {

class Simulated : public testing::Test, protected Registries {
 protected:
  Simulated() {
    boot();
    reset_platform();
    init_registries();
    tov_flag_set(quit, 0);
    tov_flag_set(tov_single_ps_ha_enable, 1);
    tov_flag_set(tov_single_ps_ha_enable_time, 0);
  }
  ~Simulated() override {
    empty_registries();
    tov_pidfile_forget_locks();
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
