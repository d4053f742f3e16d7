// Which device a process belongs to, told by its first supplementary group.
#include "vsd/member.h"

#include <errno.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/in_child.h"

namespace {

// get_vsdid() of a process with these groups.
void expect_device(const std::vector<gid_t> &groups, int device) {
  tov_test::in_child([&] {
    ASSERT_EQ(setgroups(groups.size(), groups.data()), 0);
    EXPECT_EQ(get_vsdid(getpid()), device) << (groups.empty() ? 0 : groups[0]);
  });
}

}  // namespace

TEST(GetVsdid, FirstGroupLessThreeThousandByHundreds) {
  const struct {
    gid_t group;
    int device;
  } cases[] = {
      {3100, 1},    {3199, 1}, {3200, 2}, {4500, 15}, {4600, 16},
      {65534, 625}, {3000, 0}, {2901, 0}, {3099, 0},  // cut toward zero on both sides
      {2900, -1},   {1, -29},  {0, -30},
  };
  for (const auto &c : cases)
    expect_device({c.group}, c.device);
}

TEST(GetVsdid, ProcessWithoutGroupsBelongsToNone) {
  expect_device({}, -30);
}

TEST(GetVsdid, OnlyTheFirstOfSeveralGroupsCounts) {
  expect_device({3200, 3300, 3400}, 2);
  std::vector<gid_t> many;  // a line much longer than one piece
  for (gid_t i = 0; i < 500; i++)
    many.push_back(3500 + i * 100);
  expect_device(many, 5);
}

TEST(GetVsdid, ProgramNamedLikeTheLineDoesNotMislead) {
  tov_test::in_child([] {
    const gid_t group = 3700;
    ASSERT_EQ(setgroups(1, &group), 0);
    ASSERT_EQ(prctl(PR_SET_NAME, "Groups: 3100"), 0);
    EXPECT_EQ(get_vsdid(getpid()), 7);
  });
}

TEST(GetVsdid, LargestGroupGivesNoSmallDevice) {
  tov_test::in_child([] {
    const gid_t group = 4294967294u;
    ASSERT_EQ(setgroups(1, &group), 0);
    EXPECT_GT(get_vsdid(getpid()), 16);
  });
}

TEST(GetVsdid, MissingProcessIsANegativeErrnoWithADiagnostic) {
  for (pid_t pid : {0, -1, INT_MAX}) {
    int result = 0;
    const std::string said =
        tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] { result = get_vsdid(pid); });
    EXPECT_EQ(result, -ENOENT);
    EXPECT_NE(said.find("]get_vsdid: fopen fail: No such file or directory\n"), std::string::npos)
        << said;
  }
}

TEST(TovVsdOrBase, DeviceOfAMemberAndTheBaseSystemForAllOthers) {
  for (const auto &[group, device] : {std::pair<gid_t, int>{3500, 5}, {3000, 0}, {2900, 0}, {0, 0}})
    tov_test::in_child([group = group, device = device] {
      ASSERT_EQ(setgroups(1, &group), 0);
      EXPECT_EQ(tov_vsd_or_base(getpid()), device) << group;
    });
  EXPECT_EQ(tov_vsd_or_base(INT_MAX), 0);
}

TEST(Sisdigit, OnlyDecimalDigitsAndAtLeastOne) {
  for (const char *digits : {"0", "7", "4711", "0001", "99999999999999999999999"})
    EXPECT_EQ(sisdigit(digits), 0) << digits;
  for (const char *other :
       {"", "-1", "+1", " 1", "1 ", "1\n", "1a", "a1", "self", ".", "1.5", "\xb2", "0x10"})
    EXPECT_EQ(sisdigit(other), -1) << other;
  EXPECT_EQ(sisdigit(nullptr), -1);
}
