// Moves a whole test program into a private root before its first test: include it once.
#ifndef TOV_TEST_MODULE_PRIVATE_ROOT_H
#define TOV_TEST_MODULE_PRIVATE_ROOT_H

#include <gtest/gtest.h>

#include "tests/support/private_root.h"

namespace tov_test {

class PrivateRootEnvironment : public testing::Environment {
  void SetUp() override { enter_private_root(); }
};

[[maybe_unused]] static testing::Environment *const private_root_environment =
    testing::AddGlobalTestEnvironment(new PrivateRootEnvironment);

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_PRIVATE_ROOT_H
