// The list of third-part programs that start-up writes.
#include "core/third_part.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/text.h"
#include "util/list_file.h"

namespace fs = std::filesystem;

using tov_test::read_file;
using tov_test::write_file;

static const std::string LISTED = TOV_THIRD_PART_DIR;

namespace {

class TovThirdPartProcInit : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all("/etc/tov");
    fs::create_directories(LISTED);
  }

  static std::string diagnostics() {
    return tov_test::caught_diagnostics(TOV_MODULE_PUB, [] { tov_third_part_proc_init(); });
  }
};

}  // namespace

TEST_F(TovThirdPartProcInit, OneLineForEachFile) {
  write_file(LISTED + "/a", "/opt/a -x TOV_RESTART");
  write_file(LISTED + "/b", "/opt/b TOV_SHELL_RESTART");
  tov_third_part_proc_init();
  const auto lines = tov_test::split_lines(read_file(TOV_THIRD_PART_LIST), "\n");
  EXPECT_THAT(lines,
              testing::UnorderedElementsAre("/opt/a -x TOV_RESTART", "/opt/b TOV_SHELL_RESTART"));
}

TEST_F(TovThirdPartProcInit, LineFeedOfTheFileStays) {
  write_file(LISTED + "/a", "/opt/a TOV_RESTART\n");
  tov_third_part_proc_init();
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), "/opt/a TOV_RESTART\n\n");
}

TEST_F(TovThirdPartProcInit, FilesAreTakenInDirectoryOrder) {
  for (const char *name : {"z", "m", "a", "k"})
    write_file(LISTED + "/" + name, name);
  std::string expected;
  for (const auto &entry : fs::directory_iterator(LISTED))
    expected += entry.path().filename().string() + "\n";
  tov_third_part_proc_init();
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), expected);
}

TEST_F(TovThirdPartProcInit, LongFileIsCutAt1023Bytes) {
  write_file(LISTED + "/long", std::string(5000, 'x'));
  tov_third_part_proc_init();
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), std::string(1023, 'x') + "\n");
}

TEST_F(TovThirdPartProcInit, OlderListIsForgotten) {
  write_file(TOV_THIRD_PART_LIST, "/opt/old TOV_RESTART\n/opt/older TOV_RESTART\n");
  write_file(LISTED + "/a", "new");
  tov_third_part_proc_init();
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), "new\n");
}

TEST_F(TovThirdPartProcInit, EmptyDirectoryGivesAnEmptyList) {
  tov_third_part_proc_init();
  EXPECT_TRUE(fs::exists(TOV_THIRD_PART_LIST));
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), "");
  char attribute[256];
  char name[] = "/opt/a";
  EXPECT_EQ(tov_proc_in_tovdb(TOV_THIRD_PART_LIST, name, attribute, sizeof attribute), 0);
}

TEST_F(TovThirdPartProcInit, UnreadableEntryIsSkipped) {
  fs::create_directory(LISTED + "/directory");
  write_file(LISTED + "/a", "listed");
  const std::string said = diagnostics();
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), "listed\n");
  EXPECT_THAT(
      said, testing::HasSubstr("]tov_read_file_string failed, ret = -1, reason: Is a directory\n"));
}

TEST_F(TovThirdPartProcInit, MissingDirectoryLeavesTheListEmpty) {
  fs::remove(LISTED);
  write_file(TOV_THIRD_PART_LIST, "old\n");
  EXPECT_THAT(diagnostics(),
              testing::HasSubstr("]opendir failed, reason: No such file or directory\n"));
  EXPECT_EQ(read_file(TOV_THIRD_PART_LIST), "");
}

TEST_F(TovThirdPartProcInit, UnwritableListIsOnlyToldAbout) {
  fs::create_directory(TOV_THIRD_PART_LIST);
  write_file(LISTED + "/a", "listed");
  EXPECT_THAT(diagnostics(), testing::HasSubstr("]fopen failed, reason: Is a directory\n"));
}
