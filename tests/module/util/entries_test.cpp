// Going through a directory: what is passed over, what failures leave behind, who closes it.
#include "util/entries.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "util/owner.h"

namespace fs = std::filesystem;

using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

class TovEntries : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(path_ + "/folder");
    for (const char *name : {"file", ".hidden", "...", "..x"})
      tov_test::write_file(path_ + "/" + name, "");
  }

  const tov_test::ScratchDir dir_;
  const std::string path_ = dir_ / "entries";
};

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

}  // namespace

TEST_F(TovEntries, OnlyTheTwoDirectoriesThemselvesArePassedOver) {
  tov_entries_t entries(path_.c_str());
  ASSERT_TRUE(entries);
  EXPECT_THAT(entries.rest(), UnorderedElementsAre("folder", "file", ".hidden", "...", "..x"));
  EXPECT_EQ(entries.next(), nullptr);
  EXPECT_EQ(entries.error(), 0);
}

TEST_F(TovEntries, RestIsWhatWasNotTakenYet) {
  tov_entries_t entries(path_.c_str());
  const std::string first = entries.next();
  const std::vector<std::string> rest = entries.rest();
  EXPECT_EQ(rest.size(), 4u);
  EXPECT_THAT(rest, testing::Not(testing::Contains(first)));
}

TEST_F(TovEntries, AbsentDirectoryHasNoNamesAndLeavesItsReason) {
  errno = 0;
  tov_entries_t entries("/no/such/directory");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(entries);
  EXPECT_EQ(entries.next(), nullptr);
  EXPECT_THAT(entries.rest(), IsEmpty());
}

TEST_F(TovEntries, DescriptorIsTakenOverAndClosed) {
  const int fd = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  {
    tov_entries_t entries{tov_fd_t(fd)};
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries.fd(), fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(entries.rest().size(), 5u);
  }
  EXPECT_FALSE(is_open(fd));
}

TEST_F(TovEntries, WhatIsNoDirectoryIsClosedAndLeavesItsReason) {
  const int fd = open((path_ + "/file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  errno = 0;
  const tov_entries_t entries{tov_fd_t(fd)};
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(entries);
  EXPECT_FALSE(is_open(fd));
}

TEST_F(TovEntries, FailedOpenIsPassedOn) {
  errno = ELOOP;
  const tov_entries_t entries{tov_fd_t()};
  EXPECT_FALSE(entries);
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(TovEntries, ReadingKeepsErrno) {
  tov_entries_t entries(path_.c_str());
  errno = EXDEV;
  (void)entries.rest();
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(TovEntries, FailedReadIsNoEnd) {
  tov_entries_t entries(path_.c_str());
  const int fd = entries.fd();
  const tov_fd_t file(open((path_ + "/file").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(dup3(file.n, fd, O_CLOEXEC), fd);  // the directory under our hands is none any more
  EXPECT_EQ(entries.next(), nullptr);
  EXPECT_EQ(entries.error(), ENOTDIR);
}
