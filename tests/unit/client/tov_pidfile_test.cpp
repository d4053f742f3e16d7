// Registration files, the writing side: names, content, and who holds which lock when.
#include "client/tov_pidfile.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;
using tov_test::kernel_s;

namespace {

constexpr char FOO[] = "/usr/sbin/foo -d";
constexpr char FOO_FILE[] = "/tmp/vsd/0/tov/db/foo.812";

class TovPidfile : public tov_test::Simulated {
 protected:
  TovPidfile() {
    kernel().make_dir("/tmp/vsd/0/tov/db");
    kernel().make_dir("/tmp/vsd/3/tov/db");
  }
  static tov_pid_t *record_of(int vsd_id, int pid, const char *process) {
    static tov_pid_t record;
    record = {};
    record.vsd_id = vsd_id;
    record.pid = pid;
    (void)snprintf(record.process, sizeof record.process, "%s", process);
    return &record;
  }
  static tov_msg_xtach_t request_of(int vsd_id, const char *pathname) {
    tov_msg_xtach_t request{};
    request.pid = 812;
    request.vsd_id = vsd_id;
    (void)snprintf(request.pathname, sizeof request.pathname, "%s", pathname);
    return request;
  }
  static pid_t holder() { return kernel().lock_holder(FOO_FILE); }
};

}  // namespace

// ---- names ---------------------------------------------------------------------------------

TEST(TovGetDbFileName, ProgramIsTheLastComponentOfTheFirstWord) {
  const struct {
    const char *cmdline;
    const char *name;
  } cases[] = {
      {"/usr/sbin/foo -d", "foo.812"},
      {"/usr/sbin/foo", "foo.812"},
      {"foo", "foo.812"},
      {"foo -c /etc/x", "foo.812"},
      {"/opt/foo -c /etc/x", "foo.812"},
      {"/opt/my dir/foo", "my.812"},  // odd, but the same in daemon and client
      {"/opt/foo/", ".812"},
      {" /opt/foo", ".812"},
      {"", ".812"},
      {"/opt/f%n", "f%n.812"},
      {"/opt/foo\t-d", "foo\t-d.812"},
  };
  for (const auto &c : cases) {
    char name[256];
    tov_get_db_file_name(0, 812, c.cmdline, name, sizeof name);
    EXPECT_EQ(std::string(name), std::string("/tmp/vsd/0/tov/db/") + c.name) << c.cmdline;
  }
}

TEST(TovGetDbFileName, NumbersOfDeviceAndProcess) {
  char name[256];
  tov_get_db_file_name(15, 4194304, "/bin/x", name, sizeof name);
  EXPECT_STREQ(name, "/tmp/vsd/15/tov/db/x.4194304");
}

TEST(TovGetDbFileName, IsCutToTheBuffer) {
  char name[300];
  memset(name, '#', sizeof name);
  tov_get_db_file_name(0, 812, std::string(400, 'n').c_str(), name, 256);
  EXPECT_EQ(strlen(name), 255u);
  EXPECT_EQ(name[256], '#');
  tov_get_db_file_name(0, 812, FOO, name, 10);
  EXPECT_STREQ(name, "/tmp/vsd/");
  name[0] = '#';
  tov_get_db_file_name(0, 812, FOO, name, 0);
  EXPECT_EQ(name[0], '#');
}

// ---- writing -------------------------------------------------------------------------------

TEST_F(TovPidfile, FileHoldsIdActionAndCommandLineUnderOurLock) {
  const size_t before = kernel().descriptors();
  const size_t inherited = kernel().inherited_descriptors();
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(kernel().text_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_EQ(kernel().mode_of(FOO_FILE), 0755u);
  EXPECT_EQ(holder(), kernel_s::SELF);
  EXPECT_EQ(kernel().descriptors(), before + 1);
  EXPECT_EQ(kernel().inherited_descriptors(), inherited);
}

TEST_F(TovPidfile, RewritingKeepsTheLockThroughout) {
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, "/usr/sbin/foo -d -with -many -words"), 0);
  const size_t count = kernel().descriptors();
  const int closes = kernel().calls(tov_test::CALL_CLOSE);
  // Never empty for a reader in between.
  kernel().before(tov_test::CALL_FTRUNCATE, 1,
                  [] { EXPECT_TRUE(kernel().text_of(FOO_FILE).starts_with("812\n2\n/usr")); });
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(kernel().text_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_EQ(holder(), kernel_s::SELF);
  EXPECT_EQ(kernel().descriptors(), count);
  EXPECT_EQ(kernel().calls(tov_test::CALL_CLOSE), closes);
}

TEST_F(TovPidfile, ReplacedFileIsLockedAnew) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const size_t count = kernel().descriptors();
  kernel().rename(FOO_FILE, "/tmp/old");
  kernel().write_file(FOO_FILE, "somebody else's");
  EXPECT_FALSE(tov_db_is_own(0, 812, FOO));
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0);
  EXPECT_TRUE(tov_db_is_own(0, 812, FOO));
  EXPECT_EQ(kernel().descriptors(), count);
  EXPECT_EQ(kernel().text_of("/tmp/old"), "812\n2\n/usr/sbin/foo -d");
  EXPECT_EQ(holder(), kernel_s::SELF);
  EXPECT_EQ(kernel().lock_holder("/tmp/old"), 0);
}

TEST_F(TovPidfile, FileThatAnotherProcessHoldsIsRewrittenAndReleased) {
  const pid_t other = kernel().start({"/usr/sbin/foo"});
  kernel().write_file(FOO_FILE, "");
  kernel().lock(FOO_FILE, other);
  const size_t before = kernel().descriptors();
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0);
  EXPECT_EQ(kernel().text_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
  EXPECT_EQ(holder(), other);
  EXPECT_FALSE(tov_db_is_own(0, 812, FOO));
  EXPECT_EQ(kernel().descriptors(), before);
}

// Without resources for a lock the descriptor is kept: the file is this process's all the same.
TEST_F(TovPidfile, LockThatFailsForWantOfResourcesStillRegisters) {
  kernel().fail(tov_test::CALL_LOCK, 1, ENOLCK);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(holder(), 0);
  EXPECT_TRUE(tov_db_is_own(0, 812, FOO));
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(holder(), kernel_s::SELF);
}

TEST_F(TovPidfile, UnwritableFileStillRegisters) {
  kernel().fail(tov_test::CALL_WRITE, 1, ENOSPC);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(holder(), kernel_s::SELF);
}

TEST_F(TovPidfile, FileThatCannotBeMadeFailsTheRegistration) {
  const size_t before = kernel().descriptors();
  EXPECT_EQ(tov_db_create(9, 812, RESPAWN, FOO), -1);  // no such device
  kernel().make_fifo(FOO_FILE);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), -1);
  kernel().remove(FOO_FILE);
  kernel().make_link(FOO_FILE, "/tmp/victim");
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), -1);
  EXPECT_FALSE(kernel().exists("/tmp/victim"));
  EXPECT_EQ(kernel().descriptors(), before);
}

// One descriptor may stay open without an entry: when it cannot be told which file it is of, its
// lock is worth more than the number.
TEST_F(TovPidfile, EveryCallMayFailAndCostsOneDescriptorAtTheMost) {
  const int calls_before = kernel().calls();
  ASSERT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const int calls = kernel().calls() - calls_before;
  ASSERT_EQ(tov_db_destroy(record_of(0, 812, FOO)), 0);
  ASSERT_GE(calls, 5);
  for (int nth = 1; nth <= calls; nth++) {
    const size_t open_before = kernel().descriptors();
    kernel().fail_any(nth, EIO);
    const int result = tov_db_create(0, 812, RESPAWN, FOO);
    const bool own = tov_db_is_own(0, 812, FOO);
    (void)tov_db_destroy(record_of(0, 812, FOO));
    EXPECT_EQ(kernel().descriptors(), open_before + (result == 0 && !own ? 1 : 0)) << nth;
  }
}

TEST_F(TovPidfile, OverlongCommandLineIsCut) {
  const std::string cmdline = "/bin/x " + std::string(6000, 'a');
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, cmdline.c_str()), 0);
  EXPECT_EQ(kernel().text_of("/tmp/vsd/0/tov/db/x.812"), "812\n2\n" + cmdline.substr(0, 4095));
}

// ---- requests and members ------------------------------------------------------------------

TEST_F(TovPidfile, RequestChoosesTheAction) {
  tov_msg_xtach_t request = request_of(0, FOO);
  const struct {
    int type;
    const char *text;
  } cases[] = {{TOV_RESTART, "812\n2\n/usr/sbin/foo -d"},
               {TOV_SHELL_RESTART, "812\n3\n/usr/sbin/foo -d"},
               {TOV_MSG_ACK, "812\n3\n/usr/sbin/foo -d"}};
  for (const auto &c : cases) {
    EXPECT_EQ(tov_mk_pidfile(&request, c.type), 0);
    EXPECT_EQ(kernel().text_of(FOO_FILE), c.text);
  }
}

TEST_F(TovPidfile, RequestWithAFullPathnameIsReadToItsEnd) {
  tov_msg_xtach_t request = request_of(0, "");
  memset(request.pathname, 'a', sizeof request.pathname);  // no terminator
  memcpy(request.pathname, "/x ", 3);
  request.grp[0] = 'G';
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), 0);
  EXPECT_EQ(kernel().text_of("/tmp/vsd/0/tov/db/x.812"), "812\n2\n/x " + std::string(253, 'a'));
}

TEST_F(TovPidfile, MemberFileOnlyForProcessesOfADevice) {
  tov_msg_xtach_t request = request_of(0, FOO);
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), 0);
  EXPECT_FALSE(kernel().exists("/tmp/vsd/0/tov/812"));
  request.vsd_id = 3;
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), 0);
  EXPECT_EQ(kernel().text_of("/tmp/vsd/3/tov/812"), "");
  EXPECT_EQ(kernel().mode_of("/tmp/vsd/3/tov/812"), 0755u);
}

TEST_F(TovPidfile, FailedFileLeavesNoMember) {
  tov_msg_xtach_t request = request_of(3, FOO);
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), -1);
  EXPECT_FALSE(kernel().exists("/tmp/vsd/3/tov/812"));
}

// ---- removing ------------------------------------------------------------------------------

TEST_F(TovPidfile, DestroyRemovesOneFileAndItsDescriptor) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const size_t count = kernel().descriptors();
  EXPECT_EQ(tov_db_create(0, 813, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_destroy(record_of(0, 813, FOO)), 0);
  EXPECT_FALSE(kernel().exists("/tmp/vsd/0/tov/db/foo.813"));
  EXPECT_EQ(kernel().descriptors(), count);
  EXPECT_EQ(holder(), kernel_s::SELF);
}

TEST_F(TovPidfile, DestroyKeepsTheErrorWhileItCloses) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const size_t count = kernel().descriptors();
  kernel().remove(FOO_FILE);
  kernel().fail(tov_test::CALL_CLOSE, 1, EIO);
  errno = 0;
  EXPECT_EQ(tov_db_destroy(record_of(0, 812, FOO)), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(kernel().descriptors(), count - 1);
}

TEST_F(TovPidfile, OldNameHasNoProgram) {
  kernel().write_file("/tmp/vsd/3/tov/db/812", "");
  EXPECT_EQ(tov_rm_pidfile(record_of(3, 812, FOO)), 0);
  EXPECT_FALSE(kernel().exists("/tmp/vsd/3/tov/db/812"));
  EXPECT_EQ(tov_rm_pidfile(record_of(3, 812, FOO)), -1);
}

TEST_F(TovPidfile, ForgottenLocksAreClosed) {
  const size_t before = kernel().descriptors();
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_create(0, 813, RESPAWN, FOO), 0);
  tov_pidfile_forget_locks();
  EXPECT_EQ(kernel().descriptors(), before);
  EXPECT_FALSE(tov_db_is_own(0, 812, FOO));
}
