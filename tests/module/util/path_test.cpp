// Making directories, and walking paths in which strangers have planted links.
#include "util/path.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stddef.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/files.h"

using tov_test::ScratchDir;

static constexpr uid_t STRANGER = 65534;

namespace {

struct NarrowUmask {
  mode_t before = umask(077);
  ~NarrowUmask() { umask(before); }
};

}  // namespace

TEST(TovUtilsMakeDir, ModeDoesNotDependOnTheUmask) {
  const ScratchDir dir;
  const NarrowUmask narrow;
  EXPECT_EQ(tov_make_dir((dir / "a").c_str()), 0);
  EXPECT_EQ(tov_test::mode_of(dir / "a"), 0777u);
}

TEST(TovUtilsMakeDir, MissingParentsAreMadeInTheSameWay) {
  const ScratchDir dir;
  const NarrowUmask narrow;
  EXPECT_EQ(tov_make_dir((dir / "%d/tov//db/").c_str()), 0);
  for (const char *name : {"%d", "%d/tov", "%d/tov/db"})
    EXPECT_EQ(tov_test::mode_of(dir / name), 0777u) << name;
}

TEST(TovUtilsMakeDir, ExistingOneGetsTheModeAndItsParentsKeepTheirs) {
  const ScratchDir dir;
  ASSERT_EQ(mkdir((dir / "a").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((dir / "a/b").c_str(), 0700), 0);
  EXPECT_EQ(tov_make_dir((dir / "a/b").c_str()), 0);
  EXPECT_EQ(tov_make_dir((dir / "a/c").c_str()), 0);
  EXPECT_EQ(tov_test::mode_of(dir / "a"), 0700u);
  EXPECT_EQ(tov_test::mode_of(dir / "a/b"), 0777u);
  EXPECT_EQ(tov_make_dir("/"), 0);
}

TEST(TovUtilsMakeDir, OnlyOwnLinksAreFollowed) {
  const ScratchDir dir;
  for (const char *name : {"own", "foreign"}) {
    ASSERT_EQ(mkdir((dir / (std::string(name) + "_target")).c_str(), 0700), 0);
    ASSERT_EQ(symlink((std::string(name) + "_target").c_str(), (dir / name).c_str()), 0);
  }
  if (lchown((dir / "foreign").c_str(), 65534, 65534) != 0) GTEST_SKIP() << "needs root";
  EXPECT_EQ(tov_make_dir((dir / "own/").c_str()), 0);
  EXPECT_EQ(tov_test::mode_of(dir / "own_target"), 0777u);
  EXPECT_EQ(tov_make_dir((dir / "foreign/").c_str()), -ELOOP);
  EXPECT_EQ(tov_test::mode_of(dir / "foreign_target"), 0700u);
}

TEST(TovUtilsMakeDir, ObstaclesAreReported) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  tov_test::write_file(dir / "file", "");
  ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
  EXPECT_EQ(tov_make_dir((dir / "file").c_str()), -ENOTDIR);
  EXPECT_EQ(tov_make_dir((dir / "file/below").c_str()), -ENOTDIR);
  EXPECT_EQ(tov_make_dir((dir / "dangling").c_str()), -ENOENT);
  EXPECT_EQ(tov_make_dir((dir / "dangling/a/b").c_str()), -ENOENT);
  EXPECT_EQ(tov_make_dir((dir / ("new/" + std::string(300, 'x') + "/leaf")).c_str()),
            -ENAMETOOLONG);
  EXPECT_EQ(tov_make_dir(std::string(PATH_MAX, 'x').c_str()), -ENAMETOOLONG);
  EXPECT_EQ(tov_make_dir(""), -ENOENT);
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

// ---- links on the way -----------------------------------------------------------------------

namespace {

// A directory "target" with a closed directory "inner" in it, for links to lead to.
class TovUtilsLinks : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    ASSERT_EQ(mkdir((dir / "target").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((dir / "target/inner").c_str(), 0700), 0);
  }
  void link_to(const std::string &target, const std::string &name, uid_t owner = 0) {
    ASSERT_EQ(symlink(target.c_str(), (dir / name).c_str()), 0);
    ASSERT_EQ(lchown((dir / name).c_str(), owner, owner), 0);
  }
  int make(const std::string &name) { return tov_make_dir((dir / name).c_str()); }
  bool exists(const std::string &name) { return tov_test::name_exists(dir / name); }
  ScratchDir dir;
};

}  // namespace

TEST_F(TovUtilsLinks, AnotherUsersLinkAmongTheParentsLeadsNowhere) {
  link_to("target", "foreign", STRANGER);
  for (const char *name : {"foreign/new", "foreign/new/deep", "foreign/inner", "foreign/inner/new",
                           "foreign//inner", "foreign/../target/new"})
    EXPECT_EQ(make(name), -ELOOP) << name;
  EXPECT_FALSE(exists("target/new"));
  EXPECT_FALSE(exists("target/inner/new"));
  EXPECT_EQ(tov_test::mode_of(dir / "target/inner"), 0700u);
}

TEST_F(TovUtilsLinks, OwnLinksAmongTheParentsAreFollowed) {
  link_to("target", "relative");
  link_to(dir / "relative", "absolute");
  link_to("../relative/", "target/up");
  EXPECT_EQ(make("relative/a/b"), 0);
  EXPECT_EQ(make("absolute/c"), 0);
  EXPECT_EQ(make("target/up/up/up/d"), 0);
  for (const char *name : {"target/a/b", "target/c", "target/d"})
    EXPECT_EQ(tov_test::mode_of(dir / name), 0777u) << name;
  EXPECT_EQ(tov_test::mode_of(dir / "target"), 0700u);
}

TEST_F(TovUtilsLinks, OwnLinkIsNotFollowedOverAnotherUsers) {
  link_to("target", "foreign", STRANGER);
  link_to("foreign/inner", "own");
  EXPECT_EQ(make("own/new"), -ELOOP);
  EXPECT_EQ(make("own"), -ELOOP);
  EXPECT_FALSE(exists("target/inner/new"));
  EXPECT_EQ(tov_test::mode_of(dir / "target/inner"), 0700u);
}

TEST_F(TovUtilsLinks, NothingIsMadeWhereAnOwnLinkLeadsToNothing) {
  link_to("nowhere/far", "dangling");
  EXPECT_EQ(make("dangling/a"), -ENOENT);
  EXPECT_EQ(make("dangling"), -ENOENT);
  EXPECT_FALSE(exists("nowhere"));
}

TEST_F(TovUtilsLinks, CirclesAndEndlessTargetsComeToAnEnd) {
  link_to("second", "first");
  link_to("first", "second");
  EXPECT_EQ(make("first/new"), -ELOOP);
  EXPECT_EQ(make("first"), -ELOOP);
  // Each round leaves more text behind it than it takes away.
  std::string longer = "long/";
  while (longer.size() < 4000)
    longer += "inner/inner/";
  link_to(longer, "long");
  EXPECT_EQ(make("long/new"), -ENAMETOOLONG);
}

TEST_F(TovUtilsLinks, PlaceOfTheLastName) {
  link_to("target", "own");
  link_to("target", "foreign", STRANGER);
  const size_t before = tov_test::open_descriptors();
  {
    tov_place_t place;
    ASSERT_EQ(tov_find_place(AT_FDCWD, (dir / "own/none//").c_str(), &place), 0);
    EXPECT_STREQ(place.name, "none");
    EXPECT_EQ(faccessat(place.dir.n, "inner", F_OK, 0), 0);
    tov_place_t second;  // from where the first stands
    ASSERT_EQ(tov_find_place(place.dir.n, "../foreign", &second), 0) << "not looked at";
    EXPECT_STREQ(second.name, "foreign");
    ASSERT_EQ(tov_find_place(AT_FDCWD, "///", &second), 0);
    EXPECT_STREQ(second.name, ".");
    EXPECT_EQ(tov_find_place(place.dir.n, "../foreign/inner", &second), -ELOOP);
    EXPECT_EQ(tov_find_place(AT_FDCWD, "", &second), -ENOENT);
    EXPECT_EQ(tov_find_place(AT_FDCWD, std::string(300, 'x').c_str(), &second), -ENAMETOOLONG);
    EXPECT_EQ(tov_find_place(-1, "relative", &second), -EBADF);
  }
  EXPECT_EQ(tov_test::open_descriptors(), before);
}
