// Catches the diagnostics of a module while a test makes it speak.
#ifndef TOV_TEST_CAUGHT_DIAGNOSTICS_H
#define TOV_TEST_CAUGHT_DIAGNOSTICS_H

#include <string>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "tests/support/stdout.h"

namespace tov_test {

// Turns the diagnostics of a module (TOV_MODULE_*) on or off (TOV_DBG_END) while other threads may
// be asking for its level.
inline void set_diagnostics(int level, int module = TOV_MODULE_PUB) {
  __atomic_store_n(&g_tov_dbg_level[module], level, __ATOMIC_RELAXED);
}

// What `call` prints on standard output while the diagnostics of `module` are on.
template <typename Call>
std::string caught_diagnostics(int module, Call call) {
  return printed_by([&] {
    set_diagnostics(TOV_DBG_VERBOSE, module);
    call();
    set_diagnostics(TOV_DBG_END, module);
  });
}

}  // namespace tov_test

#endif  // TOV_TEST_CAUGHT_DIAGNOSTICS_H
