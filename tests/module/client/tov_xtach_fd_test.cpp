// Limits of resources, and the watch over open files.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "include/tov_registry.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/child.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"

using tov_test::printed_by;

namespace {

TEST(TovResourceLimit, SoftLimitComesAsAnInt) {
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(get_resource_limit(RLIMIT_NOFILE), static_cast<int>(now.rlim_cur));
}

TEST(TovResourceLimit, UnlimitedIsTheLargestInt) {
  rlimit before{};
  getrlimit(RLIMIT_CPU, &before);
  ASSERT_EQ(before.rlim_cur, RLIM_INFINITY);
  EXPECT_EQ(get_resource_limit(RLIMIT_CPU), INT_MAX);
}

TEST(TovResourceLimit, UnknownResourceIsAFailure) {
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { EXPECT_EQ(get_resource_limit(9999), -1); });
  EXPECT_NE(said.find("]get_resource_limit: Invalid argument\n"), std::string::npos);
}

// The wait status of a child that runs `body`: the watch ends its process.
template <typename Body>
int status_of(Body body) {
  return tov_test::status_in_child([&] {
    body();
    return 0;
  });
}

// Leaves the standard streams open and allows `limit` descriptors.
void limit_files(rlim_t limit) {
  close_range(STDERR_FILENO + 1, ~0U, 0);
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  now.rlim_cur = limit;
  setrlimit(RLIMIT_NOFILE, &now);
}

// Every number below the limit in use.
void open_all() {
  while (dup(STDIN_FILENO) >= 0)
    continue;
}

constexpr int EXITED_WITH_1 = 1 << 8;
constexpr int EXITED_WITH_7 = 7 << 8;

void watch(int times) {
  for (int i = 0; i < times; i++)
    tov_client_watch_process_fd(getpid());
}

TEST(TovWatchFd, FourthCheckInARowEndsTheProcessWithStatus1) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(3);
              _exit(7);
            }),
            EXITED_WITH_7);
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(4);
              _exit(7);
            }),
            EXITED_WITH_1);
}

TEST(TovWatchFd, CheckBelowTheLimitStartsTheCountAnew) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              watch(3);
              for (int fd = 10; fd < 20; fd++)
                close(fd);
              watch(1);
              open_all();
              watch(3);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, DescriptorOfTheCheckItselfCounts) {
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              close(31);  // one is free: the listing takes it, and 32 are open
              watch(4);
              _exit(7);
            }),
            EXITED_WITH_1);
  EXPECT_EQ(status_of([] {
              limit_files(32);
              open_all();
              close(31);
              close(30);
              watch(8);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, OrdinaryProcessIsLeftAlone) {
  EXPECT_EQ(status_of([] {
              watch(20);
              _exit(7);
            }),
            EXITED_WITH_7);
}

TEST(TovWatchFd, VanishedProcessIsToldAndPassedOver) {
  const pid_t gone = tov_test::gone_process();
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] {
    for (int i = 0; i < 5; i++)
      tov_client_watch_process_fd(gone);
  });
  EXPECT_NE(said.find("]tov_client_watch_process_fd: No such file or directory\n"),
            std::string::npos);
}

TEST(TovWatchFd, CheckOverTheLimitIsTold) {
  const std::string printed = printed_by([&] {
    const int status = status_of([] {
      g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
      limit_files(32);
      open_all();
      watch(1);
      fflush(stdout);
    });
    EXPECT_EQ(status, 0);
  });
  EXPECT_NE(printed.find(": open files exceed the system upper limit.\n"), std::string::npos)
      << printed;
}

}  // namespace
