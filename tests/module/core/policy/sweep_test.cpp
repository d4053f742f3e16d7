// The status sweep: who is missed, and what follows from the second time.
#include "core/policy/sweep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "core/policy/waits.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using tov_test::GONE;
using tov_test::Program;

namespace {

class TovSweep : public tov_test::World {
 protected:
  static void sweep() {
    for (unsigned int bucket = 0; bucket < TOV_PID_BUCKETS; bucket++)
      tov_sweep_bucket(bucket);
  }

  // Only the bucket of one id. A process that the sweep starts may land in a bucket that comes
  // later, and here that would be swept before the process is executed.
  static void sweep_bucket_of(pid_t pid) { tov_sweep_bucket(pidhash(pid)); }

  // An id in a bucket that no process has.
  static pid_t gone_in(unsigned int bucket, pid_t from = GONE) {
    pid_t pid = from;
    while (pidhash(pid) != bucket)
      pid++;
    return pid;
  }
};

}  // namespace

TEST_F(TovSweep, HealthyProcessIsPassedOver) {
  const Program program("healthy");
  const pid_t pid = tov_test::start(program.path + " -a");
  tov_pid_t *record = add(pid, program.path + " -a");
  for (int i = 0; i < 3; i++)
    sweep();
  EXPECT_EQ(find(pid), record);
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
}

TEST_F(TovSweep, MissedOnceItIsReported) {
  tov_pid_t *record = add(GONE, "/opt/a -x", RESPAWN, 3);
  sweep();
  EXPECT_EQ(record->stat_check_cnt, 1);
  EXPECT_EQ(find(GONE), record);
  EXPECT_THAT(events(TOV_LOG_RESTART),
              ElementsAre("tov_proc_stat_check: tov_pid(/opt/a -x, 3, 5000000) is not running."));
}

TEST_F(TovSweep, MissedTwiceItIsRestarted) {
  const Program program("lost");
  tov_pid_t *record = add(GONE, program.path);
  sweep_bucket_of(GONE);
  (void)events(TOV_LOG_RESTART);
  sweep_bucket_of(GONE);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_EQ(record->stat_check_cnt, 0);
  const std::string id = "(" + program.path + ", 0, 5000000) ";
  EXPECT_THAT(events(TOV_LOG_RESTART),
              ElementsAre("tov_proc_stat_check: tov_pid" + id + "is not running.",
                          "tov_proc_stat_check: tov_pid" + id + "exit code lost, restart it.",
                          StartsWith("%HA-5-HA_RE_INIT: Job " + program.name + "/5000000 "),
                          StartsWith("%HA-5-HA_RE_INIT_INFO ")));
  sweep();
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
}

TEST_F(TovSweep, FoundAgainItStartsFromTheBeginning) {
  const Program program("found");
  const pid_t pid = tov_test::start(program.path);
  program.birth();
  tov_pid_t *record = add(pid, program.path);
  const tov_identity_t living = record->identity;
  const auto stand_for = [&](const tov_identity_t &identity) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_identify(held, record, identity, true);
  };
  stand_for({TOV_NEVER_STARTED, 0, 0, 0, 0});
  sweep();
  EXPECT_EQ(record->stat_check_cnt, 1);
  stand_for(living);
  sweep();
  EXPECT_EQ(record->stat_check_cnt, 0);
  stand_for({TOV_NEVER_STARTED, 0, 0, 0, 0});
  sweep();
  EXPECT_EQ(record->stat_check_cnt, 1);
  EXPECT_EQ(record->pid, pid);
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovSweep, LivingProcessThatLooksDifferentIsToldAboutAndLeftAlone) {
  const Program program("upgraded");
  const pid_t pid = tov_test::start(program.path + " -a");
  program.birth();
  tov_pid_t *record = add(pid, program.path + " -a");
  record->vsd_id = 5;
  const std::string removed = program.path + ".old";
  ASSERT_EQ(rename(program.path.c_str(), removed.c_str()), 0);
  ASSERT_EQ(unlink(removed.c_str()), 0);
  const std::string line = "tov_proc_stat_check: tov_pid(" + program.path + " -a, 5, " +
                           std::to_string(pid) + ") is not running.";
  for (int i = 0; i < 3; i++) {
    sweep();
    EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre(line));
    EXPECT_EQ(record->stat_check_cnt, 0);
  }
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovSweep, ProgramThatBecameAnotherIsReplacedButNotKilled) {
  const Program program("before"), other("after");
  const std::string command = program.path + " until-told exec=" + other.path;
  const pid_t pid = tov_test::start(command);
  tov_pid_t *record = add(pid, command);
  tov_test::write_file("/data/tell." + program.name, "");
  other.birth();
  sweep_bucket_of(pid);
  EXPECT_EQ(record->pid, pid);
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre(HasSubstr("is not running.")));
  sweep_bucket_of(pid);
  EXPECT_EQ(record->pid, program.birth(2).pid);
  EXPECT_NE(record->pid, pid);
  EXPECT_TRUE(tov_test::process_lives(pid));
}

TEST_F(TovSweep, SuspendedTaskIsNeverLookedAt) {
  tov_pid_t *record = add(GONE, "/opt/a");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_suspend(held, record, tov_get_time());
  }
  for (int i = 0; i < 3; i++)
    sweep();
  EXPECT_EQ(record->stat_check_cnt, 0);
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
}

TEST_F(TovSweep, RecordsWithoutAProcessAreReported) {
  add(-1, "/opt/a", NORMAL_EXIT);
  add(0, "/opt/b", IGNORE_EXIT);
  sweep();
  EXPECT_THAT(
      events(TOV_LOG_RESTART),
      testing::UnorderedElementsAre("tov_proc_stat_check: tov_pid(/opt/a, 0, -1) is not running.",
                                    "tov_proc_stat_check: tov_pid(/opt/b, 0, 0) is not running."));
  sweep();
  EXPECT_EQ(count(), 2);
  EXPECT_THAT(events(TOV_LOG_RESTART), testing::SizeIs(4));
}

TEST_F(TovSweep, SeveralLostOnesOfABucketAreAllRestarted) {
  const Program one("one"), two("two");
  const pid_t first = gone_in(7), second = gone_in(7, first + 1);
  tov_pid_t *record1 = add(first, one.path);
  tov_pid_t *record2 = add(second, two.path);
  tov_sweep_bucket(7);
  tov_sweep_bucket(7);
  EXPECT_EQ(record1->pid, one.birth().pid);
  EXPECT_EQ(record2->pid, two.birth().pid);
}

// The decision about one lost record may remove another one of the same bucket.
TEST_F(TovSweep, LostTwinsInOneBucketAreHandledOnce) {
  const Program program("twins");
  const pid_t first = gone_in(7), second = gone_in(7, first + 1);
  add(first, program.path)->flags = TOV_FLAG_STARTED;
  add(second, program.path)->flags = TOV_FLAG_STARTED;
  tov_sweep_bucket(7);
  tov_sweep_bucket(7);
  EXPECT_EQ(count(), 1);
  EXPECT_NE(find(program.birth().pid), nullptr);
  EXPECT_EQ(program.births().size(), 1u);
}

// A third-part program that another process started again meanwhile.
TEST_F(TovSweep, ProgramThatRunsAgainIsRegisteredInstead) {
  const Program program("found");
  tov_test::write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t found = tov_test::start(program.path);
  const tov_pid_t *record = add(GONE, program.path);
  sweep_bucket_of(GONE);
  sweep_bucket_of(GONE);
  tov_waits_finish();  // stands in for the event handler
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(find(found), record);
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovSweep, ThreadTakesOneBucketAtATime) {
  // The first three buckets; the pause between two is 234375 us.
  for (unsigned int bucket = 0; bucket < 3; bucket++)
    add(gone_in(bucket), "/opt/bucket" + std::to_string(bucket), NORMAL_EXIT);
  const int64_t begun = tov_test::monotonic_ns();
  std::thread sweeper([] { tov_proc_stat_check(nullptr); });
  std::vector<std::string> lines;
  EXPECT_TRUE(tov_test::wait_until(
      [&] {
        for (const std::string &line : events(TOV_LOG_RESTART))
          lines.push_back(line);
        return lines.size() >= 3;
      },
      tov_test::PATIENT_MS));
  const int64_t lasted_us = (tov_test::monotonic_ns() - begun) / 1000;
  tov_flag_set(quit, 1);
  sweeper.join();
  EXPECT_THAT(lines, ElementsAre(HasSubstr("/opt/bucket0,"), HasSubstr("/opt/bucket1,"),
                                 HasSubstr("/opt/bucket2,")));
  EXPECT_GE(lasted_us, 2 * 234375);
}
