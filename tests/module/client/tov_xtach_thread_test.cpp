// Watched threads: registering, staying alive, leaving, exemption.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/tov_rpc.h"
#include "client/tov_rpc_lock.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "tests/module/client/requester.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "tests/support/stdout.h"
#include "util/owner.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tov_test::FakeDaemon;
using tov_test::Manners;
using tov_test::printed_by;
using tov_test::RefusingSocket;
using tov_test::Request;

// The kernel of the test machine gives no thread an id beyond the shared area, so the library under
// test is told one.
static pid_t pretended_tid = 0;
extern "C" pid_t gettid() noexcept {
  return pretended_tid != 0 ? pretended_tid : static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

constexpr unsigned int PERIOD = 8;
constexpr unsigned int COUNT = 9;

class TovXtachThread : public tov_test::Requester {
 protected:
  TovXtachThread() {
    unlink(TOV_DEBUG_PID_FILE);
    setenv("DATA_QXOS_DIR", "/data/none", 1);
    pretended_tid = 0;
    EXPECT_EQ(tov_sys_init_alive_info(false), 0);
    tov_sys_unreg_alive_info(gettid());
  }
  ~TovXtachThread() override { pretended_tid = 0; }
  static int reg() { return tov_client_reg_thread_notify(getpid(), gettid(), PERIOD, COUNT); }
  static int reset() { return tov_client_reset_thread_notify(getpid(), gettid(), PERIOD, COUNT); }
};

// ---- registering --------------------------------------------------------------------------------

TEST_F(TovXtachThread, PeriodOnlyChoosesByBeingOddOrEven) {
  FakeDaemon daemon;
  EXPECT_EQ(tov_client_reg_thread_notify(getpid(), gettid(), 7, 9), 0);
  EXPECT_EQ(tov_client_reg_thread_notify(getpid(), gettid(), 8, 9), 0);
  const std::vector<Request> requests = daemon.requests(2);
  ASSERT_EQ(requests.size(), 2u);
  const auto odd = requests[0].payload<tov_msg_xtach_t>();
  EXPECT_EQ(odd.m_n_notify_time, 180u);
  EXPECT_EQ(odd.m_n_counter, 4u);
  EXPECT_EQ(odd.m_n_cur_counter, 4u);
  const auto even = requests[1].payload<tov_msg_xtach_t>();
  EXPECT_EQ(even.m_n_notify_time, 120u);
  EXPECT_EQ(even.m_n_counter, 5u);
  EXPECT_EQ(even.m_n_cur_counter, 5u);
}

TEST_F(TovXtachThread, RegistrationNamesThreadAndOwner) {
  FakeDaemon daemon;
  std::thread([] { EXPECT_EQ(reg(), 0); }).join();
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_MSG_ACK));
  EXPECT_TRUE(request.answered);
  const auto payload = request.payload<tov_msg_xtach_t>();
  EXPECT_NE(payload.pid, getpid());
  EXPECT_GT(payload.pid, 0);
  EXPECT_EQ(payload.ppid, getpid());
  EXPECT_EQ(payload.m_n_cur_notify_time, 0u);
  EXPECT_EQ(payload.restart_time, 0);
  EXPECT_STREQ(payload.pathname, "");
  EXPECT_STREQ(payload.grp, "");
}

TEST_F(TovXtachThread, MissingArgumentsAreRefusedWithoutARequest) {
  FakeDaemon daemon;
  const pid_t pid = getpid();
  const pid_t tid = gettid();
  const std::string printed = printed_by([&] {
    for (const auto call : {tov_client_reg_thread_notify, tov_client_reset_thread_notify}) {
      EXPECT_EQ(call(0, tid, PERIOD, COUNT), -1);
      EXPECT_EQ(call(-1, tid, PERIOD, COUNT), -1);
      EXPECT_EQ(call(pid, 0, PERIOD, COUNT), -1);
      EXPECT_EQ(call(pid, tid, 0, COUNT), -1);
      EXPECT_EQ(call(pid, tid, PERIOD, 0), -1);
    }
  });
  EXPECT_NE(
      printed.find("]parameter error(pid:-1, tid:" + std::to_string(tid) + ", time:8, count:9)!\n"),
      std::string::npos);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

TEST_F(TovXtachThread, OnlyTheThreadItselfMaySpeakForIt) {
  FakeDaemon daemon;
  const pid_t pid = getpid();
  const pid_t tid = gettid();
  const std::string said = printed_by([&] {
    for (const auto call : {tov_client_reg_thread_notify, tov_client_reset_thread_notify}) {
      EXPECT_EQ(call(pid, tid + 1, PERIOD, COUNT), -1);
      EXPECT_EQ(call(pid + 1, tid, PERIOD, COUNT), -1);
      EXPECT_EQ(call(pid, -5, PERIOD, COUNT), -1);
      std::thread([&] { EXPECT_EQ(call(pid, tid, PERIOD, COUNT), -1); }).join();
    }
  });
  const std::string ids = std::to_string(pid) + ", tid:" + std::to_string(tid + 1) +
                          ", cur_pid:" + std::to_string(pid) + ", cur_tid:" + std::to_string(tid);
  EXPECT_NE(said.find("]not cur task reg!(pid:" + ids + ")!\n"), std::string::npos);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

TEST_F(TovXtachThread, AbsentDaemonIsNoFailure) {
  RefusingSocket refusing;
  EXPECT_EQ(reg(), 0);
}

TEST_F(TovXtachThread, BrokenExchangeIsAFailure) {
  FakeDaemon daemon(Manners{.hang_up = 1});
  const std::string said = printed_by([&] { EXPECT_EQ(reg(), -1); });
  EXPECT_NE(said.find("]reg thread notify err(ret:-1)!\n"), std::string::npos);
}

TEST_F(TovXtachThread, NoProcVariantIgnoresAbort) {
  FakeDaemon daemon;
  pid_t child = 0;
  const auto registers = [] {
    const int ret = tov_client_reg_thread_notify_no_proc(getpid(), gettid(), PERIOD, COUNT);
    struct sigaction now {};
    sigaction(SIGABRT, nullptr, &now);
    raise(SIGABRT);
    return ret == 0 && now.sa_handler == SIG_IGN ? 0 : 1;
  };
  EXPECT_EQ(tov_test::status_in_child(registers, &child), 0);
  EXPECT_EQ(daemon.only_request().payload<tov_msg_xtach_t>().ppid, child);
}

TEST_F(TovXtachThread, PlainRegistrationLeavesSignalsAlone) {
  FakeDaemon daemon;
  EXPECT_EQ(reg(), 0);
  for (const int number : {SIGABRT, SIGPIPE, SIGALRM, SIGCHLD}) {
    struct sigaction now {};
    sigaction(number, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL) << number;
  }
}

// ---- staying alive ------------------------------------------------------------------------------

TEST_F(TovXtachThread, SignOfLifeAdvancesTheByteAndSendsNothing) {
  FakeDaemon daemon;
  tov_sys_reg_alive_info(gettid());
  EXPECT_EQ(tov_sys_get_alive_seq(gettid()), 1);
  EXPECT_EQ(reset(), 0);
  EXPECT_EQ(reset(), 0);
  EXPECT_EQ(tov_sys_get_alive_seq(gettid()), 3);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

TEST_F(TovXtachThread, UnknownThreadRegistersAfreshWithTheCallersNumbers) {
  FakeDaemon daemon;
  const std::string said =
      printed_by([&] { EXPECT_EQ(tov_client_reset_thread_notify(getpid(), gettid(), 7, 3), 0); });
  EXPECT_NE(said.find("]reg alive info(pid:" + std::to_string(getpid()) +
                      ", tid:" + std::to_string(gettid()) + ", time:7, count:3)!\n"),
            std::string::npos);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_MSG_ACK));
  EXPECT_EQ(request.payload<tov_msg_xtach_t>().m_n_notify_time, 180u);
}

TEST_F(TovXtachThread, SignOfLifeDoesNotWaitForAnotherThreadsRequest) {
  FakeDaemon daemon(Manners{.held = true});
  tov_sys_reg_alive_info(gettid());
  std::thread busy([] { tov_rpc(TOV_RESTART, nullptr, nullptr, 0, true, true); });
  EXPECT_TRUE(tov_test::wait_until([&] { return daemon.connections() == 1; }, 30s));
  EXPECT_EQ(reset(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&tov_rpc_lock), EBUSY) << "the request is still under way";
  daemon.let_go();
  busy.join();
}

TEST_F(TovXtachThread, ExemptThreadDoesNothing) {
  FakeDaemon daemon;
  tov_sys_reg_alive_info(gettid());
  tov_test::write_file(TOV_DEBUG_PID_FILE, "1\n" + std::to_string(gettid()) + "\n");
  EXPECT_EQ(reset(), 0);
  EXPECT_EQ(tov_sys_get_alive_seq(gettid()), 1);
  tov_sys_unreg_alive_info(gettid());
  EXPECT_EQ(reset(), 0);
  EXPECT_TRUE(daemon.requests(1, 200ms).empty());
}

TEST_F(TovXtachThread, ThreadBeyondTheSharedAreaSendsAMessage) {
  FakeDaemon daemon(Manners{.answer = false});
  pretended_tid = TOV_ALIVE_ID_COUNT;
  const auto begin = steady_clock::now();
  EXPECT_EQ(reset(), 0);
  EXPECT_LT(steady_clock::now() - begin, tov_test::LONGEST_WAIT_FOR_AN_ANSWER);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_RESET));
  const auto payload = request.payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, TOV_ALIVE_ID_COUNT);
  EXPECT_EQ(payload.ppid, getpid());
  EXPECT_EQ(payload.m_n_notify_time, 120u);
  EXPECT_EQ(payload.m_n_counter, 5u);
  EXPECT_EQ(payload.m_n_cur_counter, 5u);
  EXPECT_EQ(payload.m_n_cur_notify_time, 0u);
}

TEST_F(TovXtachThread, BudgetOfTheExemptionFileTravelsInTheMessage) {
  FakeDaemon daemon;
  pretended_tid = TOV_ALIVE_ID_COUNT + 5;
  tov_test::write_file(TOV_DEBUG_PID_FILE, "77 1\n" + std::to_string(getpid()) + " 42\n");
  EXPECT_EQ(tov_client_reset_thread_notify(getpid(), gettid(), 7, 9), 0);
  const auto payload = daemon.only_request().payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.m_n_counter, 42u);
  EXPECT_EQ(payload.m_n_cur_counter, 42u);
  EXPECT_EQ(payload.m_n_notify_time, 180u);
}

TEST_F(TovXtachThread, MessageWithoutADaemonStillReturnsZero) {
  RefusingSocket refusing;
  pretended_tid = TOV_ALIVE_ID_COUNT;
  EXPECT_EQ(reset(), 0);
}

TEST_F(TovXtachThread, SignOfLifeDoesNotReadTheDebugFile) {
  std::filesystem::create_directories("/data/cfg/qx_utils");
  tov_test::write_file("/data/cfg/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
  setenv("DATA_QXOS_DIR", "/data/cfg", 1);
  g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
  FakeDaemon daemon;
  tov_sys_reg_alive_info(gettid());
  EXPECT_EQ(reset(), 0);
  EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_PUB], TOV_DBG_END);
  (void)printed_by([&] { EXPECT_EQ(reg(), 0); });
  EXPECT_EQ(g_tov_dbg_level[TOV_MODULE_PUB], TOV_DBG_VERBOSE);
}

// ---- leaving ------------------------------------------------------------------------------------

TEST_F(TovXtachThread, UnregisteringNamesTheThread) {
  FakeDaemon daemon;
  EXPECT_EQ(tov_client_unreg_thread_notify(4711), 0);
  const Request request = daemon.only_request();
  EXPECT_EQ(request.head().type, static_cast<uint32_t>(TOV_MSG_CONS));
  EXPECT_EQ(request.payload<tov_msg_cons_t>().event, TOV_UNREG_THREAD_NOTIFY);
  EXPECT_EQ(request.payload<tov_msg_cons_t>().pid, 4711);
  EXPECT_TRUE(request.answered);
}

TEST_F(TovXtachThread, UnregisteringThreadZeroIsToldAndSentAllTheSame) {
  FakeDaemon daemon;
  const std::string said = printed_by([&] { EXPECT_EQ(tov_client_unreg_thread_notify(0), 0); });
  EXPECT_NE(said.find("]parameter error\n"), std::string::npos);
  EXPECT_EQ(daemon.only_request().payload<tov_msg_cons_t>().pid, 0);
}

TEST_F(TovXtachThread, UnregisteringLeavesAMarkBeforeTheRequestThatNobodyMayHear) {
  const tov_fd_t area(tov_sys_open_left_area());
  tov_sys_reg_alive_info(4711);
  {
    // One that dies behind its answer has not carried it out.
    FakeDaemon daemon;
    EXPECT_EQ(tov_client_unreg_thread_notify(4711), 0);
    EXPECT_TRUE(tov_sys_was_withdrawn(area.n, 4711));
  }
  for (const bool registered : {true, false}) {
    if (registered) {
      tov_sys_reg_alive_info(4711);
    } else {
      tov_sys_unreg_alive_info(4711);
    }
    EXPECT_FALSE(tov_sys_was_withdrawn(area.n, 4711));
    RefusingSocket refusing;
    (void)printed_by([] { EXPECT_EQ(tov_client_unreg_thread_notify(4711), 0); });
    EXPECT_TRUE(tov_sys_was_withdrawn(area.n, 4711)) << registered;
  }
  tov_sys_unreg_alive_info(4711);
}

TEST_F(TovXtachThread, UnregisteringWithoutADaemonReturnsZeroAfterOneAttempt) {
  RefusingSocket refusing;
  const std::string said = printed_by([&] { EXPECT_EQ(tov_client_unreg_thread_notify(4711), 0); });
  EXPECT_EQ(tov_test::attempts_told_in(said), 1u);
}

}  // namespace
