// Registering what happens when a process ends: payloads, files, patience.
#include "include/tov_xtach.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "client/tov_pidfile.h"
#include "client/tov_rpc.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "tests/module/client/requester.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"
#include "util/tov_utils.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tov_test::FakeDaemon;
using tov_test::Manners;
using tov_test::printed_by;
using tov_test::RefusingSocket;
using tov_test::Request;

namespace {

class TovXtach : public tov_test::Requester {
 protected:
  TovXtach() {
    std::filesystem::remove_all(DB_DIR);
    std::filesystem::create_directories(DB_DIR);
    setenv("DATA_QXOS_DIR", "/data/none", 1);
    pid_to_cmdline(getpid(), cmdline_, sizeof cmdline_);
  }

  static std::string file_of(const std::string &cmdline, pid_t pid) {
    char name[256] = "";
    tov_get_db_file_name(0, pid, cmdline.c_str(), name, sizeof name);
    return name;
  }
  std::string own_file() const { return file_of(cmdline_, getpid()); }
  std::string expected_file(int action) const {
    return std::to_string(getpid()) + "\n" + std::to_string(action) + "\n" + cmdline_;
  }
  static std::string own_group() { return "test-" + std::to_string(getpid() % 20); }

  char cmdline_[256] = "";
};

// ---- reg_process_exit_action --------------------------------------------------------------------

TEST_F(TovXtach, RegistrationWritesAndLocksItsFileAndSendsThePayload) {
  FakeDaemon daemon;
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  const std::string file = own_file();
  tov_test::in_child([&] {
    const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_LT(lock_file(fd), 0) << "another process must find the file locked";
  });
  // Only now: reading it here closes a descriptor of it, which drops the lock.
  EXPECT_EQ(tov_test::read_file(file), expected_file(RESPAWN));

  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_RESTART));
  EXPECT_EQ(request.head().len, 320);
  EXPECT_STREQ(request.head().pathname, "");
  const auto payload = request.payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, getpid());
  EXPECT_EQ(payload.ppid, 0);
  EXPECT_EQ(payload.vsd_id, 0);
  EXPECT_EQ(payload.restart_time, 0);
  EXPECT_STREQ(payload.pathname, cmdline_);
  EXPECT_STREQ(payload.grp, "");
}

TEST_F(TovXtach, SecondRegistrationLeavesOneFileWithTheNewerAction) {
  FakeDaemon daemon;
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  EXPECT_EQ(reg_process_exit_action(getpid(), TOV_SHELL_RESTART), 0);
  EXPECT_EQ(tov_test::names_in(DB_DIR).size(), 1u);
  EXPECT_EQ(tov_test::read_file(own_file()), expected_file(SHELL_RESTART));
  EXPECT_EQ(daemon.requests(2)[1].head().type, static_cast<uint32_t>(TOV_SHELL_RESTART));
}

TEST_F(TovXtach, NegativePidGoesOnAsProcessZeroWithoutAFile) {
  FakeDaemon daemon;
  const std::string printed =
      printed_by([&] { EXPECT_EQ(reg_process_exit_action(-7, TOV_RESTART), 0); });
  EXPECT_NE(printed.find("]The pid you enter is < 0 \n"), std::string::npos);
  EXPECT_NE(printed.find("]reg_process_exit_action: fail to get pid 0's cmdline\n"),
            std::string::npos);
  EXPECT_TRUE(tov_test::names_in(DB_DIR).empty());
  const auto payload = daemon.only_request().payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, 0);
  EXPECT_EQ(payload.vsd_id, 0);
  EXPECT_STREQ(payload.pathname, "");
}

TEST_F(TovXtach, ProcessThatIsGoneIsRegisteredAllTheSame) {
  const pid_t gone = tov_test::gone_process();
  FakeDaemon daemon;
  EXPECT_EQ(reg_process_exit_action(gone, TOV_RESTART), 0);
  EXPECT_EQ(daemon.only_request().payload<tov_msg_xtach_t>().pid, gone);
  EXPECT_TRUE(tov_test::names_in(DB_DIR).empty());
}

TEST_F(TovXtach, FileThatCannotBeWrittenDoesNotHoldTheRequestBack) {
  std::filesystem::remove_all(DB_DIR);
  FakeDaemon daemon;
  const std::string said =
      printed_by([&] { EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0); });
  EXPECT_NE(said.find("]tov_mk_pidfile fail. vsd 0 pid " + std::to_string(getpid()) + " name " +
                      cmdline_ + " \n"),
            std::string::npos);
  EXPECT_EQ(daemon.requests(1).size(), 1u);
}

TEST_F(TovXtach, RegistrationIsRepeatedASecondLaterUntilItIsTaken) {
  FakeDaemon daemon(Manners{.hang_up = 2});
  const auto begin = steady_clock::now();
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  EXPECT_GE(steady_clock::now() - begin, 2s);
  EXPECT_EQ(daemon.requests(3).size(), 3u);
}

TEST_F(TovXtach, RegistrationReturnsZeroEvenWhenItFailed) {
  RefusingSocket refusing;
  tov_rpc_stop_asked = [] { return true; };
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
}

TEST_F(TovXtach, ThreadsRegisterSideBySide) {
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  FakeDaemon daemon;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([] {
      for (int n = 0; n < 10; n++)
        reg_process_exit_action(0, TOV_RESTART);
    });
  }
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(daemon.requests(40).size(), 40u);
  EXPECT_EQ(tov_test::read_file(own_file()), expected_file(RESPAWN));
}

// ---- reg_process_exit_action_shell --------------------------------------------------------------

TEST_F(TovXtach, ScriptRegistrationCarriesThePathAndTheLabel) {
  FakeDaemon daemon;
  EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/loader"), 0);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_SHELL_RESTART));
  EXPECT_STREQ(request.head().pathname, "/opt/loader");
  const auto payload = request.payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, getpid());
  EXPECT_STREQ(payload.pathname, cmdline_);
  EXPECT_EQ(std::string(payload.grp), own_group());
  EXPECT_EQ(tov_test::read_file(own_file()), expected_file(SHELL_RESTART));
}

TEST_F(TovXtach, ScriptRegistrationWaitsForNothing) {
  FakeDaemon daemon(Manners{.held = true});
  const auto begin = steady_clock::now();
  EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/loader"), 0);
  EXPECT_LT(steady_clock::now() - begin, tov_test::LONGEST_WAIT_FOR_AN_ANSWER);
  daemon.let_go();
  EXPECT_TRUE(daemon.only_request().answered);
}

TEST_F(TovXtach, ScriptRegistrationTriesOnce) {
  RefusingSocket refusing;
  const std::string said = printed_by(
      [&] { EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/loader"), -1); });
  EXPECT_EQ(tov_test::attempts_told_in(said), 1u);
}

TEST_F(TovXtach, LongScriptPathIsCutAndMissingOneIsEmpty) {
  FakeDaemon daemon;
  const std::string path = "/" + std::string(400, 'p');
  EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, path.c_str()), 0);
  EXPECT_EQ(reg_process_exit_action_shell(0, TOV_SHELL_RESTART, nullptr), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(std::string(requests[0].head().pathname), path.substr(0, 255));
  EXPECT_STREQ(requests[1].head().pathname, "");
}

TEST_F(TovXtach, NegativePidHasNoLabel) {
  FakeDaemon daemon;
  EXPECT_EQ(reg_process_exit_action_shell(-1, TOV_SHELL_RESTART, "/opt/x"), 0);
  EXPECT_EQ(tov_time_set(-1, TOV_RESTART, 5), 0);
  for (const Request &request : daemon.requests(2)) {
    EXPECT_EQ(request.payload<tov_msg_xtach_t>().pid, 0);
    EXPECT_STREQ(request.payload<tov_msg_xtach_t>().grp, "");
  }
}

// ---- reg_third_part_process_exit_action ---------------------------------------------------------

TEST_F(TovXtach, TypeGivenAsTextIsComparedByItsBeginning) {
  FakeDaemon daemon;
  EXPECT_EQ(reg_third_part_process_exit_action(getpid(), "TOV_RESTARTED by hand\n"), 0);
  EXPECT_EQ(reg_third_part_process_exit_action(getpid(), "TOV_SHELL_RESTART"), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].head().type, static_cast<uint32_t>(TOV_RESTART));
  EXPECT_EQ(requests[1].head().type, static_cast<uint32_t>(TOV_SHELL_RESTART));
  EXPECT_STREQ(requests[1].head().pathname, "") << "no script is named";
}

TEST_F(TovXtach, OtherTextsAreRefusedWithoutARequest) {
  FakeDaemon daemon;
  for (const char *text : {"tov_restart", "TOV_RESTAR", "TOV_SHELL_RESTAR", "", "RESTART"}) {
    EXPECT_EQ(reg_third_part_process_exit_action(getpid(), text), -1) << text;
  }
  EXPECT_EQ(reg_third_part_process_exit_action(getpid(), nullptr), -1);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

// ---- tov_time_set -------------------------------------------------------------------------------

TEST_F(TovXtach, RestartTimeTravelsWithoutFileAndCommandLine) {
  FakeDaemon daemon;
  EXPECT_EQ(tov_time_set(0, TOV_RESTART, 3), 0);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_RESTART));
  const auto payload = request.payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, getpid());
  EXPECT_EQ(payload.restart_time, 3);
  EXPECT_EQ(payload.vsd_id, 0);
  EXPECT_STREQ(payload.pathname, "");
  EXPECT_EQ(std::string(payload.grp), own_group());
  EXPECT_TRUE(tov_test::names_in(DB_DIR).empty());
}

TEST_F(TovXtach, RestartTimeWithoutADaemonIsAFailure) {
  RefusingSocket refusing;
  EXPECT_EQ(tov_time_set(0, TOV_RESTART, 3), -1);
}

TEST_F(TovXtach, RestartTimeAndRegistrationInSuccessionBothArrive) {
  FakeDaemon daemon(Manners{.think = 100ms});
  EXPECT_EQ(tov_time_set(0, TOV_RESTART, 3), 0);
  EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[0].answered) << "or the daemon would not have carried it out";
}

// ---- the debug file -----------------------------------------------------------------------------

TEST_F(TovXtach, RegistrationsFollowTheDebugFileAndTheRestartTimeDoesNot) {
  std::filesystem::create_directories("/data/cfg/qx_utils");
  tov_test::write_file("/data/cfg/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
  setenv("DATA_QXOS_DIR", "/data/cfg", 1);
  FakeDaemon daemon;

  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  EXPECT_EQ(tov_time_set(0, TOV_RESTART, 1), 0);
  EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_PUB], TOV_DBG_END);

  (void)printed_by([&] {
    EXPECT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
    EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_PUB], TOV_DBG_VERBOSE);
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
    EXPECT_EQ(reg_process_exit_action_shell(0, TOV_RESTART, ""), 0);
    EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_PUB], TOV_DBG_VERBOSE);
  });
}

// ---- forks --------------------------------------------------------------------------------------

TEST_F(TovXtach, ChildOfAForkRegistersItself) {
  FakeDaemon daemon;
  ASSERT_EQ(reg_process_exit_action(0, TOV_RESTART), 0);
  pid_t child = 0;
  const auto registers = [&] {
    reg_process_exit_action(0, TOV_RESTART);
    return access(file_of(cmdline_, getpid()).c_str(), F_OK) == 0 ? 0 : 1;
  };
  EXPECT_EQ(tov_test::status_in_child(registers, &child), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].payload<tov_msg_xtach_t>().pid, child);
}

}  // namespace
