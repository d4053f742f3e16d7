// The simulated kernel itself: what pure tests rely on.
#include "tests/unit/sim/kernel.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "tests/unit/simulated.h"
#include "util/tov_sys.h"

using testing::Contains;
using testing::ElementsAre;
using tov_test::kernel;
using tov_test::kernel_s;

static constexpr int64_t US_PER_S = 1'000'000;

namespace {

class Kernel : public tov_test::Simulated {
 protected:
  static int open(const std::string &path, int flags = O_RDWR) {
    return tov_sys_open(path.c_str(), flags | O_CLOEXEC, 0777);
  }
  static int lock(int fd) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return tov_sys_lock(fd, &whole);
  }
  static std::string read(int fd) {
    char buf[64];
    const ssize_t count = tov_sys_read(fd, buf, sizeof buf);
    return count < 0 ? "failed" : std::string(buf, static_cast<size_t>(count));
  }
};

}  // namespace

// ---- time -----------------------------------------------------------------------------------

TEST_F(Kernel, TimePassesOnlyInWaits) {
  kernel().set_uptime(7);
  timespec now{};
  tov_sys_clock_gettime(CLOCK_MONOTONIC, &now);
  EXPECT_EQ(now.tv_sec, 7);
  EXPECT_EQ(span_us([] { tov_sys_usleep(1500); }), 1500);
  EXPECT_EQ(span_us([] { (void)open("/tmp/f", O_CREAT); }), 0);
}

TEST_F(Kernel, InterruptedSleepTellsWhatIsLeft) {
  kernel().interrupt_after(400'000);
  timeval left{2, 0};
  EXPECT_EQ(tov_sys_sleep(&left), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(left.tv_sec, 1);
  EXPECT_EQ(left.tv_usec, 600'000);
}

TEST_F(Kernel, EventsHappenInTheirOrder) {
  std::string order;
  kernel().after(2, [&] { order += 'b'; });
  kernel().after(1, [&] { order += 'a'; });
  kernel().after(4, [&] { order += 'c'; });
  kernel().pass(3);
  EXPECT_EQ(order, "ab");
}

TEST_F(Kernel, AlarmRingsOnceInterruptsAndIsReplaced) {
  EXPECT_EQ(tov_sys_alarm(100), 0u);
  kernel().pass(40 * US_PER_S);
  EXPECT_EQ(tov_sys_alarm(10), 60u);
  EXPECT_EQ(span_us([] { tov_sys_usleep(20'000'000); }), 10 * US_PER_S);
  kernel().pass(200 * US_PER_S);
  EXPECT_EQ(kernel().alarms, 1);
  EXPECT_EQ(kernel().alarm_left_s(), 0u);
}

TEST_F(Kernel, EndlessWaitIsFound) {
  pollfd waited{tov_sys_eventfd(0, EFD_CLOEXEC), POLLIN, 0};
  EXPECT_THROW((void)tov_sys_poll(&waited, 1, -1), tov_test::stuck_s);
  kernel().make_fifo("/tmp/fifo");
  EXPECT_THROW((void)open("/tmp/fifo", O_RDONLY), tov_test::stuck_s);
}

TEST_F(Kernel, PollPassesOverDescriptorsBelowZero) {
  pollfd waited{-1, POLLIN, 0};
  EXPECT_EQ(span_us([&] { EXPECT_EQ(tov_sys_poll(&waited, 1, 3'000), 0); }), 3 * US_PER_S);
}

TEST_F(Kernel, ReceiverThatDoesNotWaitComesBackAtOnce) {
  const int fd = tov_sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  char byte = 0;
  EXPECT_EQ(tov_sys_recvfrom(fd, &byte, 1, MSG_DONTWAIT, nullptr, nullptr), -1);
  EXPECT_EQ(errno, EAGAIN);
}

// ---- failures -------------------------------------------------------------------------------

TEST_F(Kernel, NthCallOfAKindFails) {
  kernel().write_file("/tmp/f", "");
  kernel().fail(tov_test::CALL_OPEN, 2, EMFILE);
  EXPECT_GE(open("/tmp/f"), 0);
  EXPECT_EQ(open("/tmp/f"), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_GE(open("/tmp/f"), 0);
}

TEST_F(Kernel, NthCallOfAnyKindFails) {
  kernel().fail_any(2, EIO);
  EXPECT_EQ(tov_sys_usleep(1), 0);
  EXPECT_EQ(tov_sys_fork(), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(kernel().forks, ElementsAre());
}

// ---- processes ------------------------------------------------------------------------------

TEST_F(Kernel, IdIsUsedAgainByAnotherProcess) {
  const pid_t first = kernel().start({"/bin/a"});
  const auto started = kernel().process(first).started;
  const int status = open("/proc/" + std::to_string(first) + "/stat", O_RDONLY);
  kernel().end(first);
  kernel().pass(US_PER_S);
  kernel().set_next_pid(first);
  EXPECT_EQ(kernel().start({"/bin/b"}), first);
  EXPECT_GT(kernel().process(first).started, started);
  EXPECT_EQ(read(status), "failed");
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(Kernel, ChildStaysAZombieUntilItIsReaped) {
  EXPECT_EQ(tov_sys_waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  const pid_t child = tov_sys_fork();
  EXPECT_EQ(tov_sys_waitpid(-1, nullptr, WNOHANG), 0);
  EXPECT_EQ(tov_sys_kill(child, SIGKILL), 0);
  EXPECT_EQ(kernel().process(child).state, 'Z');
  EXPECT_EQ(tov_sys_waitpid(-1, nullptr, WNOHANG), child);
  EXPECT_EQ(tov_sys_kill(child, SIGTERM), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_THAT(kernel().kills, ElementsAre(tov_test::kill_s{child, SIGKILL}));
}

// ---- files and locks ------------------------------------------------------------------------

TEST_F(Kernel, LinksLeadToTheirTargets) {
  kernel().write_file("/tmp/dir/f", "text");
  kernel().make_link("/tmp/way", "dir");
  kernel().make_link("/tmp/loop", "/tmp/loop");
  EXPECT_EQ(read(open("/tmp/way/f")), "text");
  EXPECT_EQ(open("/tmp/loop"), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(open("/tmp/way", O_NOFOLLOW), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(open("/tmp/dir/f/below"), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Kernel, LockGoesWithAnyDescriptorOfItsFile) {
  const int first = open("/tmp/f", O_RDWR | O_CREAT);
  const int second = open("/tmp/f");
  EXPECT_EQ(lock(first), 0);
  EXPECT_EQ(kernel().lock_holder("/tmp/f"), kernel_s::SELF);
  EXPECT_EQ(tov_sys_close(second), 0);
  EXPECT_EQ(kernel().lock_holder("/tmp/f"), 0);
}

TEST_F(Kernel, LockOfAnotherProcessIsRefusedUntilItEnds) {
  const pid_t other = kernel().start({"/bin/x"});
  const int fd = open("/tmp/f", O_RDWR | O_CREAT);
  kernel().lock("/tmp/f", other);
  EXPECT_EQ(lock(fd), -1);
  EXPECT_EQ(errno, EAGAIN);
  kernel().end(other);
  EXPECT_EQ(lock(fd), 0);
}

TEST_F(Kernel, LockNeedsADescriptorForWriting) {
  kernel().write_file("/tmp/f", "");
  EXPECT_EQ(lock(open("/tmp/f", O_RDONLY)), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Kernel, FileIsReachedThroughItsDirectoryAndAtAPlaceOfItsOwn) {
  EXPECT_EQ(tov_sys_mkdir("/run/d", 0777), 0);
  EXPECT_EQ(kernel().mode_of("/run/d"), 0755U) << "less the umask";
  EXPECT_EQ(tov_sys_mkdir("/run/d", 0777), -1);
  EXPECT_EQ(errno, EEXIST);
  const int dir = open("/run/d", O_RDONLY | O_DIRECTORY);
  const int fd = tov_sys_openat(dir, "f", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(tov_sys_pwrite(fd, "text", 4, 2), 4);
  EXPECT_EQ(read(fd), std::string("\0\0text", 6)) << "the offset stays";
  char two[2];
  EXPECT_EQ(tov_sys_pread(fd, two, sizeof two, 3), 2);
  EXPECT_EQ(std::string(two, sizeof two), "ex");
  EXPECT_EQ(tov_sys_renameat(dir, "f", "g"), 0);
  EXPECT_FALSE(kernel().exists("/run/d/f"));
  EXPECT_EQ(tov_sys_unlinkat(dir, "g"), 0);
  EXPECT_FALSE(kernel().exists("/run/d/g"));
}

TEST_F(Kernel, BootHasAnId) {
  EXPECT_EQ(read(open("/proc/sys/kernel/random/boot_id", O_RDONLY)), kernel().boot_id + "\n");
}

TEST_F(Kernel, StatusTellsOwnerAndNames) {
  kernel().write_file("/tmp/f", "");
  kernel().give_away("/tmp/f", 1000);
  EXPECT_EQ(tov_sys_link("/tmp/f", "/tmp/g"), 0);
  struct stat status;
  EXPECT_EQ(tov_sys_lstat("/tmp/g", &status), 0);
  EXPECT_EQ(status.st_uid, 1000U);
  EXPECT_EQ(status.st_nlink, 2U);
  EXPECT_EQ(tov_sys_unlink("/tmp/f"), 0);
  EXPECT_EQ(tov_sys_lstat("/tmp/g", &status), 0);
  EXPECT_EQ(status.st_nlink, 1U);
}

TEST_F(Kernel, DirectoryShowsProcessesAndNoThreads) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  DIR *proc = tov_sys_opendir("/proc");
  std::vector<std::string> names;
  while (const dirent *entry = tov_sys_readdir(proc))
    names.emplace_back(entry->d_name);
  EXPECT_THAT(names, Contains(std::to_string(pid)));
  EXPECT_THAT(names, testing::Not(Contains(std::to_string(thread))));
  EXPECT_EQ(tov_sys_closedir(proc), 0);
}

TEST_F(Kernel, DescriptorOfAStandardStreamIsTheLowestFree) {
  kernel().close_standard_streams();
  const int low = open("/tmp/f", O_RDWR | O_CREAT);
  EXPECT_EQ(low, 0);
  EXPECT_GT(tov_sys_dup_above(low, 3), 2);
}
