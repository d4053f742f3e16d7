// Small number files: what counts as a number, and what counts as a permission to reload.
#include "core/run/settings.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "core/run/lowmem.h"
#include "include/tov_ras_comp_config.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/tov_utils.h"

using tov_test::kernel;

namespace {

class TovCoreConfig : public tov_test::Simulated {
 protected:
  int pair(const std::string &text) {
    kernel().write_file(path_, text);
    return tov_get_config_value(path_.c_str(), &first_, &second_);
  }
  int single(const std::string &text) {
    kernel().write_file(path_, text);
    return tov_get_file_config(path_.c_str(), &first_);
  }

  const std::string path_ = "/tmp/numbers";
  int first_ = -7;
  int second_ = -7;
};

class TovIsRebootAvailable : public tov_test::Simulated {};
class TovFileExists : public tov_test::Simulated {};

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

TEST_F(TovIsRebootAvailable, WithoutTheStatusFile) {
  EXPECT_TRUE(tov_is_reboot_available());
}

TEST_F(TovIsRebootAvailable, ZeroForbidsIt) {
  kernel().write_file(TOV_LMK_REBOOT_FILE, "0\n");
  EXPECT_FALSE(tov_is_reboot_available());
}

TEST_F(TovIsRebootAvailable, AnyOtherContentAllowsIt) {
  for (const char *text : {"1\n", "-1", "2", "", "off"}) {
    kernel().write_file(TOV_LMK_REBOOT_FILE, text);
    EXPECT_TRUE(tov_is_reboot_available()) << text;
  }
}

TEST_F(TovFileExists, WhateverItsKind) {
  kernel().write_file("/tmp/plain", "");
  EXPECT_TRUE(tov_file_exists("/tmp/plain"));
  EXPECT_TRUE(tov_file_exists("/tmp"));
  EXPECT_FALSE(tov_file_exists("/tmp/none"));
  kernel().make_link("/tmp/dangling", "/tmp/none");
  EXPECT_FALSE(tov_file_exists("/tmp/dangling"));
}

TEST_F(TovCoreConfig, ReadErrorIsAFailure) {
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  EXPECT_EQ(pair("60 3"), -1);
  EXPECT_EQ(first_, -7);
}

TEST_F(TovCoreConfig, FifoIsNotWaitedFor) {
  kernel().make_fifo(path_);
  EXPECT_EQ(tov_get_file_config(path_.c_str(), &first_), -1);
}
