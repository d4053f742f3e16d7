// The watchdog's accounting: when a period ends, when a miss counts, when a kill is requested, and
// which thread still is the one that registered.
#include "core/watch/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/child.h"
#include "tests/support/processes.h"
#include "tests/support/text.h"

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tov_test::Child;
using tov_test::cmdline_of;
using tov_test::GONE;
using tov_test::Program;

namespace {

constexpr pid_t TID = 4711;         // has a slot
constexpr pid_t OWNER = GONE + 11;  // no process; registered unless a test says otherwise
constexpr unsigned int PERIOD_S = 120;
constexpr int PASSES = 2;         // in a period
constexpr size_t COMPARED = 254;  // characters of a command line

class TovNotifer : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    for (const pid_t pid : {TID, TID + 1})
      (void)tov_sys_unreg_alive_info(pid);
    watched(OWNER, OWNER);
  }

  // A watched thread's record, as the handler makes it.
  static tov_pid_t *watched(pid_t tid, pid_t owner, unsigned int budget = 5,
                            const std::string &process = "/opt/a/watched -x") {
    tov_pid_t *record = add(tid, process, 0, 0, tov_alive_chains);
    record->ppid = owner;
    record->m_n_notify_time = PERIOD_S;
    record->m_n_counter = record->m_n_cur_counter = budget;
    return record;
  }

  // Minutes of one record. Returns how many kills were requested.
  static int pass(tov_pid_t *record, int minutes, bool disable_check = false,
                  bool disable_check_tmp = false) {
    int requests = 0;
    for (int i = 0; i < minutes; i++) {
      int flag = 0;
      EXPECT_EQ(tov_check_alive_info_periodical(record, &flag, disable_check, disable_check_tmp),
                0);
      requests += flag;
    }
    return requests;
  }

  static std::string alive_diagnostics(const std::function<void()> &call) {
    return tov_test::caught_diagnostics(TOV_MODULE_ALIVE, call);
  }
};

size_t lines_with(const std::string &text, const std::string &part) {
  size_t lines = 0;
  for (const std::string &line : tov_test::split_lines(text, "\n"))
    lines += line.find(part) != std::string::npos ? 1U : 0U;
  return lines;
}

}  // namespace

// ---- periods ----------------------------------------------------------------------------------

TEST_F(TovNotifer, BudgetFallsByOneAtTheEndOfEachPeriod) {
  tov_pid_t *record = watched(TID, OWNER, 3);
  for (const unsigned int left : {2U, 1U}) {
    EXPECT_EQ(pass(record, PASSES - 1), 0);
    EXPECT_EQ(record->m_n_cur_counter, left + 1);
    EXPECT_EQ(record->m_n_cur_notify_time, 60U);
    EXPECT_EQ(pass(record, 1), 0);
    EXPECT_EQ(record->m_n_cur_counter, left);
    EXPECT_EQ(record->m_n_cur_notify_time, 0U);
  }
  EXPECT_EQ(pass(record, PASSES), 1) << "in the pass that spends it";
  EXPECT_EQ(pass(record, 3), 3) << "and in each one after it";
  EXPECT_EQ(record->m_n_cur_counter, 0U) << "never below";
}

TEST_F(TovNotifer, PeriodThatIsNoMultipleOfAMinuteNeverEnds) {
  tov_pid_t *record = watched(TID, OWNER, 1);
  record->m_n_notify_time = 90;
  EXPECT_EQ(pass(record, 100), 0);
  EXPECT_EQ(record->m_n_cur_counter, 1U);
  EXPECT_EQ(record->m_n_cur_notify_time, 6000U);
}

TEST_F(TovNotifer, NumbersOfAStrangeMessageOnlyGoRound) {
  tov_pid_t *record = watched(TID, OWNER, 1);
  record->m_n_cur_notify_time = UINT32_MAX - 59;
  record->m_n_notify_time = 0;
  EXPECT_EQ(pass(record, 1), 1) << "4294967236 + 60 is 0 again, and so is the period";
}

TEST_F(TovNotifer, ChangeOfTheSequenceRestoresEverything) {
  tov_pid_t *record = watched(TID, OWNER);
  ASSERT_EQ(tov_sys_reg_alive_info(TID), 0);
  record->m_n_laster_alive_seq = 1;
  EXPECT_EQ(pass(record, 4 * PASSES + 1), 0);
  EXPECT_EQ(record->m_n_cur_counter, 1U);
  ASSERT_EQ(tov_sys_update_alive_seq(TID), 0);
  EXPECT_EQ(pass(record, 1), 0) << "in the very pass that would have spent it";
  EXPECT_EQ(record->m_n_cur_counter, 5U);
  EXPECT_EQ(record->m_n_cur_notify_time, 0U);
  EXPECT_EQ(record->m_n_laster_alive_seq, 2U);
}

TEST_F(TovNotifer, RoundOf255SignsOfLifeLooksSilent) {
  tov_pid_t *record = watched(TID, OWNER);
  ASSERT_EQ(tov_sys_reg_alive_info(TID), 0);
  record->m_n_laster_alive_seq = 1;
  for (int i = 0; i < 255; i++)
    ASSERT_EQ(tov_sys_update_alive_seq(TID), 0);
  pass(record, PASSES);
  EXPECT_EQ(record->m_n_cur_counter, 4U);
}

TEST_F(TovNotifer, ByteUnderAClearBitCountsForNothing) {
  tov_pid_t *record = watched(TID, OWNER);
  ASSERT_EQ(tov_sys_update_alive_seq(TID), 0);  // late, after the bit was cleared
  ASSERT_FALSE(tov_sys_isreg_alive_info(TID));
  pass(record, PASSES);
  EXPECT_EQ(record->m_n_cur_counter, 4U);
}

TEST_F(TovNotifer, IdBeyondTheAreaIsNeverAskedForThere) {
  tov_pid_t *record = watched(TOV_ALIVE_ID_COUNT, OWNER);
  const std::string said = alive_diagnostics([&] { pass(record, PASSES); });
  EXPECT_EQ(record->m_n_cur_counter, 4U);
  EXPECT_THAT(said, Not(HasSubstr("pid err")));
}

// ---- who is not counted down --------------------------------------------------------------------

TEST_F(TovNotifer, ThreadOfAnOwnerWhoIsNotRegisteredIsNotCountedDown) {
  tov_pid_t *record = watched(TID, OWNER + 1);
  const std::string said = alive_diagnostics([&] { EXPECT_EQ(pass(record, 10 * PASSES), 0); });
  EXPECT_EQ(record->m_n_cur_counter, 5U);
  EXPECT_EQ(lines_with(said, "Decrease pid (4711) ppid (" + std::to_string(OWNER + 1) +
                                 ") ntfy_time (120) ntfy_cnt (5) cur_cnt (5) cur_ntfy_time (0)"),
            10U)
      << said;
}

TEST_F(TovNotifer, EitherHoldBackStopsTheCountdownAndNeitherASpentBudget) {
  for (const bool first : {false, true}) {
    for (const bool second : {false, true}) {
      tov_pid_t *record = watched(TID, OWNER);
      pass(record, PASSES, first, second);
      EXPECT_EQ(record->m_n_cur_counter, first || second ? 5U : 4U);
      EXPECT_EQ(record->m_n_cur_notify_time, 0U);
      record->m_n_cur_counter = 0;
      EXPECT_EQ(pass(record, 3, first, second), 3);
      tov_chain_remove(&tov_alive_chains, record);
    }
  }
}

// ---- warnings ---------------------------------------------------------------------------------

TEST_F(TovNotifer, WarnsAfterTwoMissesOfASmallBudgetAndAfterFourOfALarge) {
  static constexpr struct {
    unsigned int budget;
    unsigned int first;  // misses at the first warning; 0: none
  } rows[] = {{1, 0}, {2, 0}, {3, 3}, {4, 3}, {5, 3}, {6, 5}, {7, 5}, {10, 5}};
  for (const auto &row : rows) {
    tov_pid_t *record = watched(TID, OWNER, row.budget);
    const std::string said =
        alive_diagnostics([&] { pass(record, PASSES * static_cast<int>(row.budget)); });
    for (unsigned int missed = 1; missed <= row.budget; missed++) {
      const std::string line = "]Process pid(" + std::to_string(OWNER) +
                               ") tid(4711) not notify reset for " + std::to_string(missed) +
                               " times, It will be killed after " + std::to_string(row.budget) +
                               " times!!!";
      EXPECT_EQ(lines_with(said, line), row.first != 0 && missed >= row.first ? 1U : 0U)
          << line << "\n"
          << said;
    }
    tov_chain_remove(&tov_alive_chains, record);
  }
}

// ---- the request ------------------------------------------------------------------------------

TEST_F(TovNotifer, RequestNamesProcessAndThread) {
  const Program program("hangs");
  const pid_t pid = tov_test::start(program.path + " -a /etc/x");
  program.birth();
  tov_pid_t *record = watched(pid, OWNER, 0, program.path + " -a /etc/x");
  const std::string said = alive_diagnostics([&] { pass(record, 1); });
  EXPECT_EQ(lines_with(said, "]ntfy_cnt(0), send SIGABRT to ppid (" + std::to_string(OWNER) + ")"),
            1U);
  const std::string hung = "[x/" + std::to_string(OWNER) + "] thread " +
                           program.name.substr(0, 15) + ":" + std::to_string(pid);
  EXPECT_THAT(events(TOV_LOG_KILL),
              ElementsAre("detected process " + hung + " hang, kill with PSH."));
  EXPECT_THAT(notices(),
              Contains(HasSubstr("self-healing action 2, process " + std::to_string(OWNER) +
                                 ", asked by tov: detect process:" + hung + " hung.")));
}

TEST_F(TovNotifer, ThreadWithoutANameIsUnknown) {
  tov_pid_t *record = watched(GONE, OWNER, 0);
  pass(record, 1);
  EXPECT_THAT(events(TOV_LOG_KILL),
              ElementsAre("detected process [watched -x/" + std::to_string(OWNER) +
                          "] thread unknown:" + std::to_string(GONE) + " hang, kill with PSH."));
}

TEST_F(TovNotifer, ReasonIsCutTo199Characters) {
  const std::string name(180, 'n');
  tov_pid_t *record = watched(GONE, OWNER, 0, "/opt/" + name);
  pass(record, 1);
  const std::string hung = "[" + name + "/" + std::to_string(OWNER) + "] thread unknown:";
  EXPECT_THAT(notices(),
              Contains(EndsWith("asked by tov: " + ("detect process:" + hung).substr(0, 199))));
  EXPECT_THAT(events(TOV_LOG_KILL), ElementsAre(HasSubstr(hung))) << "the log has more room";
}

TEST_F(TovNotifer, OneRequestIsEnoughForAPass) {
  tov_pid_t *record = watched(TID, OWNER, 0);
  int flag = 1;
  EXPECT_EQ(tov_check_alive_info_periodical(record, &flag, false, false), 0);
  EXPECT_EQ(flag, 1);
  EXPECT_THAT(events(TOV_LOG_KILL), IsEmpty());
}

// ---- is it still the thread that registered? ----------------------------------------------------

TEST_F(TovNotifer, ThreadIsTheOneThatRegistered) {
  const Child process;
  EXPECT_EQ(
      tov_check_pid_exist(watched(process.pid(), process.pid(), 5, cmdline_of(process.pid()))), 0);
}

TEST_F(TovNotifer, ThreadOfAnotherProcessIsNot) {
  const Child process;
  tov_pid_t *record = watched(process.pid(), OWNER, 5, cmdline_of(process.pid()));
  const auto check = [&] { EXPECT_EQ(tov_check_pid_exist(record), -1); };
  EXPECT_THAT(diagnostics(check),
              HasSubstr("]tov_check_pid_exist: ppid info no match(reg:" + std::to_string(OWNER) +
                        ", now:" + std::to_string(process.pid()) + ")\n"));
  EXPECT_EQ(alive_diagnostics(check), "") << "one for the other switch";
}

TEST_F(TovNotifer, ProcessWithAnotherCommandLineIsNot) {
  const Child process;
  tov_pid_t *record = watched(process.pid(), process.pid(), 5, "/opt/another");
  const auto check = [&] { EXPECT_EQ(tov_check_pid_exist(record), -1); };
  EXPECT_THAT(diagnostics(check),
              HasSubstr("]tov_check_pid_exist: cmdline info no match(reg:/opt/another, now:" +
                        cmdline_of(process.pid()) + ")\n"));
  EXPECT_EQ(alive_diagnostics(check), "") << "one for the other switch";
}

TEST_F(TovNotifer, CommandLineThatGrewShorterStillMatches) {
  const Child process;
  EXPECT_EQ(tov_check_pid_exist(
                watched(process.pid(), process.pid(), 5, cmdline_of(process.pid()) + " and more")),
            0);
}

TEST_F(TovNotifer, OnlyTheBeginOfALongCommandLineIsCompared) {
  const Program program("longish");
  const std::string argument(400, 'a');
  const Child process(std::vector<std::string>{program.path, argument});
  const std::string whole = cmdline_of(process.pid());
  ASSERT_GT(whole.size(), COMPARED + 1);
  tov_pid_t *record = watched(process.pid(), process.pid(), 5, whole);
  EXPECT_EQ(tov_check_pid_exist(record), 0);
  record->process[COMPARED] = 'X';
  EXPECT_EQ(tov_check_pid_exist(record), 0);
  record->process[COMPARED - 1] = 'X';
  EXPECT_EQ(tov_check_pid_exist(record), -1);
}

TEST_F(TovNotifer, BlanksAtTheEndOfACommandLineDoNotMatter) {
  const Program program("blank");
  const Child process({program.path, "x", " ", ""});
  std::string trimmed = cmdline_of(process.pid());
  trimmed.erase(trimmed.find_last_not_of(' ') + 1);
  ASSERT_LT(trimmed.size(), cmdline_of(process.pid()).size());
  EXPECT_EQ(tov_check_pid_exist(watched(process.pid(), process.pid(), 5, trimmed)), 0);
}

TEST_F(TovNotifer, ThreadThatEndedIsGone) {
  EXPECT_EQ(tov_check_pid_exist(watched(GONE, OWNER)), -1);
}

TEST_F(TovNotifer, FirstThreadThatLeftIsGoneAlthoughItsProcessLives) {
  const Program program("leaderless");
  const pid_t pid = tov_test::start(program.path + " leader-exit");
  ASSERT_TRUE(tov_test::wait_until([&] { return tov_test::process_state(pid) == 'Z'; },
                                   tov_test::PATIENT_MS));
  EXPECT_EQ(tov_check_pid_exist(watched(pid, pid, 5, program.path + " leader-exit")), -1);
}

// ---- the scan ---------------------------------------------------------------------------------

class TovNotiferScan : public TovNotifer {
 protected:
  void SetUp() override {
    TovNotifer::SetUp();
    tov_destroy_chains(&tov_alive_chains);  // only what the test adds is watched
  }
};

TEST_F(TovNotiferScan, DropsWhoIsGoneAndClearsItsSlot) {
  const Child process;
  watched(process.pid(), process.pid(), 5, cmdline_of(process.pid()));
  ASSERT_EQ(tov_sys_reg_alive_info(process.pid()), 0);
  pid_t ended = 0;
  std::thread([&] { ended = gettid(); }).join();
  ASSERT_TRUE(tov_test::wait_until([&] { return syscall(SYS_tgkill, getpid(), ended, 0) != 0; },
                                   tov_test::PATIENT_MS));
  watched(ended, getpid());
  ASSERT_EQ(tov_sys_reg_alive_info(ended), 0);
  watched(GONE, OWNER);
  const std::string said = alive_diagnostics(tov_notifer_scan);
  EXPECT_EQ(count(tov_alive_chains), 1);
  EXPECT_NE(find(process.pid(), tov_alive_chains), nullptr);
  EXPECT_TRUE(tov_sys_isreg_alive_info(process.pid()));
  EXPECT_FALSE(tov_sys_isreg_alive_info(ended));
  EXPECT_EQ(tov_sys_get_alive_seq(ended), 0);
  EXPECT_EQ(lines_with(said, "]pid is not exist(" + std::to_string(ended) + ", ret:-1)"), 1U);
  EXPECT_EQ(lines_with(said, "]pid is not exist(" + std::to_string(GONE) + ", ret:-1)"), 1U);
  EXPECT_EQ(lines_with(said, "]pid err"), 0U) << "ids without a slot are not looked for";
}

TEST_F(TovNotiferScan, RequestsOneKillForTheFirstInItsOrder) {
  std::vector<std::unique_ptr<Child>> processes;
  for (int i = 0; i < 3; i++) {
    processes.push_back(std::make_unique<Child>());
    const Child &process = *processes.back();
    watched(process.pid(), process.pid(), 0, cmdline_of(process.pid()));
  }
  const pid_t first = (*tov_chain_records(&tov_alive_chains).begin()).pid;
  tov_notifer_scan();
  EXPECT_THAT(events(TOV_LOG_KILL),
              ElementsAre(HasSubstr(":" + std::to_string(first) + " hang, kill with PSH.")));
}

TEST_F(TovNotiferScan, CommandLineThatChangesWithoutAnExecutionIsOnlyTold) {
  const Child process;
  tov_pid_t *record = watched(process.pid(), process.pid(), 5, "/opt/former -x");
  ASSERT_NE(record->identity.stack, 0U);
  for (int pass = 1; pass <= 3; pass++) {
    const std::string said = diagnostics(tov_notifer_scan);
    EXPECT_EQ(lines_with(said, "cmdline info no match"), 1U);
    ASSERT_EQ(find(process.pid(), tov_alive_chains), record);
  }
  EXPECT_EQ(record->m_n_cur_notify_time, 60U) << "a period and a half: it is watched";
}

TEST_F(TovNotiferScan, ThreadOfAProcessThatExecutedAnotherProgramIsDropped) {
  const Child process;
  for (const bool by_stack : {true, false}) {
    tov_pid_t *record = watched(process.pid(), process.pid(), 5, "/opt/former -x");
    (by_stack ? record->identity.stack : record->identity.exe_ino)++;
    tov_notifer_scan();
    EXPECT_EQ(count(tov_alive_chains), 0) << by_stack;
  }
}

TEST_F(TovNotiferScan, ThreadThatWasNeverIdentifiedIsKnownByItsCommandLineAlone) {
  const Child process;
  watched(process.pid(), process.pid(), 5, cmdline_of(process.pid()))->identity = {};
  tov_notifer_scan();
  EXPECT_EQ(count(tov_alive_chains), 1);
  tov_destroy_chains(&tov_alive_chains);
  watched(process.pid(), process.pid(), 5, "/opt/former -x")->identity = {};
  tov_notifer_scan();
  EXPECT_EQ(count(tov_alive_chains), 0);
}

TEST_F(TovNotiferScan, ThreadWhoseIdAnotherOneHasIsDropped) {
  const Child process;
  watched(process.pid(), process.pid(), 0, cmdline_of(process.pid()))->identity.started--;
  tov_notifer_scan();
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_THAT(events(TOV_LOG_KILL), IsEmpty());
}

TEST_F(TovNotiferScan, NobodyIsAccusedForAProcessThatIsNoLongerTheOwner) {
  const Child process;
  tov_pid_t *record = watched(process.pid(), process.pid(), 0, cmdline_of(process.pid()));
  record->owner_started = record->identity.started - 1;
  tov_notifer_scan();
  EXPECT_THAT(events(TOV_LOG_KILL), IsEmpty());
  const Child other;
  watched(other.pid(), other.pid(), 0, cmdline_of(other.pid()))->owner_started =
      record->owner_started;
  record->owner_started = record->identity.started;
  tov_notifer_scan();
  EXPECT_THAT(events(TOV_LOG_KILL),
              ElementsAre(HasSubstr(":" + process.name() + " hang, kill with PSH.")));
}
