// What all public calls have in common, whatever they do: they are no cancellation points, and they
// keep off the standard streams of a host that has closed its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "tests/module/fake_daemon.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "util/owner.h"

using tov_test::in_child;

namespace {

const std::string DB_DIR = "/tmp/vsd/0/tov/db";
constexpr char LIST_FILE[] = "/data/list";

// Every public call, made in a way that leads it through all its files and through the socket.
const std::map<std::string, std::function<void()>> CALLS = {
    {"reg_process_exit_action", [] { reg_process_exit_action(0, TOV_RESTART); }},
    {"reg_process_exit_action_shell",
     [] { reg_process_exit_action_shell(0, TOV_SHELL_RESTART, "/opt/x"); }},
    {"reg_third_part_process_exit_action",
     [] { reg_third_part_process_exit_action(getpid(), "TOV_RESTART"); }},
    {"tov_time_set", [] { tov_time_set(-1, TOV_RESTART, 3); }},
    {"tov_cancel_proc", [] { tov_cancel_proc(0); }},
    {"tov_client_reg_thread_notify",
     [] { tov_client_reg_thread_notify(getpid(), gettid(), 120, 5); }},
    {"tov_client_reg_thread_notify_no_proc",
     [] { tov_client_reg_thread_notify_no_proc(getpid(), gettid(), 120, 5); }},
    {"tov_client_reset_thread_notify",
     [] { tov_client_reset_thread_notify(getpid(), gettid(), 120, 5); }},
    {"tov_client_unreg_thread_notify", [] { tov_client_unreg_thread_notify(0); }},
    {"tov_client_watch_process_fd", [] { tov_client_watch_process_fd(getpid()); }},
    {"get_resource_limit", [] { get_resource_limit(9999); }},
    {"string_exist_in_file", [] { string_exist_in_file("none", LIST_FILE); }},
    {"pid_exist_in_file", [] { pid_exist_in_file(1, LIST_FILE); }},
    {"get_pid_notify_counter", [] { get_pid_notify_counter("none", LIST_FILE); }},
    {"pid_reset_counter_in_file", [] { pid_reset_counter_in_file(1, LIST_FILE); }},
};

// A stand-in for the daemon in a process of its own: these tests fork, and so have one thread only.
class DaemonProcess : tov_test::Child {
 public:
  DaemonProcess() : Child([] { static const tov_test::FakeDaemon daemon; }) {}
};

class ClientCalls : public testing::Test {
 protected:
  ClientCalls() {
    std::filesystem::create_directories(DB_DIR);
    tov_test::write_file(LIST_FILE, "a line\n");
    setenv("DATA_QXOS_DIR", "/data/cfg", 1);
    // The calls that read the debug file find diagnostics switched on there, too.
    std::filesystem::create_directories("/data/cfg/qx_utils");
    tov_test::write_file("/data/cfg/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
    tov_test::write_file(TOV_DEBUG_PID_FILE, "1000000\n");
  }
  ~ClientCalls() override { unlink(TOV_DEBUG_PID_FILE); }
};

TEST_F(ClientCalls, TableOfTheseTestsIsWhole) {
  std::ifstream list(TOV_PUBLIC_CALLS_FILE);
  std::set<std::string> names;
  for (std::string name; std::getline(list, name);)
    names.insert(name);
  ASSERT_FALSE(names.empty());
  for (const std::string &name : names)
    EXPECT_TRUE(CALLS.contains(name)) << name;
  EXPECT_EQ(CALLS.size(), names.size());
}

// ---- cancellation -------------------------------------------------------------------------------

class CancelledCall : public ClientCalls, public testing::WithParamInterface<const char *> {};

// The call is made by a thread whose cancellation is pending: it would act at the first
// opportunity.
TEST_P(CancelledCall, IsCarriedThrough) {
  const DaemonProcess daemon;
  const auto &call = CALLS.at(GetParam());
  in_child([&call] {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);  // every diagnostic is written at once
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
    g_tov_dbg_level[TOV_MODULE_ALIVE] = TOV_DBG_VERBOSE;
    std::atomic<bool> returned{false};
    std::atomic<bool> state_kept{false};
    std::thread([&] {
      pthread_cancel(pthread_self());
      call();
      returned = true;
      int state = -1;
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
      state_kept = state == PTHREAD_CANCEL_ENABLE;
    }).join();
    if (!returned) fprintf(stderr, "the call was a cancellation point\n");
    if (returned && !state_kept) fprintf(stderr, "cancellation is off after the call\n");
    tov_test::leave_child(returned && state_kept ? 0 : 1);
  });
}

std::vector<const char *> call_names() {
  std::vector<const char *> names;
  names.reserve(std::size(CALLS));
  for (const auto &[name, call] : CALLS)
    names.push_back(name.c_str());
  return names;
}
INSTANTIATE_TEST_SUITE_P(Every, CancelledCall, testing::ValuesIn(call_names()),
                         [](const auto &call) { return std::string(call.param); });

// ---- descriptors --------------------------------------------------------------------------------

std::set<int> open_descriptors() {
  std::set<int> open;
  for (int fd = 0; fd < 256; fd++)
    if (fcntl(fd, F_GETFD) >= 0) open.insert(fd);
  return open;
}

class CallWithoutStreams : public ClientCalls, public testing::WithParamInterface<const char *> {};

TEST_P(CallWithoutStreams, KeepsOffTheirNumbers) {
  const DaemonProcess daemon;
  const auto &call = CALLS.at(GetParam());
  in_child([&call] {
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
    const tov_fd_t kept_error(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 64));
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
      close(fd);
    const std::set<int> before = open_descriptors();
    call();
    call();
    int failures = 0;
    for (const int fd : open_descriptors()) {
      if (before.contains(fd)) continue;
      if (fd <= STDERR_FILENO) {
        dprintf(kept_error.n, "number %d was taken\n", fd);
        failures++;
      }
      if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
        dprintf(kept_error.n, "descriptor %d would reach another program\n", fd);
        failures++;
      }
    }
    _exit(failures == 0 ? 0 : 1);
  });
}
INSTANTIATE_TEST_SUITE_P(Every, CallWithoutStreams, testing::ValuesIn(call_names()),
                         [](const auto &call) { return std::string(call.param); });

}  // namespace
