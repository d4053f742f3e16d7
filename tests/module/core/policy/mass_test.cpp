// The mass-crash rule: who is counted, from when on the unit is reloaded, and what forbids it.
#include "core/policy/mass.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <time.h>

#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/seconds_ago.h"
#include "tests/module/self_healing.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::GONE;
using tov_test::seconds_ago;
using tov_test::SelfHealing;
using tov_test::TemporaryFile;

static constexpr int DUMPED_BY_SEGV = 11 | 0x80;
static constexpr int KILLED_BY_SEGV = 11;

namespace {

class TovMassCrash : public tov_test::World {
 protected:
  // Registers `wanted` processes and lets each dump core.
  static void crash(int wanted) {
    for (int i = 0; i < wanted; i++) {
      add(GONE + i, "/opt/p" + std::to_string(i));
      ends(GONE + i, DUMPED_BY_SEGV);
    }
  }
  static void ends(pid_t pid, int exit_code) {
    tov_check_continuous_multiple_process_exit(pid, exit_code, &tov_chains);
  }

  // How often the platform was asked for a reload since the last call.
  static size_t reloads() { return tov_test::reloads_in(notices()); }
};

}  // namespace

TEST_F(TovMassCrash, TenCoreDumpsReloadTheUnit) {
  crash(9);
  EXPECT_EQ(reloads(), 0u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), IsEmpty());
  add(GONE + 9, "/opt/p9");
  ends(GONE + 9, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 1u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("tov detect more than 10 process exit in shorttime[900]s, system "
                          "reboot."));
}

TEST_F(TovMassCrash, RequestNamesThresholdSpanAndPrograms) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  const SelfHealing service;
  add(GONE, "/opt/a -x");
  add(GONE + 1, "/opt/b");
  ends(GONE, DUMPED_BY_SEGV);
  const std::string said = diagnostics([] { ends(GONE + 1, DUMPED_BY_SEGV); });
  EXPECT_THAT(said, HasSubstr("]tov detect more than 2 process exit in shorttime[60]s, system "
                              "reboot.\n"));
  // The order is that of the registry's buckets.
  const bool a_first = pidhash(GONE) < pidhash(GONE + 1);
  EXPECT_EQ(service.request(),
            std::string("[3][0][tov][tov detect more than 2 process exit in shorttime[60]s\n, ") +
                (a_first ? "/opt/a -x /opt/b " : "/opt/b /opt/a -x ") + "]");
}

TEST_F(TovMassCrash, RequestIsCutTo199Characters) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 1");
  const SelfHealing service;
  add(GONE, "/opt/" + std::string(300, 'x'));
  ends(GONE, DUMPED_BY_SEGV);
  const std::string request = service.request();
  const std::string head = "[3][0][tov][";
  ASSERT_TRUE(request.starts_with(head));
  EXPECT_EQ(request.size() - head.size() - 1, 199u);
}

TEST_F(TovMassCrash, FullListIsCutAndNothingOverruns) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 40");
  for (int i = 0; i < 40; i++)
    add(GONE + i, "/opt/" + std::string(100, 'x'))->ill_tm = i == 0 ? 0 : tov_get_time();
  ends(GONE, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 1u);
}

TEST_F(TovMassCrash, SettingsCanMakeThreeEnough) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 3\n");
  crash(2);
  EXPECT_EQ(reloads(), 0u);
  add(GONE + 2, "/opt/p2");
  ends(GONE + 2, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 1u);
}

TEST_F(TovMassCrash, SettingsWithASingleNumberCountForNothing) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60");
  crash(9);
  EXPECT_EQ(reloads(), 0u);
  add(GONE + 9, "/opt/p9");
  ends(GONE + 9, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 1u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), ElementsAre(HasSubstr("shorttime[900]s")));
}

TEST_F(TovMassCrash, SpanIsCountedToItsLastSecond) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  tov_pid_t *earlier = add(GONE, "/opt/a");
  add(GONE + 1, "/opt/b");
  earlier->ill_tm = seconds_ago(62);
  ends(GONE + 1, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 0u);
  size_t asked = 0;
  time_t now = 0;
  do {
    earlier->ill_tm = seconds_ago(60);
    now = earlier->ill_tm + 60;
    ends(GONE + 1, DUMPED_BY_SEGV);
    asked = reloads();
  } while (asked == 0 && tov_get_time() != now);  // the second ended in between: once more
  EXPECT_EQ(asked, 1u);
}

TEST_F(TovMassCrash, ExitWithoutCoreDumpNeverTriggers) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  crash(1);
  add(GONE + 1, "/opt/b")->ill_tm = tov_get_time();  // it dumped before
  add(GONE + 2, "/opt/c");
  ends(GONE + 2, KILLED_BY_SEGV);
  ends(GONE + 1, KILLED_BY_SEGV);
  EXPECT_EQ(reloads(), 0u);
  EXPECT_EQ(find(GONE + 2)->ill_tm, 0);
}

TEST_F(TovMassCrash, EarlierCoreDumpIsCountedLater) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  crash(1);
  ends(GONE, KILLED_BY_SEGV);  // its last exit dumped no core
  add(GONE + 1, "/opt/b");
  ends(GONE + 1, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 1u);
}

TEST_F(TovMassCrash, RecordCountsOnceHoweverOftenItDumps) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  crash(1);
  for (int i = 0; i < 5; i++)
    ends(GONE, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovMassCrash, DroppedRecordIsNotCounted) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 2");
  crash(1);
  {
    tov_chains_guard_t guard(tov_chains);
    __tov_del_pid(&tov_chains, GONE);
  }
  add(GONE + 1, "/opt/b");
  ends(GONE + 1, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovMassCrash, NewestRecordOfTheProcessIsStamped) {
  const tov_pid_t *older = add(GONE, "/opt/a");
  const tov_pid_t *newer = add(GONE, "/opt/a");
  ends(GONE, DUMPED_BY_SEGV);
  EXPECT_EQ(older->ill_tm, 0);
  EXPECT_NE(newer->ill_tm, 0);
}

TEST_F(TovMassCrash, UnregisteredProcessIsNotCounted) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 1");
  ends(GONE, DUMPED_BY_SEGV);
  EXPECT_EQ(reloads(), 0u);
}

TEST_F(TovMassCrash, OperatorsCanForbidTheReload) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 1"), forbidden(TOV_NO_REBOOT_FILE);
  crash(1);
  EXPECT_EQ(reloads(), 0u);
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), IsEmpty());
}

TEST_F(TovMassCrash, LowMemoryKillerCanForbidTheReload) {
  const TemporaryFile config(TOV_CONFIG_FILE, "60 1"), status(TOV_LMK_REBOOT_FILE, "0");
  crash(1);
  EXPECT_EQ(reloads(), 0u);
}
