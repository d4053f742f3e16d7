// Creating a device and placing programs in one, with the machine's run-parts and real scripts.
#include "tov_vsd_create.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "children.h"
#include "tov_utils.h"
#include "tov_vsd.h"
#include "unit_files.h"
#include "unit_private_root.h"
#include "unit_vsd.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::group_of;
using tov_test::Member;
using tov_test::Millis;
using tov_test::mode_of;
using tov_test::names_in;
using tov_test::Outcome;
using tov_test::outcome_of;
using tov_test::read_file;
using tov_test::wait_until;
using tov_test::write_file;

// Of the devices that the platform knows, one whose group hardly anybody uses.
static constexpr int VSD = 14;
static const std::string N = std::to_string(VSD);
static const std::string MEMBERS = "/tmp/vsd/" + N + "/tov";
static const std::string SCRIPTS = "/etc/rc.d/rc.vsd/";
static const std::string REPORT = "/data/report";

// Appends what a program is started with to the report, which appears whole.
static const std::string TELL =
    "#!/bin/sh\n"
    "{ echo \"words=$0 $*\"; echo \"cwd=$(pwd -P)\"; echo \"pid=$$\"\n"
    "  grep ^Groups: /proc/$$/status; env | grep -E '^(QX|DATA|TMPDIR)'; echo umask=$(umask); } "
    "> /data/report.new; mv /data/report.new /data/report\n";

static void write_script(const std::string &path, const std::string &text) {
  fs::create_directories(fs::path(path).parent_path());
  write_file(path, text);
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

// Lines of the report by what stands before the first "=" or ":".
static std::map<std::string, std::string> report() {
  std::map<std::string, std::string> told;
  std::istringstream lines(read_file(REPORT));
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find_first_of("=:");
    std::string value = line.substr(at + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(' ') + 1);
    told[line.substr(0, at)] = value;
  }
  return told;
}

static bool report_comes() {
  return wait_until([] { return fs::exists(REPORT); }, Millis(5'000));
}

class TovVsdCreate : public testing::Test {
 protected:
  void SetUp() override {
    tov_test::adopt_orphans();
    for (const char *name : {"QX_CFG_DIR", "QXOS_DIR", "DATA_QXOS_DIR", "DATA_QXOS_DIR2", "TMPDIR"})
      unsetenv(name);
    fs::create_directories(SCRIPTS);
    ASSERT_EQ(chdir("/etc"), 0);
  }
  void TearDown() override {
    ASSERT_EQ(chdir("/"), 0);
    for (const std::string &path :
         {std::string("/tmp/vsd"), std::string("/etc/vsd"), std::string("/data/var"),
          std::string("/data/.qxos"), std::string("/data2"), std::string("/qx_cfg"),
          std::string("/qxos"), SCRIPTS, REPORT, std::string("/etc/cmdmap")})
      fs::remove_all(path);
    fs::create_directories("/etc/cmdmap");
  }
};

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
  write_file(path, std::string(text.size(), 'x') + "tail");
  outcome_of([] { return create_vsd(VSD); });
  EXPECT_THAT(read_file(path), testing::EndsWith("\ntail"));
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

TEST_F(TovVsdCreate, MembersAreRecordedAndNobodyElse) {
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

TEST_F(TovVsdCreate, RecordingForDeviceZeroRecordsNobody) {
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

// ---- placement ------------------------------------------------------------------------------

static Outcome place(std::string name, int vsd) {
  return outcome_of([&] { return create_proc_to_vsd(name.data(), vsd); });
}

class TovVsdPlace : public TovVsdCreate {
 protected:
  void SetUp() override {
    TovVsdCreate::SetUp();
    fs::create_directories(MEMBERS);
  }
  void TearDown() override {
    for (const char *name : {"/sbin/tov_placed", "/sbin/tov_placed.sh"})
      fs::remove(name);
    TovVsdCreate::TearDown();
  }
};

TEST_F(TovVsdPlace, NumbersOutOfRangeAreRefused) {
  for (int vsd : {-1, 17, INT_MAX, INT_MIN}) {
    const auto outcome = place("tov_placed", vsd);
    EXPECT_THAT(outcome.results, ElementsAre(-EINVAL));
    EXPECT_THAT(outcome.output,
                HasSubstr("]create_proc_to_vsd: vsd_no: " + std::to_string(vsd) + " error\n"));
  }
}

TEST_F(TovVsdPlace, ProgramStartsInsideTheDevice) {
  write_script("/sbin/tov_placed", TELL);
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(0)) << "the child ends";
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: parent proc: "));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: Setgroups success\n"));
  ASSERT_TRUE(report_comes());
  auto told = report();
  EXPECT_EQ(told["words"], "/sbin/tov_placed");
  EXPECT_EQ(told["cwd"], "/data/var/run/vsd/" + N);
  EXPECT_EQ(told["Groups"], std::to_string(group_of(VSD)));
  EXPECT_EQ(told["QX_CFG_DIR"], "/qx_cfg/vsd/" + N);
  EXPECT_EQ(told["TMPDIR"], "/tmp/vsd/" + N);
  EXPECT_EQ(mode_of(MEMBERS + "/" + told["pid"]), 0754U);
  EXPECT_THAT(names_in(MEMBERS), ElementsAre(told["pid"])) << "no registration directory is made";
}

TEST_F(TovVsdPlace, JoiningMakesNothingInTheSecondDataTree) {
  fs::create_directory("/data2");
  write_script("/sbin/tov_placed", TELL);
  place("tov_placed", VSD);
  ASSERT_TRUE(report_comes());
  EXPECT_THAT(names_in("/data2"), IsEmpty());
}

TEST_F(TovVsdPlace, ScriptGoesBeforeTheProgram) {
  write_script("/sbin/tov_placed", "#!/bin/sh\necho wrong > /data/report\n");
  write_script("/etc/cmdmap/tov_placed.sh", TELL);
  place("tov_placed", VSD);
  ASSERT_TRUE(report_comes());
  EXPECT_EQ(report()["words"], "/etc/cmdmap/tov_placed.sh start");
  EXPECT_THAT(names_in(MEMBERS), ElementsAre(report()["pid"]));
}

TEST_F(TovVsdPlace, BaseSystemGivesNothing) {
  write_script("/sbin/tov_placed", TELL);
  fs::create_directories("/tmp/vsd/0/tov");
  EXPECT_THAT(place("tov_placed", 0).results, ElementsAre(0));
  ASSERT_TRUE(report_comes());
  auto told = report();
  EXPECT_EQ(told["cwd"], "/etc") << "the caller's";
  EXPECT_FALSE(told.contains("QX_CFG_DIR"));
  EXPECT_FALSE(told.contains("TMPDIR"));
  EXPECT_NE(told["Groups"], "3000");
  EXPECT_THAT(names_in("/tmp/vsd/0/tov"), IsEmpty());
}

TEST_F(TovVsdPlace, UnknownProgram) {
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: /sbin/tov_placed is not exist.\n"));
  EXPECT_THAT(names_in(MEMBERS), IsEmpty());
}

TEST_F(TovVsdPlace, NamesThatAreNoPlainNames) {
  write_script("/sbin/tov_placed", TELL);
  for (const std::string &name :
       {std::string("../sbin/tov_placed"), std::string("/sbin/tov_placed"),
        std::string("tov_place"), std::string(""), std::string("%s%n"), std::string(5000, 'x')}) {
    const auto outcome = place(name, VSD);
    EXPECT_THAT(outcome.results, ElementsAre(0)) << name;
    EXPECT_THAT(outcome.output,
                HasSubstr("]create_proc_to_vsd: /sbin/" + name + " is not exist.\n"));
  }
  EXPECT_FALSE(fs::exists(REPORT));
}

TEST_F(TovVsdPlace, ProgramThatCannotRunIsStillRecorded) {
  write_file("/sbin/tov_placed", "no program");
  ASSERT_EQ(chmod("/sbin/tov_placed", 0644), 0);
  EXPECT_THAT(place("tov_placed", VSD).results, ElementsAre(0));
  EXPECT_EQ(names_in(MEMBERS).size(), 1U);
}

TEST_F(TovVsdPlace, ChildReturnsWhenItCannotEnter) {
  write_script("/sbin/tov_placed", TELL);
  fs::create_directories("/data/var/run/vsd");
  write_file("/data/var/run/vsd/" + N, "in the way");
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(-ENOTDIR, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create_proc_to_vsd: chdir fail: Not a directory\n"));
  EXPECT_FALSE(fs::exists(REPORT));
}

TEST_F(TovVsdPlace, ChildReturnsWhenTheMemberCannotBeRecorded) {
  write_script("/sbin/tov_placed", TELL);
  fs::remove_all(MEMBERS);
  write_file(MEMBERS, "in the way");
  const auto outcome = place("tov_placed", VSD);
  EXPECT_THAT(outcome.results, ElementsAre(-ENOTDIR, 0));
  EXPECT_TRUE(report_comes()) << "the program runs all the same";
}

// ---- questions ------------------------------------------------------------------------------

TEST_F(TovVsdPlace, ScriptsAndProgramsAreLookedForByTheirExactNames) {
  char name[] = "tov_placed";
  EXPECT_EQ(check_shell(name), 0);
  EXPECT_EQ(check_sbin(name), 0);
  write_file("/etc/cmdmap/tov_placed", "");
  write_file("/sbin/tov_placed.sh", "");
  EXPECT_EQ(check_shell(name), 0);
  EXPECT_EQ(check_sbin(name), 0);
  write_file("/etc/cmdmap/tov_placed.sh", "");
  write_file("/sbin/tov_placed", "");
  EXPECT_EQ(check_shell(name), 1);
  EXPECT_EQ(check_sbin(name), 1);
  // One byte longer than a path can be; cut, it would name the script again.
  std::string endless = std::string(5000, '/') + "tov_placed";
  EXPECT_EQ(check_shell(endless.data()), 0);
}

TEST_F(TovVsdPlace, ProgramDirectoryUnreadable) {
  const auto outcome = outcome_of([] {
    const rlimit none{0, 0};
    char name[] = "tov_placed";
    return setrlimit(RLIMIT_NOFILE, &none) == 0 ? check_sbin(name) : 0;
  });
  EXPECT_THAT(outcome.results, ElementsAre(-EMFILE));
}
