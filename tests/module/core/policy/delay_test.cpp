// Deferred restarts: when they are handed back, with what, and how many at once.
#include "core/policy/delay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>

#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/program.h"
#include "tests/module/seconds_ago.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/processes.h"

using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Child;
using tov_test::GONE;
using tov_test::Program;
using tov_test::seconds_ago;

namespace {

class TovDelayRestart : public tov_test::World {
 protected:
  void TearDown() override {
    end_thread();
    World::TearDown();
  }

  void begin_thread() {
    thread_ = std::thread([] { tov_delay_restart(nullptr); });
  }
  void end_thread() {
    tov_flag_set(quit, 1);
    if (thread_.joinable()) thread_.join();
  }

  // A dead process whose exit was parked `age_s` seconds ago. Returns its record in `tov_chains`.
  static tov_pid_t *park(pid_t pid, const std::string &process, int exit_signal, time_t age_s) {
    tov_pid_t *record = add(pid, process);
    tov_pid_t *parked = add(pid, process, RESPAWN, 0, tov_chains_delay);
    parked->exit_signal = exit_signal;
    parked->exit_how = TOV_ENDED_BADLY;
    parked->delay_tm = seconds_ago(age_s);
    return record;
  }

  static bool all_handed_back() {
    return tov_test::wait_until([] { return count(tov_chains_delay) == 0; }, tov_test::PATIENT_MS);
  }

 private:
  std::thread thread_;
};

}  // namespace

TEST_F(TovDelayRestart, FreedFileHandsTheExitBack) {
  const Program program("freed");
  tov_pid_t *record = park(GONE, program.path, SIGSEGV, 0);
  auto holder = holder_of(write_file_of(*record));
  begin_thread();
  usleep(1200000);  // one pass that finds it locked
  EXPECT_EQ(count(tov_chains_delay), 1);
  EXPECT_THAT(program.births(), IsEmpty());
  holder.end();
  EXPECT_TRUE(all_handed_back());
  const pid_t pid = program.birth().pid;
  end_thread();
  EXPECT_EQ(record->pid, pid);
  EXPECT_EQ(record->exit_signal, SIGSEGV);
  EXPECT_THAT(notices(), testing::ElementsAre(HasSubstr("receives event:000b and"),
                                              HasSubstr("Self-checking OK: 1 times")));
}

TEST_F(TovDelayRestart, After300SecondsTheLockDoesNotMatter) {
  const Program program("old"), younger("younger");
  tov_pid_t *old = park(GONE, program.path, SIGKILL, 301);
  tov_pid_t *young = park(GONE + 1, younger.path, SIGKILL, 250);
  const auto holder = holder_of(write_file_of(*old)),
             other_holder = holder_of(write_file_of(*young));
  const std::string said = diagnostics([&] {
    begin_thread();
    program.birth();
    end_thread();
  });
  EXPECT_EQ(old->pid, program.birth().pid);
  EXPECT_EQ(old->force_restart, 0);  // it counted for this restart only
  EXPECT_THAT(said, HasSubstr("]" + program.path + "/5000000 more than 300s delay restart.\n"));
  EXPECT_THAT(said, HasSubstr("]pid:5000000, exit_signal:0x9, force_restart:1\n"));
  EXPECT_EQ(young->pid, GONE + 1);
  EXPECT_NE(find(GONE + 1, tov_chains_delay), nullptr);
  EXPECT_THAT(younger.births(), IsEmpty());
}

TEST_F(TovDelayRestart, OneIsHandedBackAPass) {
  const Program one("one"), two("two");
  park(GONE, one.path, SIGKILL, 0);
  park(GONE + 1, two.path, SIGKILL, 0);
  const int64_t begun = tov_test::monotonic_ns();
  begin_thread();
  const int64_t first = one.birth().main_ns, second = two.birth().main_ns;
  EXPECT_GE(std::max(first, second) - begun, int64_t{1'000} * 1'000'000) << "a pass later";
  EXPECT_EQ(count(tov_chains_delay), 0);
}

TEST_F(TovDelayRestart, ProcessThatLivesIsAskedAboutAgainAndLeft) {
  const Program program("living");
  const pid_t pid = tov_test::start(program.path);
  program.birth();
  tov_pid_t *record = park(pid, program.path, SIGKILL, 0);
  begin_thread();
  EXPECT_TRUE(all_handed_back());
  end_thread();
  EXPECT_EQ(record->pid, pid);
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(TovDelayRestart, ExitOfAForgottenProcessIsDropped) {
  add(GONE, "/opt/a", RESPAWN, 0, tov_chains_delay);
  begin_thread();
  EXPECT_TRUE(all_handed_back());
  end_thread();
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(notices(), IsEmpty());
}
