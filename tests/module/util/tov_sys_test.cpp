// What the kernel shows of processes that execute, lose threads and end, and of the locks that they
// hold: what the simulated kernel of the pure tests claims (tests/unit/sim), on the real one.
#include "util/tov_sys.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/personality.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using tov_test::PATIENT_MS;
using tov_test::wait_until;

namespace {

// What /proc shows of a process.
struct shown_s {
  std::string state, session, threads, started, stack;  // of its stat file
  std::string target;                                   // of the link to its executable
  std::string executable;                               // "DEVICE INODE" behind that link
};

// A fork of the test that goes on whenever it is told to, and is gone at the end.
class Puppet {
 public:
  // What it does; next() waits for the next word.
  using body_t = std::function<void(const std::function<void()> &next)>;

  explicit Puppet(const body_t &body) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[1]);
      body([in = ends[0]] {
        char byte;
        if (read(in, &byte, 1) != 1) _exit(1);
      });
      for (;;)
        pause();
    }
    close(ends[0]);
    out_.n = ends[1];
  }
  ~Puppet() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Puppet(const Puppet &) = delete;
  Puppet &operator=(const Puppet &) = delete;
  pid_t pid() const { return pid_; }
  void tell() { EXPECT_EQ(write(out_.n, "", 1), 1); }

 private:
  pid_t pid_;
  tov_fd_t out_;
};

}  // namespace

static std::string path_of(pid_t pid, const char *file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

static std::string identity(const std::string &path) {
  struct stat status {};
  if (tov_sys_fstatat(AT_FDCWD, path.c_str(), &status, 0) < 0) return strerrorname_np(errno);
  return std::to_string(status.st_dev) + " " + std::to_string(status.st_ino);
}

static std::string target_of(pid_t pid) {
  char buf[PATH_MAX];
  const ssize_t count = tov_sys_readlink(path_of(pid, "exe").c_str(), buf, sizeof buf);
  return count < 0 ? strerrorname_np(errno) : std::string(buf, static_cast<size_t>(count));
}

static shown_s look(pid_t pid) {
  enum { STATE = 3, SESSION = 6, THREADS = 20, STARTED = 22, STACK = 28 };
  const std::string stat = tov_test::read_file(path_of(pid, "stat"));
  std::istringstream text(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
  std::vector<std::string> fields(STATE);
  for (std::string word; text >> word;)
    fields.push_back(word);
  fields.resize(STACK + 1);
  return {fields[STATE],
          fields[SESSION],
          fields[THREADS],
          fields[STARTED],
          fields[STACK],
          target_of(pid),
          identity(path_of(pid, "exe"))};
}

static std::vector<std::string> tasks_of(pid_t pid) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(path_of(pid, "task")))
    names.push_back(entry.path().filename());
  return names;
}

// A copy of a program that waits.
static std::string waiter_at(const std::string &path) {
  std::filesystem::copy_file(TOV_VICTIM, path, std::filesystem::copy_options::overwrite_existing);
  return path;
}

[[noreturn]] static void execute(const std::string &path) {
  execl(path.c_str(), path.c_str(), nullptr);
  _exit(127);
}

// Waits until a process executes a program and shows its words.
static bool executes(pid_t pid, const std::string &path) {
  return wait_until([&] { return target_of(pid) == path && !tov_test::command_line(pid).empty(); },
                    PATIENT_MS);
}

// Waits until the clock by which starts are told is past one of them.
static bool younger_ones_differ(const std::string &started) {
  return wait_until(
      [&] {
        const tov_test::Child younger;
        return look(younger.pid()).started != started;
      },
      PATIENT_MS);
}

static bool readable(int fd) {
  pollfd waited{fd, POLLIN, 0};
  return tov_sys_poll(&waited, 1, 0) == 1;
}

// ---- executions -----------------------------------------------------------------------------

TEST(TovSysProcess, ForkSharesStackAndExecutable) {
  const shown_s ours = look(getpid());
  const tov_test::Child child;
  const shown_s its = look(child.pid());
  EXPECT_NE(its.stack, "0");
  EXPECT_EQ(its.stack, ours.stack);
  EXPECT_EQ(its.executable, ours.executable);
  std::thread([&] { EXPECT_EQ(look(gettid()).stack, ours.stack); }).join();
}

TEST(TovSysProcess, ExecutionKeepsIdAndStartAndNothingElse) {
  const tov_test::ScratchDir dir;
  const std::string waiter = waiter_at(dir / "waiter");
  Puppet puppet([&](const auto &next) {
    personality(PER_LINUX);  // places are drawn anew
    next();
    execute(waiter);
  });
  const shown_s before = look(puppet.pid());
  const tov_fd_t stat(open(path_of(puppet.pid(), "stat").c_str(), O_RDONLY | O_CLOEXEC));
  puppet.tell();
  ASSERT_TRUE(executes(puppet.pid(), waiter));
  const shown_s after = look(puppet.pid());
  EXPECT_EQ(after.started, before.started);
  EXPECT_EQ(after.session, before.session);
  EXPECT_NE(after.executable, before.executable);
  EXPECT_EQ(after.executable, identity(waiter));
  EXPECT_NE(after.stack, before.stack);
  char text[64] = {};
  EXPECT_GT(read(stat.n, text, sizeof text - 1), 0);
  EXPECT_THAT(text, HasSubstr("(waiter)")) << "the text of the first reading, not of the opening";
}

// The stack proves nothing where places are not drawn.
TEST(TovSysProcess, StackIsAtTheSamePlaceWithoutRandomness) {
  const tov_test::ScratchDir dir;
  const std::string waiter = waiter_at(dir / "waiter");
  std::vector<std::string> stacks;
  for (int i = 0; i < 2; i++) {
    Puppet puppet([&](const auto &next) {
      personality(ADDR_NO_RANDOMIZE);
      next();
      execute(waiter);
    });
    puppet.tell();
    ASSERT_TRUE(executes(puppet.pid(), waiter));
    stacks.push_back(look(puppet.pid()).stack);
  }
  EXPECT_NE(stacks[0], "0");
  EXPECT_EQ(stacks[0], stacks[1]);
}

TEST(TovSysProcess, ThreadThatExecutesTakesTheIdAndTheStartOfTheFirst) {
  const tov_test::ScratchDir dir;
  const std::string waiter = waiter_at(dir / "waiter");
  for (const bool leader_ends : {false, true}) {
    Puppet puppet([&](const auto &next) {
      next();
      std::thread([&] {
        next();
        execute(waiter);
      }).detach();
      if (leader_ends) syscall(SYS_exit, 0);
      for (;;)
        pause();
    });
    const shown_s before = look(puppet.pid());
    ASSERT_TRUE(younger_ones_differ(before.started));
    puppet.tell();
    if (leader_ends) {
      ASSERT_TRUE(wait_until([&] { return look(puppet.pid()).state == "Z"; }, PATIENT_MS));
    }
    puppet.tell();
    ASSERT_TRUE(executes(puppet.pid(), waiter));
    EXPECT_EQ(look(puppet.pid()).started, before.started);
    EXPECT_THAT(tasks_of(puppet.pid()), UnorderedElementsAre(std::to_string(puppet.pid())));
  }
}

TEST(TovSysProcess, TitleChangesTheWordsAlone) {
  Puppet puppet([](const auto &next) {
    enum { WORDS_BEGIN = 48, WORDS_END = 49 };
    const std::string stat = tov_test::read_file("/proc/self/stat");
    std::istringstream text(stat.substr(stat.rfind(')') + 2));
    uint64_t begin = 0, end = 0;
    std::string word;
    for (int field = 3; field <= WORDS_END && text >> word; field++) {
      if (field == WORDS_BEGIN) begin = strtoull(word.c_str(), nullptr, 10);
      if (field == WORDS_END) end = strtoull(word.c_str(), nullptr, 10);
    }
    next();
    auto *words = reinterpret_cast<char *>(begin);
    memset(words, 0, end - begin);
    memcpy(words, "idle", std::min<size_t>(4, end - begin - 1));
    prctl(PR_SET_NAME, "another");
  });
  const shown_s before = look(puppet.pid());
  const std::string words = tov_test::command_line(puppet.pid());
  puppet.tell();
  ASSERT_TRUE(wait_until([&] { return tov_test::status_field(puppet.pid(), "Name") == "another"; },
                         PATIENT_MS));
  const shown_s after = look(puppet.pid());
  EXPECT_NE(tov_test::command_line(puppet.pid()), words);
  EXPECT_THAT(tov_test::command_line(puppet.pid()), testing::StartsWith("idle"));
  EXPECT_EQ(after.target, before.target);
  EXPECT_EQ(after.executable, before.executable);
  EXPECT_EQ(after.stack, before.stack);
  EXPECT_EQ(after.started, before.started);
}

TEST(TovSysProcess, ReplacedAndRemovedExecutablesRunOn) {
  const tov_test::ScratchDir dir;
  const std::string path = waiter_at(dir / "x");
  const tov_test::Child old({path});
  const std::string executed = identity(path);
  EXPECT_EQ(identity(path_of(old.pid(), "exe")), executed);
  std::filesystem::rename(waiter_at(dir / "new"), path);
  EXPECT_EQ(target_of(old.pid()), path + " (deleted)");
  EXPECT_EQ(identity(path_of(old.pid(), "exe")), executed);
  EXPECT_NE(identity(path), executed);
  const tov_test::Child next({path});
  EXPECT_EQ(identity(path_of(next.pid(), "exe")), identity(path));
  std::filesystem::rename(path, dir / "y");
  EXPECT_EQ(target_of(next.pid()), dir / "y");
  std::filesystem::remove(dir / "y");
  EXPECT_EQ(target_of(next.pid()), dir / "y" + " (deleted)");
  EXPECT_NE(identity(path_of(next.pid(), "exe")), "ENOENT");
}

// ---- ids ------------------------------------------------------------------------------------

TEST(TovSysProcess, FileOfTheLastUserOfAnIdTellsNothingOfTheNext) {
  tov_fd_t stat;
  pid_t pid = 0;
  std::string started;
  {
    const tov_test::Child child;
    pid = child.pid();
    started = look(pid).started;
    stat.n = open(path_of(pid, "stat").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_TRUE(younger_ones_differ(started));
  }
  const pid_t next = tov_test::fork_child_as(pid);
  if (next == 0)
    for (;;)
      pause();
  ASSERT_EQ(next, pid) << strerror(errno);
  EXPECT_NE(look(pid).started, started);
  char byte;
  EXPECT_EQ(read(stat.n, &byte, 1), -1);
  EXPECT_EQ(errno, ESRCH);
  kill(pid, SIGKILL);
  tov_test::bury_child(pid);
}

TEST(TovSysProcess, WithoutProcNobodyIsShownAndEverybodyIsThere) {
  const tov_test::Child other;
  const tov_test::ScratchDir empty;
  tov_test::in_child([&] {
    ASSERT_EQ(chroot(empty.path().c_str()), 0);
    EXPECT_EQ(target_of(other.pid()), "ENOENT");
    EXPECT_EQ(tov_sys_kill(other.pid(), 0), 0);
  });
}

// ---- ends -----------------------------------------------------------------------------------

// As long as one thread runs: a zombie, counted with the others, without a program.
TEST(TovSysProcess, FirstThreadIsAZombieUntilTheLastOneEnds) {
  const tov_test::Program program("leaderless");
  tov_test::Child child({program.path, "leader-exit", "last-exit=7", "until-told", "lock=2"});
  const pid_t pid = child.pid();
  (void)program.birth();
  const shown_s before = look(pid);
  EXPECT_EQ(before.threads, "2");
  const tov_fd_t early(tov_sys_pidfd_open(pid));
  const std::string tell = "/data/tell." + program.name;
  tov_test::write_file(tell, "");
  ASSERT_TRUE(wait_until([&] { return look(pid).state == "Z"; }, PATIENT_MS));
  const shown_s after = look(pid);
  EXPECT_EQ(after.threads, "2");
  EXPECT_EQ(after.started, before.started);
  EXPECT_EQ(after.session, before.session);
  EXPECT_EQ(after.stack, "0");
  EXPECT_EQ(after.target, "ENOENT");
  EXPECT_EQ(after.executable, "ENOENT");
  EXPECT_EQ(tov_test::read_file(path_of(pid, "cmdline")), "");
  EXPECT_EQ(tasks_of(pid).size(), 2u);
  for (const std::string &task : tasks_of(pid)) {
    const shown_s shown = look(atoi(task.c_str()));
    EXPECT_EQ(shown.threads, "2");
    EXPECT_EQ(shown.state == "Z", task == std::to_string(pid));
    EXPECT_EQ(shown.executable, task == std::to_string(pid) ? "ENOENT" : before.executable);
    EXPECT_EQ(shown.stack, task == std::to_string(pid) ? "0" : before.stack);
  }
  EXPECT_EQ(tov_sys_kill(pid, 0), 0);
  EXPECT_EQ(tov_sys_waitpid(pid, nullptr, WNOHANG), 0);
  const tov_fd_t late(tov_sys_pidfd_open(pid));
  EXPECT_FALSE(readable(early.n));
  EXPECT_FALSE(readable(late.n));

  const tov_fd_t file(open(("/tmp/vsd/0/tov/db/" + program.name + "." + child.name()).c_str(),
                           O_RDONLY | O_CLOEXEC));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  EXPECT_EQ(tov_sys_lock_holder(file.n, &whole), 0);
  EXPECT_EQ(whole.l_type, F_WRLCK);
  EXPECT_EQ(whole.l_pid, pid);

  tov_test::write_file(tell, "");
  pollfd waited{early.n, POLLIN, 0};
  EXPECT_EQ(tov_sys_poll(&waited, 1, static_cast<int>(PATIENT_MS.count())), 1);
  EXPECT_TRUE(readable(late.n));
  EXPECT_EQ(look(pid).state, "Z");
  EXPECT_EQ(look(pid).threads, "1");
  siginfo_t end{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_status, 7) << "the last thread's code is the process's";
  whole.l_type = F_WRLCK;
  EXPECT_EQ(tov_sys_lock_holder(file.n, &whole), 0);
  EXPECT_EQ(whole.l_type, F_UNLCK);
}

TEST(TovSysProcess, SignalToAThreadIsTheProcesss) {
  const tov_test::Program program("leaderless");
  tov_test::Child child({program.path, "leader-exit"});
  ASSERT_TRUE(wait_until([&] { return look(child.pid()).state == "Z"; }, PATIENT_MS));
  for (const std::string &task : tasks_of(child.pid()))
    if (task != child.name()) {
      EXPECT_EQ(tov_sys_kill(atoi(task.c_str()), SIGKILL), 0);
    }
  EXPECT_EQ(child.ended_by(), SIGKILL);
}

// ---- descriptors of processes ---------------------------------------------------------------

TEST(TovSysPidfd, ZombieHasOneThatIsReadable) {
  tov_test::Zombie zombie;
  const tov_fd_t fd(tov_sys_pidfd_open(zombie.pid()));
  EXPECT_EQ(fcntl(fd.n, F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE(readable(fd.n));
  EXPECT_EQ(tov_sys_pidfd_signal(fd.n, 0), 0);
  zombie.bury();
  EXPECT_TRUE(readable(fd.n));
  EXPECT_EQ(tov_sys_pidfd_signal(fd.n, SIGKILL), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(TovSysPidfd, SignalReachesTheProcess) {
  tov_test::Child child;
  const tov_fd_t fd(tov_sys_pidfd_open(child.pid()));
  EXPECT_FALSE(readable(fd.n));
  EXPECT_EQ(tov_sys_pidfd_signal(fd.n, SIGTERM), 0);
  EXPECT_EQ(child.ended_by(), SIGTERM);
}

TEST(TovSysPidfd, WhoHasNone) {
  EXPECT_EQ(tov_sys_pidfd_open(tov_test::gone_process()), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(tov_sys_pidfd_open(0), -1);
  EXPECT_EQ(errno, EINVAL);
  std::thread([] {
    EXPECT_EQ(tov_sys_pidfd_open(gettid()), -1);
    EXPECT_THAT(errno, testing::AnyOf(EINVAL, ENOENT));
  }).join();
  const tov_fd_t other(eventfd(0, EFD_CLOEXEC));
  EXPECT_EQ(tov_sys_pidfd_signal(other.n, 0), -1);
  EXPECT_EQ(errno, EBADF);
}

// ---- descriptors and locks --------------------------------------------------------------------

TEST(TovSysDescriptors, WithoutAFreeOneThePathIsNotAsked) {
  const tov_fd_t file(open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  const std::string executable = identity("/proc/self/exe");
  const tov_test::NoMoreDescriptors none;
  const auto refused = [](int fd) { return fd == -1 && errno == EMFILE; };
  EXPECT_TRUE(refused(tov_sys_open("/proc/self/stat", O_RDONLY | O_CLOEXEC)));
  EXPECT_TRUE(refused(tov_sys_open("/nowhere", O_RDONLY | O_CLOEXEC)));
  EXPECT_TRUE(refused(tov_sys_eventfd(0, EFD_CLOEXEC)));
  EXPECT_TRUE(refused(tov_sys_socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  EXPECT_TRUE(refused(tov_sys_pidfd_open(getpid())));
  EXPECT_EQ(tov_sys_opendir("/proc"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(identity("/proc/self/exe"), executable) << "it takes no descriptor";
}

TEST(TovSysLocks, ExecutionClosesADescriptorAndItsLockGoes) {
  const tov_test::ScratchDir dir;
  const std::string path = dir / "f";
  const std::string waiter = waiter_at(dir / "waiter");
  for (const int flags : {0, O_CLOEXEC}) {
    Puppet puppet([&](const auto &next) {
      struct flock whole {};
      whole.l_type = F_WRLCK;
      if (tov_sys_lock(open(path.c_str(), O_RDWR | O_CREAT | flags, 0600), &whole) != 0) _exit(1);
      next();
      execute(waiter);
    });
    puppet.tell();
    ASSERT_TRUE(executes(puppet.pid(), waiter));
    const tov_fd_t reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(tov_sys_lock_holder(reader.n, &whole), 0);
    EXPECT_EQ(whole.l_type, flags == O_CLOEXEC ? F_UNLCK : F_WRLCK);
  }
}

TEST(TovSysLocks, HolderOfALockIsNamedToOthersAlone) {
  const tov_test::ScratchDir dir;
  const std::string path = dir / "f";
  const tov_fd_t fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const tov_fd_t reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const auto holder = [&] {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(tov_sys_lock_holder(reader.n, &whole), 0);
    return whole.l_type == F_UNLCK ? 0 : whole.l_pid;
  };
  const auto lock = [](int file) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return tov_sys_lock(file, &whole);
  };
  EXPECT_EQ(holder(), 0);
  {
    const tov_test::Child other([&] {
      if (lock(open(path.c_str(), O_RDWR)) != 0) _exit(1);
    });
    EXPECT_EQ(holder(), other.pid());
  }
  EXPECT_EQ(holder(), 0);
  EXPECT_EQ(lock(fd.n), 0);
  EXPECT_EQ(holder(), 0);
}
