// How long a pass of the watchdog waits when many threads have ended at once, or when nothing can
// be found out about any of them. Pauses are counted instead of measured.
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "core/registry/tov_chain.h"
#include "core/watch/watchdog.h"
#include "include/tov_registry.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/processes.h"
#include "util/procfs.h"

using tov_test::GONE;

// The other sleep, noted like the first.
extern "C" int usleep(useconds_t span_us) {
  tov_test::fake_sleep.slept_us.push_back(span_us);
  if (tov_test::fake_sleep.meanwhile) tov_test::fake_sleep.meanwhile();
  return 0;
}

namespace {

constexpr int THREADS = 1000;
constexpr unsigned int BUDGET = 5;

class TovNotiferCrowd : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    tov_test::note_sleeps(false);
  }

  static tov_pid_t *watched(pid_t tid, pid_t owner, const std::string &process = "/opt/crowd") {
    tov_pid_t *record = add(tid, process, 0, 0, tov_alive_chains);
    record->ppid = owner;
    record->m_n_notify_time = 120;
    record->m_n_counter = record->m_n_cur_counter = BUDGET;
    return record;
  }

  // Microseconds for which a pass sleeps with the registry locked.
  static int64_t pause_of_pass_us() {
    tov_test::fake_sleep.slept_us.clear();
    tov_notifer_scan();
    int64_t sum = 0;
    for (const int64_t span_us : tov_test::fake_sleep.slept_us)
      sum += span_us;
    return sum;
  }
};

}  // namespace

TEST_F(TovNotiferCrowd, ThreadsOfADeadOwnerAreDroppedWithoutAPause) {
  for (int i = 0; i < THREADS; i++)
    watched(GONE + i, GONE);
  EXPECT_EQ(pause_of_pass_us(), 0);
  EXPECT_EQ(count(tov_alive_chains), 0);
}

TEST_F(TovNotiferCrowd, UncertainThreadsShareThePausesOfOne) {
  for (int i = 0; i < THREADS; i++)
    watched(GONE + i, GONE);
  const tov_test::NoMoreDescriptors none;
  EXPECT_EQ(pause_of_pass_us(), (TOV_LIFE_LOOKS - 1) * int64_t{TOV_LIFE_PAUSE_US});
  EXPECT_EQ(count(tov_alive_chains), 0) << "after as many looks as one alone is given";
}

TEST_F(TovNotiferCrowd, WhoIsSeenAtALaterLookIsCountedDownLikeAnyOther) {
  const pid_t self = getpid();
  tov_pid_t *record = watched(self, self, tov_test::cmdline_of(self));
  {
    const tov_test::NoMoreDescriptors none;
    tov_test::fake_sleep.meanwhile = [&, looks = 0]() mutable {
      const rlimit some{64, 4096};
      if (++looks == TOV_LIFE_LOOKS - 1) setrlimit(RLIMIT_NOFILE, &some);
    };
    EXPECT_EQ(pause_of_pass_us(), (TOV_LIFE_LOOKS - 1) * int64_t{TOV_LIFE_PAUSE_US});
  }
  ASSERT_EQ(find(self, tov_alive_chains), record);
  EXPECT_EQ(record->m_n_cur_notify_time, 60U) << "a minute, once";
}

TEST_F(TovNotiferCrowd, FirstThreadThatLeftIsDroppedAfterThePausesOfOne) {
  const tov_test::Program program("leaderless");
  const pid_t pid = tov_test::start(program.path + " leader-exit");
  ASSERT_TRUE(tov_test::wait_until([&] { return tov_test::process_state(pid) == 'Z'; },
                                   tov_test::PATIENT_MS));
  watched(pid, pid, program.path + " leader-exit");
  EXPECT_EQ(pause_of_pass_us(), (TOV_LIFE_LOOKS - 1) * int64_t{TOV_LIFE_PAUSE_US});
  EXPECT_EQ(count(tov_alive_chains), 0);
}
