// What is said about a restart, byte for byte, and the journal of restarts with its rotation.
#include "core/policy/announce.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/text.h"

using testing::ElementsAre;
using testing::HasSubstr;
using tov_test::exists;
using tov_test::read_file;
using tov_test::split_lines;
using tov_test::TemporaryFile;

static constexpr char DORVIK_MARKER[] = "/etc/tov/dorvik";

// A task "foo", process 41, that exited with code 9 and comes back as process 42.
static tov_restart_news_t news(bool by_script, unsigned int exit_code = 9) {
  return {"foo", by_script, 41, exit_code, 3, 42};
}

namespace {

// How an announcement reads on its three ways.
struct Said {
  std::string notice;
  std::string event;
  std::string diagnostic;
};

class TovAnnounce : public tov_test::World {
 protected:
  Said said_by(const std::function<void()> &call) {
    Said said;
    said.diagnostic = diagnostics(call);
    const auto sent = notices(), logged = events(TOV_LOG_RESTART);
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(logged.size(), 1u);
    if (sent.size() == 1) said.notice = sent[0];
    if (logged.size() == 1) said.event = logged[0];
    return said;
  }
};

class TovJournal : public tov_test::World {
 protected:
  // The lines of a journal file, without the time in front and the empty line behind each.
  static std::vector<std::string> lines(const char *path) {
    std::vector<std::string> texts;
    for (const std::string &line : split_lines(read_file(path), "\n\n"))
      texts.push_back(line.substr(std::string("Sun Nov 15 10:25:41 2026 ").size()));
    return texts;
  }

  // One restart that succeeds.
  static void restart(bool by_script = false) {
    const int slot = tov_journal_before(news(by_script));
    EXPECT_GT(slot, 0);
    EXPECT_EQ(tov_journal_after(news(by_script), slot), 0);
  }
};

}  // namespace

// ---- announcements --------------------------------------------------------------------------

TEST_F(TovAnnounce, BeforeACommandLineIsExecutedAgain) {
  const Said said = said_by([] { tov_announce_before(news(false)); });
  EXPECT_EQ(said.notice,
            "%HA-5-HA_SELF_CHECK: Task: foo/41 receives event:0009 and self-checking ...");
  EXPECT_EQ(said.event,
            "%HA-5-HA_SELF_CHECK: Task: foo/41 receives event:0009 and self-checking ...");
  EXPECT_THAT(said.diagnostic,
              HasSubstr("Task: foo/41 receives event:0009 and self-checking ...\n"));
}

TEST_F(TovAnnounce, BeforeAScriptIsRun) {
  const Said said = said_by([] { tov_announce_before(news(true)); });
  EXPECT_EQ(said.notice,
            "%HA-5-HA_SCRIPT_SELF_CHECK: Task: foo/41 receives event:0009 and self-checking ...");
  EXPECT_EQ(said.event,
            "%HA-5-HA_SCRIPT_SELF_CHECK: Task: foo/41 receives event:0009 and self-checking ...");
  EXPECT_THAT(said.diagnostic,
              HasSubstr("Task: foo/41 receives event:0009 and self-checking ...\n"));
}

TEST_F(TovAnnounce, BeforeAReinitialisationEitherWay) {
  for (const bool by_script : {false, true}) {
    const Said said = said_by([=] { tov_announce_before(news(by_script, 0)); });
    EXPECT_EQ(said.notice, "%HA-5-HA_RE_INIT: Job foo/41 will be re-initialized ...");
    EXPECT_EQ(said.event, "%HA-5-HA_RE_INIT: Job foo/41 will be re-initialized ...");
    EXPECT_THAT(said.diagnostic, HasSubstr("Job foo/41 will be re-initialized ...\n"));
  }
}

TEST_F(TovAnnounce, AfterACommandLineWasExecutedAgain) {
  const Said said = said_by([] { tov_announce_after(news(false)); });
  EXPECT_EQ(said.notice, "%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 3 times and new id foo/42.");
  EXPECT_EQ(said.event, "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 3 times and new id foo/42.");
  EXPECT_THAT(said.diagnostic, HasSubstr("Self-checking OK: 3 times and new id foo/42.\n"));
}

TEST_F(TovAnnounce, AfterAScriptWasRun) {
  const Said said = said_by([] { tov_announce_after(news(true)); });
  EXPECT_EQ(said.notice,
            "%HA-5-HA_SCRIPT_SELF_CHECK_INFO: Self-checking OK: 3 times and new id foo/42.");
  EXPECT_EQ(said.event,
            "%HA-5-HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: 3 times and new id foo/42.");
  EXPECT_THAT(said.diagnostic, HasSubstr("Self-checking OK: 3 times and new id foo/42.\n"));
}

TEST_F(TovAnnounce, AfterAReinitialisationTheTwoTextsDiffer) {
  for (const bool by_script : {false, true}) {
    const Said said = said_by([=] { tov_announce_after(news(by_script, 0)); });
    EXPECT_EQ(said.notice, "%HA-5-HA_RE_INIT_INFO: Re-initialized OK: new job id: 42.");
    EXPECT_EQ(said.event, "%HA-5-HA_RE_INIT_INFO Re-initialized OK: 3 times and new id foo/42.");
    EXPECT_THAT(said.diagnostic, HasSubstr("Re-initialized OK: new job id: 42.\n"));
  }
}

TEST_F(TovAnnounce, SelfCheckIsNeverAReinitialisation) {
  const Said said = said_by([] { tov_announce_self_check_ok(news(false, 0)); });
  EXPECT_EQ(said.notice, "%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 3 times and new id foo/42.");
  EXPECT_EQ(said.event, "%HA-5-HA_SELF_CHECK_INFO Self-checking OK: 3 times and new id foo/42.");
  EXPECT_THAT(said.diagnostic,
              HasSubstr("]HA_SELF_CHECK_INFO Self-checking OK: 3 times and new id foo/42.\n"));
  const Said by_script = said_by([] { tov_announce_self_check_ok(news(true, 0)); });
  EXPECT_EQ(by_script.notice,
            "%HA-5-HA_SCRIPT_SELF_CHECK_INFO: Self-checking OK: 3 times and new id foo/42.");
  EXPECT_THAT(
      by_script.diagnostic,
      HasSubstr("]HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: 3 times and new id foo/42.\n"));
}

TEST_F(TovAnnounce, ExitCodeHasFourHexadecimalDigits) {
  tov_announce_before(news(false, 0x8b));
  tov_announce_before(news(false, 0x100));
  tov_announce_before(news(false, 0xff00));
  EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre(HasSubstr("event:008b"), HasSubstr("event:0100"),
                                                   HasSubstr("event:ff00")));
}

TEST_F(TovAnnounce, ProductLineReadsTheSameWithoutTheFilterOfProductWords) {
  const tov_restart_news_t restarted{"qx-foo", false, 41, 9};
  tov_announce_before(restarted);
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_SELF_CHECK: Task: foo/41 receives event:0009 and "
                                     "self-checking ..."));
  const TemporaryFile marker(DORVIK_MARKER);
  tov_announce_before(restarted);
  EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_SELF_CHECK: Task: qx-foo/41 receives event:0009 and "
                                     "self-checking ..."));
}

TEST_F(TovAnnounce, NameIsNeverAFormat) {
  for (const bool product : {false, true}) {
    tov_test::clear_path(DORVIK_MARKER);
    if (product) tov_test::write_file(DORVIK_MARKER, "");
    tov_announce_before({"f%n%s", false, 41, 9});
    EXPECT_THAT(notices(), ElementsAre("%HA-5-HA_SELF_CHECK: Task: f%n%s/41 receives event:0009 "
                                       "and self-checking ..."));
    EXPECT_THAT(events(TOV_LOG_RESTART), ElementsAre(HasSubstr("Task: f%n%s/41 receives")));
  }
  tov_test::clear_path(DORVIK_MARKER);
}

TEST_F(TovAnnounce, LongestNameIsCutAndNothingElse) {
  const std::string name(4095, 'n');
  tov_announce_before({name.c_str(), false, 41, 9});
  tov_announce_after({name.c_str(), false, 41, 0, 1, 42});
  const auto lines = events(TOV_LOG_RESTART);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].starts_with("%HA-5-HA_SELF_CHECK: Task: nnn"));
  EXPECT_TRUE(
      lines[1].starts_with("%HA-5-HA_RE_INIT_INFO Re-initialized OK: 1 times and new id n"));
}

// ---- journal --------------------------------------------------------------------------------

TEST_F(TovJournal, FirstFiveRestartsAreInTheFirstFile) {
  restart();
  EXPECT_EQ(tov_log_cnt, 1);
  EXPECT_THAT(lines(TOV_JOURNAL_1),
              ElementsAre("%HA-5-HA_RESTART: Process:[foo/41] receives internal event:[0x0009] and "
                          "restarts.",
                          "%HA-5-HA_RESTART_INFO: Process:foo restarts 3 times and new process is "
                          "foo/42."));
  EXPECT_FALSE(exists(TOV_JOURNAL_2));
}

TEST_F(TovJournal, BracketsChangeSidesInTheSecondFile) {
  tov_log_cnt = 5;
  restart();
  EXPECT_THAT(lines(TOV_JOURNAL_2),
              ElementsAre("%HA-5-HA_RESTART: Process:foo/41 receives internal event: 0009 and "
                          "restarts.",
                          "%HA-5-HA_RESTART_INFO: Process:[foo] restarts [3] times and new process "
                          "is [foo/42]."));
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
}

TEST_F(TovJournal, ScriptsHaveBracketsInBothFiles) {
  const auto expected = ElementsAre(
      "%HA-5-HA_SCRIPT_RESTART: Process:[foo/41] receives internal event:[0x0009] and "
      "restarts.",
      "%HA-5-HA_SCRIPT_RESTART_INFO: Process:[foo] restarts [3] times and new process "
      "is [foo/42].");
  restart(true);
  EXPECT_THAT(lines(TOV_JOURNAL_1), expected);
  tov_log_cnt = 5;
  restart(true);
  EXPECT_THAT(lines(TOV_JOURNAL_2), expected);
}

TEST_F(TovJournal, RestartBeforeItsSuccessHasOneLine) {
  EXPECT_GT(tov_journal_before(news(false)), 0);
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 1u);
  EXPECT_EQ(tov_log_cnt, 1);
}

TEST_F(TovJournal, TwelveRestartsFillTheFilesInTurn) {
  tov_test::write_file(TOV_JOURNAL_2, "of an earlier day");
  for (int i = 1; i <= 4; i++)
    restart();
  EXPECT_TRUE(exists(TOV_JOURNAL_2));
  restart();  // the fifth
  EXPECT_FALSE(exists(TOV_JOURNAL_2));
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 10u);
  EXPECT_EQ(tov_log_cnt, 5);

  restart();  // the sixth
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 2u);
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 10u);
  for (int i = 7; i <= 9; i++)
    restart();
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 8u);
  EXPECT_TRUE(exists(TOV_JOURNAL_1));

  restart();  // the tenth
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 10u);
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
  EXPECT_EQ(tov_log_cnt, 0);

  restart();  // the eleventh
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 2u);
  restart();
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 4u);
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 10u);
  EXPECT_EQ(tov_log_cnt, 2);
}

TEST_F(TovJournal, RestartsThatOverlapKeepTheirSlots) {
  tov_log_cnt = 4;
  const int fifth = tov_journal_before(news(false));
  const int sixth = tov_journal_before(news(false));
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 1u);
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 1u);
  EXPECT_EQ(tov_journal_after(news(false), sixth), 0);
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 2u);
  EXPECT_EQ(tov_journal_after(news(false), fifth), 0);  // the last of its file begins the other
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 2u);
  EXPECT_FALSE(exists(TOV_JOURNAL_2));
  EXPECT_EQ(tov_log_cnt, 6);
}

TEST_F(TovJournal, CountBeginsAnewWhenTheLastSlotEnds) {
  tov_log_cnt = 9;
  const int tenth = tov_journal_before(news(false));
  const int eleventh = tov_journal_before(news(false));  // has no line
  EXPECT_EQ(tov_journal_after(news(false), eleventh), 0);
  EXPECT_EQ(tov_log_cnt, 11);
  EXPECT_EQ(tov_journal_after(news(false), tenth), 0);
  EXPECT_EQ(tov_log_cnt, 0);
  EXPECT_EQ(lines(TOV_JOURNAL_2).size(), 2u);
}

TEST_F(TovJournal, FifthRestartThatFailsKeepsTheOtherFile) {
  tov_test::write_file(TOV_JOURNAL_2, "kept");
  tov_log_cnt = 4;
  EXPECT_GT(tov_journal_before(news(false)), 0);
  EXPECT_TRUE(exists(TOV_JOURNAL_2));
  restart();  // the sixth goes on in the second file
  EXPECT_TRUE(read_file(TOV_JOURNAL_2).starts_with("kept"));
  EXPECT_EQ(lines(TOV_JOURNAL_1).size(), 1u);
}

TEST_F(TovJournal, TenthRestartThatFailsSilencesItForGood) {
  tov_log_cnt = 9;
  EXPECT_GT(tov_journal_before(news(false)), 0);
  tov_test::clear_path(TOV_JOURNAL_1);
  tov_test::clear_path(TOV_JOURNAL_2);
  for (int i = 0; i < 3; i++)
    restart();
  EXPECT_EQ(tov_log_cnt, 13);
  EXPECT_FALSE(exists(TOV_JOURNAL_1));
  EXPECT_FALSE(exists(TOV_JOURNAL_2));
}

TEST_F(TovJournal, OneThatCannotBeOpenedIsToldAndRefuses) {
  ASSERT_EQ(mkdir(TOV_JOURNAL_1, 0777), 0);
  int before = 0, after = 0;
  const std::string said = diagnostics([&] {
    before = tov_journal_before(news(false));
    after = tov_journal_after(news(false), 1);
  });
  EXPECT_EQ(before, -1);
  EXPECT_EQ(after, -1);
  EXPECT_EQ(tov_log_cnt, 1);
  EXPECT_THAT(said, HasSubstr("]fail to openlog: Is a directory"));
}

TEST_F(TovJournal, FileThatCannotBeRemovedIsOnlyToldAbout) {
  tov_log_cnt = 4;
  EXPECT_THAT(diagnostics([] { restart(); }), HasSubstr(": remove tov_log2 fail: No such file"));
  tov_test::clear_path(TOV_JOURNAL_1);
  tov_log_cnt = 9;
  EXPECT_THAT(diagnostics([] { restart(); }), HasSubstr(": remove tov_log1 fail: No such file"));
  EXPECT_EQ(tov_log_cnt, 0);
}

TEST_F(TovJournal, PlantedLinkIsNotFollowed) {
  tov_test::write_file("/tmp/victim_of_a_link", "kept");
  ASSERT_EQ(symlink("/tmp/victim_of_a_link", TOV_JOURNAL_1), 0);
  EXPECT_EQ(tov_journal_before(news(false)), -1);
  EXPECT_EQ(read_file("/tmp/victim_of_a_link"), "kept");
}
