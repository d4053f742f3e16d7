// Signals to every process of a group.
#include "vsd/kill.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "include/tov_registry.h"
#include "tests/module/refused_calls.h"
#include "tests/module/vsd.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/children.h"
#include "tests/support/in_child.h"

using testing::HasSubstr;
using tov_test::caught_diagnostics;
using tov_test::group_of;
using tov_test::Member;

static const int VSD = tov_test::unused_vsd();

TEST(TovVsdKill, HitsWhoeverHasTheDigitsInItsGroups) {
  const gid_t gid = group_of(VSD);
  Member exact({gid});
  Member second({5, gid});
  Member longer({gid * 10});
  Member other({gid + 1});
  Member none({});
  const std::string said = caught_diagnostics(
      TOV_MODULE_PUB, [&] { EXPECT_EQ(kill_proc_by_groups(SIGUSR1, static_cast<int>(gid)), 0); });
  for (Member *hit : {&exact, &second, &longer}) {
    EXPECT_EQ(hit->ended_by(), SIGUSR1);
    EXPECT_THAT(said, HasSubstr(" pid: " + hit->name() + "\n"));
  }
  EXPECT_THAT(said, HasSubstr("]delete vsd: supplement_id: " + std::to_string(gid) +
                              " pid: " + exact.name() + "\n"));
  EXPECT_THAT(said, HasSubstr("]delete vsd: supplement_id: " + std::to_string(gid * 10) +
                              " pid: " + longer.name() + "\n"));
  for (Member *missed : {&other, &none})
    EXPECT_TRUE(missed->is_unharmed());
}

TEST(TovVsdKill, HitsTheCallerToo) {
  const int status = tov_test::status_in_child([] {
    const gid_t gid = group_of(VSD);
    if (setgroups(1, &gid) == 0) (void)kill_proc_by_groups(SIGUSR2, static_cast<int>(gid));
    return 0;
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2);
}

TEST(TovVsdKill, SignalZeroOnlyAsks) {
  Member member({group_of(VSD)});
  EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), 0);
  EXPECT_TRUE(member.is_unharmed());
}

// Children that are born and die while /proc is read: a name that was there has no status file any
// more, or its file is read to the end of a process that is gone. Some a second: the daemons of
// other tests hear of each.
TEST(TovVsdKill, ProcessesThatVanishMeanwhileAreNoHindrance) {
  Member member({group_of(VSD)});
  const pid_t busy = tov_test::fork_child();
  if (busy == 0) {
    for (;;) {
      const pid_t child = fork();
      if (child == 0) {
        usleep(5'000);
        _exit(EXIT_SUCCESS);
      }
      waitpid(child, nullptr, 0);
    }
  }
  ASSERT_GT(busy, 0);
  for (int round = 0; round < 20; round++)
    EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), 0);
  EXPECT_EQ(kill_proc_by_groups(SIGTERM, static_cast<int>(group_of(VSD))), 0);
  EXPECT_EQ(member.ended_by(), SIGTERM);
  tov_test::end_child(busy);
}

TEST(TovVsdKill, ProcUnreadable) {
  const tov_test::NoMoreDescriptors none;
  EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), -EMFILE);
}
