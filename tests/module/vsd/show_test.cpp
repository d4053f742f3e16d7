// The list of the devices.
#include "vsd/show.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/stdout.h"

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using tov_test::printed_by;
using tov_test::write_file;

TEST(TovVsdShow, ListsTheDevicesFromOneToFifteen) {
  for (int vsd : {0, 1, 2, 15, 16})
    fs::create_directories("/tmp/vsd/" + std::to_string(vsd) + "/tov/db");
  write_file("/tmp/vsd/2/tov/4711", "");
  const std::string said = printed_by(show_vsd);
  EXPECT_THAT(said, testing::StartsWith("Vsd_1: /tmp/vsd/1/tov/\ndb\nVsd_2: /tmp/vsd/2/tov/\n"));
  EXPECT_THAT(said, HasSubstr("\n4711\n"));
  EXPECT_THAT(said, EndsWith("Vsd_15: /tmp/vsd/15/tov/\ndb\n"));
  EXPECT_THAT(said, Not(HasSubstr("Vsd_0")));
  EXPECT_THAT(said, Not(HasSubstr("Vsd_16")));
  fs::remove_all("/tmp/vsd");
  EXPECT_EQ(printed_by(show_vsd), "");
}
