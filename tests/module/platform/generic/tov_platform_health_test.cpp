// Self-healing of the generic platform: the operator's program, and what is done without it.
//
// kill() is replaced by one that reaches nothing but the test's own children: a mistake in the
// code under test would otherwise signal this machine.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "platform/tov_platform.h"
#include "tests/module/log_listener.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using tov_test::read_file;
using tov_test::wait_until;
using tov_test::write_file;

namespace fs = std::filesystem;

static constexpr const char *HOOK = "/etc/tov/selfhealing";
static constexpr const char *RESULT = "/tmp/hook_result";
static constexpr tov_test::Millis PATIENCE = tov_test::PATIENT_MS;

static pid_t own_child = -1;            // the only process that may be signalled
static std::vector<int> refused_kills;  // in this process

extern "C" int kill(pid_t pid, int number) noexcept {
  if (pid > 1 && pid == own_child) return static_cast<int>(syscall(SYS_kill, pid, number));
  refused_kills.push_back(pid);
  errno = EPERM;
  return -1;
}

namespace {

// A child that waits to be signalled.
class Victim {
 public:
  Victim() : pid_(fork()) {
    if (pid_ == 0)
      for (;;)
        pause();
    own_child = pid_;
  }
  ~Victim() {
    if (pid_ > 0) end_signal_by(SIGKILL);
    own_child = -1;
  }
  Victim(const Victim &) = delete;
  Victim &operator=(const Victim &) = delete;
  pid_t pid() const { return pid_; }

  // The signal that ended it, once it has ended.
  int end_signal() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WTERMSIG(status);
  }
  bool lives() const { return tov_test::process_lives(pid_); }

 private:
  void end_signal_by(int number) {
    syscall(SYS_kill, pid_, number);
    (void)end_signal();
  }
  pid_t pid_;
};

class TovHealth : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories("/etc/tov");
    fs::remove_all(HOOK);
    fs::remove(RESULT);
    refused_kills.clear();
  }
  void TearDown() override {
    // To the last one: a hook that is still at work would be taken for the next test's.
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    fs::remove_all(HOOK);
  }

  static void install_hook(const std::string &script, mode_t mode = 0755) {
    write_file(HOOK, script);
    chmod(HOOK, mode);
  }

  // What the hook wrote. It renames its file into place when it is complete.
  static std::string result() {
    EXPECT_TRUE(wait_until([] { return fs::exists(RESULT); }, PATIENCE));
    return read_file(RESULT);
  }
};

const std::string DONE = "mv /tmp/hook_partial /tmp/hook_result\n";

}  // namespace

TEST_F(TovHealth, InitSucceeds) {
  EXPECT_EQ(psh_lib_common_init(), 0);
  protect_selfhealing_flush_buf_in_emergency();
}

// ---- without the program --------------------------------------------------------------------

TEST_F(TovHealth, EveryRequestIsLoggedAsCritical) {
  tov_test::LogListener log;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_RELOAD_SELF_ACT, 0, "tov", "why %n not.\n"), 0);
  const auto whole = log.next();
  ASSERT_TRUE(whole);
  EXPECT_TRUE(whole->starts_with("<26>")) << *whole;
  EXPECT_TRUE(whole->ends_with("]: self-healing action 3, process 0, asked by tov: why %n not."))
      << *whole;
}

TEST_F(TovHealth, KillActionAbortsTheProcess) {
  Victim victim;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, victim.pid(), "tov", "hung\n"), 0);
  EXPECT_EQ(victim.end_signal(), SIGABRT);
}

TEST_F(TovHealth, OtherActionsAreOnlyLogged) {
  const Victim victim;
  for (int action = PSH_UNDEF_ACT; action < PSH_ACT_MAX; action++) {
    if (action == PSH_KILL_PROCESS_ACT) continue;
    EXPECT_EQ(protect_selfhealing_do_action(action, victim.pid(), "tov", "x"), 0);
  }
  EXPECT_TRUE(victim.lives());
  EXPECT_TRUE(refused_kills.empty());
}

TEST_F(TovHealth, InvalidTargetsAreNotSignalled) {
  for (const int pid : {0, -1, 1, -own_child, getpid()})
    EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, pid, "tov", "x"), -EINVAL) << pid;
  EXPECT_TRUE(refused_kills.empty());
}

TEST_F(TovHealth, ProcessThatCannotBeSignalledIsReported) {
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, 77777777, "tov", "x"), -EPERM);
  EXPECT_EQ(refused_kills, std::vector<int>{77777777});
}

TEST_F(TovHealth, UnknownActionsAreRefused) {
  tov_test::LogListener log;
  for (const int action : {-1, static_cast<int>(PSH_ACT_MAX), 1000})
    EXPECT_EQ(protect_selfhealing_do_action(action, 0, "tov", "x"), -EINVAL);
  EXPECT_FALSE(log.next());
}

TEST_F(TovHealth, MissingTextsCountAsEmpty) {
  tov_test::LogListener log;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, nullptr, nullptr), 0);
  EXPECT_EQ(log.next_text(), "self-healing action 1, process 0, asked by : ");
}

TEST_F(TovHealth, FileThatIsNotExecutableIsNoProgram) {
  install_hook("#!/bin/sh\n" + DONE, 0644);
  Victim victim;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, victim.pid(), "tov", "x"), 0);
  EXPECT_EQ(victim.end_signal(), SIGABRT);
}

TEST_F(TovHealth, DirectoryIsNoProgram) {
  fs::create_directory(HOOK);
  Victim victim;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, victim.pid(), "tov", "x"), 0);
  EXPECT_EQ(victim.end_signal(), SIGABRT);
}

// ---- with the program -----------------------------------------------------------------------

TEST_F(TovHealth, ProgramGetsFourArguments) {
  install_hook("#!/bin/sh\nprintf '%s|' \"$#\" \"$@\" > /tmp/hook_partial\n" + DONE);
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, 4711, "tov", "a  \"b\" $c;\n"), 0);
  EXPECT_EQ(result(), "4|2|4711|tov|a  \"b\" $c;|");
  EXPECT_TRUE(refused_kills.empty());  // with a program the killing is its business
}

TEST_F(TovHealth, ReasonLosesItsLineEndOnly) {
  install_hook("#!/bin/sh\nprintf '%s|' \"$4\" > /tmp/hook_partial\n" + DONE);
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", "one\ntwo\r\n"), 0);
  EXPECT_EQ(result(), "one\ntwo|");
}

TEST_F(TovHealth, LongTextsAreCut) {
  install_hook("#!/bin/sh\nprintf '%s|' \"${#3}\" \"${#4}\" > /tmp/hook_partial\n" + DONE);
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, std::string(500, 'm').c_str(),
                                          std::string(5000, 'r').c_str()),
            0);
  EXPECT_EQ(result(), "63|1023|");
}

// A field of /proc/PID/stat counted as in proc(5), for a name without blanks.
static std::string stat_field(const std::string &stat, int number) {
  std::istringstream fields(stat);
  std::string field;
  for (int i = 0; i < number; i++)
    fields >> field;
  return field;
}

TEST_F(TovHealth, ProgramRunsAsAnOrdinaryProcess) {
  install_hook("#!/bin/sh\ncat /proc/$$/stat /proc/self/status > /tmp/hook_partial\n" + DONE);
  // The caller: real-time when that is allowed, signals blocked, ignored and handled.
  sched_param fifo{}, other{};
  fifo.sched_priority = 99;
  const bool real_time = pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo) == 0;
  sigset_t blocked, before;
  sigemptyset(&blocked);
  for (const int number : {SIGALRM, SIGCHLD, SIGUSR2})
    sigaddset(&blocked, number);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  signal(SIGTERM, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGRTMAX, SIG_IGN);

  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", "x"), 0);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGUSR2), 1);  // the caller's own mask is as it was
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
  const std::string seen = result();

  signal(SIGTERM, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGRTMAX, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_setschedparam(pthread_self(), SCHED_OTHER, &other);

  EXPECT_NE(seen.find("\nSigBlk:\t0000000000000000\n"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\nSigIgn:\t0000000000000000\n"), std::string::npos) << seen;
  EXPECT_EQ(stat_field(seen, 6), stat_field(seen, 1));  // leads a session of its own
  EXPECT_EQ(stat_field(seen, 40), "0");                 // real-time priority
  EXPECT_EQ(stat_field(seen, 41), "0");                 // SCHED_OTHER
  if (!real_time) GTEST_SKIP() << "real-time scheduling is not allowed here: it was not undone";
}

TEST_F(TovHealth, NothingIsLeftOpenForTheProgram) {
  install_hook("#!/bin/sh\nls -l /proc/self/fd > /tmp/hook_partial\n" + DONE);
  write_file("/tmp/secret", "");
  const tov_fd_t secret(open("/tmp/secret", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", "x"), 0);
  EXPECT_EQ(result().find("secret"), std::string::npos);
}

TEST_F(TovHealth, CallerDoesNotWaitForTheProgram) {
  ASSERT_EQ(mkfifo("/tmp/hook_gate", 0600), 0);
  install_hook("#!/bin/sh\nread x < /tmp/hook_gate\n");
  // A call that waited would not come back: the gate opens only behind it.
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", "x"), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0);  // it runs
  write_file("/tmp/hook_gate", "open\n");
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(TovHealth, ProgramThatCannotRunFallsBackToTheAbort) {
  install_hook("#!/no/such/interpreter\n");
  Victim victim;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_KILL_PROCESS_ACT, victim.pid(), "tov", "x"), 0);
  EXPECT_EQ(victim.end_signal(), SIGABRT);
  int status = 0;
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  EXPECT_EQ(WEXITSTATUS(status), 127);
}

TEST_F(TovHealth, ErrnoIsKept) {
  errno = 7;
  EXPECT_EQ(protect_selfhealing_do_action(PSH_INNER_ACT, 0, "tov", "x"), 0);
  EXPECT_EQ(errno, 7);
}
