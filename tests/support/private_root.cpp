// A private root for a unit test: one call around the builder.
#include "tests/support/private_root.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tests/support/root_builder.h"
#include "util/owner.h"

namespace tov_test {

void enter_private_root() {
  static bool entered = false;
  if (entered) return;
  try {
    enter_new_root({.visible = {TOV_BUILD_DIR, TOV_SOURCE_DIR}});
  } catch (const std::exception &failure) {
    fprintf(stderr, "%s (root is needed)\n", failure.what());
    abort();
  }
  entered = true;
}

}  // namespace tov_test
