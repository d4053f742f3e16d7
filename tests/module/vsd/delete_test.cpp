// Ending a device: who is signalled and when, what each variant removes, what a failure leaves.
// The waits take no time here; one deletion in real time is among the tests of the private device.
#include "vsd/delete.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "include/tov_registry.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/refused_calls.h"
#include "tests/module/vsd.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::caught_diagnostics;
using tov_test::fake_sleep;
using tov_test::group_of;
using tov_test::Member;
using tov_test::printed_by;
using tov_test::write_file;

static const int VSD = tov_test::unused_vsd();
static const std::string NUMBER = std::to_string(VSD);
static const std::string DEVICE = "/tmp/vsd/" + NUMBER;
static const std::string MARKER = DEVICE + "/delete_vsd";

// Everything that belongs to a device, in no order.
static const std::set<std::string> EVERYTHING = {DEVICE,
                                                 "/etc/vsd/" + NUMBER,
                                                 "/data/var/run/vsd/" + NUMBER,
                                                 "/data/.qxos/vsd/" + NUMBER,
                                                 "/data2/.qxos/vsd/" + NUMBER,
                                                 "/data2/var/run/vsd/" + NUMBER,
                                                 "/qx_cfg/vsd/" + NUMBER,
                                                 "/qxos/vsd/" + NUMBER,
                                                 "/memory/vsd_" + NUMBER,
                                                 "/cpu/vsd_" + NUMBER};

static std::set<std::string> what_is_left() {
  std::set<std::string> left;
  for (const std::string &path : EVERYTHING)
    if (fs::exists(path)) left.insert(path);
  return left;
}

static std::set<std::string> everything_but(const std::set<std::string> &gone) {
  std::set<std::string> rest;
  for (const std::string &path : EVERYTHING)
    if (!gone.contains(path)) rest.insert(path);
  return rest;
}

static std::string progress(const std::string &vsd = NUMBER) {
  return "Sending vsd: " + vsd +
         " all processes the TERM signal...\nAfter 5s, Sending vsd: " + vsd +
         " all processes the KILL signal...\nAfter 10s, Delete vsd: " + vsd + " OK.\n";
}

class TovVsdDelete : public testing::Test {
 protected:
  void SetUp() override {
    for (const std::string &path : EVERYTHING) {
      fs::create_directories(path + "/sub");
      write_file(path + "/sub/file", "text");
    }
    fs::create_directories(DEVICE + "/tov/db");
    fs::create_directories("/data2/.qxos/vsd/1");  // a neighbour
  }
  void TearDown() override {
    fake_sleep = {};
    for (const std::string &path : EVERYTHING)
      fs::remove_all(path);
    EXPECT_TRUE(fs::exists("/data2/.qxos/vsd/1"));
  }
};

// ---- the variants ---------------------------------------------------------------------------

TEST_F(TovVsdDelete, DeletionRemovesEverything) {
  int res = -1;
  EXPECT_EQ(printed_by([&] { res = delete_vsd(VSD); }), progress());
  EXPECT_EQ(res, 0);
  EXPECT_THAT(what_is_left(), IsEmpty());
  EXPECT_THAT(fake_sleep.slept_us, ElementsAre(5'000'000, 10'000'000));
}

TEST_F(TovVsdDelete, StopKeepsTheData) {
  int res = -1;
  EXPECT_EQ(printed_by([&] { res = stop_vsd(VSD); }), progress());
  EXPECT_EQ(res, 0);
  EXPECT_EQ(what_is_left(), everything_but({DEVICE, "/etc/vsd/" + NUMBER, "/memory/vsd_" + NUMBER,
                                            "/cpu/vsd_" + NUMBER}));
  EXPECT_THAT(fake_sleep.slept_us, ElementsAre(5'000'000, 10'000'000));
}

TEST_F(TovVsdDelete, DeletionForAReloadKeepsDataConfigurationAndGroups) {
  int res = -1;
  EXPECT_EQ(printed_by([&] { res = re_delete_vsd(VSD); }), progress());
  EXPECT_EQ(res, 0);
  EXPECT_EQ(what_is_left(), everything_but({DEVICE, "/etc/vsd/" + NUMBER}));
  EXPECT_THAT(fake_sleep.slept_us, ElementsAre(5'000'000, 10'000'000));
}

TEST_F(TovVsdDelete, FilesGoWithoutKillingOrWaiting) {
  Member member({group_of(VSD)});
  int res = -1;
  EXPECT_EQ(printed_by([&] { res = delete_vsd_file(VSD); }), "");
  EXPECT_EQ(res, 0);
  EXPECT_EQ(what_is_left(),
            everything_but({DEVICE, "/etc/vsd/" + NUMBER, "/data/var/run/vsd/" + NUMBER}));
  EXPECT_THAT(fake_sleep.slept_us, IsEmpty());
  EXPECT_TRUE(member.is_unharmed());
  EXPECT_EQ(delete_vsd_file(VSD), 0) << "nothing is left to be removed";
}

// ---- the course of a deletion ---------------------------------------------------------------

TEST_F(TovVsdDelete, MarkerStandsWhileMembersDie) {
  Member polite({group_of(VSD)});
  Member stubborn({group_of(VSD)}, [] { signal(SIGTERM, SIG_IGN); });
  Member neighbour({group_of(VSD) + 100});
  std::vector<std::string> seen;
  fake_sleep.meanwhile = [&] {
    if (fake_sleep.slept_us.size() == 1) {
      EXPECT_EQ(polite.ended_by(), SIGTERM);
      EXPECT_TRUE(stubborn.is_unharmed());
    } else {
      EXPECT_EQ(stubborn.ended_by(), SIGKILL);
    }
    EXPECT_EQ(tov_test::mode_of(MARKER), 0754U);
    EXPECT_EQ(what_is_left(), EVERYTHING);
    seen.push_back("looked");
  };
  EXPECT_EQ(printed_by([&] { EXPECT_EQ(delete_vsd(VSD), 0); }), progress());
  EXPECT_EQ(seen.size(), 2U);
  EXPECT_FALSE(fs::exists(MARKER));
  EXPECT_TRUE(neighbour.is_unharmed());
}

TEST_F(TovVsdDelete, WithoutDirectoryNothingIsKilledOrSaid) {
  fs::remove_all(DEVICE);
  Member member({group_of(VSD)});
  for (auto end : {delete_vsd, stop_vsd, re_delete_vsd}) {
    int res = 0;
    EXPECT_EQ(caught_diagnostics(TOV_MODULE_PUB, [&] { res = end(VSD); }), "");
    EXPECT_EQ(res, -ENOENT);
  }
  EXPECT_TRUE(member.is_unharmed());
  EXPECT_THAT(fake_sleep.slept_us, IsEmpty());
}

TEST_F(TovVsdDelete, PlantedLinkInPlaceOfTheMarkerIsNotFollowed) {
  fs::create_symlink("/etc/created_through_a_link", MARKER);
  EXPECT_EQ(delete_vsd(VSD), -ELOOP);
  EXPECT_FALSE(fs::exists("/etc/created_through_a_link"));
}

TEST_F(TovVsdDelete, MarkerOfAnEarlierRunIsNoHindrance) {
  write_file(MARKER, "");
  printed_by([] { EXPECT_EQ(delete_vsd(VSD), 0); });
  EXPECT_FALSE(fs::exists(DEVICE));
}

TEST_F(TovVsdDelete, FailedKillLeavesTheMarkerAndTheDirectories) {
  std::unique_ptr<tov_test::NoMoreDescriptors> few;
  fake_sleep.meanwhile = [&] { few = std::make_unique<tov_test::NoMoreDescriptors>(); };
  int res = 0;
  const std::string said = caught_diagnostics(TOV_MODULE_PUB, [&] {
    res = delete_vsd(VSD);
    few.reset();
  });
  EXPECT_EQ(res, -EMFILE);
  EXPECT_THAT(said, HasSubstr("]kill_proc_by_groups: opendir fail: Too many open files\n"));
  EXPECT_THAT(said, EndsWith("]delete_vsd: ret < 0: Too many open files\n"));
  EXPECT_EQ(what_is_left(), EVERYTHING);
  EXPECT_TRUE(fs::exists(MARKER));
  EXPECT_EQ(fake_sleep.slept_us.size(), 1U);
}

TEST_F(TovVsdDelete, ReaderThatIsGoneDoesNotEndIt) {
  tov_test::in_child([] {
    int ends[2];
    const bool ready = pipe(ends) == 0 && dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO &&
                       close(ends[0]) == 0 && signal(SIGPIPE, SIG_DFL) != SIG_ERR;
    ASSERT_TRUE(ready);
    EXPECT_EQ(delete_vsd(VSD), 0);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  });
  EXPECT_THAT(what_is_left(), IsEmpty());
}

TEST_F(TovVsdDelete, ReloadGivesUpWhenThereIsNoDevice) {
  fs::remove_all(DEVICE);
  int res = 0;
  const std::string said = caught_diagnostics(TOV_MODULE_PUB, [&] { res = reload_vsd(VSD); });
  EXPECT_EQ(res, -ENOENT);
  EXPECT_THAT(said,
              EndsWith("]delete " + NUMBER + " vsd fail, error =No such file or directory\n"));
}

TEST_F(TovVsdDelete, ReloadReturnsInTheChildWhenTheDeviceCannotBeEntered) {
  // The platform knows the devices up to 16 only.
  const auto outcome = tov_test::outcome_of([] { return reload_vsd(VSD); });
  EXPECT_THAT(outcome.results, ElementsAre(-EINVAL, 0));
  EXPECT_THAT(outcome.output, HasSubstr("]create vsd fail, error = Invalid argument\n"));
  EXPECT_EQ(what_is_left(), everything_but({DEVICE, "/etc/vsd/" + NUMBER}));
}
