// Notices: the product words in them, what goes to the system log.
#include "log/notice.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/module/log_listener.h"

static std::string filtered(void (*filter)(char *), const std::string &text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  filter(buf.data());
  return buf.data();
}

static std::string begin(const std::string &text) {
  return filtered(tov_remove_manu_begin, text);
}

static std::string include(const std::string &text) {
  return filtered(tov_remove_manu_include, text);
}

TEST(TovNoticeFilter, WordsAndTheirOrder) {
  const std::vector<std::string> expected = {"qx-", "qx_", "qxos", "qxsys", "zq-", "zq_"};
  EXPECT_EQ(std::vector<std::string>(g_tov_filt_manu, g_tov_filt_manu + TOV_FILT_MANU_NUM),
            expected);
}

TEST(TovNoticeFilter, FrontIsClearedOfEveryWord) {
  EXPECT_EQ(begin("qx_ping restarted"), "ping restarted");
  EXPECT_EQ(begin("QX-qxOSZq_qxsys!"), "!");
  EXPECT_EQ(begin("qxos"), "");
  EXPECT_EQ(begin(""), "");
}

TEST(TovNoticeFilter, FrontFilterLeavesTheRest) {
  EXPECT_EQ(begin("Task qx_ping"), "Task qx_ping");
  EXPECT_EQ(begin(" qx_ping"), " qx_ping");
  EXPECT_EQ(begin("qx"), "qx");
}

TEST(TovNoticeFilter, EveryWordWithinGoes) {
  EXPECT_EQ(include("Task QXsys-x"), "Task -x");
  EXPECT_EQ(include("QXOS-Agent"), "-Agent");
  EXPECT_EQ(include("a qx-b ZQ_c qxosd qx_e"), "a b c d e");
  EXPECT_EQ(include("qxosqxosqxos"), "");
  EXPECT_EQ(include("nothing"), "nothing");
  EXPECT_EQ(include(""), "");
}

TEST(TovNoticeFilter, WordsThatJoinUpGoToo) {
  EXPECT_EQ(include("qqx-xos"), "");  // the cut makes a new word
}

TEST(TovNoticeFilter, TableOrderDecidesWhichGoesFirst) {
  // Seen through the bound on the tail: "qx-" goes first, so its tail is moved up before "zq-",
  // though it stands in front, cuts what follows it to 255 bytes.
  const std::string t(250, 't'), u(50, 'u');
  EXPECT_EQ(include("zq-" + t + "qx-" + u), t + "uuuuu");
}

TEST(TovNoticeFilter, TailBehindAWordIsBounded) {
  const std::string tail(300, 't');
  EXPECT_EQ(include("a qx-" + tail), "a " + tail.substr(0, 255));
  EXPECT_EQ(include("a " + tail), "a " + tail);
}

// ---- sending --------------------------------------------------------------------------------

TEST(TovNotice, GoesOutFilteredAtSeverityNotice) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "HA_SELF_CHECK", "Task: %s/%d done\n", "QXOS-Agent", 7), 0);
  const auto whole = log.next();
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->substr(0, 4), "<29>");  // facility daemon, severity 5
  EXPECT_EQ(whole->substr(whole->find("]: ")), "]: %HA-5-HA_SELF_CHECK: Task: -Agent/7 done");
  EXPECT_FALSE(log.next());
}

TEST(TovNotice, FrontIsFilteredBeforeTheInside) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "%s", "qx_ping restarted"), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: ping restarted");
}

TEST(TovNotice, NothingButAProductWordGoesOutEmpty) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "qxos"), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: ");
}

TEST(TovNotice, EmptyMessageIsNotSent) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "%s", ""), -1);
  EXPECT_FALSE(log.next());
}

TEST(TovNotice, ProgramNameIsNeverAFormat) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "Process:%s/%d", "f%n%s%%", 3), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: Process:f%n%s%%/3");
}

TEST(TovNotice, PercentsSurviveTheFilter) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "%s", "100%qxos%"), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: 100%%");
}

TEST(TovNotice, LongTextIsCut) {
  tov_test::LogListener log;
  EXPECT_EQ(tov_printk_notice("HA", "M", "%s", std::string(400, 'x').c_str()), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: " + std::string(255, 'x'));
  EXPECT_EQ(tov_printk_notice("HA", "M", "%s", std::string(400, '%').c_str()), 0);
  EXPECT_EQ(log.next_text(), "%HA-5-M: " + std::string(255, '%'));
}

TEST(TovNotice, MissingReceiverIsNoFailure) {
  EXPECT_EQ(tov_printk_notice("HA", "M", "text"), 0);
}
