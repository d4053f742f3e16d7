// Recursive removal: what goes, what stays, and that nothing leads out of the tree.
#include "vsd/remove.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::name_exists;
using tov_test::names_in;
using tov_test::ScratchDir;
using tov_test::write_file;

static constexpr uid_t STRANGER = 12345;

// How long a stranger goes on: so many rounds, or less of them where they are slow.
static constexpr int RACE_ROUNDS = 5'000;
static constexpr int64_t RACE_NS = 2'000'000'000;

static int delete_path(std::string path) {
  return delete_dir(path.data());
}

static void link_to(const std::string &target, const std::string &at, uid_t owner = geteuid()) {
  ASSERT_EQ(symlink(target.c_str(), at.c_str()), 0);
  ASSERT_EQ(lchown(at.c_str(), owner, 0), 0);
}

// A directory "kept" with a file in it, for links to lead to, and a directory "tree".
class TovVsdRemove : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(tree);
    fs::create_directory(kept);
    write_file(kept + "/file", "precious");
  }
  ScratchDir scratch;
  const std::string tree = scratch / "tree";
  const std::string kept = scratch / "kept";
};

TEST_F(TovVsdRemove, PlainFile) {
  write_file(tree + "/file", "");
  EXPECT_EQ(delete_path(tree + "/file"), 0);
  EXPECT_THAT(names_in(tree), IsEmpty());
}

TEST_F(TovVsdRemove, MissingPath) {
  EXPECT_EQ(delete_path(tree + "/none"), -ENOENT);
  EXPECT_EQ(delete_path(tree + "/none/below"), -ENOENT);
  EXPECT_EQ(delete_path(""), -ENOENT);
}

TEST_F(TovVsdRemove, WholeTreeOfEverySort) {
  fs::create_directories(tree + "/a/b/c");
  fs::create_directory(tree + "/empty");
  for (const char *name : {"/one", "/a/two", "/a/b/three", "/a/b/c/.hidden", "/a/b/c/with blank"})
    write_file(tree + name, "text");
  ASSERT_EQ(mkfifo((tree + "/a/fifo").c_str(), 0600), 0);
  const size_t descriptors = tov_test::open_descriptors();
  EXPECT_EQ(delete_path(tree), 0);
  EXPECT_FALSE(name_exists(tree));
  EXPECT_EQ(tov_test::open_descriptors(), descriptors);
}

TEST_F(TovVsdRemove, SlashesAtTheEndDoNotMatter) {
  write_file(tree + "/file", "");
  EXPECT_EQ(delete_path(tree + "//"), 0);
  EXPECT_FALSE(name_exists(tree));
}

TEST_F(TovVsdRemove, ThousandsOfEntriesInOneDirectory) {
  for (int i = 0; i < 5000; i++)
    write_file(tree + "/" + std::to_string(i), "");
  EXPECT_EQ(delete_path(tree), 0);
  EXPECT_FALSE(name_exists(tree));
}

TEST_F(TovVsdRemove, RelativePath) {
  const auto before = fs::current_path();
  fs::current_path(scratch.path());
  write_file(tree + "/file", "");
  EXPECT_EQ(delete_path("tree"), 0);
  fs::current_path(before);
  EXPECT_FALSE(name_exists(tree));
}

// ---- links ----------------------------------------------------------------------------------

TEST_F(TovVsdRemove, OwnLinkToAFileGoesAndItsTargetStays) {
  link_to(kept + "/file", tree + "/link");
  EXPECT_EQ(delete_path(tree), 0);
  EXPECT_FALSE(name_exists(tree));
  EXPECT_THAT(names_in(kept), ElementsAre("file"));
}

TEST_F(TovVsdRemove, OwnLinkToADirectoryEmptiesItAndStays) {
  link_to(kept, tree + "/link");
  EXPECT_EQ(delete_path(tree + "/link"), -ENOTDIR);
  EXPECT_THAT(names_in(kept), IsEmpty());
  EXPECT_TRUE(name_exists(tree + "/link"));
  EXPECT_EQ(delete_path(tree), -ENOTEMPTY);
}

TEST_F(TovVsdRemove, OwnDanglingLinkStays) {
  link_to(scratch / "none", tree + "/link");
  EXPECT_EQ(delete_path(tree + "/link"), -ENOENT);
  EXPECT_TRUE(name_exists(tree + "/link"));
}

TEST_F(TovVsdRemove, OwnRelativeLinksAreReadFromWhereTheyStand) {
  fs::create_directory(tree + "/sub");
  link_to("../../kept", tree + "/sub/second");
  link_to("sub/second", tree + "/first");
  EXPECT_EQ(delete_path(tree + "/first"), -ENOTDIR);
  EXPECT_THAT(names_in(kept), IsEmpty());
}

TEST_F(TovVsdRemove, AnotherUsersLinkGoesAndIsNotFollowed) {
  link_to(kept, tree + "/directory", STRANGER);
  link_to(kept + "/file", tree + "/file", STRANGER);
  link_to(scratch / "none", tree + "/dangling", STRANGER);
  EXPECT_EQ(delete_path(tree), 0);
  EXPECT_FALSE(name_exists(tree));
  EXPECT_THAT(names_in(kept), ElementsAre("file"));
}

TEST_F(TovVsdRemove, AnotherUsersLinkInPlaceOfTheTreeIsNotFollowedEither) {
  for (const char *slash : {"", "/"}) {
    link_to(kept, scratch / "planted", STRANGER);
    EXPECT_EQ(delete_path((scratch / "planted") + slash), 0);
    EXPECT_FALSE(name_exists(scratch / "planted"));
    EXPECT_THAT(names_in(kept), ElementsAre("file"));
  }
}

TEST_F(TovVsdRemove, OwnLinkIsNotFollowedOverAnotherUsersLink) {
  link_to(kept, scratch / "planted", STRANGER);
  link_to(scratch / "planted", tree + "/link");
  EXPECT_EQ(delete_path(tree + "/link"), -ELOOP);
  EXPECT_TRUE(name_exists(tree + "/link"));
  EXPECT_THAT(names_in(kept), ElementsAre("file"));
}

TEST_F(TovVsdRemove, LinksInACircleComeToAnEnd) {
  link_to("second", tree + "/first");
  link_to("first", tree + "/second");
  EXPECT_EQ(delete_path(tree + "/first"), -ELOOP);
  // A link to its own directory is followed until the path has no room.
  link_to(".", tree + "/self");
  write_file(tree + "/file", "");
  EXPECT_LT(delete_path(tree), 0);
  EXPECT_FALSE(name_exists(tree + "/file"));
}

// A stranger swaps a directory of his against a link to the machine's files while we remove it. A
// removal that looks at a name and then opens the name again loses the file in most runs.
TEST_F(TovVsdRemove, EntryThatTurnsIntoALinkMeanwhileIsNotFollowed) {
  const std::string name = tree + "/entry";
  const std::string planted = scratch / "planted";
  std::atomic<bool> stop = false;
  std::thread stranger([&] {
    while (!stop)
      (void)renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, planted.c_str(), RENAME_EXCHANGE);
  });
  const int64_t end_ns = tov_test::monotonic_ns() + RACE_NS;
  for (int round = 0; round < RACE_ROUNDS && tov_test::monotonic_ns() < end_ns; round++) {
    if (!name_exists(kept + "/file")) break;
    link_to(kept, planted, STRANGER);
    (void)mkdir(name.c_str(), 0777);
    (void)delete_path(name);
    while (name_exists(name) || name_exists(planted))  // they may change places under our hands
      for (const std::string &left : {name, planted})
        if (unlink(left.c_str()) < 0) (void)rmdir(left.c_str());
  }
  stop = true;
  stranger.join();
  EXPECT_THAT(names_in(kept), ElementsAre("file"));
}

TEST_F(TovVsdRemove, AnotherUsersLinkOnTheWayToTheTreeIsNotFollowed) {
  fs::create_directories(kept + "/inner/deep");
  write_file(kept + "/inner/file", "precious");
  link_to(kept, scratch / "planted", STRANGER);
  link_to(scratch / "planted", scratch / "own");
  for (const char *name : {"planted/file", "planted/inner", "planted/inner/", "planted/inner/deep",
                           "planted//inner/file", "own/inner/file"})
    EXPECT_EQ(delete_path(scratch / name), -ELOOP) << name;
  EXPECT_THAT(names_in(kept), ElementsAre("file", "inner"));
  EXPECT_THAT(names_in(kept + "/inner"), ElementsAre("deep", "file"));
}

TEST_F(TovVsdRemove, OwnLinkIsNotFollowedOverAnotherUsersDirectoryLink) {
  fs::create_directory(kept + "/inner");
  write_file(kept + "/inner/file", "precious");
  link_to(kept, scratch / "planted", STRANGER);
  link_to(scratch / "planted/inner", tree + "/absolute");
  link_to("../planted/inner", tree + "/relative");
  link_to("../planted/inner/file", tree + "/file");
  for (const char *name : {"/absolute", "/relative", "/file"})
    EXPECT_EQ(delete_path(tree + name), -ELOOP) << name;
  EXPECT_EQ(delete_path(tree), -ENOTEMPTY);
  EXPECT_THAT(names_in(kept + "/inner"), ElementsAre("file"));
}

TEST_F(TovVsdRemove, OwnLinksOnTheWayAreFollowed) {
  fs::create_directory(kept + "/inner");
  write_file(kept + "/inner/file", "");
  link_to("kept", scratch / "relative");
  link_to(scratch / "relative", scratch / "absolute");
  EXPECT_EQ(delete_path(scratch / "absolute/file"), 0);
  EXPECT_EQ(delete_path(scratch / "relative/../absolute/inner"), 0);
  EXPECT_THAT(names_in(kept), IsEmpty());
}

// The same stranger, with a directory on the way to the tree.
TEST_F(TovVsdRemove, DirectoryOnTheWayThatTurnsIntoALinkMeanwhileIsNotFollowed) {
  const std::string way = scratch / "way";
  const std::string planted = scratch / "planted";
  fs::create_directory(kept + "/inner");
  write_file(kept + "/inner/file", "precious");
  link_to(kept, planted, STRANGER);
  fs::create_directory(way);
  std::atomic<bool> stop = false;
  std::thread stranger([&] {
    while (!stop)
      (void)renameat2(AT_FDCWD, way.c_str(), AT_FDCWD, planted.c_str(), RENAME_EXCHANGE);
  });
  const int64_t end_ns = tov_test::monotonic_ns() + RACE_NS;
  for (int round = 0; round < RACE_ROUNDS && tov_test::monotonic_ns() < end_ns; round++)
    (void)delete_path(way + "/inner");
  stop = true;
  stranger.join();
  EXPECT_TRUE(name_exists(kept + "/inner/file"));
}

// ---- failures -------------------------------------------------------------------------------

TEST_F(TovVsdRemove, TooLongPathsAreRememberedAndTheRestGoes) {
  // 255 bytes are removed, 256 are not: the cut name would be the other file's.
  const std::string deep = tree + "/" + std::string(200 - tree.size(), 'd');
  fs::create_directory(deep);
  const std::string fits = deep + "/" + std::string(255 - deep.size() - 1, 'f');
  const std::string too_long = fits + "g";
  ASSERT_EQ(fits.size(), 255U);
  write_file(fits, "");
  write_file(too_long, "");
  write_file(tree + "/sibling", "");
  EXPECT_EQ(delete_path(tree), -ENOTEMPTY);
  EXPECT_FALSE(name_exists(fits));
  EXPECT_TRUE(name_exists(too_long));
  EXPECT_FALSE(name_exists(tree + "/sibling"));
}

TEST_F(TovVsdRemove, RunningOutOfDescriptorsRemovesNothingWrong) {
  std::string deep = tree;
  for (int i = 0; i < 20; i++)
    deep += "/d";
  fs::create_directories(deep);
  write_file(tree + "/file", "");
  tov_test::in_child([&] {
    const rlimit few{12, 12};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    // The innermost failure keeps every directory above from being empty.
    EXPECT_EQ(delete_path(tree), -ENOTEMPTY);
  });
  EXPECT_FALSE(name_exists(tree + "/file"));
  EXPECT_TRUE(name_exists(deep));
  EXPECT_EQ(delete_path(tree), 0);
}
