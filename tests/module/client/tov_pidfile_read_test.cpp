// Registration files, the reading side: what a restarted daemon believes and what it refuses.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "client/tov_pidfile.h"
#include "tests/module/private_root.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/in_child.h"

namespace {

constexpr char FOO[] = "/usr/sbin/foo -d";
constexpr char FOO_FILE[] = "/tmp/vsd/0/tov/db/foo.812";

class TovReadPidfile : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(system("rm -rf /tmp/vsd && mkdir -p /tmp/vsd/0/tov/db"), 0); }
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
  std::ofstream(FOO_FILE, std::ios::binary) << content;
  return read_file();
}

}  // namespace

TEST_F(TovReadPidfile, WhatWasWrittenIsReadBack) {
  tov_test::in_child([] { EXPECT_EQ(tov_db_create(0, 812, SHELL_RESTART, FOO), 0); });
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
  tov_test::in_child([] { EXPECT_EQ(tov_db_create(0, 812, RESPAWN, "foo"), 0); });
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
  std::ofstream("/tmp/good") << "812\n2\n/x";
  const char *plants[] = {
      "true",
      "ln -s /tmp/good /tmp/vsd/0/tov/db/foo.812",
      "mkfifo /tmp/vsd/0/tov/db/foo.812",
      "mkdir /tmp/vsd/0/tov/db/foo.812",
      "mknod /tmp/vsd/0/tov/db/foo.812 c 1 5",
  };
  for (const char *plant : plants) {
    ASSERT_EQ(system(plant), 0);
    int result = 0;
    tov_pid_t record{};
    const std::string said = tov_test::caught_diagnostics(
        TOV_MODULE_PUB, [&] { result = tov_read_pidfile(FOO_FILE, &record); });
    EXPECT_EQ(result, -1) << plant;
    EXPECT_NE(said.find("]tov_read_pidfile: open pid file fail: "), std::string::npos) << plant;
    ASSERT_EQ(system("rm -rf /tmp/vsd/0/tov/db/foo.812"), 0);
  }
}

TEST_F(TovReadPidfile, ReadErrorIsReported) {
  int result = 0;
  tov_pid_t record{};
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { result = tov_read_pidfile("/proc/self/mem", &record); });
  EXPECT_EQ(result, -1);
  EXPECT_NE(said.find("]tov_read_pidfile: read pid file fail: Input/output error\n"),
            std::string::npos)
      << said;
}
