// Signals to the processes of a group over a simulated kernel: ids that change hands between the
// look and the signal.
#include "vsd/kill.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <string>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::kernel;
using tov_test::kill_s;

namespace {

constexpr int GROUP = 3100;

class KillByGroup : public tov_test::Simulated {
 protected:
  static pid_t member() {
    const pid_t pid = kernel().start({"/bin/member"});
    kernel().process(pid).groups = std::to_string(GROUP);
    return pid;
  }
  // The process ends, and another one, of no group, gets its id.
  static void give_id_to_stranger(pid_t pid) {
    kernel().end(pid);
    kernel().set_next_pid(pid);
    EXPECT_EQ(kernel().start({"/bin/stranger"}), pid);
  }
};

TEST_F(KillByGroup, MembersAloneAreHit) {
  const pid_t first = member();
  kernel().start({"/bin/other"});
  const pid_t second = member();
  EXPECT_EQ(kill_proc_by_groups(SIGUSR1, GROUP), 0);
  EXPECT_THAT(kernel().kills, ElementsAre(kill_s{first, SIGUSR1}, kill_s{second, SIGUSR1}));
}

TEST_F(KillByGroup, StrangerWhoGetsTheIdBeforeTheSignalIsNotHit) {
  const pid_t pid = member();
  kernel().before(tov_test::CALL_PIDFD_SIGNAL, 1, [pid] { give_id_to_stranger(pid); });
  EXPECT_EQ(kill_proc_by_groups(SIGKILL, GROUP), 0);
  EXPECT_THAT(kernel().kills, IsEmpty());
  EXPECT_TRUE(kernel().has(pid));
}

TEST_F(KillByGroup, NoDescriptorIsLeftOpen) {
  (void)member();
  const size_t before = kernel().descriptors();
  EXPECT_EQ(kill_proc_by_groups(SIGTERM, GROUP), 0);
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(KillByGroup, KernelWithoutSuchDescriptorsIsAskedById) {
  const pid_t pid = member();
  for (int nth = 1; nth <= 8; nth++)
    kernel().fail(tov_test::CALL_PIDFD_OPEN, nth, ENOSYS);
  EXPECT_EQ(kill_proc_by_groups(SIGTERM, GROUP), 0);
  EXPECT_THAT(kernel().kills, Contains(kill_s{pid, SIGTERM}));
}

}  // namespace
