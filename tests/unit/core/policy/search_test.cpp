// The search for the process that the start of a listed program has made.
#include "core/policy/search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "client/requests/tov_msg.h"
#include "core/registry/record.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"
#include "util/tov_sys.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::kernel;
using tov_test::LISTED;
using tov_test::LOOK_PAUSE_US;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

namespace {

class TovSearch : public tov_test::Waiting {
 protected:
  static constexpr tov_cnmsg_data_t exec(pid_t pid) { return {TOV_EVENT_EXEC, pid, 0}; }
  static constexpr tov_cnmsg_data_t exit(pid_t pid, uint32_t code) {
    return {TOV_EVENT_EXIT, pid, code};
  }

  // What the steps handed back, "exec 1001", "exit 1001 11".
  std::vector<std::string> heard() const {
    std::vector<std::string> texts;
    for (const tov_cnmsg_data_t &event : heard_)
      texts.push_back(event.what == TOV_EVENT_EXEC ? "exec " + std::to_string(event.process_pid)
                                                   : "exit " + std::to_string(event.process_pid) +
                                                         " " + std::to_string(event.exit_code));
    return texts;
  }

  // A program that died, was not found running, and is started: it is searched for.
  tov_pid_t *searching() {
    tov_pid_t *record = listed();
    die(record);
    run_first_look();
    EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
    EXPECT_EQ(forks(), 1u);
    return record;
  }
  static std::string claim_of(const tov_pid_t &record) {
    return "/tmp/vsd/0/tov/db/.claim." + std::to_string(tov_sys_getpid()) + "." +
           std::to_string(record.claim);
  }
};

}  // namespace

// ---- the search -----------------------------------------------------------------------------

TEST_F(TovSearch, OwnChildIsFound) {
  children_execute(LISTED);
  const tov_pid_t *record = listed();
  die(record);
  run_first_look();
  ASSERT_EQ(forks(), 1u);
  run(100 * US_PER_MS - 1);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH)) << "it may yet go to the background";
  run(1);
  EXPECT_EQ(record->pid, child());
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT],
              ElementsAre("tov_spawn--> third part Normal[/opt/daemon] new pid: " +
                          std::to_string(child())));
}

TEST_F(TovSearch, ProcessThatForkedItselfAwayIsFound) {
  const tov_pid_t *record = searching();
  kernel().pass(50 * US_PER_MS);
  const pid_t daemon = kernel().start({LISTED});
  run(50 * US_PER_MS);
  EXPECT_EQ(record->pid, daemon);
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT],
              ElementsAre("tov_spawn--> third part Daemon[/opt/daemon] new pid: " +
                          std::to_string(daemon)));
}

TEST_F(TovSearch, EndsAfterTenScansInFiveAndAHalfSeconds) {
  const tov_pid_t *record = listed();
  const pid_t dead = record->pid;
  die(record);
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run_first_look();
  const int64_t begun_us = kernel().now_us();
  run(5'500 * US_PER_MS - 1);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  run(1);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(kernel().now_us() - begun_us, 5'500 * US_PER_MS);
  // Three rounds each: the look whether it runs again, and the search.
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR) - before, 3 + 3 * 10);
  EXPECT_EQ(record->pid, dead);
  EXPECT_THAT(platform().events[TOV_LOG_ERROR],
              ElementsAre("tov_spawn--> third part[/opt/daemon] Not Found new pid!"));
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovSearch, PausesGrowByATenthOfASecond) {
  const tov_pid_t *record = searching();
  for (int pause = 1; pause <= 10; pause++) {
    EXPECT_EQ(next_due_us(), kernel().now_us() + pause * 100 * US_PER_MS) << pause;
    run(pause * 100 * US_PER_MS);
  }
  EXPECT_FALSE(tov_record_is_starting(*record));
}

TEST_F(TovSearch, IsMadeAfterAFailedForkToo) {
  const tov_pid_t *record = listed();
  fail_forks(1);
  die(record);
  run_first_look();
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  const pid_t daemon = kernel().start({LISTED});
  run(100 * US_PER_MS);
  EXPECT_EQ(record->pid, daemon);
}

TEST_F(TovSearch, RecordThatSearchesCountsAsRunning) {
  const tov_pid_t *record = searching();
  tov_pid_t *twin = task(LISTED);
  twin->flags = TOV_FLAG_STARTED;
  die(twin);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_registered(record));
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
}

TEST_F(TovSearch, RemovedRecordIsSearchedForNoMore) {
  tov_pid_t *record = searching();
  forget(record);
  (void)kernel().start({LISTED});
  run(10 * US_PER_S);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(next_due_us(), INT64_MAX);
}

TEST_F(TovSearch, AnswerForASearchThatHasEndedIsNotTaken) {
  children_execute("/opt/launcher");
  crowd();
  const tov_pid_t *record = listed();
  die(record);
  kernel().pass(LOOK_PAUSE_US);
  for (int steps = 0; forks() == 0 && steps < 100; steps++)
    (void)go_on();
  (void)go_on();  // it asks
  (void)go_on();  // the first portion
  ASSERT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  const pid_t daemon = kernel().start({LISTED});
  registers(daemon);
  ASSERT_FALSE(tov_record_is_starting(*record));
  run(10 * US_PER_S);
  EXPECT_EQ(record->pid, daemon);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(platform().events[TOV_LOG_ERROR], IsEmpty());
}

// ---- its claim ------------------------------------------------------------------------------

TEST_F(TovSearch, ChildThatComesLateFindsNoClaimWhereTheProgramWasFound) {
  const tov_pid_t *record = searching();
  const std::string claim = claim_of(*record);
  ASSERT_TRUE(kernel().exists(claim));
  (void)kernel().start({LISTED});
  run(1 * US_PER_S);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_FALSE(kernel().exists(claim));
  EXPECT_TRUE(kernel().exists(file_of(record)));
}

TEST_F(TovSearch, ChildThatComesLateFindsNoClaimAfterAWithdrawal) {
  const tov_pid_t *record = searching();
  const std::string claim = claim_of(*record), file = file_of(record);
  ASSERT_TRUE(kernel().exists(claim));
  tov_process_dump_all_msg(record->pid);
  EXPECT_EQ(count(), 0);
  EXPECT_FALSE(kernel().exists(claim));
  EXPECT_FALSE(kernel().exists(file));
}

TEST_F(TovSearch, NameThatTheChildGaveItsClaimGoesWithTheSearch) {
  const tov_pid_t *record = searching();
  const std::string used = "/tmp/vsd/0/tov/db/.claim.child." + std::to_string(child());
  kernel().rename(claim_of(*record), used);
  run(5'500 * US_PER_MS - 1);
  EXPECT_TRUE(kernel().exists(used));
  run(1);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_FALSE(kernel().exists(used));
}

// ---- what is heard of the child -------------------------------------------------------------

TEST_F(TovSearch, WhatIsHeardOfTheChildIsToldInItsOrderAfterwards) {
  const tov_pid_t *record = searching();
  const pid_t forked = child();
  EXPECT_TRUE(tov_search_keeps(exec(forked)));
  EXPECT_TRUE(tov_search_keeps(exit(forked, SIGSEGV)));
  EXPECT_THAT(heard(), IsEmpty());
  kernel().process(forked).exe = LISTED;
  kernel().process(forked).words = {LISTED};
  run(100 * US_PER_MS);
  EXPECT_EQ(record->pid, forked);
  EXPECT_THAT(heard(), ElementsAre("exec " + std::to_string(forked),
                                   "exit " + std::to_string(forked) + " 11"));
}

TEST_F(TovSearch, OnlyWhatWasHeardIsTold) {
  children_execute("/opt/launcher");
  (void)searching();
  const pid_t forked = child();
  EXPECT_TRUE(tov_search_keeps(exec(forked)));
  kernel().process(forked).exe = LISTED;
  run(100 * US_PER_MS);
  EXPECT_THAT(heard(), ElementsAre("exec " + std::to_string(forked)));
}

TEST_F(TovSearch, NothingIsToldOfAChildThatIsNotSupervised) {
  const tov_pid_t *record = searching();
  EXPECT_TRUE(tov_search_keeps(exec(child())));
  EXPECT_TRUE(tov_search_keeps(exit(child(), 0)));
  const pid_t daemon = kernel().start({LISTED});
  run(100 * US_PER_MS);
  EXPECT_EQ(record->pid, daemon);
  EXPECT_THAT(heard(), IsEmpty());
}

// Nobody runs in its place: its failure is the exit of what was started.
TEST_F(TovSearch, ChildThatFailedStandsForTheProgramThatIsNotFound) {
  const tov_pid_t *record = searching();
  const pid_t forked = child();
  EXPECT_TRUE(tov_search_keeps(exec(forked)));
  EXPECT_TRUE(tov_search_keeps(exit(forked, SIGSEGV)));
  kernel().end(forked);
  kernel().reap(forked);
  run(100 * US_PER_MS - 1);
  EXPECT_THAT(heard(), IsEmpty());
  run(1);
  EXPECT_EQ(record->pid, forked);
  EXPECT_TRUE(kernel().exists(file_of(record))) << "a next daemon has nothing to go on from";
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_THAT(heard(), ElementsAre("exec " + std::to_string(forked),
                                   "exit " + std::to_string(forked) + " 11"));
  EXPECT_THAT(platform().events[TOV_LOG_ERROR],
              ElementsAre("tov_spawn--> third part[/opt/daemon] Not Found new pid!"));
}

// What it has left behind is there by then.
TEST_F(TovSearch, ChildThatFailsInAPauseIsSearchedForOnceMoreAtOnce) {
  const tov_pid_t *record = searching();
  const pid_t forked = child();
  run(100 * US_PER_MS + 1);
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  kernel().end(forked);
  kernel().reap(forked);
  EXPECT_TRUE(tov_search_keeps(exit(forked, SIGSEGV)));
  run(1);
  EXPECT_EQ(record->pid, forked);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR) - before, 3) << "one scan of three rounds";
  EXPECT_THAT(heard(), ElementsAre("exit " + std::to_string(forked) + " 11"));
}

TEST_F(TovSearch, ChildThatHasDoneItsPartDoesNot) {
  const tov_pid_t *record = searching();
  const pid_t dead = record->pid;
  EXPECT_TRUE(tov_search_keeps(exit(child(), 0)));
  kernel().end(child());
  kernel().reap(child());
  run(5'500 * US_PER_MS);
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(record->pid, dead);
  EXPECT_THAT(heard(), IsEmpty());
}

// It may have gone to the background.
TEST_F(TovSearch, FoundProcessThatEndsDuringTheScanIsSearchedForOnceMore) {
  const tov_pid_t *record = searching();
  crowd();
  const pid_t daemon = kernel().start({LISTED});
  kernel().pass(100 * US_PER_MS);
  (void)go_on();  // it asks
  (void)go_on();  // the first portion
  ASSERT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  pid_t next = 0;
  kernel().before(tov_test::CALL_CLOSEDIR, 1, [&] {
    kernel().end(daemon);
    next = kernel().start({LISTED});
  });
  run(200 * US_PER_MS);
  EXPECT_EQ(record->pid, next);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(TovSearch, EventsOfStrangersAreNotKept) {
  EXPECT_FALSE(tov_search_keeps(exec(4711)));
  (void)searching();
  const pid_t forked = child();
  EXPECT_FALSE(tov_search_keeps(exec(forked + 1)));
  EXPECT_FALSE(tov_search_keeps({0x1, forked, 0}));
  EXPECT_TRUE(tov_search_keeps(exit(forked, 0)));
  EXPECT_FALSE(tov_search_keeps(exec(forked)));  // of another process that was given the id
  EXPECT_FALSE(tov_search_keeps(exit(forked, 9)));
  run(6 * US_PER_S);
  EXPECT_FALSE(tov_search_keeps(exec(forked)));
}

// ---- registrations during a search ----------------------------------------------------------

TEST_F(TovSearch, RegistrationOfTheChildEndsIt) {
  children_execute("/opt/launcher");
  const tov_pid_t *record = searching();
  registers(child());
  EXPECT_EQ(record->pid, child());
  EXPECT_FALSE(tov_record_is_starting(*record));
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(platform().notices, Contains(HasSubstr("Self-checking OK: 1 times")));
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT], ElementsAre(HasSubstr("third part Normal")));
}

TEST_F(TovSearch, RegistrationOfTheSearchedProgramEndsIt) {
  const tov_pid_t *record = searching();
  const pid_t daemon = kernel().start({LISTED});
  registers(daemon);
  EXPECT_EQ(record->pid, daemon);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(next_due_us(), INT64_MAX);
  EXPECT_THAT(platform().events[TOV_LOG_RUN_EVENT], ElementsAre(HasSubstr("third part Daemon")));
}

TEST_F(TovSearch, RegistrationOfAnotherDeviceOrProgramDoesNot) {
  const tov_pid_t *record = searching();
  registers(kernel().start({LISTED}), 1);
  registers(kernel().start({LISTED, "-d"}));
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  EXPECT_EQ(count(), 3);
}

TEST_F(TovSearch, RegistrationUnderTheIdOfAChildThatEndedDoesNot) {
  const tov_pid_t *record = searching();
  EXPECT_TRUE(tov_search_keeps(exit(child(), 0)));
  kernel().process(child()).exe = "/opt/stranger";
  registers(child());
  EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  EXPECT_EQ(count(), 2);
}
