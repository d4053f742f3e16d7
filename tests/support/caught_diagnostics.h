// Catches the diagnostics of a module while a test makes it speak.
#ifndef TOV_TEST_CAUGHT_DIAGNOSTICS_H
#define TOV_TEST_CAUGHT_DIAGNOSTICS_H

#include <gtest/gtest.h>

#include <string>

#include "log/tov_dbg.h"

namespace tov_test {

// What `call` prints on standard output while the diagnostics of `module` (TOV_MODULE_*) are on.
template <typename Call>
std::string caught_diagnostics(int module, Call call) {
  testing::internal::CaptureStdout();
  g_tov_dbg_level[module] = TOV_DBG_VERBOSE;
  call();
  g_tov_dbg_level[module] = TOV_DBG_END;
  return testing::internal::GetCapturedStdout();
}

}  // namespace tov_test

#endif  // TOV_TEST_CAUGHT_DIAGNOSTICS_H
