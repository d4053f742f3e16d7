// Look-ups in small text files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "include/tov_xtach.h"
#include "tests/support/files.h"

using tov_test::ScratchDir;

namespace {

class TovXtachFile : public testing::Test {
 protected:
  int has(const std::string &content, const std::string &text) {
    tov_test::write_file(file_, content);
    return string_exist_in_file(text.c_str(), file_.c_str());
  }
  int counter(const std::string &content, const std::string &key) {
    tov_test::write_file(file_, content);
    return get_pid_notify_counter(key.c_str(), file_.c_str());
  }
  ScratchDir dir_;
  std::string file_ = dir_ / "list";
};

TEST_F(TovXtachFile, WholeLinesAreCompared) {
  EXPECT_EQ(has("12\n345\n", "345"), 1);
  EXPECT_EQ(has("12\n345\n", "34"), 0);
  EXPECT_EQ(has("12\n345\n", "3456"), 0);
  EXPECT_EQ(has("12 345\n", "345"), 0);
  EXPECT_EQ(has("", "345"), 0);
  EXPECT_EQ(has("\n", ""), 1);
}

TEST_F(TovXtachFile, LastCharacterOfALineGoesEvenIfItIsNoLineFeed) {
  EXPECT_EQ(has("345", "345"), 0);
  EXPECT_EQ(has("3457", "345"), 1);
  EXPECT_EQ(has("345\r\n", "345\r"), 1);
}

TEST_F(TovXtachFile, LongLinesComeInPiecesOf1023Characters) {
  const std::string piece(1022, 'a');
  EXPECT_EQ(has(piece + "x" + "345\n", "345"), 1);
  EXPECT_EQ(has(piece + "x" + "345\n", piece), 1);
  EXPECT_EQ(has(std::string(5000, 'a') + "\n345\n", "345"), 1);
}

TEST_F(TovXtachFile, WhatCannotBeReadHoldsNothing) {
  EXPECT_EQ(string_exist_in_file("1", (dir_ / "absent").c_str()), 0);
  EXPECT_EQ(string_exist_in_file("1", dir_.path().c_str()), 0);
  EXPECT_EQ(string_exist_in_file(nullptr, file_.c_str()), 0);
  EXPECT_EQ(string_exist_in_file("1", nullptr), 0);
  EXPECT_EQ(get_pid_notify_counter("1", (dir_ / "absent").c_str()), 0);
  EXPECT_EQ(get_pid_notify_counter(nullptr, nullptr), 0);
}

TEST_F(TovXtachFile, FifoIsNotWaitedFor) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  alarm(20);
  EXPECT_EQ(string_exist_in_file("1", fifo.c_str()), 0);
  EXPECT_EQ(get_pid_notify_counter("1", fifo.c_str()), 0);
  alarm(0);
}

TEST_F(TovXtachFile, BytesOfNoTextAreSurvived) {
  EXPECT_EQ(has(std::string("\0\0\n345\n", 7), "345"), 1);
  EXPECT_EQ(counter(std::string("\0 5\n7 8\n", 8), "7"), 8);
}

TEST_F(TovXtachFile, PidsAreLookedUpInDecimal) {
  tov_test::write_file(file_, "12\n-2147483648\n");
  EXPECT_EQ(pid_exist_in_file(12, file_.c_str()), 1);
  EXPECT_EQ(pid_exist_in_file(INT_MIN, file_.c_str()), 1);
  EXPECT_EQ(pid_exist_in_file(1, file_.c_str()), 0);
  tov_test::write_file(file_, "12 34\n13 35\n");
  EXPECT_EQ(pid_reset_counter_in_file(13, file_.c_str()), 35);
  EXPECT_EQ(pid_reset_counter_in_file(14, file_.c_str()), 0);
}

TEST_F(TovXtachFile, CounterFollowsItsKeyAndABlank) {
  EXPECT_EQ(counter("100 3\n200 4\n", "200"), 4);
  EXPECT_EQ(counter("100 3\n100 4\n", "100"), 3) << "the first line decides";
  EXPECT_EQ(counter("100\n100 4\n", "100"), 4) << "a line without a blank is passed over";
  EXPECT_EQ(counter("1000 3\n", "100"), 0);
  EXPECT_EQ(counter("100 x\n", "100"), 0);
  EXPECT_EQ(counter("100 7 8\n", "100"), 7);
  EXPECT_EQ(counter("100 45", "100"), 4) << "the last character is dropped";
}

TEST_F(TovXtachFile, KeysAndValuesAreCutAt15Characters) {
  EXPECT_EQ(counter("1234567890123456 5\n", "123456789012345"), 5);
  EXPECT_EQ(counter("1234567890123456 5\n", "1234567890123456"), 0);
  EXPECT_EQ(counter("1 000000000000001234\n", "1"), 1);
}

}  // namespace
