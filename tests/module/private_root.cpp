// Every program of this folder moves into a private root before its first test: a fixture that
// clears /tmp/vsd and /etc/tov must never meet the machine's own.
#include "tests/support/private_root.h"

#include <gtest/gtest.h>

namespace {

class PrivateRoot : public testing::Environment {
  void SetUp() override { tov_test::enter_private_root(); }
};

[[maybe_unused]] testing::Environment *const private_root =
    testing::AddGlobalTestEnvironment(new PrivateRoot);

}  // namespace
