// A pass of the watchdog when many threads have ended at once, or when nothing can be found out
// about any of them: it waits for nobody. Pauses are counted instead of measured.
#include <gmock/gmock.h>
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

TEST_F(TovNotiferCrowd, ThreadsOfWhomNothingCanBeKnownAreLeftAsTheyAre) {
  const pid_t self = getpid();
  for (int i = 0; i < THREADS; i++) {
    // Some that have ended, some that live and hang.
    tov_pid_t *record =
        i % 2 == 0 ? watched(GONE + i, GONE) : watched(self, self, tov_test::cmdline_of(self));
    record->m_n_cur_counter = static_cast<unsigned int>(i % 3);
  }
  {
    const tov_test::NoMoreDescriptors none;
    EXPECT_EQ(pause_of_pass_us(), 0);
  }
  EXPECT_EQ(count(tov_alive_chains), THREADS);
  EXPECT_EQ(record_of(tov_alive_chains, self).m_n_cur_notify_time, 0U) << "no minute is counted";
  EXPECT_THAT(events(TOV_LOG_KILL), testing::IsEmpty());
  EXPECT_EQ(pause_of_pass_us(), 0);
  EXPECT_EQ(count(tov_alive_chains), THREADS / 2) << "once it can be known";
}

TEST_F(TovNotiferCrowd, FirstThreadThatLeftIsDroppedWithoutAPause) {
  const tov_test::Program program("leaderless");
  const pid_t pid = tov_test::start(program.path + " leader-exit");
  ASSERT_TRUE(tov_test::wait_until([&] { return tov_test::process_state(pid) == 'Z'; },
                                   tov_test::PATIENT_MS));
  watched(pid, pid, program.path + " leader-exit");
  EXPECT_EQ(pause_of_pass_us(), 0);
  EXPECT_EQ(count(tov_alive_chains), 0);
}
