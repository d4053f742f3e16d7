// Small number files: what counts as a number.
#include "core/run/settings.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/module/private_root.h"
#include "tests/support/files.h"

using tov_test::write_file;

namespace {

class TovCoreConfig : public testing::Test {
 protected:
  int pair(const std::string &text) {
    write_file(path_, text);
    return tov_get_config_value(path_.c_str(), &first_, &second_);
  }
  int single(const std::string &text) {
    write_file(path_, text);
    return tov_get_file_config(path_.c_str(), &first_);
  }

  const std::string path_ = "/tmp/numbers";
  int first_ = -7;
  int second_ = -7;
};

}  // namespace

TEST_F(TovCoreConfig, TwoNumbersAreReadWhateverWhiteSpaceStandsBetween) {
  EXPECT_EQ(pair("60 3"), 0);
  EXPECT_EQ(first_, 60);
  EXPECT_EQ(second_, 3);
  EXPECT_EQ(pair("\n 120\t\n4 and words\n"), 0);
  EXPECT_EQ(first_, 120);
  EXPECT_EQ(second_, 4);
}

TEST_F(TovCoreConfig, OneNumberIsNotTwo) {
  EXPECT_EQ(pair("60"), -1);
  EXPECT_EQ(pair("60 three"), -1);
  EXPECT_EQ(pair(""), -1);
  EXPECT_EQ(pair("x 60 3"), -1);
}

TEST_F(TovCoreConfig, SingleNumberIsRead) {
  EXPECT_EQ(single(" 12 13"), 0);
  EXPECT_EQ(first_, 12);
  EXPECT_EQ(single("-3\n"), 0);
  EXPECT_EQ(first_, -3);
  EXPECT_EQ(single("none"), -1);
  EXPECT_EQ(single(""), -1);
}

TEST_F(TovCoreConfig, OnlyTheFirst255BytesCount) {
  EXPECT_EQ(pair(std::string(252, ' ') + "1 2"), 0);
  EXPECT_EQ(second_, 2);
  EXPECT_EQ(pair(std::string(253, ' ') + "1 2"), -1);
}

TEST_F(TovCoreConfig, AbsentFileIsAFailure) {
  EXPECT_EQ(tov_get_config_value("/no/such/file", &first_, &second_), -1);
  EXPECT_EQ(tov_get_file_config("/no/such/file", &first_), -1);
  EXPECT_EQ(first_, -7);
  EXPECT_EQ(second_, -7);
}

TEST_F(TovCoreConfig, DirectoryIsAFailure) {
  EXPECT_EQ(tov_get_file_config("/tmp", &first_), -1);
}
