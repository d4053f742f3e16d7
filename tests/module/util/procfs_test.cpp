// Readers of /proc against the kernel's own files: that these look as the readers expect them.
#include "util/procfs.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/module/refused_calls.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/identity.h"
#include "util/tov_utils.h"

static constexpr int64_t MS = 1000000;

namespace {

// A program that runs until its standard input is closed.
class Running {
 public:
  Running(const char *file, std::vector<std::string> words) {
    int ends[2], ready[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || pipe2(ready, O_CLOEXEC) != 0) abort();
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[0], STDIN_FILENO);
      execv(file, argv.data());
      _exit(127);
    }
    close(ends[0]);
    close(ready[1]);
    input_.n = ends[1];
    char byte;  // the pipe's last writer goes at exec
    (void)!read(ready[0], &byte, 1);
    close(ready[0]);
    // The kernel shows the words a moment after the execution itself.
    tov_test::wait_until([this] { return !tov_test::command_line(pid_).empty(); },
                         tov_test::PATIENT_MS);
  }
  ~Running() {
    input_.reset();
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Running(const Running &) = delete;
  Running &operator=(const Running &) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
  tov_fd_t input_;
};

}  // namespace

static std::string executable(const char *file) {
  char path[PATH_MAX];
  return realpath(file, path) != nullptr ? path : "";
}

static std::string cmdline_of(pid_t pid, int len = 1024) {
  std::vector<char> buf(static_cast<size_t>(len), 'x');
  const char *text = pid_to_cmdline(pid, buf.data(), len);
  return text == nullptr ? "(null)" : text;
}

// Runs the shell under an odd argv[0]; it reads its input and so waits.
static std::vector<std::string> shell_words(std::vector<std::string> arguments) {
  std::vector<std::string> words = {"odd name", "-c", "read x"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

// ---- command line ---------------------------------------------------------------------------

TEST(TovUtilsCmdline, ArgumentsAreJoinedBehindTheExecutable) {
  const Running shell("/bin/sh", shell_words({"-a", "b"}));
  EXPECT_EQ(cmdline_of(shell.pid()), executable("/bin/sh") + " -c read x -a b");
}

TEST(TovUtilsCmdline, LineFeedCutsTheVisibleText) {
  const Running shell("/bin/sh", shell_words({"one\ntwo", "three"}));
  EXPECT_EQ(cmdline_of(shell.pid()), executable("/bin/sh") + " -c read x one");
}

TEST(TovUtilsCmdline, LongCommandLineFillsTheBuffer) {
  const Running shell("/bin/sh", shell_words({std::string(9000, 'y'), std::string(9000, 'z')}));
  const std::string whole =
      executable("/bin/sh") + " -c read x " + std::string(9000, 'y') + " " + std::string(9000, 'z');
  EXPECT_EQ(cmdline_of(shell.pid(), 20000), whole);
  EXPECT_EQ(cmdline_of(shell.pid(), 256), whole.substr(0, 255));
  EXPECT_EQ(cmdline_of(shell.pid(), 4096), whole.substr(0, 4095));
}

TEST(TovUtilsCmdline, WithoutAnExecutableTheBufferIsUntouched) {
  const tov_test::Zombie zombie;
  char buf[64] = "before";
  for (const pid_t pid : {zombie.pid(), pid_t{0}, pid_t{-1}, pid_t{INT_MAX}})
    EXPECT_EQ(pid_to_cmdline(pid, buf, sizeof buf), nullptr) << pid;
  EXPECT_EQ(pid_to_cmdline(getpid(), buf, 1), nullptr);
  EXPECT_EQ(pid_to_cmdline(getpid(), buf, 0), nullptr);
  EXPECT_EQ(pid_to_cmdline(getpid(), buf, -5), nullptr);
  EXPECT_STREQ(buf, "before");
}

TEST(TovUtilsCmdline, KernelThreadHasNone) {
  if (tov_test::status_field(2, "Name") != "kthreadd") GTEST_SKIP() << "no kernel thread visible";
  char buf[64];
  EXPECT_EQ(pid_to_cmdline(2, buf, sizeof buf), nullptr);
}

TEST(TovUtilsCmdline, NoDescriptorIsLeft) {
  const size_t before = tov_test::open_descriptors();
  (void)cmdline_of(getpid());
  (void)cmdline_of(getpid(), 40);
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

// ---- status ---------------------------------------------------------------------------------

TEST(TovStatusFile, LinesComeInOrderAndWithTheirEnds) {
  tov_status_file_t status(getpid());
  ASSERT_TRUE(status);
  const char *first = status.next();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(strncmp(first, "Name:\t", 6), 0);
  EXPECT_EQ(first[strlen(first) - 1], '\n');
  EXPECT_EQ(atoi(status.find("Pid:")), getpid());
  EXPECT_EQ(status.find("Pid:"), nullptr) << "what was passed does not come again";
  EXPECT_EQ(status.next(), nullptr);
}

TEST(TovStatusFile, UnknownTaskHasNoLines) {
  for (const pid_t task : {0, -1, INT_MAX}) {
    errno = 0;
    tov_status_file_t status(task);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(status);
    EXPECT_EQ(status.next(), nullptr);
    EXPECT_EQ(status.find("Name:"), nullptr);
  }
}

TEST(TovUtilsTgid, ThreadBelongsToItsProcess) {
  pid_t thread_id = 0, owner = 0;
  std::thread([&] {
    thread_id = gettid();
    owner = tov_get_ppid_form_pid(thread_id);
  }).join();
  EXPECT_NE(thread_id, getpid());
  EXPECT_EQ(owner, getpid());
  EXPECT_EQ(tov_get_ppid_form_pid(getpid()), getpid());
}

TEST(TovUtilsTgid, NameCannotForgeTheOwner) {
  std::thread([] {
    prctl(PR_SET_NAME, "x\nTgid:\t1");
    EXPECT_EQ(tov_get_ppid_form_pid(gettid()), getpid());
  }).join();
}

static std::string name_after_rename(const char *name, int len = 64) {
  std::string found;
  std::thread([&] {
    prctl(PR_SET_NAME, name);
    char buf[64] = "before";
    found = tov_get_pid_name(gettid(), buf, len) == 0 ? buf : std::string("-1 ") + buf;
  }).join();
  return found;
}

TEST(TovUtilsName, ReadsTheName) {
  EXPECT_EQ(name_after_rename("worker"), "worker");
  EXPECT_EQ(name_after_rename("a b) (c %n"), "a b) (c %n");
}

TEST(TovUtilsName, LeadingBlanksAndCarriageReturnAreNoPartOfIt) {
  EXPECT_EQ(name_after_rename(" \t worker"), "worker");
  EXPECT_EQ(name_after_rename("wor\rker"), "wor");
}

// ---- liveness -------------------------------------------------------------------------------

// How long the answer took, in milliseconds; fails the test when it is not the expected one.
static int64_t time_of_answer(pid_t pid, int expected) {
  const int64_t start = tov_test::monotonic_ns();
  EXPECT_EQ(process_life(pid), expected) << pid;
  return (tov_test::monotonic_ns() - start) / MS;
}

// Whether an answer came before the pause between two looks, in one of many attempts: a busy
// machine can make any single one wait.
static bool seen_at_first_look(pid_t pid) {
  for (int attempt = 0; attempt < 100; attempt++)
    if (time_of_answer(pid, 0) < 10) return true;
  return false;
}

TEST(TovUtilsLife, RunningAndSleepingAreSeenAtTheFirstLook) {
  const Running cat("/bin/cat", {"cat"});
  EXPECT_TRUE(seen_at_first_look(getpid()));
  EXPECT_TRUE(seen_at_first_look(cat.pid()));
}

TEST(TovUtilsLife, StoppedProcessLives) {
  const Running cat("/bin/cat", {"cat"});
  kill(cat.pid(), SIGSTOP);
  ASSERT_TRUE(tov_test::wait_until([&] { return tov_test::process_state(cat.pid()) == 'T'; },
                                   tov_test::PATIENT_MS));
  EXPECT_EQ(process_life(cat.pid()), 0);
}

TEST(TovUtilsLife, ZombieIsDeadAfterThreeLooks) {
  tov_test::Zombie zombie;
  EXPECT_GE(time_of_answer(zombie.pid(), -1), 30);
  const pid_t pid = zombie.pid();
  zombie.bury();
  EXPECT_GE(time_of_answer(pid, -1), 30);
}

TEST(TovUtilsLife, NameWithParenthesesDoesNotMislead) {
  const tov_test::ScratchDir dir;
  const std::string odd = dir / "a) Z (b";
  std::filesystem::copy_file("/bin/cat", odd);
  const Running cat(odd.c_str(), {"cat"});
  EXPECT_EQ(process_life(cat.pid()), 0);
}

// ---- a certain answer -------------------------------------------------------------------------

// What the kernel shows of the ended, as it is relied on: a zombie counts itself as a thread.
TEST(TovIdentityLife, ZombieAndItsGraveAreCertainlyDead) {
  tov_test::Zombie zombie;
  const pid_t pid = zombie.pid();
  EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_ENDED);
  zombie.bury();
  EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_ENDED);
}

TEST(TovIdentityLife, ZombieOfManyThreadsIsCertainlyDead) {
  static constexpr int THREADS = 8;
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    for (int i = 0; i < THREADS; i++)
      std::thread([] { pause(); }).detach();
    raise(SIGKILL);
  }
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_ENDED);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(TovIdentityLife, RunningAndSleepingLive) {
  const Running cat("/bin/cat", {"cat"});
  EXPECT_EQ(tov_identity_life(getpid(), {}), TOV_LIFE_LIVES);
  EXPECT_EQ(tov_identity_life(cat.pid(), {}), TOV_LIFE_LIVES);
  std::thread([] { EXPECT_EQ(tov_identity_life(gettid(), {}), TOV_LIFE_LIVES); }).join();
}

TEST(TovIdentityLife, OthersGoOnWhenTheFirstThreadHasLeft) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);  // of this thread alone
  }
  EXPECT_TRUE(tov_test::wait_until([=] { return tov_test::process_state(pid) == 'Z'; },
                                   tov_test::PATIENT_MS));
  EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_THREADS);
  kill(pid, SIGKILL);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(TovIdentityLife, WithoutAFreeDescriptorNothingIsCertain) {
  const tov_test::Zombie zombie;
  const pid_t gone = tov_test::gone_process();
  const tov_test::NoMoreDescriptors none;
  for (const pid_t pid : {getpid(), zombie.pid(), gone})
    EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_UNKNOWN) << pid;
}
