// Notices of module "HA": which words of a text reach the operators.
#include "log/ha_notice.h"

#include <gtest/gtest.h>

#include "tests/module/log_listener.h"
#include "tests/support/files.h"

TEST(TovHaNotice, MakersWordsAreFilteredOut) {
  tov_test::LogListener listener;
  tov_ha_notice("A_MNEMONIC", "qx_%s%s %d", "ping", "d", 7);
  EXPECT_EQ(listener.next_text(), "%HA-5-A_MNEMONIC: pingd 7");
  EXPECT_FALSE(listener.next().has_value());
}

TEST(TovHaNotice, ProductLineThatAsksForItGetsThemAll) {
  tov_test::LogListener listener;
  const tov_test::TemporaryFile marker("/etc/tov/dorvik");
  tov_ha_notice("A_MNEMONIC", "qx_%s%s %d", "ping", "d", 7);
  EXPECT_EQ(listener.next_text(), "%HA-5-A_MNEMONIC: qx_pingd 7");
}

TEST(TovHaNotice, TextIsNoFormat) {
  tov_test::LogListener listener;
  tov_ha_notice("A_MNEMONIC", "%s", "/opt/f%n%s");
  EXPECT_EQ(listener.next_text(), "%HA-5-A_MNEMONIC: /opt/f%n%s");
}
