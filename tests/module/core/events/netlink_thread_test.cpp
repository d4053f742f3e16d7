// The thread that follows the kernel's process events: real programs, its socket, each failure of
// its beginning.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "core/events/netlink.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/event_ring.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Event;

namespace {

// Executions are heard as long as anything is listed.
class TovProcessNetlink : public tov_test::World, protected tov_test::EventRing {
 protected:
  void SetUp() override {
    World::SetUp();
    std::filesystem::create_directories("/etc/tov");
    tov_test::write_file(TOV_THIRD_PART_LIST, "/opt/other TOV_RESTART\n");
  }
  ~TovProcessNetlink() override { tov_test::clear_path(TOV_THIRD_PART_LIST); }
};

// Socket descriptors of this process.
std::set<int> sockets() {
  std::set<int> found;
  for (const std::string &name : tov_test::names_in("/proc/self/fd")) {
    std::error_code gone;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + name, gone);
    if (!gone && target.string().starts_with("socket:")) found.insert(atoi(name.c_str()));
  }
  return found;
}

// The reader on a thread of its own, as in the daemon.
class Reader {
 public:
  Reader() : before_(sockets()), thread_([] { tov_process_netlink(nullptr); }) {}
  ~Reader() {
    tov_flag_set(quit, 1);
    if (thread_.joinable()) thread_.join();
  }
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  void join() { thread_.join(); }

  // The connector's descriptor, -1 as long as there is none.
  int descriptor() const {
    for (const int fd : sockets())
      if (!before_.contains(fd)) return fd;
    return -1;
  }

 private:
  std::set<int> before_;
  std::thread thread_;
};

bool is_dropped(const Event &event, pid_t pid) {
  return event.pid != pid;
}

}  // namespace

TEST_F(TovProcessNetlink, RealProgramIsFollowedFromItsExecutionToItsEnd) {
  Reader reader;
  std::vector<Event> seen;
  pid_t pid = 0;
  // The subscription takes a moment; programs are started until one was seen whole.
  const bool followed = tov_test::wait_until(
      [&] {
        pid = tov_test::start("/bin/false");
        int status = 0;
        waitpid(pid, &status, 0);
        usleep(20000);
        seen = queued();
        std::erase_if(seen, [pid](const Event &event) { return is_dropped(event, pid); });
        return seen.size() == 2;
      },
      tov_test::PATIENT_MS);
  ASSERT_TRUE(followed);
  EXPECT_THAT(seen, ElementsAre(Event{2, pid, 0}, Event{0x80000000, pid, 0x100}));

  const int fd = reader.descriptor();
  ASSERT_GE(fd, 0);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  timeval timeout{};
  socklen_t length = sizeof timeout;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &length), 0);
  EXPECT_EQ(timeout.tv_sec, 5);
  int bytes = 0;
  length = sizeof bytes;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &length), 0);
  EXPECT_EQ(bytes, 2 * 0x400000);  // the kernel tells twice what was asked for
  sockaddr_nl own{};
  length = sizeof own;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length), 0);
  EXPECT_EQ(own.nl_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(own.nl_groups, uint32_t{CN_IDX_PROC});

  tov_flag_set(quit, 1);
  tov_test::end_child(tov_test::start("/bin/true"));  // an event wakes it earlier than its time-out
  reader.join();
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre(HasSubstr("Thread \"tov_process_netlink\" exit, tov will be restart. "
                                    "res=0, ")));
  EXPECT_EQ(sockets().count(fd), 0u);
}

TEST_F(TovProcessNetlink, EndOfAThreadIsNotTakenForThatOfItsProcess) {
  Reader reader;
  const tov_test::Program program("threads");
  pid_t pid = 0;
  std::vector<Event> seen;
  ASSERT_TRUE(tov_test::wait_until(
      [&] {
        pid = tov_test::start(program.path + " thread-exit after=1");
        usleep(50000);
        seen = queued();
        std::erase_if(seen, [pid](const Event &event) { return is_dropped(event, pid); });
        tov_test::end_child(pid);
        return !seen.empty();
      },
      tov_test::PATIENT_MS));
  EXPECT_THAT(seen, ElementsAre(Event{2, pid, 0}));
}

TEST_F(TovProcessNetlink, ThreadWithoutANameEndsAloneAndQuietly) {
  tov_test::in_child([] {
    tov_test::refuse({SYS_prctl}, EPERM);
    EXPECT_THAT(diagnostics([] { tov_process_netlink(nullptr); }),
                HasSubstr("]tov_process_netlink: Operation not permitted\n"));
    EXPECT_EQ(tov_flag_get(quit), 0);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
}

TEST_F(TovProcessNetlink, RefusedPriorityEndsTheDaemon) {
  tov_test::in_child([] {
    tov_test::give_up_priorities();
    tov_process_netlink(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_process_netlink\" exit, tov will be restart. res=-1, "
                          "Operation not permitted(1)"));
}

TEST_F(TovProcessNetlink, NoSocketEndsTheDaemon) {
  tov_test::in_child([] {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    tov_process_netlink(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_process_netlink\" exit, tov will be restart. res=-2, Too "
                          "many open files(24)"));
}

TEST_F(TovProcessNetlink, TakenPortEndsTheDaemon) {
  tov_test::in_child([] {
    const tov_fd_t taken(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_pid = static_cast<uint32_t>(getpid());
    ASSERT_EQ(bind(taken.n, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    tov_process_netlink(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_process_netlink\" exit, tov will be restart. res=-3, "
                          "Address already in use(98)"));
}

TEST_F(TovProcessNetlink, RefusedSubscriptionEndsTheDaemon) {
  tov_test::in_child([] {
    tov_test::refuse({SYS_sendto}, ENOBUFS);
    tov_process_netlink(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_process_netlink\" exit, tov will be restart. res=-4, No "
                          "buffer space available(105)"));
}

TEST_F(TovProcessNetlink, FailedSocketEndsTheDaemon) {
  tov_test::in_child([] {
    tov_test::refuse({SYS_recvmmsg}, ENOTCONN);
    tov_process_netlink(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_process_netlink\" exit, tov will be restart. res=-5, "
                          "Transport endpoint is not connected(107)"));
}

TEST_F(TovProcessNetlink, RefusedOptionsAreOnlyToldAbout) {
  tov_test::in_child([] {
    tov_test::refuse({SYS_setsockopt}, EPERM);
    tov_flag_set(quit, 1);  // it ends as soon as it has begun
    const std::string said = diagnostics([] { tov_process_netlink(nullptr); });
    EXPECT_THAT(said, HasSubstr("]socket set recvbuffer error\n"));
    EXPECT_THAT(said, HasSubstr("]socket set recv timeout error\n"));
  });
  EXPECT_THAT(events(TOV_LOG_ERROR), ElementsAre(HasSubstr("res=0, ")));
}
