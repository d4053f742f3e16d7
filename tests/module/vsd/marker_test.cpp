// The marker files "/etc/dev_mon" and "/etc/debug_log".
#include "vsd/marker.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/files.h"

using tov_test::name_exists;

namespace {

constexpr char DEV_MON[] = "/etc/dev_mon";
constexpr char DEBUG_LOG[] = "/etc/debug_log";

class TovVsdMarker : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(system("rm -rf /etc/dev_mon /etc/debug_log"), 0); }
};

}  // namespace

TEST_F(TovVsdMarker, MissingMarkersAreToldByErrno) {
  EXPECT_EQ(del_dev_mon_log(), -ENOENT);
  EXPECT_EQ(del_dev_mon_restart(), -ENOENT);
  EXPECT_EQ(debug_log(), -ENOENT);
  EXPECT_FALSE(name_exists(DEV_MON));
  EXPECT_FALSE(name_exists(DEBUG_LOG));
}

TEST_F(TovVsdMarker, MarkerIsCreatedWithItsModeLessTheUmask) {
  const mode_t old = umask(0);
  EXPECT_EQ(dev_mon_restart(), 0);
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat(DEV_MON, &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0754u);
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(TovVsdMarker, ExistingMarkerKeepsItsContent) {
  std::ofstream(DEV_MON) << "text";
  EXPECT_EQ(dev_mon_restart(), 0);
  struct stat status {};
  ASSERT_EQ(stat(DEV_MON, &status), 0);
  EXPECT_EQ(status.st_size, 4);
}

TEST_F(TovVsdMarker, ProbesLeaveTheMarker) {
  ASSERT_EQ(dev_mon_restart(), 0);
  std::ofstream(DEBUG_LOG).close();
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(del_dev_mon_log(), 0);
    EXPECT_EQ(debug_log(), 0);
  }
  EXPECT_TRUE(name_exists(DEV_MON));
  EXPECT_TRUE(name_exists(DEBUG_LOG));
}

TEST_F(TovVsdMarker, RemovalServesOneRestart) {
  ASSERT_EQ(dev_mon_restart(), 0);
  EXPECT_EQ(del_dev_mon_restart(), 0);
  EXPECT_FALSE(name_exists(DEV_MON));
  EXPECT_EQ(del_dev_mon_restart(), -ENOENT);
}

TEST_F(TovVsdMarker, DirectoryIsNoMarker) {
  ASSERT_EQ(mkdir(DEV_MON, 0777), 0);
  ASSERT_EQ(mkdir(DEBUG_LOG, 0777), 0);
  EXPECT_EQ(dev_mon_restart(), -EISDIR);
  EXPECT_EQ(del_dev_mon_log(), -EISDIR);
  EXPECT_EQ(del_dev_mon_restart(), -EISDIR);
  EXPECT_EQ(debug_log(), -EISDIR);
  EXPECT_TRUE(name_exists(DEV_MON));
}

TEST_F(TovVsdMarker, FifoDoesNotHoldTheCaller) {
  ASSERT_EQ(mkfifo(DEV_MON, 0777), 0);
  EXPECT_EQ(del_dev_mon_log(), 0);
  EXPECT_EQ(del_dev_mon_restart(), 0);
  EXPECT_FALSE(name_exists(DEV_MON));
}

TEST_F(TovVsdMarker, RemovalOfALinkLeavesItsTarget) {
  std::ofstream("/tmp/target").close();
  ASSERT_EQ(symlink("/tmp/target", DEV_MON), 0);
  EXPECT_EQ(del_dev_mon_restart(), 0);
  EXPECT_FALSE(name_exists(DEV_MON));
  EXPECT_TRUE(name_exists("/tmp/target"));
}

TEST_F(TovVsdMarker, RemovalThatFailsIsTold) {
  std::ofstream(DEV_MON).close();
  std::ofstream("/tmp/mounted").close();
  ASSERT_EQ(mount("/tmp/mounted", DEV_MON, nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(del_dev_mon_restart(), -EBUSY);
  ASSERT_EQ(umount(DEV_MON), 0);
  EXPECT_TRUE(name_exists(DEV_MON));
}

TEST_F(TovVsdMarker, NoDescriptorStaysOpen) {
  ASSERT_EQ(dev_mon_restart(), 0);
  const int probe = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(probe);
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(del_dev_mon_log(), 0);
  EXPECT_EQ(del_dev_mon_restart(), 0);
  const int again = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(again, probe);
  close(again);
}
