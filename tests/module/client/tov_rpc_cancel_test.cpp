// Withdrawing the registrations of a process.
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "client/tov_pidfile.h"
#include "client/tov_rpc.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "tests/module/client/requester.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
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

class TovCancel : public tov_test::Requester {
 protected:
  // The registration file of this very process, whose name follows from its command line.
  static std::string own_file() {
    char cmdline[256] = "";
    char name[256] = "";
    pid_to_cmdline(getpid(), cmdline, sizeof cmdline);
    tov_get_db_file_name(0, getpid(), cmdline, name, sizeof name);
    return name;
  }
};

TEST_F(TovCancel, RemovesTheFileAndAsksForRemoval) {
  FakeDaemon daemon;
  tov_test::write_file(own_file(), "x");
  const std::string printed = printed_by([&] {
    const auto begin = steady_clock::now();
    EXPECT_EQ(tov_cancel_proc(0), 0);
    EXPECT_GE(steady_clock::now() - begin, 1s);
  });
  EXPECT_NE(printed.find("]tov_cancel_proc:0\n"), std::string::npos);
  EXPECT_NE(printed.find("]tov_rm_db_file_by_pid unlink file " + own_file() + " ret 0\n"),
            std::string::npos);
  EXPECT_NE(access(own_file().c_str(), F_OK), 0);

  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_MSG_CONS));
  EXPECT_EQ(request.head().len, 8);
  EXPECT_EQ(request.payload<tov_msg_cons_t>().event, TOV_CONS_DUMP_ALL);
  EXPECT_EQ(request.payload<tov_msg_cons_t>().pid, getpid());
}

TEST_F(TovCancel, NegativePidIsRefused) {
  FakeDaemon daemon;
  const std::string printed = printed_by([&] { EXPECT_EQ(tov_cancel_proc(-4), -1); });
  EXPECT_NE(printed.find("]tov_cancel_proc:-4\n"), std::string::npos);
  EXPECT_NE(printed.find("]The pid you enter is -4 < 0 \n"), std::string::npos);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

TEST_F(TovCancel, VanishedProcessIsWithdrawnWithoutItsFile) {
  FakeDaemon daemon;
  const pid_t gone = tov_test::gone_process();
  const std::string said = printed_by([&] { EXPECT_EQ(tov_cancel_proc(gone), 0); });
  EXPECT_NE(said.find("]tov_rm_db_file_by_pid pid_to_cmdline(" + std::to_string(gone) + ") fail\n"),
            std::string::npos);
  EXPECT_EQ(daemon.only_request().payload<tov_msg_cons_t>().pid, gone);
}

TEST_F(TovCancel, IsRepeatedUntilTheDaemonAnswers) {
  FakeDaemon daemon(Manners{.hang_up = 1});
  EXPECT_EQ(tov_cancel_proc(0), 0);
  EXPECT_EQ(daemon.requests(2).size(), 2u);
}

TEST_F(TovCancel, FailureIsPrinted) {
  RefusingSocket refusing;
  tov_rpc_stop_asked = [] { return true; };
  const std::string said = printed_by([&] { EXPECT_EQ(tov_cancel_proc(0), -1); });
  EXPECT_NE(said.find("]tov_cancel_proc: cancel fail: "), std::string::npos);
}

}  // namespace
