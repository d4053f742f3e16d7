// Registration files, the reading side: what a restarted daemon believes and what it refuses.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "client/tov_pidfile.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

namespace {

constexpr char FOO[] = "/usr/sbin/foo -d";
constexpr char FOO_FILE[] = "/tmp/vsd/0/tov/db/foo.812";

class TovReadPidfile : public tov_test::Simulated {
 protected:
  TovReadPidfile() { kernel().make_dir("/tmp/vsd/0/tov/db"); }
};

struct reading_s {
  int result;
  tov_pid_t record;
  std::string said;
};

// Reads the file as it is.
reading_s read_file() {
  reading_s reading{};
  reading.record.pid = -7;
  reading.said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { reading.result = tov_read_pidfile(FOO_FILE, &reading.record); });
  return reading;
}

reading_s read_back(const std::string &content) {
  kernel().write_file(FOO_FILE, content);
  return read_file();
}

}  // namespace

TEST_F(TovReadPidfile, WhatWasWrittenIsReadBack) {
  EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0);
  tov_pid_t record{};
  EXPECT_EQ(tov_read_pidfile(FOO_FILE, &record), 0);
  EXPECT_EQ(record.pid, 812);
  EXPECT_EQ(record.action, SHELL_RESTART);
  EXPECT_STREQ(record.pathname, FOO);
}

TEST_F(TovReadPidfile, ReadableContents) {
  const struct {
    std::string content;
    int pid;
    int action;
    std::string pathname;
  } cases[] = {
      {"812\n2\n/usr/sbin/foo -d", 812, 2, "/usr/sbin/foo -d"},
      {"812\n2\n/usr/sbin/foo -d\n", 812, 2, "/usr/sbin/foo -d\n"},
      {"812\r\n2\r\n/usr/sbin/foo", 812, 2, "/usr/sbin/foo"},
      {"  812\n\n 2 /x", 812, 2, "/x"},
      {"812\n-4\n/x", 812, -4, "/x"},
      {"2147483647\n2147483647\n/x", 2147483647, 2147483647, "/x"},
      {"812\n2\nfoo -c /etc/x", 812, 2, "/etc/x"},  // what has no '/' in front is lost
      {std::string("812\n2\n/a\0/b", 11), 812, 2, "/a"},
  };
  for (const auto &c : cases) {
    const reading_s reading = read_back(c.content);
    EXPECT_EQ(reading.result, 0) << c.content;
    EXPECT_EQ(reading.record.pid, c.pid) << c.content;
    EXPECT_EQ(reading.record.action, c.action) << c.content;
    EXPECT_EQ(reading.record.pathname, c.pathname) << c.content;
  }
}

TEST_F(TovReadPidfile, MalformedContentsAreRefused) {
  const std::string cases[] = {
      "",
      "\n",
      "812\n",               // one number
      "812\n/usr/sbin/foo",  // one number
      "812",
      "812\nfoo\n/x",
      "foo\n2\n/x",
      "/usr/sbin/foo",
      "0\n2\n/x",   // everybody of our group
      "-1\n2\n/x",  // everybody
      "-2147483648\n2\n/x",
      "2147483648\n2\n/x",  // does not fit
      "4294967297\n2\n/x",  // would be 1
      "812\n2147483648\n/x",
      "99999999999999999999999\n2\n/x",
      "812-2\n/x",
      std::string("\0 812\n2\n/x", 10),
      std::string(256, '9'),
      std::string(100000, ' '),
  };
  for (const auto &content : cases) {
    const reading_s reading = read_back(content);
    EXPECT_EQ(reading.result, -1) << content;
    EXPECT_NE(reading.said.find("]tov_read_pidfile: read pid fail: "), std::string::npos)
        << content << " " << reading.said;
    EXPECT_EQ(reading.record.pid, -7) << content;
    EXPECT_STREQ(reading.record.pathname, "") << content;
  }
}

TEST_F(TovReadPidfile, CommandLineWithoutASlashIsRefusedSilently) {
  EXPECT_EQ(tov_db_create(0, 812, RESPAWN, "foo"), 0);
  const reading_s reading = read_file();  // it is there, under "foo.812"
  EXPECT_EQ(reading.result, -1);
  EXPECT_EQ(reading.said, "");
}

TEST_F(TovReadPidfile, OnlyTheFirst256BytesCount) {
  const std::string long_line = "/" + std::string(1000000, 'x');
  const reading_s reading = read_back("812\n2\n" + long_line);
  EXPECT_EQ(reading.result, 0);
  EXPECT_EQ(std::string(reading.record.pathname), long_line.substr(0, 250));

  const reading_s too_late = read_back("812\n2\n" + std::string(250, 'x') + "/late");
  EXPECT_EQ(too_late.result, -1);
  EXPECT_EQ(too_late.said, "");
}

TEST_F(TovReadPidfile, FilesOfOtherKindsAreUnreadable) {
  kernel().write_file("/tmp/good", "812\n2\n/x");
  void (*const plants[])() = {
      [] {},
      [] { kernel().make_link(FOO_FILE, "/tmp/good"); },
      [] { kernel().make_fifo(FOO_FILE); },
      [] { kernel().make_dir(FOO_FILE); },
      [] { kernel().make_device(FOO_FILE); },
  };
  for (const auto &plant : plants) {
    plant();
    const reading_s reading = read_file();
    EXPECT_EQ(reading.result, -1);
    EXPECT_NE(reading.said.find("]tov_read_pidfile: open pid file fail: "), std::string::npos)
        << reading.said;
    kernel().remove(FOO_FILE);
  }
}

TEST_F(TovReadPidfile, ReadErrorIsReported) {
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  const reading_s reading = read_back("812\n2\n/x");
  EXPECT_EQ(reading.result, -1);
  EXPECT_NE(reading.said.find("]tov_read_pidfile: read pid file fail: Input/output error\n"),
            std::string::npos)
      << reading.said;
}

TEST_F(TovReadPidfile, ShortReadsMakeNoDifference) {
  kernel().transfer_limit = 3;
  kernel().fail(tov_test::CALL_READ, 2, EINTR);
  const reading_s reading = read_back("812\n2\n/usr/sbin/foo -d");
  EXPECT_EQ(reading.result, 0);
  EXPECT_STREQ(reading.record.pathname, FOO);
}
