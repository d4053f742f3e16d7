// Control groups and limits, on ordinary files where the hierarchies would be: what is written,
// byte for byte, and every failure. The kernel's part is shown in a private device.
#include "vsd/group.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <string>

#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;
using tov_test::caught_diagnostics;
using tov_test::read_file;
using tov_test::write_file;

static constexpr int VSD = 7;
static const std::string MEMORY = "/memory/vsd_7/";
static const std::string CPU = "/cpu/vsd_7/";
static const std::string MEMBERS = "/tmp/vsd/7/tov/";

class TovVsdGroup : public testing::Test {
 protected:
  void SetUp() override {
    for (const std::string &path : {MEMORY, CPU, MEMBERS + "db"})
      fs::create_directories(path);
    for (const std::string &file :
         {MEMORY + "tasks", MEMORY + "memory.limit_in_bytes", MEMORY + "memory.soft_limit_in_bytes",
          CPU + "tasks", CPU + "cpu.shares"})
      write_file(file, "");
  }
  void TearDown() override {
    for (const char *path : {"/memory", "/cpu", "/tmp/vsd"})
      fs::remove_all(path);
    EXPECT_EQ(chdir("/"), 0);
  }
};

static std::string said_by(const std::function<void()> &call) {
  return caught_diagnostics(TOV_MODULE_PUB, call);
}

TEST_F(TovVsdGroup, MemoryLimitGoesToBothFiles) {
  EXPECT_EQ(set_mem_group(VSD, 65536), 0);
  EXPECT_EQ(read_file(MEMORY + "memory.limit_in_bytes"), "65536K");
  EXPECT_EQ(read_file(MEMORY + "memory.soft_limit_in_bytes"), "65536K");
}

TEST_F(TovVsdGroup, MemoryLimitTakesTheLargestNumber) {
  EXPECT_EQ(set_mem_group(VSD, UINT64_MAX), 0);
  EXPECT_EQ(read_file(MEMORY + "memory.limit_in_bytes"), "18446744073709551615K");
}

TEST_F(TovVsdGroup, FailedHardLimitLeavesTheSoftOneAlone) {
  fs::remove(MEMORY + "memory.limit_in_bytes");
  int res = 0;
  const std::string said = said_by([&] { res = set_mem_group(VSD, 4096); });
  EXPECT_EQ(res, -ENOENT);
  EXPECT_THAT(said, HasSubstr("]set_mem_limit_group: fopen fail: No such file or directory\n"));
  EXPECT_THAT(said,
              EndsWith("]set_mem_group: set_hard_mem_limit fail: No such file or directory\n"));
  EXPECT_EQ(read_file(MEMORY + "memory.soft_limit_in_bytes"), "");
  EXPECT_FALSE(fs::exists(MEMORY + "memory.limit_in_bytes")) << "a control file is never created";
}

TEST_F(TovVsdGroup, RefusedSoftLimitIsTold) {
  const std::string soft = MEMORY + "memory.soft_limit_in_bytes";
  fs::remove(soft);
  fs::create_symlink("/dev/full", soft);
  int res = 0;
  const std::string said = said_by([&] { res = set_mem_group(VSD, 4096); });
  EXPECT_EQ(res, -ENOSPC);
  EXPECT_THAT(said, HasSubstr("]set_mem_limit_group: fwrite fail: No space left on device\n"));
  EXPECT_THAT(said, EndsWith("]set_mem_group: set_soft_mem_limit fail: No space left on device\n"));
  EXPECT_EQ(read_file(MEMORY + "memory.limit_in_bytes"), "4096K");
}

TEST_F(TovVsdGroup, OneControlFileByName) {
  char name[] = "memory.soft_limit_in_bytes";
  EXPECT_EQ(set_mem_limit_group(VSD, 1, name), 0);
  EXPECT_EQ(read_file(MEMORY + name), "1K");
  std::string endless(PATH_MAX, 'x');
  EXPECT_EQ(set_mem_limit_group(VSD, 1, endless.data()), -ENAMETOOLONG);
}

TEST_F(TovVsdGroup, WeightBecomesShares) {
  static constexpr struct {
    int weight;
    const char *shares;
  } cases[] = {{5, "512"},
               {10, "1024"},
               {100, "10240"},
               {1, "102"},
               {0, "0"},
               {3, "307"},
               {-5, "-512"},
               {INT_MAX, "219902325452"},
               {INT_MIN, "-219902325555"}};
  for (const auto &one : cases) {
    write_file(CPU + "cpu.shares", "");
    EXPECT_EQ(set_cpu_group(VSD, one.weight), 0);
    EXPECT_EQ(read_file(CPU + "cpu.shares"), one.shares) << one.weight;
  }
}

TEST_F(TovVsdGroup, WeightWithoutGroup) {
  int res = 0;
  const std::string said = said_by([&] { res = set_cpu_group(8, 10); });
  EXPECT_EQ(res, -ENOENT);
  EXPECT_THAT(said, EndsWith("]set_cpu_group: fopen fail: No such file or directory\n"));
}

TEST_F(TovVsdGroup, TaskIsWrittenInOnePieceWithoutCutting) {
  write_file(MEMORY + "tasks", "abcdef");
  std::string tasks = MEMORY + "tasks";
  add_cgroups(tasks.data(), 12);
  EXPECT_EQ(read_file(tasks), "12cdef");
  std::string none = MEMORY + "none";
  EXPECT_THAT(said_by([&] { add_cgroups(none.data(), 12); }),
              EndsWith("]add_cgroups: fopen fail: No such file or directory\n"));
  EXPECT_FALSE(fs::exists(none));
}

TEST_F(TovVsdGroup, MembersGoIntoBothGroupsAndTheWorkingDirectoryIsTheRoot) {
  write_file(MEMBERS + "4711", "");
  ASSERT_EQ(chdir("/etc"), 0);
  EXPECT_EQ(set_cgroups(VSD), 0);
  EXPECT_EQ(fs::current_path(), "/");
  // One member; "db" is a directory and none.
  EXPECT_EQ(read_file(MEMORY + "tasks"), "4711");
  EXPECT_EQ(read_file(CPU + "tasks"), "4711");
}

TEST_F(TovVsdGroup, NameThatIsNoNumberStandsForTheCaller) {
  write_file(MEMBERS + "delete_vsd", "");
  EXPECT_EQ(set_cgroups(VSD), 0);
  EXPECT_EQ(read_file(MEMORY + "tasks"), "0");
}

TEST_F(TovVsdGroup, DanglingEntryIsUsedAllTheSame) {
  fs::create_symlink("/none", MEMBERS + "4712");
  int res = -1;
  const std::string said = said_by([&] { res = set_cgroups(VSD); });
  EXPECT_EQ(res, 0);
  EXPECT_THAT(said, HasSubstr("]set_cgroups: stat fail: No such file or directory\n"));
  EXPECT_EQ(read_file(CPU + "tasks"), "4712");
}

TEST_F(TovVsdGroup, NegativeNameEndsTheScan) {
  write_file(MEMBERS + "-5", "");
  int res = 0;
  const std::string said = said_by([&] { res = set_cgroups(VSD); });
  EXPECT_EQ(res, -EINVAL);
  EXPECT_THAT(said, EndsWith("]set_cgroups: atio proc: Invalid argument\n"));
  EXPECT_EQ(read_file(MEMORY + "tasks"), "");
  EXPECT_EQ(fs::current_path(), "/");
}

TEST_F(TovVsdGroup, FailingGroupsDoNotStopTheScan) {
  for (const char *name : {"100", "200", "300"})
    write_file(MEMBERS + name, "");
  fs::remove(MEMORY + "tasks");
  EXPECT_EQ(set_cgroups(VSD), 0);
  EXPECT_THAT(read_file(CPU + "tasks"), testing::AnyOf("100", "200", "300"));
}

TEST_F(TovVsdGroup, DeviceWithoutMembersDirectory) {
  fs::remove_all("/tmp/vsd/7");
  int res = 0;
  const std::string said = said_by([&] { res = set_cgroups(VSD); });
  EXPECT_EQ(res, -ENOENT);
  EXPECT_THAT(said, EndsWith("]set_cgroups: chdir fail: No such file or directory\n"));
}

TEST_F(TovVsdGroup, GroupsAreMadeForEverybody) {
  fs::remove_all(MEMORY);
  fs::remove_all(CPU);
  const mode_t before = umask(077);
  EXPECT_EQ(set_cgroups_all(VSD), 0);
  umask(before);
  EXPECT_EQ(tov_test::mode_of(MEMORY), 0777U);
  EXPECT_EQ(tov_test::mode_of(CPU), 0777U);
}

TEST_F(TovVsdGroup, DeviceWithoutHierarchiesIsNoError) {
  fs::remove_all("/memory");
  fs::remove_all("/cpu");
  write_file(MEMBERS + "100", "");
  EXPECT_EQ(set_cgroups_all(VSD), 0);
  EXPECT_FALSE(fs::exists("/memory")) << "an ordinary directory would look like a group";
  EXPECT_EQ(set_mem_group(VSD, 1), -ENOENT);
}

TEST_F(TovVsdGroup, AllTellsWhyTheMembersCouldNotBePutIn) {
  fs::remove_all("/tmp/vsd/7");
  int res = -1;
  const std::string said = said_by([&] { res = set_cgroups_all(VSD); });
  EXPECT_EQ(res, 0);
  EXPECT_THAT(said, EndsWith("]set_cgroups_all: set mem group fail: No such file or directory\n"));
}
