// Requests about ids that were given out again: whom they mean, and whom not.
#include "client/requests/tov_msg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include "core/policy/exit.h"
#include "core/policy/inherit.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"
#include "util/identity.h"

using testing::SizeIs;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_S;

static constexpr pid_t ID = 4711;

namespace {

class TovRequest : public tov_test::Waiting {
 protected:
  TovRequest() { children_execute("/opt/a"); }

  static tov_pid_t *registers(const char *program) {
    kernel().start_as(ID, {program});
    EXPECT_EQ(request(), 0);
    return find(ID);
  }
  static int request(pid_t pid = ID) {
    tov_msg_xtach_t payload{};
    payload.pid = pid;
    payload.restart_time = 60;
    return tov_process_restart(&payload);
  }
  static void ended(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_ended(held, record, SIGKILL, 0);
  }
  static void suspend(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_suspend(held, record, 0);
  }
};

using TovRegistration = TovRequest;
using TovWithdrawal = TovRequest;

}  // namespace

// ---- registrations --------------------------------------------------------------------------

TEST_F(TovRegistration, IsKnownWithItsProcess) {
  const tov_pid_t *record = registers("/opt/a");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->identity.started, kernel().process(ID).started);
  EXPECT_EQ(record->identity.exe_ino, kernel().process(ID).exe_file->number);
  EXPECT_EQ(record->seen, 1);
}

TEST_F(TovRegistration, SecondOneOfAProcessMakesNoRecord) {
  (void)registers("/opt/a");
  EXPECT_EQ(request(), 0);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(platform().events[TOV_LOG_REG_RESTART], SizeIs(1));
}

// The shell of a start script executes the program, which registers.
TEST_F(TovRegistration, SaysThatWhatWasStartedHasBecomeTheProgram) {
  tov_pid_t *record = registers("/opt/a");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_renew(held, record, kernel().start({"/bin/sh"}));
  }
  const pid_t shell = record->pid;
  EXPECT_EQ(request(shell), 0);
  EXPECT_EQ(record->seen, 0) << "that was the shell's, whoever sent it";
  kernel().exec(shell, {"/opt/a"});
  EXPECT_EQ(request(shell), 0);
  EXPECT_EQ(record->seen, 1);
  EXPECT_EQ(record->identity.stack, kernel().process(shell).stack);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRegistration, WhoHasTheIdOfADeadOneHasARecordOfItsOwn) {
  enum { LIVING, WAITING, SUSPENDED, ENDED, STATES };
  for (int state = LIVING; state < STATES; state++) {
    SCOPED_TRACE(state);
    tov_pid_t *dead = registers("/opt/a");
    kernel().end(ID);
    if (state == WAITING) die(dead);
    if (state == SUSPENDED) suspend(dead);
    if (state == ENDED) ended(dead);
    const tov_pid_t *next = registers("/opt/b");
    EXPECT_NE(next, dead);
    EXPECT_STREQ(next->process, "/opt/b");
    EXPECT_EQ(count(), 2);
    EXPECT_STREQ(dead->process, "/opt/a");
    empty_registries();
    kernel().end(ID);
  }
}

TEST_F(TovRegistration, ProcessWithoutItsFirstThreadStaysRegistered) {
  (void)registers("/opt/a");
  const pid_t worker = kernel().start_thread(ID);
  kernel().end_thread(ID);
  tov_handle_netlink_exit(ID, 0, 0);
  EXPECT_EQ(request(), -1) << "it has no command line any more";
  kernel().exec(worker, {"/opt/a"});
  EXPECT_EQ(request(), 0);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRegistration, OneThatCannotBeReadIsRegisteredAllTheSame) {
  kernel().start_as(ID, {"/opt/a"});
  kernel().descriptor_limit = kernel().descriptors();
  EXPECT_EQ(request(), 0);
  kernel().descriptor_limit = SIZE_MAX;
  ASSERT_EQ(count(), 1);
  EXPECT_EQ(find(ID)->identity.started, 0u);
  EXPECT_EQ(request(), 0);
  EXPECT_EQ(count(), 1);
}

// Its memory goes before it is a zombie.
TEST_F(TovRegistration, OneThatGoesWhileItIsReadIsNotEnteredWithoutItsArguments) {
  kernel().start_as(ID, {"/opt/a", "-x"});
  kernel().before(tov_test::CALL_READLINK, 1, [] {
    kernel().before(tov_test::CALL_OPEN, 1, [] {
      kernel().process(ID).exe.clear();
      kernel().process(ID).words.clear();
    });
  });
  EXPECT_EQ(request(), -1);
  EXPECT_EQ(count(), 0);
}

TEST_F(TovRegistration, ListedProgramStandsUnderWhatItWasExecutedWith) {
  kernel().start_as(ID, {"/opt/a", "-x"});
  tov_pid_t program{};
  program.pid = ID;
  (void)tov_identity_take(ID, &program.identity);
  strcpy(program.process, "/opt/a -x");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_inherit_note_execution(held, program);
  }
  kernel().process(ID).words = {"a: master"};
  EXPECT_EQ(request(), 0);
  EXPECT_STREQ(find(ID)->process, "/opt/a -x");
}

TEST_F(TovRegistration, WhatAnotherOneOfItsIdWasExecutedWithIsNotTaken) {
  kernel().start_as(ID, {"/opt/a"});
  tov_pid_t program{};
  program.pid = ID;
  program.identity.started = 1;
  strcpy(program.process, "/opt/other");
  {
    const tov_chains_guard_t held(tov_chains);
    tov_inherit_note_execution(held, program);
  }
  EXPECT_EQ(request(), 0);
  EXPECT_STREQ(find(ID)->process, "/opt/a");
}

// ---- withdrawals ----------------------------------------------------------------------------

TEST_F(TovWithdrawal, MeansEveryRecordOfItsProcess) {
  (void)registers("/opt/a");
  (void)add(ID, "/opt/c");
  const tov_pid_t *stranger = add(kernel().start({"/opt/d"}), "/opt/d");
  tov_process_dump_all_msg(ID);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_registered(stranger));
}

TEST_F(TovWithdrawal, OfWhoHasTheIdNowLeavesTheDeadOnesTask) {
  for (const bool is_suspended : {false, true}) {
    tov_pid_t *dead = registers("/opt/a");
    kernel().end(ID);
    if (is_suspended) {
      suspend(dead);
    } else {
      die(dead);
    }
    (void)registers("/opt/b");
    tov_process_dump_all_msg(ID);
    EXPECT_EQ(count(), 1);
    EXPECT_TRUE(is_registered(dead));
    tov_process_dump_all_msg(ID);
    EXPECT_TRUE(is_registered(dead)) << "the other has the id still";
    kernel().end(ID);
    tov_process_dump_all_msg(ID);
    EXPECT_EQ(count(), 0) << "it is the dead one's again";
  }
}

// Its exit was not heard of; two records then have a process, and it is not the same one.
TEST_F(TovWithdrawal, OfWhoHasTheIdNowLeavesOneWhoseEndIsNotKnownYet) {
  const tov_pid_t *dead = registers("/opt/a");
  kernel().end(ID);
  (void)registers("/opt/b");
  tov_process_dump_all_msg(ID);
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(is_registered(dead));
}

TEST_F(TovWithdrawal, OfAProcessThatHasEndedMeansItsTask) {
  tov_pid_t *dead = registers("/opt/a");
  kernel().end(ID);
  die(dead);
  tov_process_dump_all_msg(ID);
  EXPECT_EQ(count(), 0);
  run(120 * US_PER_S);
  EXPECT_EQ(forks(), 0u);
}

TEST_F(TovWithdrawal, StrangerWithADeadOnesIdKeepsTheTask) {
  tov_pid_t *dead = registers("/opt/a");
  kernel().end(ID);
  die(dead);
  kernel().start_as(ID, {"/opt/x"});
  tov_process_dump_all_msg(ID);
  EXPECT_EQ(count(), 1);
  run(60 * US_PER_S);
  EXPECT_EQ(forks(), 1u);
}

TEST_F(TovWithdrawal, MeansTheDeadOnesTaskWhileNothingCanBeKnown) {
  tov_pid_t *dead = registers("/opt/a");
  kernel().end(ID);
  die(dead);
  kernel().descriptor_limit = kernel().descriptors();
  tov_process_dump_all_msg(ID);
  EXPECT_EQ(count(), 0);
}
