// The low-memory killer: scores of processes, its switch, and its permission to reload.
#include "core/run/lowmem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "include/tov_ras_comp_config.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using tov_test::read_file;
using tov_test::write_file;

namespace {

class TovIsRebootAvailable : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all("/sys/kernel/qx_lowmem_killer");
    fs::create_directories("/sys/kernel/qx_lowmem_killer");
  }
};

class OomScore : public tov_test::World {};
class FlushLmk : public tov_test::World {};

}  // namespace

// ---- permission to reload -------------------------------------------------------------------

TEST_F(TovIsRebootAvailable, WithoutTheStatusFile) {
  EXPECT_TRUE(tov_is_reboot_available());
}

TEST_F(TovIsRebootAvailable, ZeroForbidsIt) {
  write_file(TOV_LMK_REBOOT_FILE, "0\n");
  EXPECT_FALSE(tov_is_reboot_available());
}

TEST_F(TovIsRebootAvailable, AnyOtherContentAllowsIt) {
  for (const char *text : {"1\n", "-1", "2", "", "off"}) {
    write_file(TOV_LMK_REBOOT_FILE, text);
    EXPECT_TRUE(tov_is_reboot_available()) << text;
  }
}

// ---- scores and switch ----------------------------------------------------------------------

static bool scores_can_be_lowered() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct held[2] = {};
  syscall(SYS_capget, &header, held);
  return (held[0].effective & (1u << CAP_SYS_RESOURCE)) != 0;
}

static std::string score_of(pid_t pid) {
  return read_file("/proc/" + std::to_string(pid) + "/oom_score_adj");
}

TEST_F(OomScore, IsWrittenAsGiven) {
  const tov_test::Child process;
  change_proc_oom_adj(321, process.pid());
  EXPECT_EQ(score_of(process.pid()), "321\n");
  tov_reset_lmk(process.pid());
  EXPECT_EQ(score_of(process.pid()), "0\n");
}

TEST_F(OomScore, ExemptionIsMinusThousand) {
  if (!scores_can_be_lowered()) GTEST_SKIP() << "needs CAP_SYS_RESOURCE";
  const tov_test::Child process;
  tov_ignore_lmk(process.pid());
  EXPECT_EQ(score_of(process.pid()), "-1000\n");
}

TEST_F(OomScore, IdOfNoProcessIsNoFailure) {
  const std::string own = score_of(getpid());
  for (const pid_t pid : {tov_test::GONE, 0, -1})
    change_proc_oom_adj(500, pid);
  EXPECT_EQ(score_of(getpid()), own);
}

TEST_F(FlushLmk, SwitchGetsAOne) {
  const tov_test::TemporaryFile file(TOV_LMK_FLUSH_FILE, "what stood here before");
  tov_flush_lmk();
  EXPECT_EQ(read_file(TOV_LMK_FLUSH_FILE), "1\n");
}

TEST_F(FlushLmk, MissingSwitchIsToldAndNotMade) {
  EXPECT_THAT(
      diagnostics([] { tov_flush_lmk(); }),
      HasSubstr("]/sys/kernel/qx_lowmem_killer/flush_tlb find fail, error = No such file or "
                "directory.\n"));
  EXPECT_FALSE(fs::exists(TOV_LMK_FLUSH_FILE));
}
