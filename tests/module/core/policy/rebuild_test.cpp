// The registry after a restart of the daemon.
#include "core/policy/rebuild.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/child.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::Program;
using tov_test::TemporaryFile;
using tov_test::write_file;

namespace {

class TovRebuildChains : public tov_test::World {
 protected:
  // Writes a registration file; returns its path.
  static std::string leave(pid_t pid, int action, const std::string &command, int device = 0) {
    const std::string program = command.substr(0, command.find(' '));
    std::string path = "/tmp/vsd/" + std::to_string(device) + "/tov/db/" +
                       program.substr(program.rfind('/') + 1) + "." + std::to_string(pid);
    write_file(path, std::to_string(pid) + "\n" + std::to_string(action) + "\n" + command);
    return path;
  }
  static void rebuild() { EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0); }
};

}  // namespace

TEST_F(TovRebuildChains, NoDirectoriesMakeAnEmptyRegistry) {
  tov_test::clear_path("/tmp/vsd");
  rebuild();
  EXPECT_EQ(count(), 0);
}

TEST_F(TovRebuildChains, LivingProcessStaysUnderItsId) {
  const Program program("living");
  const pid_t pid = tov_test::start(program.path + " -a b");
  program.birth();
  const std::string file = leave(pid, SHELL_RESTART, program.path + " -a b", 4);
  const auto written = fs::last_write_time(file);
  rebuild();
  const tov_pid_t *record = find(pid);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->vsd_id, 4);
  EXPECT_EQ(record->action, SHELL_RESTART);
  EXPECT_EQ(record->process, program.path + " -a b");
  EXPECT_EQ(record->pathname, program.path + " -a b");
  EXPECT_EQ(record->alarm_wait_flag, 0);
  EXPECT_EQ(record->restart_time, 0);
  EXPECT_EQ(record->flags, 0);
  EXPECT_EQ(record->count, 0);
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(fs::last_write_time(file), written);
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovRebuildChains, DeadProcessIsStartedAgain) {
  const Program program("dead");
  const std::string file = leave(GONE, RESPAWN, program.path + " -a");
  const std::string said = diagnostics([] { rebuild(); });
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " -a");
  EXPECT_EQ(find(GONE), nullptr);
  ASSERT_NE(find(birth.pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  const std::string new_id = std::to_string(birth.pid);
  EXPECT_THAT(said, HasSubstr("]pid (5000000) is not exist\n"));
  EXPECT_THAT(said, HasSubstr("]pid (" + new_id + ") restart ret = " + new_id + "\n"));
  EXPECT_THAT(notices(), IsEmpty());  // nothing is announced
}

TEST_F(TovRebuildChains, DeadProcessIsStartedWhateverItsAction) {
  for (const int action : {int{NORMAL_EXIT}, int{IGNORE_EXIT}, 0, 9}) {
    const Program program("action" + std::to_string(action));
    leave(GONE + action, action, program.path);
    rebuild();
    const tov_pid_t *record = find(program.birth().pid);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->action, action);
  }
}

TEST_F(TovRebuildChains, ScriptTaskIsStartedByTheScriptOfItsCommandLine) {
  const Program program("scripted");
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh",
                             "exec " + program.path + " \"$@\"\n");
  leave(GONE, SHELL_RESTART, program.path + " -a");
  const std::string said = diagnostics([] { rebuild(); });
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " start");
  const std::string new_id = std::to_string(birth.pid);
  EXPECT_THAT(said, HasSubstr("]pid (" + new_id + ") shell restart ret = " + new_id + "\n"));
}

TEST_F(TovRebuildChains, LockedFileDefersTheStart) {
  const Program program("locked");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const auto holder = holder_of(file);
  rebuild();
  EXPECT_NE(find(GONE), nullptr);
  EXPECT_NE(find(GONE, tov_chains_delay), nullptr);
  EXPECT_TRUE(exists(file));
  EXPECT_THAT(program.births(), IsEmpty());
}

TEST_F(TovRebuildChains, SixteenDevicesFromZeroOn) {
  const Program program("devices");
  const pid_t pid = tov_test::start(program.path);
  fs::create_directories("/tmp/vsd/16/tov/db");
  for (int device = 0; device <= 16; device++)
    leave(pid, RESPAWN, program.path + " -" + std::to_string(device), device);
  rebuild();
  EXPECT_EQ(count(), 16);
  EXPECT_EQ(find(pid)->vsd_id, 15);  // the last one read
  tov_chains_guard_t guard(tov_chains);
  EXPECT_EQ(tov_get_oldest_node(pid)->vsd_id, 0);
}

TEST_F(TovRebuildChains, UnreadableFilesAreToldAndLeft) {
  const std::string dir = "/tmp/vsd/0/tov/db/";
  write_file(dir + "words", "no numbers here");
  write_file(dir + "empty", "");
  write_file(dir + "pathless", "41\n2\nword");
  write_file(dir + "everybody", "-1\n2\n/opt/a");
  fs::create_directory(dir + "directory");
  ASSERT_EQ(mkfifo((dir + "fifo").c_str(), 0666), 0);
  ASSERT_EQ(symlink((dir + "words").c_str(), (dir + "link").c_str()), 0);
  const std::string said = diagnostics([] { rebuild(); });
  EXPECT_EQ(count(), 0);
  for (const char *name :
       {"words", "empty", "pathless", "everybody", "directory", "fifo", "link"}) {
    EXPECT_THAT(said, HasSubstr("]tov_read_pidfile " + std::string(name) + " fail\n"));
    EXPECT_TRUE(fs::exists(fs::symlink_status(dir + name))) << name;
  }
}

TEST_F(TovRebuildChains, TrailingBlanksAreNoPartOfTheCommandLine) {
  const Program program("blanks");
  const pid_t pid = tov_test::start(program.path);
  leave(pid, RESPAWN, program.path + " -a \t ");
  rebuild();
  EXPECT_EQ(find(pid)->process, program.path + " -a");
}

TEST_F(TovRebuildChains, LongCommandLineComesBackCut) {
  const Program program("long");
  const pid_t pid = tov_test::start(program.path);
  const std::string command = program.path + " " + std::string(400, 'x');
  leave(pid, RESPAWN, command);
  rebuild();
  const std::string process = find(pid)->process;
  EXPECT_LT(process.size(), 256u);
  EXPECT_TRUE(command.starts_with(process));
}

TEST_F(TovRebuildChains, NewProcessIsOrdinaryForTheLowMemoryKiller) {
  const Program program("score");
  leave(GONE, RESPAWN, program.path);
  write_file("/proc/self/oom_score_adj", "500");
  rebuild();
  write_file("/proc/self/oom_score_adj", "0");
  const pid_t pid = program.birth().pid;
  EXPECT_EQ(tov_test::read_file("/proc/" + std::to_string(pid) + "/oom_score_adj"), "0\n");
}

// The result of the start is not asked: the record is kept, and the sweep will report it. The
// program is none at all, because one that is being executed shows its executable alone for a
// moment, and the search would find that.
TEST_F(TovRebuildChains, StartThatLedNowhereKeepsTheRecordWithoutAProcess) {
  const std::string command = "/opt/nowhere exit=0";
  const std::string file = leave(GONE, RESPAWN, command);
  write_file(TOV_THIRD_PART_LIST, command + " TOV_RESTART\n");
  rebuild();
  EXPECT_EQ(find(GONE), nullptr);
  ASSERT_NE(find(-1), nullptr);
  EXPECT_EQ(find(-1)->process, command);
  EXPECT_FALSE(exists(file));
}
