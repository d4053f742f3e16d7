// Registration files, the writing side: names, content, locks, the table of kept descriptors, and
// what may stand in the place of a file.
#include "client/tov_pidfile.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/refused_calls.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

using testing::ElementsAre;
using tov_test::names_in;

namespace {

constexpr char FOO[] = "/usr/sbin/foo -d";
constexpr char FOO_FILE[] = "/tmp/vsd/0/tov/db/foo.812";

// Read by another process: a look of our own would drop the lock when it closes the file.
std::string content_of(const std::string &path) {
  std::string text;
  FILE *reader = popen(("cat " + path).c_str(), "re");
  for (int c = getc(reader); c != EOF; c = getc(reader))
    text += static_cast<char>(c);
  pclose(reader);
  return text;
}

// Whether another process could lock the file now, that is, its writer is gone.
bool others_can_lock(const char *path) {
  return tov_test::status_in_child([path] {
           const int fd = open(path, O_RDWR | O_CLOEXEC);
           struct flock whole {};
           whole.l_type = F_WRLCK;
           whole.l_whence = SEEK_SET;
           return fd >= 0 && fcntl(fd, F_SETLK, &whole) == 0 ? 0 : 1;
         }) == 0;
}

int descriptor_count() {
  int count = 0;
  for (int fd = 0; fd < 1024; fd++)
    count += fcntl(fd, F_GETFD) >= 0;
  return count;
}

// Those that an exec would hand on.
int inherited_descriptor_count() {
  int count = 0;
  for (int fd = 0; fd < 1024; fd++) {
    const int flags = fcntl(fd, F_GETFD);
    count += flags >= 0 && (flags & FD_CLOEXEC) == 0;
  }
  return count;
}

tov_pid_t *record_of(int vsd_id, int pid, const char *process) {
  static tov_pid_t record;
  record = {};
  record.vsd_id = vsd_id;
  record.pid = pid;
  snprintf(record.process, sizeof record.process, "%s", process);
  return &record;
}

class TovPidfile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("rm -rf /tmp/vsd && mkdir -p /tmp/vsd/0/tov/db /tmp/vsd/3/tov/db"), 0);
  }
  // Locks of one test must not reach into the next one.
  void TearDown() override { tov_pidfile_forget_locks(); }
};

}  // namespace

// ---- writing -------------------------------------------------------------------------------

TEST_F(TovPidfile, FileHoldsIdActionAndCommandLine) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, ModeIsForEverybodyLessTheUmask) {
  const mode_t old = umask(027);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat(FOO_FILE, &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0750u);
}

TEST_F(TovPidfile, DescriptorIsKeptAndCloseOnExec) {
  const int before = descriptor_count();
  const int inherited_before = inherited_descriptor_count();
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(descriptor_count(), before + 1);
  EXPECT_EQ(inherited_descriptor_count(), inherited_before);
}

TEST_F(TovPidfile, FileIsLockedForAsLongAsTheProcessLives) {
  tov_test::Child client([] { EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0); });
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  client.end();
  EXPECT_TRUE(others_can_lock(FOO_FILE));
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, SecondRegistrationRewritesUnderTheSameLock) {
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, "/usr/sbin/foo -d -with -many -words"), 0);
  const int count = descriptor_count();
  for (int i = 0; i < 100; i++)
    EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(descriptor_count(), count);
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
}

// A second descriptor would drop the lock when it, or the first one, is closed. The owner that is
// set here belongs to the open file and tells whether it still is the same one.
TEST_F(TovPidfile, FileIsRewrittenThroughTheFirstDescriptor) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  int kept = -1;
  for (int fd = 3; fd < 1024 && kept < 0; fd++) {
    char path[256] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), path, sizeof path - 1) > 0 && strstr(path, "foo.812") != nullptr)
      kept = fd;
  }
  ASSERT_GE(kept, 0);
  ASSERT_EQ(fcntl(kept, F_SETOWN, getpid()), 0);
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0);
  EXPECT_EQ(fcntl(kept, F_GETOWN), getpid());
  EXPECT_EQ(content_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, ReplacedFileIsLockedAnew) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const int count = descriptor_count();
  ASSERT_EQ(rename(FOO_FILE, "/tmp/vsd/0/tov/db/old"), 0);
  std::ofstream(FOO_FILE) << "somebody else's";
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0);
  EXPECT_EQ(descriptor_count(), count);
  EXPECT_EQ(content_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
  EXPECT_EQ(content_of("/tmp/vsd/0/tov/db/old"), "812\n2\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_TRUE(others_can_lock("/tmp/vsd/0/tov/db/old"));
}

TEST_F(TovPidfile, RemovedFileIsMadeAnew) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const int count = descriptor_count();
  ASSERT_EQ(unlink(FOO_FILE), 0);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(descriptor_count(), count);
  EXPECT_FALSE(others_can_lock(FOO_FILE));
}

TEST_F(TovPidfile, FileThatAnotherProcessHoldsIsRewrittenAndReleased) {
  tov_test::Child owner([] { tov_db_create(0, 812, RESPAWN, FOO); });
  const int before = descriptor_count();
  int result = -1;
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { result = tov_db_create(0, 812, SHELL_RESTART, FOO); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(descriptor_count(), before);
  EXPECT_EQ(content_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_NE(said.find(std::string("]tov_db_create: file ") + FOO_FILE +
                      " fd < 0: Resource temporarily unavailable\n"),
            std::string::npos)
      << said;
}

TEST_F(TovPidfile, DiagnosticNamesDeviceCommandLineAndFile) {
  const std::string said =
      tov_test::caught_diagnostics(TOV_MODULE_PUB, [] { tov_db_create(0, 812, RESPAWN, FOO); });
  EXPECT_NE(
      said.find("]tov_db_create vsd:0 path:/usr/sbin/foo -d file:/tmp/vsd/0/tov/db/foo.812\n"),
      std::string::npos)
      << said;
}

TEST_F(TovPidfile, MissingDirectoryFailsTheRegistration) {
  int result = 0;
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { result = tov_db_create(9, 812, RESPAWN, FOO); });
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("]tov_db_create: fd < 0: No such file or directory\n"), std::string::npos)
      << said;
}

TEST_F(TovPidfile, PlantedFilesOfOtherKindsAreRefused) {
  std::ofstream("/tmp/victim") << "precious";
  const int before = descriptor_count();
  const struct {
    const char *how;
    const char *command;
  } plants[] = {
      {"symbolic link", "ln -s /tmp/victim /tmp/vsd/0/tov/db/foo.812"},
      {"dangling link", "ln -s /tmp/nobody /tmp/vsd/0/tov/db/foo.812"},
      {"FIFO", "mkfifo /tmp/vsd/0/tov/db/foo.812"},
      {"directory", "mkdir /tmp/vsd/0/tov/db/foo.812"},
      {"device", "mknod /tmp/vsd/0/tov/db/foo.812 c 1 3"},
  };
  for (const auto &plant : plants) {
    ASSERT_EQ(system(plant.command), 0);
    EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), -1) << plant.how;
    ASSERT_EQ(system("rm -rf /tmp/vsd/0/tov/db/foo.812"), 0);
  }
  EXPECT_EQ(descriptor_count(), before);
  EXPECT_EQ(content_of("/tmp/victim"), "precious");
  EXPECT_NE(access("/tmp/nobody", F_OK), 0);
}

TEST_F(TovPidfile, KeptFileReplacedByALinkIsRefused) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const int count = descriptor_count();
  ASSERT_EQ(rename(FOO_FILE, "/tmp/victim"), 0);
  ASSERT_EQ(symlink("/tmp/victim", FOO_FILE), 0);
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), -1);
  EXPECT_EQ(descriptor_count(), count - 1);  // the old lock protects nothing any more
  EXPECT_EQ(content_of("/tmp/victim"), "812\n2\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, UnwritableFileStillRegisters) {
  tov_test::in_child([] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing{0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
    EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  });
  EXPECT_EQ(content_of(FOO_FILE), "");
}

// ---- requests and members ------------------------------------------------------------------

TEST_F(TovPidfile, MemberFileOnlyForProcessesOfADevice) {
  tov_msg_xtach_t request{};
  request.pid = 812;
  snprintf(request.pathname, sizeof request.pathname, "%s", FOO);
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), 0);
  EXPECT_NE(access("/tmp/vsd/0/tov/812", F_OK), 0);

  request.vsd_id = 3;
  const int count = descriptor_count();
  EXPECT_EQ(tov_mk_pidfile(&request, TOV_RESTART), 0);
  EXPECT_EQ(descriptor_count(), count + 1);  // the registration file's, not the member file's
  struct stat status {};
  ASSERT_EQ(stat("/tmp/vsd/3/tov/812", &status), 0);
  EXPECT_EQ(status.st_size, 0);
  EXPECT_EQ(status.st_mode & 07777u, 0755u);
  EXPECT_EQ(content_of("/tmp/vsd/3/tov/db/foo.812"), "812\n2\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, FailedFileLeavesNoMemberAndIsReported) {
  tov_msg_xtach_t request{};
  request.pid = 812;
  request.vsd_id = 3;
  snprintf(request.pathname, sizeof request.pathname, "%s", FOO);
  ASSERT_EQ(rmdir("/tmp/vsd/3/tov/db"), 0);
  int result = 0;
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { result = tov_mk_pidfile(&request, TOV_RESTART); });
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("]tov_mk_pidfile: tov create db failed! (ret=-1)\r\n"), std::string::npos)
      << said;
  EXPECT_NE(access("/tmp/vsd/3/tov/812", F_OK), 0);
}

TEST_F(TovPidfile, MemberFileErrorsAreIgnored) {
  save_vsd_flag(9, 812);  // no such device
  ASSERT_EQ(symlink("/tmp/nobody", "/tmp/vsd/3/tov/812"), 0);
  save_vsd_flag(3, 812);
  EXPECT_NE(access("/tmp/nobody", F_OK), 0);
  ASSERT_EQ(mkfifo("/tmp/vsd/3/tov/813", 0644), 0);
  save_vsd_flag(3, 813);
}

// ---- removing ------------------------------------------------------------------------------

TEST_F(TovPidfile, DestroyRemovesTheFileAndClosesOurDescriptor) {
  const int before = descriptor_count();
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_create(0, 813, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_create(0, 814, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_destroy(record_of(0, 813, FOO)), 0);
  EXPECT_EQ(descriptor_count(), before + 2);
  EXPECT_NE(access("/tmp/vsd/0/tov/db/foo.813", F_OK), 0);
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_FALSE(others_can_lock("/tmp/vsd/0/tov/db/foo.814"));
  EXPECT_EQ(tov_db_destroy(record_of(0, 812, FOO)), 0);
  EXPECT_EQ(tov_db_destroy(record_of(0, 814, FOO)), 0);
  EXPECT_EQ(descriptor_count(), before);
}

TEST_F(TovPidfile, DestroyRemovesAnotherProcessesFile) {
  tov_test::Child client([] { tov_db_create(0, 812, RESPAWN, FOO); });
  EXPECT_EQ(tov_db_destroy(record_of(0, 812, FOO)), 0);
  EXPECT_NE(access(FOO_FILE, F_OK), 0);
}

TEST_F(TovPidfile, DestroyReadsAFullProcessFieldToItsEnd) {
  tov_pid_t *record = record_of(0, 812, "");
  memset(record->process, 'a', sizeof record->process);  // no terminator
  memcpy(record->process, "/usr/sbin/foo ", 14);
  memset(record->grp, 'G', sizeof record->grp);
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_destroy(record), 0);
}

// ---- on behalf of a task ----------------------------------------------------------------------

TEST_F(TovPidfile, KeptFileIsWrittenWithoutLockAndDescriptor) {
  const int before = descriptor_count();
  tov_pid_t *record = record_of(0, 812, FOO);
  record->action = SHELL_RESTART;
  EXPECT_EQ(tov_db_keep(record), 0);
  EXPECT_EQ(content_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
  EXPECT_EQ(descriptor_count(), before);
  EXPECT_TRUE(others_can_lock(FOO_FILE));
  EXPECT_FALSE(tov_db_is_own(0, 812, FOO));
}

TEST_F(TovPidfile, KeptFileHasTheModeOfAnyOther) {
  const mode_t old = umask(027);
  EXPECT_EQ(tov_db_keep(record_of(3, 812, FOO)), 0);
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat("/tmp/vsd/3/tov/db/foo.812", &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0750u);
}

TEST_F(TovPidfile, FileThatIsThereIsKeptAsItIs) {
  tov_test::Child client([] { EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0); });
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(FOO_FILE, &before), 0);
  tov_pid_t *record = record_of(0, 812, "/usr/sbin/foo -other");
  record->action = SHELL_RESTART;
  EXPECT_EQ(tov_db_keep(record), 0);
  ASSERT_EQ(stat(FOO_FILE, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
}

// Closing another descriptor of it would give the lock up.
TEST_F(TovPidfile, OwnRegistrationKeepsItsLock) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_keep(record_of(0, 812, FOO)), 0);
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_TRUE(tov_db_is_own(0, 812, FOO));
}

TEST_F(TovPidfile, RegistrationReplacesAKeptFile) {
  tov_pid_t *record = record_of(0, 812, "/usr/sbin/foo -d -with -many -words");
  record->action = SHELL_RESTART;
  EXPECT_EQ(tov_db_keep(record), 0);
  tov_test::Child client([] { EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0); });
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_EQ(tov_db_destroy(record), 0);
  EXPECT_NE(access(FOO_FILE, F_OK), 0);
}

TEST_F(TovPidfile, KeptFileWithoutItsDirectoryFails) {
  EXPECT_EQ(tov_db_keep(record_of(9, 812, FOO)), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(access("/tmp/vsd/9", F_OK), 0);
}

TEST_F(TovPidfile, KeptFileWithoutDescriptorsFails) {
  const tov_test::NoMoreDescriptors none;
  EXPECT_EQ(tov_db_keep(record_of(0, 812, FOO)), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(TovPidfile, NothingIsKeptThroughWhatIsPlanted) {
  std::ofstream("/tmp/victim") << "precious";
  for (const char *command :
       {"ln -s /tmp/victim ", "ln -s /tmp/nobody ", "mkfifo ", "mkdir ", "ln /tmp/victim "}) {
    ASSERT_EQ(system((std::string(command) + FOO_FILE).c_str()), 0);
    (void)tov_db_keep(record_of(0, 812, FOO));
    ASSERT_EQ(system((std::string("rm -r ") + FOO_FILE).c_str()), 0);
  }
  EXPECT_EQ(content_of("/tmp/victim"), "precious");
  EXPECT_NE(access("/tmp/nobody", F_OK), 0);
}

namespace {

constexpr char DIRECTORY[] = "/tmp/vsd/0/tov/db";

// A file system of its own for the registrations, with room for so many pages.
class SmallDirectory {
 public:
  explicit SmallDirectory(int pages) {
    const std::string size = "size=" + std::to_string(pages * 4) + "k";
    EXPECT_EQ(mount("none", DIRECTORY, "tmpfs", 0, size.c_str()), 0);
  }
  SmallDirectory(const SmallDirectory &) = delete;
  SmallDirectory &operator=(const SmallDirectory &) = delete;
  ~SmallDirectory() { EXPECT_EQ(umount(DIRECTORY), 0); }
};

void fill(int pages) {
  std::ofstream(std::string(DIRECTORY) + "/filler")
      << std::string(static_cast<size_t>(pages) * 4096, 'x');
}

}  // namespace

TEST_F(TovPidfile, NothingIsKeptOnAFullFileSystem) {
  const SmallDirectory small(1);
  fill(1);
  EXPECT_EQ(tov_db_keep(record_of(0, 812, FOO)), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("filler"));
}

// ---- handed over ------------------------------------------------------------------------------

TEST_F(TovPidfile, HandedOverFileHasTheNewNameAndId) {
  tov_pid_t *record = record_of(0, 812, FOO);
  record->action = SHELL_RESTART;
  ASSERT_EQ(tov_db_keep(record), 0);
  EXPECT_EQ(tov_db_hand_over(record, 90), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
  EXPECT_EQ(content_of("/tmp/vsd/0/tov/db/foo.90"), "90\n3\n/usr/sbin/foo -d");
  EXPECT_TRUE(others_can_lock("/tmp/vsd/0/tov/db/foo.90"));
}

TEST_F(TovPidfile, FileIsHandedOverWhereThereWasNone) {
  EXPECT_EQ(tov_db_hand_over(record_of(0, 812, FOO), 90), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
}

TEST_F(TovPidfile, RegistrationOfTheNewProcessStaysAndTheOldFileGoes) {
  tov_pid_t *record = record_of(0, 812, FOO);
  ASSERT_EQ(tov_db_keep(record), 0);
  tov_test::Child client([] { EXPECT_EQ(tov_db_create(0, 90, RESPAWN, "/sbin/foo -own"), 0); });
  EXPECT_EQ(tov_db_hand_over(record, 90), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
  EXPECT_EQ(content_of("/tmp/vsd/0/tov/db/foo.90"), "90\n2\n/sbin/foo -own");
  EXPECT_FALSE(others_can_lock("/tmp/vsd/0/tov/db/foo.90"));
}

TEST_F(TovPidfile, OwnRegistrationIsNotHeldAfterItWasHandedOver) {
  const int before = descriptor_count();
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  EXPECT_EQ(tov_db_hand_over(record_of(0, 812, FOO), 90), 0);
  EXPECT_EQ(descriptor_count(), before);
  EXPECT_FALSE(tov_db_is_own(0, 812, FOO));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
}

// A second file has no room there.
TEST_F(TovPidfile, OnAFullFileSystemTheFileIsHandedOverInItsPlace) {
  const SmallDirectory small(2);
  ASSERT_EQ(tov_db_keep(record_of(0, 812, FOO)), 0);
  fill(1);
  EXPECT_EQ(tov_db_hand_over(record_of(0, 812, FOO), 90), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("filler", "foo.90"));
  EXPECT_EQ(content_of("/tmp/vsd/0/tov/db/foo.90"), "90\n0\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, WhereThereIsNoneAndNoRoomNothingIsHandedOver) {
  const SmallDirectory small(1);
  fill(1);
  EXPECT_EQ(tov_db_hand_over(record_of(0, 812, FOO), 90), -1);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("filler"));
}

// A directory with something in it, under the name that a file has until it is whole.
TEST_F(TovPidfile, NamesThatAreTakenAreDoneWithout) {
  for (const char *kind : {".claim.kept.", ".claim.new."})
    ASSERT_TRUE(std::filesystem::create_directories(DIRECTORY + (std::string("/") + kind) +
                                                    std::to_string(getpid()) + "/x"));
  tov_pid_t *record = record_of(0, 812, FOO);
  EXPECT_EQ(tov_db_keep(record), 0);
  EXPECT_EQ(content_of(FOO_FILE), "812\n0\n/usr/sbin/foo -d");
  EXPECT_EQ(tov_db_hand_over(record, 90), 0);
  EXPECT_NE(access(FOO_FILE, F_OK), 0);
  EXPECT_EQ(content_of("/tmp/vsd/0/tov/db/foo.90"), "90\n0\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, HandedOverToTheSameIdTheFileStays) {
  tov_pid_t *record = record_of(0, 812, FOO);
  ASSERT_EQ(tov_db_keep(record), 0);
  record->action = SHELL_RESTART;
  EXPECT_EQ(tov_db_hand_over(record, 812), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.812"));
  EXPECT_EQ(content_of(FOO_FILE), "812\n3\n/usr/sbin/foo -d");
}

TEST_F(TovPidfile, NothingIsHandedOverThroughWhatIsPlanted) {
  std::ofstream("/tmp/victim") << "precious";
  const std::string interim = DIRECTORY + ("/.claim.new." + std::to_string(getpid()));
  for (const std::string &place : {interim, std::string(FOO_FILE)}) {
    for (const char *command :
         {"ln -s /tmp/victim ", "ln -s /tmp/nobody ", "mkfifo ", "mkdir ", "ln /tmp/victim "}) {
      ASSERT_EQ(system((command + place).c_str()), 0);
      (void)tov_db_hand_over(record_of(0, 812, FOO), 90);
      ASSERT_EQ(system((std::string("rm -rf ") + DIRECTORY + "/* " + interim).c_str()), 0);
    }
  }
  EXPECT_EQ(content_of("/tmp/victim"), "precious");
  EXPECT_NE(access("/tmp/nobody", F_OK), 0);
}

TEST_F(TovPidfile, FileUnderTheNameOfTheOldProcessIsSettled) {
  std::ofstream(FOO_FILE) << "90\n2\n/usr/sbin/foo -d";
  EXPECT_TRUE(tov_db_settle(record_of(0, 90, FOO), FOO_FILE));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
  EXPECT_TRUE(tov_db_settle(record_of(0, 90, FOO), "/tmp/vsd/0/tov/db/foo.90"));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
}

TEST_F(TovPidfile, SettledBesideARegistrationItGoes) {
  std::ofstream(FOO_FILE) << "90\n2\n/usr/sbin/foo -d";
  tov_test::Child client([] { EXPECT_EQ(tov_db_create(0, 90, RESPAWN, FOO), 0); });
  EXPECT_FALSE(tov_db_settle(record_of(0, 90, FOO), FOO_FILE));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo.90"));
  EXPECT_FALSE(others_can_lock("/tmp/vsd/0/tov/db/foo.90"));
}

TEST_F(TovPidfile, FilesOfOtherNamesAreNotSettled) {
  for (const char *name : {"bar.812", "foo", "812"}) {
    const std::string path = DIRECTORY + std::string("/") + name;
    std::ofstream(path.c_str()) << "90\n2\n/usr/sbin/foo -d";
    EXPECT_TRUE(tov_db_settle(record_of(0, 90, FOO), path.c_str())) << name;
  }
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("812", "bar.812", "foo"));
}

// ---- fork and threads ----------------------------------------------------------------------

TEST_F(TovPidfile, ForkedChildForgetsAndTheParentsLockStays) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
  const int count = descriptor_count();
  tov_test::in_child([count] {
    tov_pidfile_forget_locks();
    EXPECT_EQ(descriptor_count(), count - 1);
    // The parent lives, so the child's own registration of that file is refused the lock.
    EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);
    EXPECT_EQ(descriptor_count(), count - 1);
    EXPECT_EQ(tov_db_create(0, 900, RESPAWN, FOO), 0);
    EXPECT_EQ(descriptor_count(), count);
  });
  EXPECT_FALSE(others_can_lock(FOO_FILE));
  EXPECT_TRUE(others_can_lock("/tmp/vsd/0/tov/db/foo.900"));
}

TEST_F(TovPidfile, ThreadsRegisterSideBySide) {
  constexpr int THREADS = 4;
  constexpr int ROUNDS = 50;
  const int before = descriptor_count();
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int t = 0; t < THREADS; t++)
    threads.emplace_back([t] {
      tov_pid_t own{};
      own.pid = 1000 + t;
      snprintf(own.process, sizeof own.process, "%s", FOO);
      for (int i = 0; i < ROUNDS; i++) {
        EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), 0);  // all of them the same one
        EXPECT_EQ(tov_db_create(0, own.pid, SHELL_RESTART, FOO), 0);
        EXPECT_EQ(tov_db_destroy(&own), 0);
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(descriptor_count(), before + 1);
  EXPECT_EQ(content_of(FOO_FILE), "812\n2\n/usr/sbin/foo -d");
  EXPECT_FALSE(others_can_lock(FOO_FILE));
}

TEST_F(TovPidfile, WithoutDescriptorsTheRegistrationFails) {
  const tov_test::NoMoreDescriptors none;
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, FOO), -1);
}
