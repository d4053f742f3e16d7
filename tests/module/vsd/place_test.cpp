// Placing programs in a device, with real programs and scripts.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/module/vsd.h"
#include "tests/module/vsd_device.h"
#include "tests/support/files.h"
#include "vsd/create.h"

namespace fs = std::filesystem;

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

static Outcome place(std::string name, int vsd) {
  return outcome_of([&] { return create_proc_to_vsd(name.data(), vsd); });
}

class TovVsdPlace : public VsdDeviceTest {
 protected:
  void SetUp() override {
    VsdDeviceTest::SetUp();
    fs::create_directories(MEMBERS);
  }
  void TearDown() override {
    for (const char *name : {"/sbin/tov_placed", "/sbin/tov_placed.sh"})
      fs::remove(name);
    VsdDeviceTest::TearDown();
  }
};

TEST_F(TovVsdPlace, NumbersOutOfRangeAreRefused) {
  for (int vsd : {-1, 17, INT_MAX, INT_MIN}) {
    const auto outcome = place("tov_placed", vsd);
    EXPECT_THAT(outcome.results, ElementsAre(-EINVAL));
    EXPECT_THAT(outcome.output,
                HasSubstr("]create_proc_to_vsd: vsd_no: " + std::to_string(vsd) + " error\n"));
  }
}

TEST_F(TovVsdPlace, ProgramStartsInsideTheDevice) {
  write_script("/sbin/tov_placed", TELL);
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(0)) << "the child ends";
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: parent proc: "));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: Setgroups success\n"));
  ASSERT_TRUE(report_comes());
  auto told = report();
  EXPECT_EQ(told["words"], "/sbin/tov_placed");
  EXPECT_EQ(told["cwd"], "/data/var/run/vsd/" + N);
  EXPECT_EQ(told["Groups"], std::to_string(group_of(VSD)));
  EXPECT_EQ(told["QX_CFG_DIR"], "/qx_cfg/vsd/" + N);
  EXPECT_EQ(told["TMPDIR"], "/tmp/vsd/" + N);
  EXPECT_EQ(mode_of(MEMBERS + "/" + told["pid"]), 0754U);
  EXPECT_THAT(names_in(MEMBERS), ElementsAre(told["pid"])) << "no registration directory is made";
}

TEST_F(TovVsdPlace, JoiningHasNothingToDoWithTheSecondDataTree) {
  fs::create_directory("/data2");
  write_script("/sbin/tov_placed", TELL);
  place("tov_placed", VSD);
  ASSERT_TRUE(report_comes());
  EXPECT_THAT(names_in("/data2"), IsEmpty());
  EXPECT_EQ(report()["DATA_QXOS_DIR"], "/data/.qxos/vsd/" + N);
  EXPECT_FALSE(report().contains("DATA_QXOS_DIR2"));
}

TEST_F(TovVsdPlace, ScriptGoesBeforeTheProgram) {
  write_script("/sbin/tov_placed", "#!/bin/sh\necho wrong > /data/report\n");
  write_script("/etc/cmdmap/tov_placed.sh", TELL);
  place("tov_placed", VSD);
  ASSERT_TRUE(report_comes());
  EXPECT_EQ(report()["words"], "/etc/cmdmap/tov_placed.sh start");
  EXPECT_THAT(names_in(MEMBERS), ElementsAre(report()["pid"]));
}

TEST_F(TovVsdPlace, BaseSystemGivesNothing) {
  write_script("/sbin/tov_placed", TELL);
  fs::create_directories("/tmp/vsd/0/tov");
  EXPECT_THAT(place("tov_placed", 0).results, ElementsAre(0));
  ASSERT_TRUE(report_comes());
  auto told = report();
  EXPECT_EQ(told["cwd"], "/etc") << "the caller's";
  EXPECT_FALSE(told.contains("QX_CFG_DIR"));
  EXPECT_FALSE(told.contains("TMPDIR"));
  EXPECT_NE(told["Groups"], "3000");
  EXPECT_THAT(names_in("/tmp/vsd/0/tov"), IsEmpty());
}

TEST_F(TovVsdPlace, UnknownProgram) {
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: /sbin/tov_placed is not exist.\n"));
  EXPECT_THAT(names_in(MEMBERS), IsEmpty());
}

TEST_F(TovVsdPlace, NamesThatAreNoPlainNames) {
  write_script("/sbin/tov_placed", TELL);
  for (const std::string &name :
       {std::string("../sbin/tov_placed"), std::string("/sbin/tov_placed"),
        std::string("tov_place"), std::string(""), std::string("%s%n"), std::string(5000, 'x')}) {
    const auto outcome = place(name, VSD);
    EXPECT_THAT(outcome.results, ElementsAre(0)) << name;
    EXPECT_THAT(outcome.output,
                HasSubstr("]create_proc_to_vsd: /sbin/" + name + " is not exist.\n"));
  }
  EXPECT_FALSE(fs::exists(REPORT));
}

TEST_F(TovVsdPlace, ProgramThatCannotRunIsStillRecorded) {
  write_file("/sbin/tov_placed", "no program");
  ASSERT_EQ(chmod("/sbin/tov_placed", 0644), 0);
  EXPECT_THAT(place("tov_placed", VSD).results, ElementsAre(0));
  EXPECT_EQ(names_in(MEMBERS).size(), 1U);
}

TEST_F(TovVsdPlace, ChildReturnsWhenItCannotEnter) {
  write_script("/sbin/tov_placed", TELL);
  fs::create_directories("/data/var/run/vsd");
  write_file("/data/var/run/vsd/" + N, "in the way");
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(-ENOTDIR, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: chdir fail: Not a directory\n"));
  EXPECT_FALSE(fs::exists(REPORT));
}

TEST_F(TovVsdPlace, ChildReturnsWhenTheMemberCannotBeRecorded) {
  write_script("/sbin/tov_placed", TELL);
  fs::remove_all(MEMBERS);
  write_file(MEMBERS, "in the way");
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(-ENOTDIR, 0));
  EXPECT_TRUE(report_comes()) << "the program runs all the same";
}

// ---- questions ------------------------------------------------------------------------------

TEST_F(TovVsdPlace, ScriptsAndProgramsAreLookedForByTheirExactNames) {
  char name[] = "tov_placed";
  EXPECT_EQ(check_shell(name), 0);
  EXPECT_EQ(check_sbin(name), 0);
  write_file("/etc/cmdmap/tov_placed", "");
  write_file("/sbin/tov_placed.sh", "");
  EXPECT_EQ(check_shell(name), 0);
  EXPECT_EQ(check_sbin(name), 0);
  write_file("/etc/cmdmap/tov_placed.sh", "");
  write_file("/sbin/tov_placed", "");
  EXPECT_EQ(check_shell(name), 1);
  EXPECT_EQ(check_sbin(name), 1);
  // One byte longer than a path can be; cut, it would name the script again.
  std::string endless = std::string(5000, '/') + "tov_placed";
  EXPECT_EQ(check_shell(endless.data()), 0);
}

TEST_F(TovVsdPlace, ProgramDirectoryUnreadable) {
  const auto outcome = outcome_of([] {
    const rlimit none{0, 0};
    char name[] = "tov_placed";
    return setrlimit(RLIMIT_NOFILE, &none) == 0 ? check_sbin(name) : 0;
  });
  EXPECT_THAT(outcome.results, ElementsAre(-EMFILE));
}
