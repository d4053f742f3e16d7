// What the reader of process events remembers of the list, over real files and processes.
#include "core/events/listing.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "include/tov_ras_comp_config.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

namespace {

class TovListing : public tov_test::World {
 protected:
  TovListing() {
    std::filesystem::create_directories("/etc/tov");
    tov_test::clear_path(TOV_THIRD_PART_LIST);
    exe_ = std::filesystem::read_symlink("/proc/self/exe");
  }
  ~TovListing() override { tov_test::clear_path(TOV_THIRD_PART_LIST); }

  static void list(const std::string &text) { tov_test::write_file(TOV_THIRD_PART_LIST, text); }

  std::string exe_;
  tov_listing_t listing_;
};

}  // namespace

TEST_F(TovListing, EverybodyMayBeListedBeforeItWasRead) {
  EXPECT_TRUE(listing_.any());
  EXPECT_TRUE(listing_.may_be_listed(getpid()));
}

TEST_F(TovListing, WithoutAListNobodyIs) {
  listing_.refresh();
  EXPECT_FALSE(listing_.any());
  EXPECT_FALSE(listing_.may_be_listed(getpid()));
  list("\n\n");
  listing_.refresh();
  EXPECT_FALSE(listing_.any());
}

TEST_F(TovListing, FollowsTheList) {
  listing_.refresh();
  list("/opt/other TOV_RESTART\n");
  EXPECT_FALSE(listing_.any()) << "before it is asked";
  listing_.refresh();
  EXPECT_TRUE(listing_.any());
  EXPECT_FALSE(listing_.may_be_listed(getpid()));
  list("/opt/other TOV_RESTART\n" + exe_ + " -x TOV_RESTART\n");
  listing_.refresh();
  EXPECT_TRUE(listing_.may_be_listed(getpid()));
  list("behind" + exe_ + "before\n");
  listing_.refresh();
  EXPECT_TRUE(listing_.may_be_listed(getpid())) << "anywhere in a line";
  tov_test::clear_path(TOV_THIRD_PART_LIST);
  listing_.refresh();
  EXPECT_FALSE(listing_.any());
}

// It may have gone to the background.
TEST_F(TovListing, WhoIsGoneMayBeListedIfAnythingIs) {
  list("/opt/other TOV_RESTART\n");
  listing_.refresh();
  EXPECT_TRUE(listing_.may_be_listed(tov_test::GONE));
  list("");
  listing_.refresh();
  EXPECT_FALSE(listing_.may_be_listed(tov_test::GONE));
}

TEST_F(TovListing, WithoutDescriptorsEverybodyMayBeListed) {
  listing_.refresh();
  tov_test::in_child([this] {
    list("/opt/other TOV_RESTART\n");
    const rlimit none{0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    listing_.refresh();
    EXPECT_TRUE(listing_.any());
    EXPECT_TRUE(listing_.may_be_listed(getpid()));
  });
}
