// The device of a process: looking it up, marking it, entering it.
#include "vsd/entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using tov_test::mode_of;
using tov_test::write_file;

namespace {

class FindApp : public tov_test::World {
 protected:
  static void mark(int device, const std::string &name) {
    const std::string dir = "/tmp/vsd/" + std::to_string(device) + "/tov";
    fs::create_directories(dir);
    write_file(dir + "/" + name, "");
  }
};

class SaveProcInfo : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    tov_test::clear_path("/data/var/run/vsd/3");
  }
};

class SetProcEnv : public SaveProcInfo {
 protected:
  static std::string variable(const char *name) {
    const char *value = getenv(name);
    return value != nullptr ? value : "(unset)";
  }
  static std::vector<gid_t> groups() {
    std::vector<gid_t> all(64);
    all.resize(static_cast<size_t>(getgroups(static_cast<int>(all.size()), all.data())));
    return all;
  }
};

}  // namespace

// ---- looking it up --------------------------------------------------------------------------

TEST_F(FindApp, DeviceThatHoldsAMarker) {
  mark(3, "123");
  EXPECT_EQ(find_app(123), 3);
  EXPECT_EQ(find_app(124), -1);
  EXPECT_EQ(find_app(12), -1);
}

TEST_F(FindApp, DevicesOneToFifteen) {
  mark(0, "100");
  mark(1, "101");
  mark(15, "115");
  mark(16, "116");
  EXPECT_EQ(find_app(100), -1);
  EXPECT_EQ(find_app(101), 1);
  EXPECT_EQ(find_app(115), 15);
  EXPECT_EQ(find_app(116), -1);
}

TEST_F(FindApp, LowestDeviceDecides) {
  mark(9, "123");
  mark(4, "123");
  EXPECT_EQ(find_app(123), 4);
}

TEST_F(FindApp, NamesAreReadAsNumbers) {
  mark(2, "0123");
  mark(5, "456.old");
  EXPECT_EQ(find_app(123), 2);
  EXPECT_EQ(find_app(456), 5);
}

TEST_F(FindApp, RegistrationDirectoryIsNoMemberFile) {
  EXPECT_EQ(find_app(0), -1);  // "db" reads as 0
  EXPECT_EQ(find_app(-1), -1);
}

TEST_F(FindApp, MissingDirectoriesAreNoFailure) {
  tov_test::clear_path("/tmp/vsd");
  EXPECT_EQ(find_app(123), -1);
}

// ---- marking it -----------------------------------------------------------------------------

TEST_F(SaveProcInfo, MarkerIsMadeWhereTheDeviceStands) {
  fs::create_directory("/data/var/run/vsd/3");
  const mode_t before = umask(0);
  save_proc_info(3, 123);
  umask(before);
  EXPECT_EQ(mode_of("/tmp/vsd/3/tov/123"), 0754u);
  EXPECT_EQ(fs::file_size("/tmp/vsd/3/tov/123"), 0u);
  EXPECT_EQ(fs::current_path(), "/");
}

TEST_F(SaveProcInfo, NoMarkerWithoutTheDevicesRunDirectory) {
  save_proc_info(3, 123);
  EXPECT_FALSE(fs::exists("/tmp/vsd/3/tov/123"));
  write_file("/data/var/run/vsd/3", "a file");
  save_proc_info(3, 123);
  EXPECT_FALSE(fs::exists("/tmp/vsd/3/tov/123"));
}

TEST_F(SaveProcInfo, PlantedLinkIsNotFollowed) {
  fs::create_directory("/data/var/run/vsd/3");
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/vsd/3/tov/123"), 0);
  save_proc_info(3, 123);
  EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
}

// ---- entering it ----------------------------------------------------------------------------

TEST_F(SetProcEnv, VariablesDirectoryGroupAndMarker) {
  fs::create_directory("/data/var/run/vsd/3");
  write_file("/tmp/vsd/3/tov/123", "");
  write_file("/tmp/vsd/3/tov/124", "");
  tov_test::in_child([] {
    setenv("QX_CFG_DIR", "/old", 1);
    setenv("KEPT_BY_THE_CHILD", "yes", 1);
    const std::string said = diagnostics([] { set_proc_env(3, 123); });
    EXPECT_EQ(variable("QX_CFG_DIR"), "/qx_cfg/vsd/3");
    EXPECT_EQ(variable("QXOS_DIR"), "/qxos/vsd/3");
    EXPECT_EQ(variable("DATA_QXOS_DIR"), "/data/.qxos/vsd/3");
    EXPECT_EQ(variable("DATA_QXOS_DIR2"), "(unset)");
    EXPECT_EQ(variable("TMPDIR"), "/tmp/vsd/3");
    EXPECT_EQ(variable("KEPT_BY_THE_CHILD"), "yes");
    EXPECT_EQ(fs::current_path(), "/data/var/run/vsd/3");
    EXPECT_THAT(groups(), ElementsAre(3300u));
    EXPECT_THAT(said, HasSubstr("]setgroups success\n"));
  });
  EXPECT_FALSE(fs::exists("/tmp/vsd/3/tov/123"));
  EXPECT_TRUE(fs::exists("/tmp/vsd/3/tov/124"));
}

TEST_F(SetProcEnv, SecondDataDirectoryOnlyWhereThereIsOne) {
  fs::create_directory("/data/var/run/vsd/3");
  fs::create_directory("/data2");
  tov_test::in_child([] {
    set_proc_env(3, 123);
    EXPECT_EQ(variable("DATA_QXOS_DIR2"), "/data2/.qxos/vsd/3");
  });
  tov_test::clear_path("/data2");
}

TEST_F(SetProcEnv, MissingRunDirectoryLeavesGroupsAndMarker) {
  write_file("/tmp/vsd/3/tov/123", "");
  tov_test::in_child([] {
    const auto before = groups();
    set_proc_env(3, 123);
    EXPECT_EQ(variable("TMPDIR"), "/tmp/vsd/3");  // the variables came first
    EXPECT_EQ(groups(), before);
    EXPECT_EQ(fs::current_path(), "/");
  });
  EXPECT_TRUE(fs::exists("/tmp/vsd/3/tov/123"));
}

TEST_F(SetProcEnv, DeviceThatThePlatformRefusesIsNotEntered) {
  fs::create_directory("/data/var/run/vsd/17");
  tov_test::in_child([] {
    unsetenv("TMPDIR");
    const auto before = groups();
    const std::string said = diagnostics([] { set_proc_env(17, 123); });
    EXPECT_THAT(said, HasSubstr("]set_proc_env: fs set vsd envs fail\n"));
    EXPECT_EQ(variable("TMPDIR"), "(unset)");
    EXPECT_EQ(groups(), before);
    EXPECT_EQ(fs::current_path(), "/");
  });
  tov_test::clear_path("/data/var/run/vsd/17");
}

TEST_F(SetProcEnv, EnvironmentWithoutAnEntryIsFine) {
  fs::create_directory("/data/var/run/vsd/3");
  tov_test::in_child([] {
    clearenv();
    set_proc_env(3, 123);
    EXPECT_EQ(variable("QX_CFG_DIR"), "/qx_cfg/vsd/3");
    EXPECT_EQ(variable("TMPDIR"), "/tmp/vsd/3");
  });
}
