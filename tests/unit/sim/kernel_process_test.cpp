// The simulated kernel's processes: what they execute, how they end, who is asked about them.
// tests/module/util/tov_sys_test.cpp shows that the real kernel does the same.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/tov_sys.h"

using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::kernel;
using tov_test::kernel_s;

static constexpr int64_t US_PER_S = 1'000'000;

namespace {

// Of a stat file, counted from 1.
enum {
  STATE = 3,
  SESSION = 6,
  PRIORITY = 18,
  NICE,
  THREADS,
  TIMER,
  STARTED,
  STACK = 28,
  LAST = 52
};

class KernelProcess : public tov_test::Simulated {
 protected:
  static std::string path_of(pid_t pid, const char *file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
  }
  static std::string read(int fd) {
    char buf[1024];
    const ssize_t count = tov_sys_read(fd, buf, sizeof buf);
    return count < 0 ? strerrorname_np(errno) : std::string(buf, static_cast<size_t>(count));
  }
  static int open(pid_t pid, const char *file) {
    return tov_sys_open(path_of(pid, file).c_str(), O_RDONLY | O_CLOEXEC);
  }
  static std::string text_of(pid_t pid, const char *file) {
    const int fd = open(pid, file);
    if (fd < 0) return strerrorname_np(errno);
    std::string text = read(fd);
    EXPECT_EQ(tov_sys_close(fd), 0);
    return text;
  }
  // A field of the stat file of a program whose name has no blank.
  static std::string field(pid_t pid, int number) {
    std::istringstream text(text_of(pid, "stat"));
    std::string word;
    for (int i = 0; i < number; i++)
      text >> word;
    return word;
  }
  static std::string target(pid_t pid) {
    char buf[256];
    const ssize_t count = tov_sys_readlink(path_of(pid, "exe").c_str(), buf, sizeof buf);
    return count < 0 ? strerrorname_np(errno) : std::string(buf, static_cast<size_t>(count));
  }
  // What stat(2) says about a path: "DEVICE INODE", or the error.
  static std::string identity(const std::string &path) {
    struct stat status {};
    if (tov_sys_fstatat(AT_FDCWD, path.c_str(), &status, 0) < 0) return strerrorname_np(errno);
    return std::to_string(status.st_dev) + " " + std::to_string(status.st_ino);
  }
  static std::string executable(pid_t pid) { return identity(path_of(pid, "exe")); }
  // Whether a descriptor can be read from at once.
  static bool readable(int fd) {
    pollfd waited{fd, POLLIN, 0};
    return tov_sys_poll(&waited, 1, 0) == 1;
  }
};

}  // namespace

// ---- what is shown --------------------------------------------------------------------------

TEST_F(KernelProcess, StatTellsSessionThreadsStartAndStack) {
  kernel().set_uptime(77);
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().process(pid).session = 4711;
  (void)kernel().start_thread(pid);
  EXPECT_EQ(field(pid, STATE), "S");
  EXPECT_EQ(field(pid, SESSION), "4711");
  EXPECT_EQ(field(pid, PRIORITY), "20");
  EXPECT_EQ(field(pid, NICE), "0");
  EXPECT_EQ(field(pid, THREADS), "2");
  EXPECT_EQ(field(pid, TIMER), "0");
  EXPECT_EQ(field(pid, STARTED), "7700");
  EXPECT_EQ(field(pid, STACK), std::to_string(kernel().process(pid).stack));
  EXPECT_EQ(field(pid, LAST), "0");
  EXPECT_EQ(field(pid, LAST + 1), field(pid, LAST)) << "there is no more";
}

TEST_F(KernelProcess, StacksAreApartButForThreadsAndForks) {
  const pid_t first = kernel().start({"/bin/x"});
  const pid_t second = kernel().start({"/bin/x"});
  EXPECT_NE(field(first, STACK), field(second, STACK));
  EXPECT_EQ(field(kernel().start_thread(first), STACK), field(first, STACK));
  EXPECT_EQ(field(tov_sys_fork(), STACK), field(kernel_s::SELF, STACK));
  EXPECT_EQ(field(kernel().start({}), STACK), "0") << "a kernel thread";
}

TEST_F(KernelProcess, LinkToTheExecutableIsFollowedToItsFile) {
  kernel().write_file("/bin/x", "");
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t same = kernel().start({"/bin/x"});
  const pid_t other = kernel().start({"/bin/y"});  // without a file
  EXPECT_EQ(executable(pid), identity("/bin/x"));
  EXPECT_EQ(executable(same), executable(pid));
  EXPECT_NE(executable(other), executable(pid));
  EXPECT_EQ(executable(kernel().start({"/bin/y"})), executable(other));
  kernel().process(pid).exe_file->device = 7;
  EXPECT_EQ(executable(pid), "7 " + std::to_string(kernel().process(pid).exe_file->number));
  EXPECT_EQ(executable(kernel().start({})), "ENOENT") << "a kernel thread";
  EXPECT_EQ(executable(4711), "ENOENT");
}

TEST_F(KernelProcess, DirectoryOfANameIsTheDescriptorOrNone) {
  const pid_t pid = kernel().start({"/bin/x"});
  const int proc = tov_sys_open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct stat status {};
  EXPECT_EQ(tov_sys_fstatat(proc, std::to_string(pid).c_str(), &status, 0), 0);
  EXPECT_EQ(tov_sys_fstatat(AT_FDCWD, path_of(pid, "stat").c_str(), &status, 0), 0);
  EXPECT_EQ(tov_sys_fstatat(4711, "x", &status, 0), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(KernelProcess, WithoutProcNobodyIsShownAndEverybodyIsThere) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().write_file("/proc/sys/kernel/random/boot_id", "1\n");
  kernel().proc_is_mounted = false;
  EXPECT_FALSE(kernel().exists("/proc/sys/kernel/random/boot_id"));
  EXPECT_EQ(text_of(pid, "stat"), "ENOENT");
  EXPECT_EQ(executable(pid), "ENOENT");
  DIR *proc = tov_sys_opendir("/proc");
  int entries = 0;
  while (tov_sys_readdir(proc) != nullptr)
    entries++;
  EXPECT_EQ(entries, 2) << ". and ..";
  EXPECT_EQ(tov_sys_closedir(proc), 0);
  EXPECT_EQ(tov_sys_kill(pid, 0), 0);
}

TEST_F(KernelProcess, AskingWhetherAnIdIsTakenIsNoSignal) {
  const pid_t pid = kernel().start({"/bin/x"});
  EXPECT_EQ(tov_sys_kill(pid, 0), 0);
  EXPECT_EQ(tov_sys_kill(kernel().start_thread(pid), 0), 0);
  EXPECT_EQ(tov_sys_kill(4711, 0), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_THAT(kernel().kills, IsEmpty());
}

// ---- executions -----------------------------------------------------------------------------

TEST_F(KernelProcess, ExecutionKeepsIdAndStartAndNothingElse) {
  const pid_t pid = kernel().start({"/bin/x", "-d"});
  const pid_t thread = kernel().start_thread(pid);
  const std::string stack = field(pid, STACK), started = field(pid, STARTED);
  const std::string executed = executable(pid);
  const int stat = open(pid, "stat");
  kernel().write_file("/tmp/lock", "");
  kernel().lock("/tmp/lock", pid);
  kernel().pass(US_PER_S);
  kernel().exec(pid, {"/bin/y", "-e"});
  EXPECT_EQ(kernel().lock_holder("/tmp/lock"), 0);
  EXPECT_EQ(field(pid, STARTED), started);
  EXPECT_NE(field(pid, STACK), stack);
  EXPECT_NE(executable(pid), executed);
  EXPECT_EQ(target(pid), "/bin/y");
  EXPECT_EQ(text_of(pid, "cmdline"), std::string("/bin/y\0-e\0", 10));
  EXPECT_EQ(field(pid, 2), "(y)");
  EXPECT_EQ(field(pid, THREADS), "1");
  EXPECT_FALSE(kernel().has(thread));
  EXPECT_THAT(read(stat), testing::HasSubstr("(y)")) << "the same process";
}

TEST_F(KernelProcess, ThreadThatExecutesTakesTheIdAndTheStartOfTheFirst) {
  for (const bool leader_has_ended : {false, true}) {
    const pid_t pid = kernel().start({"/bin/x"});
    const std::string started = field(pid, STARTED);
    kernel().pass(US_PER_S);
    const pid_t thread = kernel().start_thread(pid);
    EXPECT_NE(field(thread, STARTED), started);
    if (leader_has_ended) kernel().end_thread(pid);
    kernel().exec(thread, {"/bin/y"});
    EXPECT_FALSE(kernel().has(thread));
    EXPECT_EQ(field(pid, STATE), "S");
    EXPECT_EQ(field(pid, STARTED), started);
    EXPECT_EQ(target(pid), "/bin/y");
  }
}

TEST_F(KernelProcess, TitleChangesTheWordsAlone) {
  const pid_t pid = kernel().start({"/bin/x", "-d"});
  const std::string stack = field(pid, STACK), executed = executable(pid);
  kernel().set_title(pid, {"x: idle"});
  EXPECT_EQ(text_of(pid, "cmdline"), std::string("x: idle\0", 8));
  EXPECT_EQ(target(pid), "/bin/x");
  EXPECT_EQ(field(pid, STACK), stack);
  EXPECT_EQ(executable(pid), executed);
}

TEST_F(KernelProcess, ReplacedAndRemovedExecutablesRunOn) {
  for (const bool has_file : {false, true}) {
    if (has_file) kernel().write_file("/bin/x", "");
    const pid_t old = kernel().start({"/bin/x"});
    const std::string executed = executable(old);
    kernel().replace_binary("/bin/x");
    EXPECT_EQ(target(old), "/bin/x (deleted)");
    EXPECT_EQ(executable(old), executed);
    const pid_t next = kernel().start({"/bin/x"});
    EXPECT_EQ(target(next), "/bin/x");
    EXPECT_NE(executable(next), executed);
    kernel().remove_binary("/bin/x");
    EXPECT_EQ(target(next), "/bin/x (deleted)");
    EXPECT_NE(executable(next), "ENOENT");
    EXPECT_FALSE(kernel().exists("/bin/x"));
  }
}

TEST_F(KernelProcess, RenamedExecutableIsShownWithItsNewName) {
  kernel().write_file("/bin/x", "");
  kernel().write_file("/bin/y", "");
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t other = kernel().start({"/bin/y"});
  kernel().rename("/bin/x", "/bin/y");
  EXPECT_EQ(target(pid), "/bin/y");
  EXPECT_EQ(executable(pid), identity("/bin/y"));
  EXPECT_EQ(target(other), "/bin/y (deleted)");
}

// ---- ids ------------------------------------------------------------------------------------

TEST_F(KernelProcess, IdIsUsedAgainInALaterTickOrInTheSame) {
  const pid_t pid = kernel().start({"/bin/x"});
  const std::string started = field(pid, STARTED);
  const int stat = open(pid, "stat");
  kernel().end(pid);
  EXPECT_EQ(kernel().start_as(pid, {"/bin/y"}, kernel_s::SAME_TICK), pid);
  EXPECT_EQ(field(pid, STARTED), started);
  EXPECT_EQ(read(stat), "ESRCH") << "it is another process all the same";
  kernel().end(pid);
  EXPECT_EQ(kernel().start_as(pid, {"/bin/y"}), pid);
  EXPECT_GT(std::stoi(field(pid, STARTED)), std::stoi(started));
  EXPECT_GT(kernel().start({"/bin/z"}), pid) << "the others go on";
}

// ---- ends -----------------------------------------------------------------------------------

TEST_F(KernelProcess, EndTakesAllThreads) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  kernel().end(pid);
  EXPECT_FALSE(kernel().has(pid));
  EXPECT_FALSE(kernel().has(thread));
}

TEST_F(KernelProcess, SingleThreadEndsAlone) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  kernel().end_thread(thread);
  EXPECT_FALSE(kernel().has(thread));
  EXPECT_EQ(field(pid, STATE), "S");
  EXPECT_EQ(field(pid, THREADS), "1");
}

TEST_F(KernelProcess, FirstThreadIsAZombieUntilTheLastOneEnds) {
  kernel().write_file("/tmp/lock", "");
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t second = kernel().start_thread(pid);
  const pid_t third = kernel().start_thread(pid);
  const std::string started = field(pid, STARTED);
  kernel().lock("/tmp/lock", pid);
  kernel().end_thread(pid);
  EXPECT_EQ(field(pid, STATE), "Z");
  EXPECT_EQ(field(pid, THREADS), "3");
  EXPECT_EQ(field(pid, STARTED), started);
  EXPECT_EQ(field(pid, STACK), "0");
  EXPECT_EQ(text_of(pid, "cmdline"), "");
  EXPECT_EQ(target(pid), "ENOENT");
  EXPECT_EQ(executable(pid), "ENOENT");
  EXPECT_EQ(target(second), "/bin/x");
  EXPECT_EQ(kernel().lock_holder("/tmp/lock"), pid);
  kernel().end_thread(second);
  EXPECT_EQ(field(pid, THREADS), "2");
  kernel().end_thread(third);
  EXPECT_FALSE(kernel().has(pid));
  EXPECT_EQ(kernel().lock_holder("/tmp/lock"), 0);
}

TEST_F(KernelProcess, ChildWithoutItsFirstThreadIsNotWaitedForYet) {
  const pid_t child = tov_sys_fork();
  const pid_t thread = kernel().start_thread(child);
  kernel().end_thread(child);
  EXPECT_EQ(tov_sys_waitpid(-1, nullptr, WNOHANG), 0);
  kernel().end_thread(thread);
  EXPECT_EQ(field(child, STATE), "Z");
  EXPECT_EQ(field(child, THREADS), "1");
  EXPECT_EQ(tov_sys_waitpid(-1, nullptr, WNOHANG), child);
}

TEST_F(KernelProcess, SignalToAThreadIsTheProcesss) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  kernel().end_thread(pid);
  EXPECT_EQ(tov_sys_kill(thread, SIGKILL), 0);
  EXPECT_FALSE(kernel().has(pid));
}

// ---- descriptors of processes ---------------------------------------------------------------

TEST_F(KernelProcess, DescriptorOfAProcessIsReadableAtItsLastThreadsEnd) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  const int before = tov_sys_pidfd_open(pid);
  kernel().end_thread(pid);
  const int after = tov_sys_pidfd_open(pid);
  EXPECT_FALSE(readable(before));
  EXPECT_FALSE(readable(after));
  kernel().after(US_PER_S, [=] { kernel().end_thread(thread); });
  pollfd waited{after, POLLIN, 0};
  EXPECT_EQ(span_us([&] { EXPECT_EQ(tov_sys_poll(&waited, 1, -1), 1); }), US_PER_S);
  EXPECT_TRUE(readable(before));
}

TEST_F(KernelProcess, DescriptorOfAProcessIsNotThatOfTheNextUserOfItsId) {
  const pid_t pid = kernel().start({"/bin/x"});
  const int fd = tov_sys_pidfd_open(pid);
  EXPECT_EQ(tov_sys_pidfd_signal(fd, SIGTERM), 0);
  kernel().end(pid);
  kernel().start_as(pid, {"/bin/y"}, kernel_s::SAME_TICK);
  EXPECT_TRUE(readable(fd));
  EXPECT_EQ(tov_sys_pidfd_signal(fd, SIGKILL), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_THAT(kernel().kills, ElementsAre(tov_test::kill_s{pid, SIGTERM}));
}

TEST_F(KernelProcess, ZombieHasADescriptorThatIsReadable) {
  const pid_t child = tov_sys_fork();
  kernel().end(child);
  const int fd = tov_sys_pidfd_open(child);
  EXPECT_TRUE(readable(fd));
  EXPECT_EQ(tov_sys_pidfd_signal(fd, 0), 0);
  EXPECT_EQ(tov_sys_waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(readable(fd));
}

TEST_F(KernelProcess, WhoHasNoDescriptorOfAProcess) {
  EXPECT_EQ(tov_sys_pidfd_open(4711), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(tov_sys_pidfd_open(0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(tov_sys_pidfd_open(kernel().start_thread(kernel_s::SELF)), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(tov_sys_pidfd_signal(tov_sys_eventfd(0, EFD_CLOEXEC), 0), -1);
  EXPECT_EQ(errno, EBADF);
}

// ---- descriptors and locks --------------------------------------------------------------------

TEST_F(KernelProcess, NoDescriptorIsGivenOutAboveTheLimit) {
  const int file = tov_sys_open("/tmp/f", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  kernel().descriptor_limit = kernel().descriptors();
  const auto refused = [](int fd) { return fd == -1 && errno == EMFILE; };
  EXPECT_TRUE(refused(tov_sys_open("/tmp/f", O_RDONLY | O_CLOEXEC)));
  EXPECT_TRUE(refused(tov_sys_open("/nowhere", O_RDONLY | O_CLOEXEC))) << "the path is not asked";
  EXPECT_TRUE(refused(tov_sys_open("/tmp/new", O_RDWR | O_CREAT | O_CLOEXEC, 0600)));
  EXPECT_FALSE(kernel().exists("/tmp/new"));
  EXPECT_TRUE(refused(tov_sys_dup_above(file, 3)));
  EXPECT_TRUE(refused(tov_sys_eventfd(0, EFD_CLOEXEC)));
  EXPECT_TRUE(refused(tov_sys_socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  EXPECT_TRUE(refused(tov_sys_pidfd_open(kernel_s::SELF)));
  EXPECT_EQ(tov_sys_opendir("/proc"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_NE(executable(kernel_s::SELF), "EMFILE") << "it takes no descriptor";
  EXPECT_EQ(tov_sys_close(file), 0);
  EXPECT_GE(tov_sys_open("/tmp/f", O_RDONLY | O_CLOEXEC), 0);
}

TEST_F(KernelProcess, HolderOfALockIsNamedToOthersAlone) {
  const pid_t other = kernel().start({"/bin/x"});
  const int fd = tov_sys_open("/tmp/f", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const int reader = tov_sys_open("/tmp/f", O_RDONLY | O_CLOEXEC);
  const auto holder = [reader] {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(tov_sys_lock_holder(reader, &whole), 0);
    return whole.l_type == F_UNLCK ? 0 : whole.l_pid;
  };
  EXPECT_EQ(holder(), 0);
  kernel().lock("/tmp/f", other);
  EXPECT_EQ(holder(), other);
  kernel().end(other);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  EXPECT_EQ(tov_sys_lock(fd, &whole), 0);
  EXPECT_EQ(holder(), 0);
  EXPECT_EQ(tov_sys_lock_holder(4711, &whole), -1);
  EXPECT_EQ(errno, EBADF);
}
