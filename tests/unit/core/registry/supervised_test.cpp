// The rows of supervised processes: when a record's is written and freed, and what it says. What
// becomes of a file of rows when it is wrong, or a call fails, is tried with the watched threads'.
#include "core/registry/supervised.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <vector>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tov_test::kernel;

namespace {

class Supervised : public tov_test::Simulated {
 protected:
  ~Supervised() override { close(); }

  static std::vector<tov_supervised_left_t> open() {
    const tov_chains_guard_t held(tov_chains);
    return tov_supervised_open();
  }
  static void close() {
    const tov_chains_guard_t held(tov_chains);
    tov_supervised_close();
  }
  // The next daemon.
  static std::vector<tov_supervised_left_t> open_next() {
    close();
    return open();
  }
  static std::vector<pid_t> pids(const std::vector<tov_supervised_left_t> &left) {
    std::vector<pid_t> ids;
    for (const tov_supervised_left_t &one : left)
      ids.push_back(one.row.pid);
    return ids;
  }
  // A record as it is after its registration.
  static tov_pid_t *supervise(pid_t pid, const char *process = "/opt/a", bool seen = true) {
    tov_pid_t *record = add(pid, process);
    identify(record, record->identity, seen);
    return record;
  }
  static void identify(tov_pid_t *record, const tov_identity_t &identity, bool seen) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_identify(held, record, identity, seen);
  }
  static pid_t start(const char *program = "/opt/a") { return kernel().start({program}); }
};

}  // namespace

TEST_F(Supervised, RowTellsTheNextDaemonWhichProcessItIs) {
  EXPECT_THAT(open(), IsEmpty());
  const pid_t pid = start();
  const tov_pid_t *record = supervise(pid);
  const auto left = open_next();
  ASSERT_THAT(left, SizeIs(1));
  const tov_supervised_row_t &row = left[0].row;
  EXPECT_EQ(left[0].number, record->row);
  EXPECT_EQ(row.pid, pid);
  EXPECT_EQ(row.vsd_id, 0);
  EXPECT_EQ(row.started, kernel().process(pid).started);
  EXPECT_EQ(row.stack, kernel().process(pid).stack);
  EXPECT_EQ(row.exe_dev, record->identity.exe_dev);
  EXPECT_EQ(row.exe_ino, kernel().process(pid).exe_file->number);
  EXPECT_EQ(row.file, tov_supervised_file(*record));
  EXPECT_EQ(row.was_seen, 1U);
}

TEST_F(Supervised, FileTellsTasksOfOneIdApart) {
  tov_pid_t *one = add(41, "/opt/a -x");
  EXPECT_EQ(tov_supervised_file(*one), tov_supervised_file(*add(41, "/opt/a -y")));
  for (const tov_pid_t *other : {add(41, "/opt/b"), add(42, "/opt/a"), add(41, "/opt/a", 2, 1)})
    EXPECT_NE(tov_supervised_file(*one), tov_supervised_file(*other));
}

TEST_F(Supervised, RowSaysWhatIsFoundLater) {
  open();
  const pid_t pid = start();
  tov_pid_t *record = supervise(pid, "/opt/a", false);
  EXPECT_EQ(open_next()[0].row.was_seen, 0U);
  tov_identity_t now = record->identity;
  now.exe_ino++;
  identify(record, now, true);
  const auto left = open_next();
  ASSERT_THAT(left, SizeIs(1));
  EXPECT_EQ(left[0].row.was_seen, 1U);
  EXPECT_EQ(left[0].row.exe_ino, now.exe_ino);
}

// As each sweep finds nearly all of them.
TEST_F(Supervised, WhatIsNoNewsIsNotWritten) {
  open();
  tov_pid_t *record = supervise(start());
  const int written = kernel().calls(tov_test::CALL_PWRITE);
  identify(record, record->identity, true);
  EXPECT_EQ(kernel().calls(tov_test::CALL_PWRITE), written);
}

TEST_F(Supervised, RowGoesWithTheRecordToItsNextProcess) {
  for (const bool passed_on : {false, true}) {
    open();
    tov_pid_t *record = supervise(start());
    const pid_t next = start();
    {
      const tov_chains_guard_t held(tov_chains);
      (passed_on ? tov_record_pass_on : tov_record_renew)(held, record, next);
    }
    const auto left = open_next();
    EXPECT_THAT(pids(left), ElementsAre(next));
    EXPECT_EQ(left[0].row.started, kernel().process(next).started);
    EXPECT_EQ(left[0].row.exe_ino, 0U) << "it is about to execute";
    EXPECT_EQ(left[0].row.was_seen, 0U);
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget(held, record);
  }
}

TEST_F(Supervised, ForgottenRecordLeavesNoRow) {
  open();
  const pid_t first = start(), second = start(), third = start();
  tov_pid_t *forgotten = supervise(first);
  supervise(second, "/opt/a");
  tov_pid_t *withdrawn = supervise(second, "/opt/b");
  supervise(third);
  {
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget(held, forgotten);
    tov_record_forget_process(held, withdrawn);
  }
  EXPECT_THAT(pids(open_next()), ElementsAre(third));
  {
    const tov_chains_guard_t held(tov_chains);
    __tov_del_pid(&tov_chains, third);
  }
  EXPECT_THAT(open_next(), IsEmpty());
}

TEST_F(Supervised, EndInOrderHandsOver) {
  open();
  const pid_t pid = start();
  supervise(pid);
  empty_registries();
  EXPECT_THAT(pids(open_next()), ElementsAre(pid));
}

TEST_F(Supervised, ProcessThatIsNotKnownHasNoRow) {
  open();
  const pid_t pid = start();
  tov_pid_t *record = supervise(pid);
  for (const uint64_t unknown : {uint64_t{0}, uint64_t{TOV_NEVER_STARTED}}) {
    identify(record, {unknown, 0, 0, 0, 0}, false);
    EXPECT_EQ(record->row, 0);
    EXPECT_THAT(open_next(), IsEmpty());
    identify(record, {700, 0, 0, 0, 0}, false);
    EXPECT_THAT(pids(open_next()), ElementsAre(pid));
  }
}

TEST_F(Supervised, WatchedThreadHasNone) {
  open();
  tov_pid_t *record = add(start(), "/opt/a", 0, 0, tov_alive_chains);
  const tov_chains_guard_t held(tov_alive_chains);
  tov_record_identify(held, record, {700, 0, 0, 0, 0}, true);
  EXPECT_EQ(record->row, 0);
}

TEST_F(Supervised, NothingIsWrittenBeforeTheFileIsOpen) {
  EXPECT_EQ(supervise(start())->row, 0);
  EXPECT_EQ(kernel().calls(tov_test::CALL_PWRITE), 0);
}
