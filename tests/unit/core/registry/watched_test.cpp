// The file of the watched threads over a simulated kernel: what is written when, what is believed,
// and what becomes of it when a call fails.
#include "core/registry/watched.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/registry/row_file.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/simulated.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using tov_test::kernel;

namespace {

constexpr char DIR_PATH[] = "/run/tov";
constexpr char FILE_PATH[] = "/run/tov/watched";
constexpr char ASIDE[] = "/run/tov/watched.wrong";
constexpr size_t HEADER = sizeof(tov_row_file_header_s);
constexpr size_t ROW = sizeof(tov_watched_row_t);

class Watched : public tov_test::Simulated {
 protected:
  ~Watched() override { close(); }

  static std::vector<tov_watched_left_t> open() {
    const tov_chains_guard_t guard(tov_alive_chains);
    return tov_watched_open();
  }
  static void close() {
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_close();
  }
  // The next daemon: it knows no record.
  static std::vector<tov_watched_left_t> open_next() {
    close();
    return open();
  }
  static tov_pid_t *watch(pid_t tid, unsigned int period_s = 120, unsigned int budget = 5) {
    tov_pid_t *record = add(tid, "/bin/x", 0, 0, tov_alive_chains);
    record->ppid = tid;
    record->identity = {700, 0x7ffc0000, 1, 42, 0};
    record->owner_started = 600;
    record->m_n_notify_time = period_s;
    record->m_n_counter = budget;
    write(record);
    return record;
  }
  static void write(tov_pid_t *record) {
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_write(record);
  }
  static void release(tov_pid_t *record) {
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_free(record);
  }
  static std::vector<pid_t> tids(const std::vector<tov_watched_left_t> &left) {
    std::vector<pid_t> ids;
    for (const tov_watched_left_t &one : left)
      ids.push_back(one.row.tid);
    return ids;
  }
  static std::vector<std::string> errors() { return tov_test::platform().events[TOV_LOG_ERROR]; }
};

TEST_F(Watched, RowTellsTheNextDaemonWhatWasWatched) {
  EXPECT_THAT(open(), IsEmpty());
  watch(1234, 180, 4);
  const auto left = open_next();
  ASSERT_THAT(left, SizeIs(1));
  const tov_watched_row_t &row = left[0].row;
  EXPECT_EQ(left[0].number, 1);
  EXPECT_EQ(row.tid, 1234);
  EXPECT_EQ(row.owner, 1234);
  EXPECT_EQ(row.started, 700U);
  EXPECT_EQ(row.owner_started, 600U);
  EXPECT_EQ(row.stack, 0x7ffc0000U);
  EXPECT_EQ(row.exe_dev, 1U);
  EXPECT_EQ(row.exe_ino, 42U);
  EXPECT_EQ(row.period_s, 180U);
  EXPECT_EQ(row.budget, 4U);
}

TEST_F(Watched, FileAndDirectoryAreRootsAlone) {
  kernel().umask = 0;
  open();
  EXPECT_EQ(kernel().mode_of(DIR_PATH), 0755U);
  EXPECT_EQ(kernel().mode_of(FILE_PATH), 0600U);
  EXPECT_EQ(kernel().inherited_descriptors(), 3U) << "close-on-exec";
}

TEST_F(Watched, RowsAreReadByEachDaemonThatComes) {
  open();
  watch(1234);
  EXPECT_THAT(tids(open_next()), ElementsAre(1234));
  EXPECT_THAT(tids(open_next()), ElementsAre(1234));
}

TEST_F(Watched, FreedRowIsForgottenAndUsedAgain) {
  open();
  tov_pid_t *first = watch(1001);
  watch(1002);
  release(first);
  EXPECT_EQ(first->row, 0);
  EXPECT_EQ(kernel().text_of(FILE_PATH).substr(HEADER, ROW), std::string(ROW, '\0'));
  EXPECT_EQ(watch(1003)->row, 1);
  EXPECT_THAT(tids(open_next()), ElementsAre(1003, 1002));
}

TEST_F(Watched, RowsOfTheLastDaemonAreNotGivenToOthers) {
  open();
  watch(1001);
  open_next();
  EXPECT_EQ(watch(1002)->row, 2);
  {
    const tov_chains_guard_t guard(tov_alive_chains);
    tov_watched_free_row(1);
  }
  EXPECT_EQ(watch(1003)->row, 1);
  EXPECT_THAT(tids(open_next()), ElementsAre(1003, 1002));
}

TEST_F(Watched, NewTermsStandInTheSameRow) {
  open();
  tov_pid_t *record = watch(1001, 120, 5);
  record->m_n_notify_time = 180;
  write(record);
  const auto left = open_next();
  ASSERT_THAT(left, SizeIs(1));
  EXPECT_EQ(left[0].row.period_s, 180U);
}

TEST_F(Watched, ThreadWhoseStartIsUnknownHasNoRow) {
  open();
  for (const uint64_t unknown : {uint64_t{0}, uint64_t{TOV_NEVER_STARTED}}) {
    for (const bool owner : {false, true}) {
      tov_pid_t *record = add(1001, "/bin/x", 0, 0, tov_alive_chains);
      record->ppid = 1001;
      record->identity.started = owner ? 700 : unknown;
      record->owner_started = owner ? unknown : 600;
      write(record);
      EXPECT_EQ(record->row, 0);
    }
  }
  EXPECT_THAT(open_next(), IsEmpty());
}

TEST_F(Watched, NothingIsWrittenBeforeTheFileIsOpen) {
  tov_pid_t *record = watch(1001);
  release(record);
  EXPECT_EQ(record->row, 0);
  EXPECT_EQ(kernel().calls(tov_test::CALL_PWRITE), 0);
  EXPECT_FALSE(kernel().exists(DIR_PATH));
}

TEST_F(Watched, TornRowIsNoRow) {
  open();
  watch(1001);
  watch(1002);
  const std::string whole = kernel().text_of(FILE_PATH);
  for (size_t at = HEADER; at < HEADER + ROW; at++) {
    std::string torn = whole;
    torn[at] = static_cast<char>(torn[at] ^ 0x40);
    kernel().write_file(FILE_PATH, torn);
    EXPECT_THAT(tids(open_next()), ElementsAre(1002)) << at;
  }
  kernel().write_file(FILE_PATH, whole.substr(0, whole.size() - 1));
  EXPECT_THAT(tids(open_next()), ElementsAre(1001)) << "the last one lacks a byte";
}

TEST_F(Watched, OtherBootIsForgottenWithoutALine) {
  open();
  watch(1001);
  kernel().boot_id.replace(0, 4, "0000");
  EXPECT_THAT(open_next(), IsEmpty());
  EXPECT_FALSE(kernel().exists(ASIDE));
  EXPECT_EQ(kernel().text_of(FILE_PATH).size(), HEADER);
  watch(1002);
  EXPECT_THAT(tids(open_next()), ElementsAre(1002));
}

// ---- what no daemon has left ------------------------------------------------------------------

struct Planted {
  const char *label;
  void (*plant)();
};

class PlantedFile : public Watched, public testing::WithParamInterface<Planted> {};

void change_header(size_t at) {
  std::string text = kernel().text_of(FILE_PATH);
  text[at] = static_cast<char>(text[at] + 1);
  kernel().write_file(FILE_PATH, text);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, PlantedFile,
    testing::Values(Planted{"OtherOwner", [] { kernel().give_away(FILE_PATH, 1000); }},
                    Planted{"OthersWrite", [] { kernel().set_mode(FILE_PATH, 0602); }},
                    Planted{"GroupWrites", [] { kernel().set_mode(FILE_PATH, 0620); }},
                    Planted{"SecondName", [] { kernel().link(FILE_PATH, "/tmp/mine", true); }},
                    Planted{"Link",
                            [] {
                              kernel().rename(FILE_PATH, "/tmp/mine");
                              kernel().make_link(FILE_PATH, "/tmp/mine");
                            }},
                    Planted{"Fifo", [] { kernel().make_fifo(FILE_PATH); }},
                    Planted{"Device", [] { kernel().make_device(FILE_PATH); }},
                    Planted{"Directory",
                            [] {
                              kernel().remove(FILE_PATH);
                              kernel().make_dir(FILE_PATH);
                            }},
                    Planted{"Magic", [] { change_header(0); }},
                    Planted{"Version", [] { change_header(8); }},
                    Planted{"RowSize", [] { change_header(12); }},
                    Planted{"HalfAHeader",
                            [] {
                              kernel().write_file(
                                  FILE_PATH, kernel().text_of(FILE_PATH).substr(0, HEADER - 1));
                            }},
                    Planted{"TooLong",
                            [] {
                              std::string text = kernel().text_of(FILE_PATH);
                              text.resize(HEADER + TOV_ROWS * ROW + 1);
                              kernel().write_file(FILE_PATH, text);
                            }}),
    [](const auto &row) { return std::string(row.param.label); });

TEST_P(PlantedFile, IsMovedAsideAndNotBelieved) {
  open();
  watch(1001);
  close();
  GetParam().plant();
  EXPECT_THAT(open(), IsEmpty());
  EXPECT_TRUE(kernel().exists(ASIDE));
  EXPECT_THAT(kernel().text_of(FILE_PATH), SizeIs(HEADER)) << "begun anew";
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("moved to watched.wrong")));
  watch(1002);
  EXPECT_THAT(tids(open_next()), ElementsAre(1002));
}

TEST_F(Watched, DirectoryThatOthersCanChangeIsRefused) {
  struct {
    const char *label;
    void (*plant)();
  } const cases[] = {
      {"owner", [] { kernel().give_away(DIR_PATH, 1000); }},
      {"mode", [] { kernel().set_mode(DIR_PATH, 0757); }},
      {"link",
       [] {
         kernel().rename(DIR_PATH, "/tmp/mine");
         kernel().make_link(DIR_PATH, "/tmp/mine");
       }},
      {"file",
       [] {
         kernel().remove(DIR_PATH);
         kernel().write_file(DIR_PATH, "");
       }},
  };
  for (const auto &row : cases) {
    SCOPED_TRACE(row.label);
    kernel().remove(DIR_PATH);
    open_next();
    watch(1001);
    close();
    row.plant();
    tov_test::platform().events[TOV_LOG_ERROR].clear();
    EXPECT_THAT(open(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("the next daemon will not know")));
    EXPECT_EQ(watch(1002)->row, 0) << "nothing is written there";
  }
}

// ---- failures ---------------------------------------------------------------------------------

TEST_F(Watched, EachCallThatFailsCostsTheHandOverAtMost) {
  open();
  watch(1001);
  close();
  const std::string whole = kernel().text_of(FILE_PATH);
  const int before = kernel().calls();
  open();
  const int calls = kernel().calls() - before;
  close();
  for (int nth = 1; nth <= calls; nth++) {
    SCOPED_TRACE(nth);
    kernel().write_file(FILE_PATH, whole, 0600);
    kernel().set_mode(FILE_PATH, 0600);
    tov_test::platform().events[TOV_LOG_ERROR].clear();
    const int looked_before = kernel().calls(tov_test::CALL_OPENAT);
    kernel().fail_any(nth, EIO);
    const auto left = open();
    EXPECT_THAT(tids(left), AnyOf(IsEmpty(), ElementsAre(1001)));
    const bool in_use = watch(1002)->row != 0;
    EXPECT_THAT(errors(), SizeIs(in_use ? 0 : 1));
    const bool reached = kernel().calls(tov_test::CALL_OPENAT) > looked_before;
    if (reached && !in_use) {
      EXPECT_THAT(open_next(), IsEmpty()) << "rows that were not maintained are not handed on";
    }
    close();
  }
}

TEST_F(Watched, RowThatCannotBeWrittenIsNoneAndTheOthersStay) {
  open();
  watch(1001);
  kernel().fail(tov_test::CALL_PWRITE, 1, ENOSPC);
  EXPECT_EQ(watch(1002)->row, 0);
  EXPECT_EQ(watch(1003)->row, 2);
  EXPECT_THAT(tids(open_next()), ElementsAre(1001, 1003));
}

TEST_F(Watched, RowThatCannotBeFreedEndsTheHandOver) {
  open();
  tov_pid_t *record = watch(1001);
  watch(1002);
  kernel().fail(tov_test::CALL_PWRITE, 1, EIO);
  release(record);
  EXPECT_FALSE(kernel().exists(FILE_PATH)) << "or it would accuse a thread that nobody watches";
  EXPECT_EQ(watch(1003)->row, 0);
  EXPECT_THAT(open_next(), IsEmpty());
}

TEST_F(Watched, ThreadsBeyondTheLastRowAreWatchedByThisDaemonAlone) {
  open();
  tov_pid_t *record = watch(1001);
  for (int row = 2; row <= TOV_ROWS; row++) {
    record->row = 0;  // as if it were another thread's
    write(record);
    ASSERT_EQ(record->row, row);
  }
  EXPECT_EQ(watch(1002)->row, 0);
  EXPECT_EQ(watch(1003)->row, 0);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("too many")));
  EXPECT_THAT(open_next(), SizeIs(TOV_ROWS));
}

}  // namespace
