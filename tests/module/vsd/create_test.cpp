// Creating a device, with the machine's run-parts and real scripts.
#include "vsd/create.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/module/vsd.h"
#include "tests/module/vsd_device.h"
#include "tests/support/files.h"
#include "util/tov_utils.h"

namespace fs = std::filesystem;

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TovVsdCreate : public VsdDeviceTest {};

// ---- creation -------------------------------------------------------------------------------

TEST_F(TovVsdCreate, ScriptsRunInsideTheDevice) {
  write_script(SCRIPTS + "10tell", TELL);
  const auto outcome = outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(outcome.results, ElementsAre(0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: parent proc: "));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: Setgroups success\n"));
  auto told = report();
  EXPECT_EQ(told["words"], SCRIPTS + "/10tell vsd") << "run-parts adds a slash";
  EXPECT_EQ(told["cwd"], "/data/var/run/vsd/" + N);
  EXPECT_EQ(told["Groups"], std::to_string(group_of(VSD)));
  EXPECT_EQ(told["QX_CFG_DIR"], "/qx_cfg/vsd/" + N);
  EXPECT_EQ(told["QXOS_DIR"], "/qxos/vsd/" + N);
  EXPECT_EQ(told["DATA_QXOS_DIR"], "/data/.qxos/vsd/" + N);
  EXPECT_EQ(told["TMPDIR"], "/tmp/vsd/" + N);
  EXPECT_FALSE(told.contains("DATA_QXOS_DIR2"));
}

TEST_F(TovVsdCreate, EveryScriptRunsInOrderAndAFailingOneDoesNotEndIt) {
  write_script(SCRIPTS + "10first", "#!/bin/sh\necho first >> /data/order; exit 3\n");
  write_script(SCRIPTS + "20second", "#!/bin/sh\necho second >> /data/order\n");
  EXPECT_THAT(outcome_of([] { return create_vsd(VSD); }).results, ElementsAre(0));
  EXPECT_EQ(read_file("/data/order"), "first\nsecond\n");
  fs::remove("/data/order");
}

TEST_F(TovVsdCreate, DirectoriesAreOpenToEverybodyWhateverTheUmask) {
  const mode_t before = umask(077);
  outcome_of([] { return create_vsd(VSD); });
  umask(before);
  for (const char *path : {"/qx_cfg/vsd/", "/qxos/vsd/", "/data/.qxos/vsd/", "/etc/vsd/",
                           "/tmp/vsd/", "/data/var/run/vsd/"})
    EXPECT_EQ(mode_of(path + N), 0777U) << path;
  EXPECT_EQ(mode_of(MEMBERS), 0777U);
  EXPECT_EQ(mode_of(MEMBERS + "/db"), 0777U);
  EXPECT_FALSE(fs::exists("/data2"));
}

TEST_F(TovVsdCreate, SecondDataTreeIsUsedWhereThereIsOne) {
  fs::create_directory("/data2");
  write_script(SCRIPTS + "tell", TELL);
  outcome_of([] { return create_vsd(VSD); });
  EXPECT_EQ(report()["DATA_QXOS_DIR2"], "/data2/.qxos/vsd/" + N);
  EXPECT_EQ(mode_of("/data2/.qxos/vsd/" + N), 0777U);
  EXPECT_EQ(mode_of("/data2/var/run/vsd/" + N), 0777U);
}

TEST_F(TovVsdCreate, StartTimeIsTheKernelsTextOverTheOldOne) {
  outcome_of([] { return create_vsd(VSD); });
  const std::string path = "/tmp/vsd/" + N + "/starttime";
  const std::string text = read_file(path);
  EXPECT_EQ(mode_of(path), 0754U);
  EXPECT_THAT(text, testing::MatchesRegex("[0-9]+\\.[0-9]+ [0-9]+\\.[0-9]+\n"));
  const double now = std::stod(read_file("/proc/uptime"));
  EXPECT_NEAR(std::stod(text), now, 60.0);
  // Longer than any text of the kernel's, which grows with the uptime.
  write_file(path, std::string(2 * text.size(), 'x') + "tail");
  outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(read_file(path), testing::MatchesRegex("[0-9. ]+\nx+tail"));
}

TEST_F(TovVsdCreate, NodesOfTheMembersBecomeOpen) {
  write_file("/dev/lsm", "");
  write_file("/dev/mmapipc", "");
  ASSERT_EQ(chmod("/dev/lsm", 0600) | chmod("/dev/mmapipc", 0600), 0);
  outcome_of([] { return create_vsd(VSD); });
  EXPECT_EQ(mode_of("/dev/lsm"), 0777U);
  EXPECT_EQ(mode_of("/dev/mmapipc"), 0777U);
  fs::remove("/dev/lsm");
  fs::remove("/dev/mmapipc");
}

TEST_F(TovVsdCreate, WithoutScriptDirectoryTheDeviceStandsAllTheSame) {
  fs::remove_all(SCRIPTS);
  EXPECT_THAT(outcome_of([] { return create_vsd(VSD); }).results, ElementsAre(0));
  EXPECT_TRUE(fs::exists(MEMBERS + "/db"));
}

TEST_F(TovVsdCreate, CallerKeepsItsGroupsDirectoryAndEnvironment) {
  outcome_of([] {
    const int res = create_vsd(VSD);
    EXPECT_EQ(fs::current_path(), "/etc");
    return res == 0 && getenv("QX_CFG_DIR") == nullptr ? 0 : 1;
  });
}

// ---- members --------------------------------------------------------------------------------

TEST_F(TovVsdCreate, OnlyMembersAreRecorded) {
  // What a start script leaves behind belongs to the device.
  write_script(SCRIPTS + "daemon",
               "#!/bin/sh\nsleep 1000 > /dev/null 2>&1 &\necho $! > /data/pid\n");
  Member other({group_of(VSD) + 100});
  Member none({});
  Member second({5, group_of(VSD)});  // the kernel sorts groups: this one's first is 5
  outcome_of([] { return create_vsd(VSD); });
  const std::string pid = read_file("/data/pid").substr(0, read_file("/data/pid").find('\n'));
  const std::string file = MEMBERS + "/" + pid;
  EXPECT_EQ(mode_of(file), 0754U);
  EXPECT_TRUE(fs::is_empty(file));
  for (const Member *stranger : {&other, &none, &second})
    EXPECT_FALSE(fs::exists(MEMBERS + "/" + stranger->name()));
  EXPECT_FALSE(fs::exists(MEMBERS + "/" + std::to_string(getpid())));
  kill(tov_atoi(pid.c_str()), SIGKILL);
  fs::remove("/data/pid");
}

TEST_F(TovVsdCreate, RecordingEndsAtTheFirstFileThatCannotBeMade) {
  Member first({group_of(VSD)}), second({group_of(VSD)});
  const auto outcome = outcome_of([] {  // there is no directory
    save_vsdinfo(VSD);
    return 0;
  });
  const std::string line = "]save_vsdinfo: open fail: No such file or directory\n";
  const size_t at = outcome.output.find(line);
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(outcome.output.find(line, at + 1), std::string::npos);
}

TEST_F(TovVsdCreate, RecordingForDeviceZeroRecordsNoProcess) {
  fs::create_directories("/tmp/vsd/0/tov");
  save_vsdinfo(0);
  EXPECT_THAT(names_in("/tmp/vsd/0/tov"), IsEmpty());
}

TEST_F(TovVsdCreate, PlantedLinkInPlaceOfAMemberFileIsNotFollowed) {
  Member member({group_of(VSD)});
  fs::create_directories(MEMBERS);
  fs::create_symlink("/etc/created_through_a_link", MEMBERS + "/" + member.name());
  save_vsdinfo(VSD);
  EXPECT_FALSE(fs::exists("/etc/created_through_a_link"));
}

// ---- failures of a creation -----------------------------------------------------------------

TEST_F(TovVsdCreate, ChildReturnsWhenThePlatformRefuses) {
  const auto outcome = outcome_of([] { return create_vsd(17); });
  EXPECT_THAT(outcome.results, ElementsAre(-EINVAL, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: fs get vsd envs fail: Invalid argument\n"));
  EXPECT_FALSE(fs::exists("/tmp/vsd/17"));
}

TEST_F(TovVsdCreate, ChildReturnsWhenTheStartTimeCannotBeWritten) {
  fs::create_directories("/tmp/vsd/" + N + "/starttime");
  const auto outcome = outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(outcome.results, ElementsAre(-EISDIR, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: open fail: Is a directory\n"));
}

TEST_F(TovVsdCreate, PlantedFifoInPlaceOfTheStartTimeDoesNotHoldIt) {
  fs::create_directories("/tmp/vsd/" + N);
  ASSERT_EQ(mkfifo(("/tmp/vsd/" + N + "/starttime").c_str(), 0666), 0);
  EXPECT_THAT(outcome_of([] { return create_vsd(VSD); }).results, ElementsAre(-EINVAL, 0));
}

TEST_F(TovVsdCreate, ChildReturnsWhenTheDiskIsFull) {
  fs::create_directories("/tmp/vsd/" + N);
  ASSERT_EQ(mount("tov", ("/tmp/vsd/" + N).c_str(), "tmpfs", 0, "size=8k"), 0);
  std::string block(16'384, 'x');
  const int fd = open(("/tmp/vsd/" + N + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  while (write(fd, block.data(), block.size()) > 0) {
  }
  close(fd);
  const auto outcome = outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(outcome.results, ElementsAre(-ENOSPC, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: write fail: No space left on device\n"));
  ASSERT_EQ(umount2(("/tmp/vsd/" + N).c_str(), MNT_DETACH), 0);
}

TEST_F(TovVsdCreate, ChildReturnsWhenThereIsNoRunDirectory) {
  fs::create_directories("/data/var/run/vsd");
  write_file("/data/var/run/vsd/" + N, "in the way");
  const auto outcome = outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(outcome.results, ElementsAre(-ENOTDIR, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_vsd: chdir fail: Not a directory\n"));
}
