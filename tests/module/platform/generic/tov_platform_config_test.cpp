// Product question and device environment of the generic platform.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/tov_platform.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

namespace fs = std::filesystem;

TEST(TovPlatformConfig, MarkerFileDecidesTheProduct) {
  fs::remove("/etc/tov/dorvik");
  EXPECT_FALSE(qxconf_is_dorvik_product());
  fs::create_directories("/etc/tov");
  tov_test::write_file("/etc/tov/dorvik", "");
  EXPECT_TRUE(qxconf_is_dorvik_product());
  fs::remove("/etc/tov/dorvik");
  EXPECT_FALSE(qxconf_is_dorvik_product());
}

// ---- device environment ---------------------------------------------------------------------

namespace {

// Restores the environment afterwards.
class TovVsdEnvs : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all("/data2");
    before_ = environ;
    environ = list_.data();
  }
  void TearDown() override { environ = before_; }

  // Replaces the environment by these entries.
  void set_environ(std::vector<std::string> entries) {
    entries_ = std::move(entries);
    list_.clear();
    for (std::string &entry : entries_)
      list_.push_back(entry.data());
    list_.push_back(nullptr);
    environ = list_.data();
  }

  static std::vector<std::string> entries_now() {
    std::vector<std::string> entries;
    for (char **entry = environ; *entry != nullptr; entry++)
      entries.emplace_back(*entry);
    return entries;
  }

 private:
  char **before_ = nullptr;
  std::vector<std::string> entries_;
  std::vector<char *> list_ = {nullptr};
};

using Entries = std::vector<std::string>;

}  // namespace

TEST_F(TovVsdEnvs, EveryDeviceHasItsPaths) {
  for (int vsd_no = 0; vsd_no <= 16; vsd_no++) {
    set_environ({"PATH=/bin"});
    ASSERT_EQ(fs_set_vsd_envs(vsd_no), 0);
    const std::string n = std::to_string(vsd_no);
    EXPECT_EQ(entries_now(),
              (Entries{"PATH=/bin", "QX_CFG_DIR=/qx_cfg/vsd/" + n, "QXOS_DIR=/qxos/vsd/" + n,
                       "DATA_QXOS_DIR=/data/.qxos/vsd/" + n, "TMPDIR=/tmp/vsd/" + n}));
    EXPECT_STREQ(getenv("TMPDIR"), ("/tmp/vsd/" + n).c_str());
  }
}

TEST_F(TovVsdEnvs, SecondDataDirectoryIsLeftToTheCaller) {
  fs::create_directory("/data2");
  set_environ({"A=1"});
  EXPECT_EQ(fs_set_vsd_envs(12), 0);
  EXPECT_EQ(getenv("DATA_QXOS_DIR2"), nullptr);
  set_environ({"DATA_QXOS_DIR2=/data2/own"});
  EXPECT_EQ(fs_set_vsd_envs(3), 0);
  EXPECT_STREQ(getenv("DATA_QXOS_DIR2"), "/data2/own");
  fs::remove("/data2");
}

TEST_F(TovVsdEnvs, OldValuesAreOverwritten) {
  set_environ({"TMPDIR=/old", "A=1", "QXOS_DIR=", "TMPDIR2=keep", "DATA_QXOS_DIR=/old", "odd",
               "TMPDIR=/twice", "DATA_QXOS_DIR2=/keep"});
  EXPECT_EQ(fs_set_vsd_envs(2), 0);
  EXPECT_EQ(entries_now(), (Entries{"A=1", "TMPDIR2=keep", "odd", "DATA_QXOS_DIR2=/keep",
                                    "QX_CFG_DIR=/qx_cfg/vsd/2", "QXOS_DIR=/qxos/vsd/2",
                                    "DATA_QXOS_DIR=/data/.qxos/vsd/2", "TMPDIR=/tmp/vsd/2"}));
}

TEST_F(TovVsdEnvs, RepeatedCallsDoNotGrow) {
  set_environ({"A=1"});
  for (const int vsd_no : {10, 1, 16, 7})
    EXPECT_EQ(fs_set_vsd_envs(vsd_no), 0);
  EXPECT_EQ(entries_now().size(), 5u);
  EXPECT_STREQ(getenv("QX_CFG_DIR"), "/qx_cfg/vsd/7");
  EXPECT_STREQ(getenv("A"), "1");
}

TEST_F(TovVsdEnvs, UnknownDevicesAreRefused) {
  set_environ({"A=1"});
  char **const before = environ;
  for (const int vsd_no : {-1, 17, 1000}) {
    errno = 0;
    EXPECT_EQ(fs_set_vsd_envs(vsd_no), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(environ, before);
}

TEST_F(TovVsdEnvs, EnvironmentMayBeEmptyOrAbsent) {
  EXPECT_EQ(fs_set_vsd_envs(1), 0);
  EXPECT_EQ(entries_now().size(), 4u);
  environ = nullptr;
  EXPECT_EQ(fs_set_vsd_envs(1), 0);
  EXPECT_EQ(entries_now().size(), 4u);
}

TEST_F(TovVsdEnvs, TooLargeEnvironmentIsRefusedUntouched) {
  Entries entries(4096, "A=1");
  set_environ(entries);
  EXPECT_EQ(fs_set_vsd_envs(1), 0);
  EXPECT_EQ(fs_set_vsd_envs(2), 0);  // our own variables do not count
  EXPECT_EQ(entries_now().size(), 4100u);
  entries.emplace_back("B=1");
  set_environ(entries);
  char **const before = environ;
  errno = 0;
  EXPECT_EQ(fs_set_vsd_envs(1), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(environ, before);
}

TEST_F(TovVsdEnvs, LibraryCallsWorkOnTheResult) {
  set_environ({"A=1"});
  EXPECT_EQ(fs_set_vsd_envs(4), 0);
  EXPECT_EQ(setenv("TMPDIR", "/elsewhere", 1), 0);
  EXPECT_EQ(setenv("NEW", "value", 1), 0);
  EXPECT_STREQ(getenv("TMPDIR"), "/elsewhere");
  EXPECT_STREQ(getenv("NEW"), "value");
  EXPECT_EQ(fs_set_vsd_envs(5), 0);
  EXPECT_STREQ(getenv("TMPDIR"), "/tmp/vsd/5");
  EXPECT_STREQ(getenv("NEW"), "value");
}

TEST_F(TovVsdEnvs, ForkedChildOfABusyProcessIsNotHeldUp) {
  set_environ({"A=1"});
  // Two threads are nearly always inside the environment's lock when the fork happens.
  std::atomic<bool> stop = false;
  std::vector<std::thread> busy(2);
  for (std::thread &thread : busy)
    thread = std::thread([&] {
      while (!stop)
        setenv("BUSY", std::to_string(rand()).c_str(), 1);
    });
  for (int round = 0; round < 50; round++) {
    EXPECT_EQ(tov_test::status_in_child([] {
                alarm(20);
                return fs_set_vsd_envs(9) == 0 && strcmp(environ[0], "A=1") == 0 ? 0 : 1;
              }),
              0);
  }
  stop = true;
  for (std::thread &thread : busy)
    thread.join();
}
