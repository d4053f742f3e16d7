// Changes of a path that a watch tells, and places that no watch can see.
#include "util/path_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "tests/module/refused_calls.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "util/owner.h"

namespace fs = std::filesystem;

namespace {

class TovPathWatch : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(directory_);
    tov_test::write_file(path_, "one\n");
  }
  void TearDown() override { fs::remove_all("/tmp/path_watch"); }

  // Whether it is told that something has been done; and nothing more the next time.
  bool tells(const std::function<void()> &what) {
    tov_path_watch_t watch(path_.c_str());
    EXPECT_TRUE(watch.may_have_changed()) << "it was never looked at";
    EXPECT_TRUE(watch.is_seen());
    EXPECT_FALSE(watch.may_have_changed());
    what();
    const bool is_told = watch.may_have_changed();
    EXPECT_TRUE(settles(&watch));
    return is_told;
  }

  // That a watch was given up is told, too: a look too many.
  static bool settles(tov_path_watch_t *watch) {
    return !watch->is_seen() || !watch->may_have_changed() || !watch->may_have_changed();
  }

  const std::string directory_ = "/tmp/path_watch/etc/tov";
  const std::string path_ = directory_ + "/list";
};

}  // namespace

TEST_F(TovPathWatch, NothingDoneIsNoChange) {
  EXPECT_FALSE(tells([] {}));
  EXPECT_FALSE(tells([this] { (void)tov_test::read_file(path_); }));
}

TEST_F(TovPathWatch, WhatIsDoneToTheFileIsTold) {
  EXPECT_TRUE(tells([this] { tov_test::write_file(path_, "two\n"); }));
  EXPECT_TRUE(tells([this] { fs::resize_file(path_, 0); }));
  EXPECT_TRUE(tells([this] { fs::remove(path_); }));
  EXPECT_TRUE(tells([this] { tov_test::write_file(path_, "anew\n"); })) << "it comes into being";
  tov_test::write_file(directory_ + "/new", "three\n");
  EXPECT_TRUE(tells([this] { fs::rename(directory_ + "/new", path_); }));
}

TEST_F(TovPathWatch, WriterWhoHasNotClosedYetIsTold) {
  const tov_fd_t fd(open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  EXPECT_TRUE(tells([&] { EXPECT_EQ(write(fd.n, "x", 1), 1); }));
}

TEST_F(TovPathWatch, WriterUnderAnotherNameIsTold) {
  fs::create_hard_link(path_, "/tmp/path_watch/other");
  EXPECT_TRUE(tells([] { tov_test::write_file("/tmp/path_watch/other", "two\n"); }));
}

TEST_F(TovPathWatch, WhatBecomesOfItsDirectoriesIsTold) {
  EXPECT_TRUE(tells([this] { fs::rename(directory_, directory_ + ".old"); }));
  EXPECT_TRUE(tells([this] { fs::create_directories(directory_); })) << "missing, then there";
  EXPECT_TRUE(tells([this] { fs::rename("/tmp/path_watch/etc", "/tmp/path_watch/gone"); }));
  fs::rename("/tmp/path_watch/gone", "/tmp/path_watch/etc");
  EXPECT_TRUE(tells([this] { fs::remove_all("/tmp/path_watch/etc"); }));
}

// The way is watched anew as it is then.
TEST_F(TovPathWatch, SecondChangeBehindTheFirstIsTold) {
  fs::remove_all("/tmp/path_watch/etc");
  tov_path_watch_t watch(path_.c_str());
  (void)watch.may_have_changed();
  fs::create_directories(directory_);
  EXPECT_TRUE(watch.may_have_changed());
  tov_test::write_file(path_, "one\n");
  EXPECT_TRUE(watch.may_have_changed());
  tov_test::write_file(path_, "two\n");
  EXPECT_TRUE(watch.may_have_changed());
  EXPECT_FALSE(watch.may_have_changed());
}

TEST_F(TovPathWatch, MountOnTheWayIsTold) {
  tov_test::in_child([this] {
    EXPECT_TRUE(
        tells([this] { ASSERT_EQ(mount("none", directory_.c_str(), "tmpfs", 0, nullptr), 0); }));
    EXPECT_TRUE(tells([this] { ASSERT_EQ(umount(directory_.c_str()), 0); }));
  });
}

TEST_F(TovPathWatch, ChangeCanBeWaitedFor) {
  tov_path_watch_t watch(path_.c_str());
  (void)watch.may_have_changed();
  pollfd asked{watch.changes(), POLLIN, 0};
  EXPECT_EQ(poll(&asked, 1, 0), 0);
  tov_test::write_file(path_, "two\n");
  EXPECT_EQ(poll(&asked, 1, 0), 1);
  EXPECT_NE(fcntl(watch.changes(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(watch.mounts(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(TovPathWatch, DoubtLooksOnce) {
  tov_path_watch_t watch(path_.c_str());
  (void)watch.may_have_changed();
  watch.doubt();
  EXPECT_TRUE(watch.may_have_changed());
  EXPECT_FALSE(watch.may_have_changed());
}

TEST_F(TovPathWatch, WhatNoWatchSeesHasChangedEachTime) {
  const auto always_changes = [this] {
    tov_path_watch_t watch(path_.c_str());
    const bool all = watch.may_have_changed() && watch.may_have_changed();
    return all && !watch.is_seen();
  };
  EXPECT_FALSE(always_changes());
  fs::rename(path_, path_ + ".real");
  fs::create_symlink(path_ + ".real", path_);
  EXPECT_TRUE(always_changes()) << "a link";
  fs::remove(path_);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_TRUE(always_changes()) << "a pipe";
  fs::remove(path_);
  fs::rename(directory_, directory_ + ".real");
  fs::create_directory_symlink(directory_ + ".real", directory_);
  EXPECT_TRUE(always_changes()) << "a link on the way";
}

// Its descriptor would wake for ever who waits for it.
TEST_F(TovPathWatch, WhatIsToldOfAWayThatIsNotSeenIsTakenAllTheSame) {
  fs::rename(path_, path_ + ".real");
  fs::create_symlink(path_ + ".real", path_);
  tov_path_watch_t watch(path_.c_str());
  (void)watch.may_have_changed();
  tov_test::write_file(directory_ + "/other", "x");
  pollfd asked{watch.changes(), POLLIN, 0};
  ASSERT_EQ(poll(&asked, 1, 0), 1);
  (void)watch.may_have_changed();
  EXPECT_EQ(poll(&asked, 1, 0), 0);
}

TEST_F(TovPathWatch, WithoutWatchesItHasChangedEachTime) {
  tov_test::in_child([this] {
    tov_test::refuse({SYS_inotify_init1}, EMFILE);
    tov_path_watch_t watch(path_.c_str());
    EXPECT_TRUE(watch.may_have_changed());
    EXPECT_TRUE(watch.may_have_changed());
    EXPECT_FALSE(watch.is_seen());
  });
  tov_test::in_child([this] {
    tov_test::refuse({SYS_inotify_add_watch}, ENOSPC);
    tov_path_watch_t watch(path_.c_str());
    EXPECT_TRUE(watch.may_have_changed());
    EXPECT_TRUE(watch.may_have_changed());
  });
}
