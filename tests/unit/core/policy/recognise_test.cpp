// Whose a registration file is, after the daemon's restart: the last daemon's row against what has
// become of the process since.
#include "core/policy/recognise.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>

#include "client/tov_pidfile.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/supervised.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/identity.h"

using testing::IsEmpty;
using testing::SizeIs;
using tov_test::kernel;

static constexpr pid_t ID = 4711;
static constexpr char COMMAND[] = "/opt/a -x";
static constexpr char FILE_PATH[] = "/tmp/vsd/0/tov/db/a.4711";

namespace {

class TovRecognition : public tov_test::Simulated {
 protected:
  TovRecognition() {
    kernel().write_file(FILE_PATH, "4711\n2\n/opt/a -x");
    const tov_chains_guard_t held(tov_chains);
    (void)tov_supervised_open();
  }
  ~TovRecognition() override { close(); }

  static void close() {
    const tov_chains_guard_t held(tov_chains);
    tov_supervised_close();
  }
  // What a daemon knew when it was killed.
  static tov_identity_t supervised(bool seen = true) {
    tov_pid_t *record = add(ID, COMMAND);
    const tov_identity_t known =
        seen ? record->identity : tov_identity_of_start(record->identity.started);
    const tov_chains_guard_t held(tov_chains);
    tov_record_identify(held, record, known, seen);
    EXPECT_NE(record->row, 0);
    return known;
  }
  // The next daemon's answer.
  static tov_recognised_t ask(int64_t written_us = INT64_MAX) {
    empty_registries();
    close();
    tov_recognition_t recognition;
    const tov_recognised_t answer = recognition.ask(told(), FILE_PATH, written_us);
    recognition.end();
    return answer;
  }
  // The record as its file tells.
  static tov_pid_t told() {
    tov_pid_t record{};
    EXPECT_EQ(tov_read_pidfile(FILE_PATH, &record), 0);
    (void)snprintf(record.process, sizeof record.process, "%s", record.pathname);
    return record;
  }
  // What the first sweep of the next daemon then finds.
  static tov_found_e sweep(const tov_recognised_t &answer) {
    tov_pid_t record = told();
    record.identity = answer.identity;
    record.seen = answer.seen ? 1 : 0;
    tov_reading_t reading;
    tov_read_process(ID, record.identity, &reading);
    return tov_compare_process(record, reading);
  }
  static void run(const char *program = "/opt/a") { kernel().start_as(ID, {program, "-x"}); }
};

}  // namespace

TEST_F(TovRecognition, ProcessOfTheRowIsTheSame) {
  run();
  const tov_identity_t known = supervised();
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_TRUE(answer.seen);
  EXPECT_NE(answer.row, 0);
  EXPECT_EQ(answer.identity.started, known.started);
  EXPECT_EQ(sweep(answer), TOV_FOUND_AS_REGISTERED);
}

// Its command line need not be asked for, and so nobody waits for it.
TEST_F(TovRecognition, ProcessThatWasSeenIsNotReadAgain) {
  run();
  supervised();
  const int before = kernel().calls(tov_test::CALL_OPEN);
  (void)ask();
  const int with_row = kernel().calls(tov_test::CALL_OPEN) - before;
  kernel().write_file("/run/tov/supervised", "");
  (void)ask();
  EXPECT_LT(with_row, kernel().calls(tov_test::CALL_OPEN) - before - with_row);
}

TEST_F(TovRecognition, OneThatHasEndedIsDead) {
  run();
  supervised();
  kernel().end(ID);
  const tov_recognised_t answer = ask();
  EXPECT_TRUE(answer.is_dead);
  EXPECT_NE(answer.row, 0) << "until the task has its next process";
}

// However close the two are, and whatever the clock on the wall says.
TEST_F(TovRecognition, WhoWasGivenItsIdIsAnotherAlsoAsTheSameProgram) {
  for (const char *program : {"/opt/stranger", "/opt/a"}) {
    for (const int64_t written_us : {INT64_MAX, int64_t{0}, kernel().now_us()}) {
      run();
      supervised();
      kernel().end(ID);
      run(program);
      EXPECT_TRUE(ask(written_us).is_dead) << program << " " << written_us;
      kernel().end(ID);
    }
  }
}

// A title, another executable in its place, and both over a restart of the daemon.
TEST_F(TovRecognition, OneThatLooksDifferentNowIsTheSame) {
  run();
  supervised();
  kernel().set_title(ID, {"a: serving"});
  kernel().replace_binary("/opt/a");
  const tov_recognised_t answer = ask(0);
  EXPECT_FALSE(answer.is_dead);
  EXPECT_TRUE(answer.seen);
  EXPECT_EQ(sweep(answer), TOV_FOUND_UNLIKE);
}

TEST_F(TovRecognition, ExecutionOfAnotherProgramIsKnownToTheNextDaemon) {
  run();
  supervised();
  kernel().exec(ID, {"/opt/other"});
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead) << "the sweep tells, as with the last daemon";
  EXPECT_EQ(sweep(answer), TOV_FOUND_OTHER);
}

TEST_F(TovRecognition, WithoutTheRowThatCannotBeKnown) {
  run();
  supervised();
  kernel().exec(ID, {"/opt/other"});
  kernel().write_file("/run/tov/supervised", "");
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_EQ(answer.row, 0);
  EXPECT_EQ(sweep(answer), TOV_FOUND_UNLIKE);
}

// It registered, and the daemon died before its row was written.
TEST_F(TovRecognition, WhoHoldsTheFileIsMeantWhateverAnOlderRowSays) {
  run();
  supervised();
  kernel().end(ID);
  run();
  kernel().lock(FILE_PATH, ID);
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_TRUE(answer.seen);
  EXPECT_EQ(answer.identity.started, kernel().process(ID).started);
}

TEST_F(TovRecognition, AnOlderRowIsNotBelievedWhileTheHolderCannotBeKnown) {
  run();
  supervised();
  kernel().end(ID);
  run();
  kernel().fail(tov_test::CALL_LOCK_HOLDER, 1, ENOLCK);
  EXPECT_FALSE(ask().is_dead);
}

TEST_F(TovRecognition, OfTwoRowsTheLivingProcesssCounts) {
  run();
  supervised();
  kernel().end(ID);
  run();
  const tov_identity_t living = supervised();
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_EQ(answer.identity.started, living.started);
}

TEST_F(TovRecognition, ShellOfAStartScriptIsAskedForItsLifeAlone) {
  kernel().start_as(ID, {"/bin/sh", "/etc/cmdmap/a.sh"});
  supervised(false);
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_FALSE(answer.seen);
  EXPECT_EQ(answer.identity.exe_ino, 0U);
  EXPECT_EQ(sweep(answer), TOV_FOUND_ALIVE);
}

TEST_F(TovRecognition, WhatItHasExecutedMeanwhileIsSeen) {
  kernel().start_as(ID, {"/bin/sh", "/etc/cmdmap/a.sh"});
  supervised(false);
  kernel().exec(ID, {"/opt/a", "-x"});
  const tov_recognised_t answer = ask();
  EXPECT_TRUE(answer.seen);
  EXPECT_EQ(answer.identity.stack, kernel().process(ID).stack);
}

TEST_F(TovRecognition, OneThatGoesOnWithoutItsFirstThreadLives) {
  run();
  supervised();
  kernel().start_thread(ID);
  kernel().end_thread(ID);
  EXPECT_FALSE(ask().is_dead);
}

TEST_F(TovRecognition, WhatCannotBeKnownIsNotDead) {
  run();
  supervised();
  kernel().proc_is_mounted = false;
  EXPECT_FALSE(ask().is_dead);
  kernel().proc_is_mounted = true;
  kernel().write_file("/run/tov/supervised", "");
  kernel().proc_is_mounted = false;
  const tov_recognised_t answer = ask();
  EXPECT_FALSE(answer.is_dead);
  EXPECT_EQ(answer.identity.started, 0U);
}

TEST_F(TovRecognition, RowOfARegistrationThatIsGoneIsFreed) {
  run();
  supervised();
  empty_registries();
  close();
  {
    tov_recognition_t recognition;
    recognition.end();
  }
  close();
  const tov_chains_guard_t held(tov_chains);
  EXPECT_THAT(tov_supervised_open(), IsEmpty());
}

TEST_F(TovRecognition, RowsStayUntilAllFilesWereRead) {
  run();
  supervised();
  empty_registries();
  close();
  { const tov_recognition_t killed_at_its_start; }
  close();
  const tov_chains_guard_t held(tov_chains);
  EXPECT_THAT(tov_supervised_open(), SizeIs(1));
}
