// Blocking wrappers, the single-instance lock, the openers and the directory maker.
#include "util/tov_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

using tov_test::ScratchDir;

static constexpr int64_t MS = 1000000;

static std::atomic<int> signals_seen = 0;

// How many interruptions a test wants to have survived.
#ifdef TOV_SANITIZE_THREAD
static constexpr int ENOUGH_SIGNALS = 1;  // that build runs handlers late and several as one
#else
static constexpr int ENOUGH_SIGNALS = 3;
#endif

namespace {

// SIGALRM every few milliseconds while it lives, through a handler that interrupts system calls.
class Interruptions {
 public:
  explicit Interruptions(suseconds_t period_us) {
    signals_seen = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { signals_seen++; };
    sigaction(SIGALRM, &action, &before_);
    const itimerval period = {{0, period_us}, {0, period_us}};
    setitimer(ITIMER_REAL, &period, nullptr);
  }
  ~Interruptions() {
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }
  Interruptions(const Interruptions &) = delete;
  Interruptions &operator=(const Interruptions &) = delete;

 private:
  struct sigaction before_ {};
};

struct Pipe {
  tov_fd_t out, in;
  explicit Pipe(int flags = 0) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | flags) != 0) abort();
    out.n = ends[0];
    in.n = ends[1];
  }
};

}  // namespace

// Runs `body` in a forked child and returns its exit status, -1 when it did not exit.
template <typename Body>
static int in_child(Body body) {
  const int status = tov_test::status_in_child(body);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A thread that does not take the signals meant for the thread under test.
template <typename Body>
static std::thread quiet_thread(Body body) {
  sigset_t alarms, before;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarms, &before);
  std::thread started(body);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

// ---- sleeping -------------------------------------------------------------------------------

TEST(TovUtilsSleep, SignalsDoNotShortenMicroseconds) {
  const Interruptions noise(3000);
  const int64_t start = tov_test::monotonic_ns();
  safe_usleep(60000);
  EXPECT_GE(tov_test::monotonic_ns() - start, 60 * MS);
  EXPECT_GE(signals_seen, ENOUGH_SIGNALS);
}

// ---- memory ---------------------------------------------------------------------------------

TEST(TovUtilsMalloc, BlockIsZeroFilled) {
  constexpr size_t SIZE = 5000;
  for (int round = 0; round < 3; round++) {
    char *block = static_cast<char *>(safe_malloc(SIZE));
    for (size_t i = 0; i < SIZE; i++)
      ASSERT_EQ(block[i], 0);
    memset(block, 0x5a, SIZE);  // for the next round, which likely gets the same block
    free(block);
  }
}

TEST(TovUtilsMalloc, EmptyBlockIsNotNull) {
  void *block = safe_malloc(0);
  EXPECT_NE(block, nullptr);
  free(block);
}

#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
TEST(TovUtilsMalloc, WaitsUntilThereIsMemory) {
  constexpr size_t SIZE = size_t{256} << 20;
  EXPECT_EQ(in_child([] {
              rlimit limit;
              getrlimit(RLIMIT_AS, &limit);
              const rlim_t before = limit.rlim_cur;
              std::thread rescuer([&] {
                safe_sleep(1);
                limit.rlim_cur = before;
                setrlimit(RLIMIT_AS, &limit);
              });
              limit.rlim_cur = SIZE / 2;
              if (setrlimit(RLIMIT_AS, &limit) != 0) return 1;
              const int64_t start = tov_test::monotonic_ns();
              const void *block = safe_malloc(SIZE);
              const int64_t waited = tov_test::monotonic_ns() - start;
              rescuer.join();
              if (block == nullptr) return 2;
              return waited >= 5000 * MS ? 0 : 3;
            }),
            0);
}
#endif

// ---- full-length transfers ------------------------------------------------------------------

TEST(TovUtilsRead, PipeClosedEarlyGivesTheShortCount) {
  Pipe pipe;
  ASSERT_EQ(write(pipe.in.n, "abc", 3), 3);
  pipe.in.reset();
  char buf[10];
  EXPECT_EQ(safe_read(pipe.out.n, buf, sizeof buf), 3);
  EXPECT_EQ(memcmp(buf, "abc", 3), 0);
}

TEST(TovUtilsRead, SignalsAndShortReadsAreResumed) {
  Pipe pipe;
  char buf[11];
  {
    const Interruptions noise(2000);
    std::thread writer = quiet_thread([&] {
      for (const char *piece : {"one", "two", "three"}) {
        const int before = signals_seen;
        tov_test::wait_until([before] { return signals_seen > before; }, tov_test::PATIENT_MS);
        (void)!write(pipe.in.n, piece, strlen(piece));
      }
    });
    EXPECT_EQ(safe_read(pipe.out.n, buf, sizeof buf), 11);
    EXPECT_GE(signals_seen, ENOUGH_SIGNALS);
    writer.join();
  }
  EXPECT_EQ(std::string(buf, 11), "onetwothree");
}

TEST(TovUtilsWrite, SignalsAndShortWritesAreResumed) {
  Pipe pipe;
  const std::string sent(1 << 20, 'x');
  std::string received;
  std::thread reader = quiet_thread([&] {
    char buf[4096];
    for (ssize_t n = read(pipe.out.n, buf, sizeof buf); n > 0;
         n = read(pipe.out.n, buf, sizeof buf)) {
      received.append(buf, static_cast<size_t>(n));
      usleep(100);
    }
  });
  {
    const Interruptions noise(2000);
    EXPECT_EQ(safe_write(pipe.in.n, sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    EXPECT_GE(signals_seen, ENOUGH_SIGNALS);
  }
  pipe.in.reset();
  reader.join();
  EXPECT_EQ(received, sent);
}

TEST(TovUtilsWrite, FullPipeForgetsWhatWentBefore) {
  Pipe pipe(O_NONBLOCK);
  const std::string much(1 << 20, 'x');
  EXPECT_EQ(safe_write(pipe.in.n, much.data(), much.size()), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(TovFileExists, WhateverItsKind) {
  const ScratchDir dir;
  tov_test::write_file(dir / "plain", "");
  EXPECT_TRUE(tov_file_exists((dir / "plain").c_str()));
  EXPECT_TRUE(tov_file_exists(dir.path().c_str()));
  EXPECT_FALSE(tov_file_exists((dir / "none").c_str()));
  ASSERT_EQ(symlink((dir / "none").c_str(), (dir / "dangling").c_str()), 0);
  EXPECT_FALSE(tov_file_exists((dir / "dangling").c_str()));
}

// ---- locks ----------------------------------------------------------------------------------

TEST(TovUtilsLock, SecondProcessIsRefusedAtOnce) {
  const ScratchDir dir;
  tov_test::write_file(dir / "f", "");
  tov_fd_t fd(open((dir / "f").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(lock_file(fd.n), 0);
  auto try_lock = [&] {
    const tov_fd_t own(open((dir / "f").c_str(), O_RDWR | O_CLOEXEC));
    return lock_file(own.n) == 0 ? 0 : 1;
  };
  EXPECT_EQ(in_child(try_lock), 1);
  fd.reset();
  EXPECT_EQ(in_child(try_lock), 0);
}

TEST(TovUtilsAlreadyRunning, FileHoldsThePidAndOneNul) {
  const ScratchDir dir;
  tov_test::write_file(dir / "pid", "something much longer than a number");
  const tov_fd_t fd(already_running((dir / "pid").c_str()));
  ASSERT_GE(fd.n, 0);
  EXPECT_EQ(tov_test::read_file(dir / "pid"), std::to_string(getpid()) + std::string(1, '\0'));
  EXPECT_EQ(fcntl(fd.n, F_GETFD), FD_CLOEXEC);
}

TEST(TovUtilsAlreadyRunning, SecondProcessIsRefusedAndThePidStays) {
  const ScratchDir dir;
  tov_fd_t fd(already_running((dir / "pid").c_str()));
  ASSERT_GE(fd.n, 0);
  // Not read in this process before the children looked: closing the file would drop the lock.
  EXPECT_EQ(in_child([&] {
              const size_t open_before = tov_test::open_descriptors();
              if (already_running((dir / "pid").c_str()) != -1) return 1;
              return tov_test::open_descriptors() == open_before ? 0 : 2;
            }),
            0);
  EXPECT_EQ(tov_test::read_file(dir / "pid"), std::to_string(getpid()) + std::string(1, '\0'));
  fd.reset();
  EXPECT_EQ(in_child([&] { return already_running((dir / "pid").c_str()) >= 0 ? 0 : 1; }), 0);
}

TEST(TovUtilsAlreadyRunning, PlantedFilesAreRefusedWithoutWaiting) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  tov_test::write_file(dir / "target", "keep");
  ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
  EXPECT_EQ(already_running((dir / "fifo").c_str()), -1);
  EXPECT_EQ(already_running((dir / "link").c_str()), -1);
  EXPECT_EQ(already_running(dir.path().c_str()), -1);
  EXPECT_EQ(already_running((dir / "no/such/dir").c_str()), -1);
  EXPECT_EQ(tov_test::read_file(dir / "target"), "keep");
}

// ---- opening regular files ------------------------------------------------------------------

TEST(TovUtilsOpenRegular, OpensAndCreatesRegularFiles) {
  const ScratchDir dir;
  const mode_t before = umask(0);
  const tov_fd_t made(tov_open_regular((dir / "f").c_str(), O_WRONLY | O_CREAT, 0754));
  umask(before);
  ASSERT_GE(made.n, 0);
  EXPECT_EQ(tov_test::mode_of(dir / "f"), 0754u);
  EXPECT_EQ(fcntl(made.n, F_GETFD), FD_CLOEXEC);
  const tov_fd_t again(tov_open_regular((dir / "f").c_str(), O_RDONLY));
  EXPECT_GE(again.n, 0);
}

TEST(TovUtilsOpenRegular, AnythingElseIsRefusedWithoutWaiting) {
  const ScratchDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0777), 0);
  tov_test::write_file(dir / "target", "");
  ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
  const size_t before = tov_test::open_descriptors();
  const struct {
    std::string path;
    int flags, error;
  } cases[] = {
      {dir / "fifo", O_RDONLY, EINVAL},    {dir / "fifo", O_WRONLY, ENXIO},
      {dir / "fifo", O_RDWR, EINVAL},      {dir / "link", O_RDONLY, ELOOP},
      {dir.path(), O_RDONLY, EINVAL},      {dir.path(), O_RDWR, EISDIR},
      {"/dev/null", O_RDONLY, EINVAL},     {dir / "missing", O_RDONLY, ENOENT},
      {dir / "f/below", O_RDONLY, ENOENT},
  };
  for (const auto &c : cases) {
    errno = 0;
    EXPECT_EQ(tov_open_regular(c.path.c_str(), c.flags), -c.error) << c.path;
    EXPECT_EQ(errno, c.error) << c.path << " " << c.flags;
  }
  EXPECT_EQ(tov_test::open_descriptors(), before);
}

TEST(TovUtilsOpenRegular, StreamFormAppendsAndRefuses) {
  const ScratchDir dir;
  const size_t before = tov_test::open_descriptors();
  for (const char *text : {"one\n", "two\n"}) {
    const tov_file_t file =
        tov_fopen_regular((dir / "f").c_str(), O_WRONLY | O_CREAT | O_APPEND, "a");
    ASSERT_NE(file, nullptr);
    fputs(text, file.get());
  }
  EXPECT_EQ(tov_test::read_file(dir / "f"), "one\ntwo\n");
  EXPECT_EQ(tov_fopen_regular(dir.path().c_str(), O_RDONLY, "r"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(tov_fopen_regular((dir / "f").c_str(), O_RDONLY, "no such mode"), nullptr);
  EXPECT_EQ(tov_test::open_descriptors(), before);
}
