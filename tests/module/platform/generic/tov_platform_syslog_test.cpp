// System log of the generic platform: form of a message, dropping instead of waiting.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "platform/tov_platform.h"
#include "tests/module/log_listener.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/text.h"

using tov_test::LogListener;
using tov_test::matches;

static constexpr int64_t SECOND = 1000000000;

TEST(TovSyslog, NoticeCarriesModuleLevelAndMnemonic) {
  LogListener log;
  EXPECT_EQ(printk_syslog_ext(5, "HA", "HA_RESTART", 1, "Process:%s/%d restarts.\n", "p", 7), 0);
  const auto text = log.next();
  ASSERT_TRUE(text);
  EXPECT_TRUE(matches(*text, "<29>[A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} tov\\[" +
                                 std::to_string(getpid()) +
                                 "\\]: %HA-5-HA_RESTART: Process:p/7 restarts."))
      << *text;
  EXPECT_FALSE(log.next());
}

TEST(TovSyslog, TimeIsLocal) {
  LogListener log;
  const time_t before = time(nullptr);
  qx_syslog(LOG_INFO, "x");
  const std::string text = *log.next();
  bool found = false;
  for (time_t second = before; second <= time(nullptr); second++) {
    struct tm local;
    char expected[32];
    localtime_r(&second, &local);
    strftime(expected, sizeof expected, "<30>%b %e %H:%M:%S tov[", &local);
    found = found || text.starts_with(expected);
  }
  EXPECT_TRUE(found) << text;
}

TEST(TovSyslog, PriorityIsFacilityDaemonAndSeverity) {
  LogListener log;
  for (int severity = LOG_EMERG; severity <= LOG_DEBUG; severity++) {
    qx_syslog(severity, "%s", "text");
    EXPECT_TRUE(log.next()->starts_with("<" + std::to_string(24 + severity) + ">"));
  }
  qx_syslog(1000, "%s", "text");
  EXPECT_TRUE(log.next()->starts_with("<24>"));  // nothing but a severity counts
}

TEST(TovSyslog, LineEndIsNotPartOfTheText) {
  LogListener log;
  for (const char *text : {"a b", "a b\n", "a b\r\n", "a b\n\n"}) {
    qx_syslog(LOG_INFO, "%s", text);
    EXPECT_EQ(log.next_text(), "a b");
  }
  qx_syslog(LOG_INFO, "%s", "a\nb\n");
  EXPECT_EQ(log.next_text(), "a\nb");
  qx_syslog(LOG_INFO, "%s", "");
  EXPECT_EQ(log.next_text(), "");
}

TEST(TovSyslog, LongestRecordIsWholeAndEndlessTextIsCut) {
  LogListener log;
  const std::string process(4095, 'p'), script(255, 's'), endless(100000, 'e');
  qx_syslog(LOG_INFO, "pname: %s, %s\n", process.c_str(), script.c_str());
  EXPECT_EQ(log.next_text(), "pname: " + process + ", " + script);
  EXPECT_EQ(printk_syslog_ext(5, "HA", "M", 1, "%s", endless.c_str()), 0);
  const std::string text = log.next_text();
  EXPECT_TRUE(text.starts_with("%HA-5-M: eee"));
  EXPECT_LT(text.size(), 8192u);
}

TEST(TovSyslog, MissingReceiverIsAnError) {
  errno = 7;
  EXPECT_EQ(printk_syslog_ext(5, "HA", "M", 1, "x"), -ENOENT);
  qx_syslog(LOG_INFO, "x");
  EXPECT_EQ(errno, 7);
}

TEST(TovSyslog, DeadReceiverIsAnError) {
  { const LogListener log; }
  tov_test::write_file("/dev/log", "");
  EXPECT_EQ(printk_syslog_ext(5, "HA", "M", 1, "x"), -ECONNREFUSED);
  unlink("/dev/log");
}

TEST(TovSyslog, ReceiverOfAnotherKindIsAnError) {
  const LogListener log(SOCK_STREAM);
  EXPECT_EQ(printk_syslog_ext(5, "HA", "M", 1, "x"), -EPROTOTYPE);
}

TEST(TovSyslog, FullReceiverLosesMessagesAndBlocksNoSender) {
  LogListener log;
  const size_t descriptors = tov_test::open_descriptors();
  const int64_t start = tov_test::monotonic_ns();
  int sent = 0, dropped = 0;
  for (int i = 0; i < 2000; i++)
    (printk_syslog_ext(5, "HA", "M", 1, "%d", i) == 0 ? sent : dropped)++;
  EXPECT_LT(tov_test::monotonic_ns() - start, 5 * SECOND * tov_test::patience());
  EXPECT_GT(sent, 0);
  EXPECT_GT(dropped, 0);
  for (int i = 0; i < sent; i++)
    EXPECT_EQ(log.next_text(), "%HA-5-M: " + std::to_string(i));
  EXPECT_FALSE(log.next());
  EXPECT_EQ(tov_test::open_descriptors(), descriptors);
}
