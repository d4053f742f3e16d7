// The rules by which an exit leads to no restart: duplicates, deliberate stops, programs that
// another process has started again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <string>

#include "core/policy/exit.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "util/owner.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::exists;
using tov_test::GONE;
using tov_test::Program;
using tov_test::write_file;

static constexpr int KILLED = SIGKILL;

namespace {

using TovHandleExit = tov_test::NotesSleeps<tov_test::World>;

class TovExitDuplicates : public TovHandleExit {};
class TovExitStops : public TovHandleExit {};
class TovExitThirdPart : public TovHandleExit {};

}  // namespace

// ---- duplicates -----------------------------------------------------------------------------

TEST_F(TovExitDuplicates, FirstRegistrationGivesWayToAnother) {
  tov_pid_t *record = add(GONE, "/opt/a -x");
  add(GONE, "/opt/a -x");
  const tov_pid_t *other = add(GONE + 1, "/opt/a -x");
  const std::string file = write_file_of(*record), others_file = write_file_of(*other);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, KILLED, 0); });
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(count(), 1);  // both records of the process went
  EXPECT_EQ(find(GONE + 1), other);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(exists(others_file));
  EXPECT_THAT(said, HasSubstr("]tov_handle_netlink_exit--> del 5000000\n"));
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovExitDuplicates, RestartedTaskGivesWayToALivingOne) {
  const Program program("successor");
  const pid_t living = tov_test::start(program.path);
  program.birth();
  tov_pid_t *record = add(GONE, program.path);
  record->flags = TOV_FLAG_STARTED;
  const tov_pid_t *other = add(living, program.path);
  const std::string file = write_file_of(*record), others_file = write_file_of(*other);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, KILLED, 0); });
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(find(living), other);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(exists(others_file));
  EXPECT_THAT(said, HasSubstr("]tov_handle_netlink_exit--> pid " + std::to_string(living) +
                              " alive, del 5000000\n"));
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovExitDuplicates, DeadOneIsDroppedAndTheRestartedTaskComesBack) {
  const Program program("survivor");
  tov_pid_t *record = add(GONE, program.path);
  record->flags = TOV_FLAG_STARTED;
  const tov_pid_t *other = add(GONE + 1, program.path);
  const std::string others_file = write_file_of(*other);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(find(GONE + 1), nullptr);
  EXPECT_FALSE(exists(others_file));
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(record->pid, program.birth().pid);
}

// ---- deliberate stops -----------------------------------------------------------------------

TEST_F(TovExitStops, SignalFifteenRemovesTheRecord) {
  const Program program("stopped");
  tov_pid_t *record = add(GONE, program.path + " -a");
  const std::string file = write_file_of(*record);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, SIGTERM, 0); });
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(count(), 0);
  EXPECT_FALSE(exists(file));
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(notices(), IsEmpty());
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("Task:" + program.path +
                          " -a,pid:5000000,vsd_no:-1,killed by signal 15 from others."));
  EXPECT_THAT(said, HasSubstr("]tov_handle_netlink_exit: hlist_del\n"));
}

TEST_F(TovExitStops, SignalFifteenWithACoreDumpIsACrash) {
  const Program program("dumped");
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, SIGTERM | 0x80, 0);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_THAT(notices(), ElementsAre(HasSubstr("receives event:008f and"), HasSubstr("OK")));
}

TEST_F(TovExitStops, ExitStatusFifteenIsACrash) {
  const Program program("status");
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, 15 << 8, 0);
  EXPECT_EQ(record->pid, program.birth().pid);
}

TEST_F(TovExitStops, MarkerOfTheDeviceGoesToo) {
  add(GONE, "/opt/a", RESPAWN, 3);
  write_file("/tmp/vsd/3/tov/5000000", "");
  write_file("/tmp/vsd/3/tov/5000001", "");
  write_file("/tmp/vsd/4/tov/5000000", "");  // not of the device that comes first
  tov_handle_netlink_exit(GONE, SIGTERM, 0);
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_FALSE(exists("/tmp/vsd/3/tov/5000000"));
  EXPECT_TRUE(exists("/tmp/vsd/3/tov/5000001"));
  EXPECT_TRUE(exists("/tmp/vsd/4/tov/5000000"));
  EXPECT_TRUE(exists("/tmp/vsd/3/tov/db"));  // a directory: passed over
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre("Task:/opt/a,pid:5000000,vsd_no:3,killed by signal 15 from others."));
  EXPECT_EQ(std::filesystem::current_path(), "/");
}

TEST_F(TovExitStops, EntryThatCannotBeOpenedKeepsTheRecord) {
  tov_pid_t *record = add(GONE, "/opt/a", RESPAWN, 3);
  const std::string file = write_file_of(*record);
  write_file("/tmp/vsd/3/tov/5000000", "");
  // A socket cannot be opened, whoever asks.
  const tov_fd_t unopenable(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un at{AF_UNIX, "/tmp/vsd/3/tov/0socket"};
  ASSERT_EQ(bind(unopenable.n, reinterpret_cast<const sockaddr *>(&at), sizeof at), 0);
  tov_handle_netlink_exit(GONE, SIGTERM, 0);
  EXPECT_EQ(find(GONE), record);
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(std::filesystem::current_path(), "/");
}

TEST_F(TovExitStops, ComesBeforeDeferral) {
  tov_pid_t *record = add(GONE, "/opt/a");
  const auto holder = holder_of(write_file_of(*record));
  tov_handle_netlink_exit(GONE, SIGTERM, 0);
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(count(tov_chains_delay), 0);
}

// ---- third-part programs --------------------------------------------------------------------

// In place: there is no moment in which the process runs without a registration.
TEST_F(TovExitThirdPart, ProgramThatRunsAgainIsRegisteredInstead) {
  const Program program("brought");
  write_file(TOV_THIRD_PART_LIST, program.path + " -d TOV_RESTART\n");
  const pid_t found = tov_test::start(program.path + " -d");
  program.birth();
  tov_pid_t *record = add(GONE, program.path + " -d");
  record->count = 3;
  record->flags = TOV_FLAG_STARTED;
  const std::string file = write_file_of(*record);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, KILLED, 0); });

  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(find(found), record);
  EXPECT_EQ(record->count, 0);  // it begins as any registration does
  EXPECT_EQ(record->flags, 0);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(exists(file_of(*record)));
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_THAT(said, HasSubstr("]tov_handle_netlink_exit--> tov_pid->action == RESPAWN, found child "
                              "pid_get = " +
                              std::to_string(found) + "\n"));
  EXPECT_THAT(events(TOV_LOG_REG_RESTART),
              ElementsAre("register - process:" + program.path +
                          " -d pid:" + std::to_string(found) + ", vsd_id:0, action:2"));
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovExitThirdPart, ScriptTaskIsRegisteredAsOne) {
  const Program program("script");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_SHELL_RESTART\n");
  const pid_t found = tov_test::start(program.path);
  tov_pid_t *record = add(GONE, program.path, SHELL_RESTART);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, KILLED, 0); });
  EXPECT_EQ(find(found), record);
  EXPECT_EQ(record->action, SHELL_RESTART);
  EXPECT_THAT(said, HasSubstr("]tov_handle_netlink_exit--> tov_pid->action == SHELL_RESTART, found "
                              "child pid_get = " +
                              std::to_string(found) + "\n"));
}

TEST_F(TovExitThirdPart, ProgramThatIsNotRunningIsStartedAgain) {
  const Program program("listed");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(record->pid, program.birth().pid);
}

TEST_F(TovExitThirdPart, UnlistedProgramIsStartedThoughAnotherInstanceRuns) {
  const Program program("unlisted");
  const pid_t running = tov_test::start(program.path);
  program.birth();  // so that the second one is the daemon's
  tov_pid_t *record = add(GONE, program.path);
  tov_handle_netlink_exit(GONE, KILLED, 0);
  EXPECT_EQ(record->pid, program.birth(2).pid);
  EXPECT_NE(record->pid, running);
}
