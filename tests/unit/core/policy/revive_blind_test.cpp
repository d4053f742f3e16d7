// Listed programs while nothing can be read: a look and a search then say nothing, however often.
#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "core/policy/delay.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"

using tov_test::CALL_OPENDIR;
using tov_test::kernel;
using tov_test::LISTED;
using tov_test::LOOK_PAUSE_US;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

// As long as three sweeps.
static constexpr int64_t LONG_US = 180 * US_PER_S;

namespace {

class TovBlind : public tov_test::Waiting {
 protected:
  static void go_blind() { kernel().descriptor_limit = kernel().descriptors(); }
  static void see() { kernel().descriptor_limit = SIZE_MAX; }
  // The thread at work until it sleeps for the first time.
  static void one_pass_of_hand_back() {
    kernel().after(US_PER_MS, [] { tov_flag_set(quit, 1); });
    (void)tov_delay_restart(nullptr);
    tov_flag_set(quit, 0);
  }
};

}  // namespace

TEST_F(TovBlind, LookThatSawNothingStartsNothing) {
  children_execute(LISTED);
  tov_pid_t *record = listed();
  die(record);
  go_blind();
  run(LONG_US);
  EXPECT_EQ(forks(), 0u);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_LOOK));
  EXPECT_EQ(record->start.scans, 0);
  see();
  run(US_PER_S + LOOK_PAUSE_US);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}

TEST_F(TovBlind, ProgramThatRunsAgainIsNotStartedBesideItself) {
  const tov_pid_t *record = listed();
  const pid_t again = kernel().start({LISTED});
  die(record);
  go_blind();
  run(LONG_US);
  see();
  run(US_PER_S + LOOK_PAUSE_US);
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(record->pid, again);
}

TEST_F(TovBlind, LookIsRepeatedOnceASecond) {
  die(listed());
  go_blind();
  run_first_look();
  const int before = kernel().calls(CALL_OPENDIR);
  run(10 * US_PER_S);
  EXPECT_EQ(kernel().calls(CALL_OPENDIR) - before, 10);
}

TEST_F(TovBlind, SearchThatSawNothingFindsItsChildLater) {
  tov_pid_t *record = listed();
  children_execute("/bin/sh");
  die(record);
  run_first_look();
  ASSERT_EQ(forks(), 1u);
  const pid_t child = kernel().forks[0];
  const int scans = record->start.scans;
  go_blind();
  run(LONG_US);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  EXPECT_LE(record->start.scans, scans + 1) << "only those that saw count";
  kernel().exec(child, {LISTED});
  see();
  run(2 * US_PER_S);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(record->pid, child);
  EXPECT_EQ(forks(), 1u);
}

// Nobody can say whether its file is locked.
TEST_F(TovBlind, ExitIsParkedAndHandedBackWhenItCanBeKnown) {
  tov_pid_t *record = task("/opt/a");
  kernel().write_file(file_of(record), "");
  kernel().fail(tov_test::CALL_OPEN, 3, EMFILE);  // behind two looks for the process
  die(record);
  EXPECT_EQ(forks(), 0u);
  ASSERT_TRUE(waits_for(record, TOV_WAIT_LOCK));
  go_blind();
  for (int passes = 0; passes < 100; passes++)
    one_pass_of_hand_back();
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(count(tov_chains_delay), 1);
  see();
  one_pass_of_hand_back();
  EXPECT_EQ(forks(), 1u);
  EXPECT_EQ(count(tov_chains_delay), 0);
}

// Between the answer of the look and what follows from it.
TEST_F(TovBlind, ProgramThatTheLookFoundAndThatEndedMeanwhileIsStarted) {
  children_execute(LISTED);
  const tov_pid_t *record = listed();
  const pid_t found = kernel().start({LISTED});
  die(record);
  bool is_replaced = false;
  // A scan opens the command line of each of the two processes, then comes the start of the one
  // that it has found, then whether that still runs.
  kernel().before(tov_test::CALL_OPEN, 4, [&] {
    is_replaced = true;
    kernel().end(found);
    kernel().start_as(found, {LISTED, "-x"});  // a stranger with its id
  });
  run(US_PER_S);
  ASSERT_TRUE(is_replaced);
  ASSERT_EQ(forks(), 1u);
  EXPECT_EQ(record->pid, kernel().forks[0]);
}
