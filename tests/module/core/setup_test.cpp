// Start-up's preparations: the directory trees and the limit of open files.
#include "core/setup.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

namespace fs = std::filesystem;

using tov_test::mode_of;

static constexpr unsigned EVERYBODY = 0777;

// ---- directories ----------------------------------------------------------------------------

namespace {

class TovMakeDirectories : public testing::Test {
 protected:
  void SetUp() override {
    for (const char *tree : {"/qx_cfg", "/qxos", "/data/.qxos", "/data/var", "/data2", "/tmp/vsd",
                             "/tmp/vsd_common", "/etc/vsd"})
      fs::remove_all(tree);
    umask_ = umask(077);  // the narrowest that a start script may have left
  }
  void TearDown() override { umask(umask_); }

 private:
  mode_t umask_ = 0;
};

}  // namespace

TEST_F(TovMakeDirectories, AllOfThemOpenToEverybodyWhateverTheUmask) {
  tov_make_directories();
  for (const char *path : {"/qx_cfg",
                           "/qx_cfg/vsd_common",
                           "/qx_cfg/vsd",
                           "/qx_cfg/vsd/0",
                           "/qxos",
                           "/qxos/vsd_common",
                           "/qxos/vsd",
                           "/qxos/vsd/0",
                           "/qxos/vsd/0/tov",
                           "/data/.qxos",
                           "/data/.qxos/vsd_common",
                           "/data/.qxos/vsd",
                           "/data/.qxos/vsd/0",
                           "/tmp/vsd_common",
                           "/tmp/vsd",
                           "/tmp/vsd/0",
                           "/etc/vsd",
                           "/etc/vsd/0",
                           "/data/var",
                           "/data/var/run",
                           "/data/var/run/vsd",
                           "/data"})
    EXPECT_EQ(mode_of(path), EVERYBODY) << path;
}

TEST_F(TovMakeDirectories, RegistrationDirectoriesOfSixteenDevices) {
  tov_make_directories();
  for (int device = 0; device <= 15; device++) {
    const std::string tov = "/tmp/vsd/" + std::to_string(device) + "/tov";
    EXPECT_EQ(mode_of("/tmp/vsd/" + std::to_string(device)), EVERYBODY) << device;
    EXPECT_EQ(mode_of(tov), EVERYBODY) << device;
    EXPECT_EQ(mode_of(tov + "/db"), EVERYBODY) << device;
  }
  EXPECT_FALSE(fs::exists("/tmp/vsd/16"));
}

TEST_F(TovMakeDirectories, OneIsReallyCalledPercentD) {
  tov_make_directories();
  EXPECT_EQ(mode_of("/tmp/vsd/%d/tov/db"), EVERYBODY);
  EXPECT_EQ(mode_of("/tmp/vsd/%d"), EVERYBODY);
}

TEST_F(TovMakeDirectories, NothingBelowData2WithoutIt) {
  tov_make_directories();
  EXPECT_FALSE(fs::exists("/data2"));
}

TEST_F(TovMakeDirectories, SixBelowData2WithIt) {
  fs::create_directory("/data2");
  tov_make_directories();
  for (const char *path : {"/data2/.qxos", "/data2/.qxos/vsd", "/data2/.qxos/vsd/0", "/data2/var",
                           "/data2/var/run", "/data2/var/run/vsd"})
    EXPECT_EQ(mode_of(path), EVERYBODY) << path;
  EXPECT_NE(mode_of("/data2"), EVERYBODY);  // not the daemon's
}

TEST_F(TovMakeDirectories, ExistingOnesKeepTheirContentAndGetTheMode) {
  fs::create_directories("/qxos/vsd");
  tov_test::write_file("/qxos/vsd/kept", "text");
  fs::permissions("/qxos/vsd", fs::perms(0700));
  tov_make_directories();
  EXPECT_EQ(mode_of("/qxos/vsd"), EVERYBODY);
  EXPECT_EQ(tov_test::read_file("/qxos/vsd/kept"), "text");
}

TEST_F(TovMakeDirectories, OneThatCannotBeMadeDoesNotStopTheOthers) {
  tov_test::write_file("/qx_cfg", "a file in the place of a directory");
  tov_make_directories();
  EXPECT_EQ(mode_of("/qxos/vsd/0/tov"), EVERYBODY);
  EXPECT_EQ(mode_of("/tmp/vsd/15/tov/db"), EVERYBODY);
}

// ---- open files -----------------------------------------------------------------------------

static rlimit limit_of_open_files() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

static void set_limit_of_open_files(rlim_t soft, rlim_t hard) {
  const rlimit limit{soft, hard};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << strerror(errno);
}

static bool hard_limits_can_be_raised() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct held[2] = {};
  syscall(SYS_capget, &header, held);
  return (held[0].effective & (1u << CAP_SYS_RESOURCE)) != 0;
}

TEST(TovSetFileLimit, HardLimitAboveStaysAndTheSoftOneRises) {
  tov_test::in_child([] {
    set_limit_of_open_files(256, 4096);
    tov_set_file_limit();
    EXPECT_EQ(limit_of_open_files().rlim_cur, 2304u);
    EXPECT_EQ(limit_of_open_files().rlim_max, 4096u);
  });
}

TEST(TovSetFileLimit, HigherSoftLimitIsLowered) {
  tov_test::in_child([] {
    set_limit_of_open_files(4096, 4096);
    tov_set_file_limit();
    EXPECT_EQ(limit_of_open_files().rlim_cur, 2304u);
    EXPECT_EQ(limit_of_open_files().rlim_max, 4096u);
  });
}

TEST(TovSetFileLimit, LowerHardLimitRises) {
  if (!hard_limits_can_be_raised()) GTEST_SKIP() << "needs CAP_SYS_RESOURCE";
  tov_test::in_child([] {
    set_limit_of_open_files(256, 1024);
    tov_set_file_limit();
    EXPECT_EQ(limit_of_open_files().rlim_cur, 2304u);
    EXPECT_EQ(limit_of_open_files().rlim_max, 2304u);
  });
}

TEST(TovSetFileLimit, LimitsAreTold) {
  tov_test::in_child([] {
    set_limit_of_open_files(256, 4096);
    const std::string said =
        tov_test::caught_diagnostics(TOV_MODULE_PUB, [] { tov_set_file_limit(); });
    EXPECT_THAT(said, testing::HasSubstr("]Origin ulimit cur 256, max 4096\r\n"));
    EXPECT_THAT(said, testing::HasSubstr("]Set ulimit cur 2304, max 4096\r\n"));
  });
}

TEST(TovSetFileLimit, RefusalIsPrintedAndEndsTheProcess) {
  // The text has no line feed and must not be lost in a buffer.
  int output[2];
  ASSERT_EQ(pipe(output), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    set_limit_of_open_files(256, 1024);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct nothing[2] = {};
    syscall(SYS_capset, &header, nothing);
    signal(SIGABRT, SIG_DFL);
    tov_set_file_limit();
    _exit(0);
  }
  close(output[1]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
  char text[256] = {};
  (void)!read(output[0], text, sizeof text - 1);
  close(output[0]);
  EXPECT_STREQ(text, "[TOV]ULIMIT: Set ulimit error.\r");
}
