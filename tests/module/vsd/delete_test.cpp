// Ending a device: who is signalled and when, what each variant removes, what a failure leaves.
// The waits take no time here; one deletion in real time is among the tests of the private device.
#include "vsd/delete.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/module/fake_sleep.h"
#include "tests/module/private_root.h"
#include "tests/module/vsd.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/stdout.h"
#include "vsd/kill.h"
#include "vsd/show.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
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

// Only so many descriptors: "/proc/" cannot be opened any more.
class FewDescriptors {
 public:
  FewDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST_F(TovVsdDelete, FailedKillLeavesTheMarkerAndTheDirectories) {
  std::unique_ptr<FewDescriptors> few;
  fake_sleep.meanwhile = [&] { few = std::make_unique<FewDescriptors>(); };
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
  const pid_t child = fork();
  if (child == 0) {
    int ends[2];
    const bool ready = pipe(ends) == 0 && dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO &&
                       close(ends[0]) == 0 && signal(SIGPIPE, SIG_DFL) != SIG_ERR;
    const int res = ready ? delete_vsd(VSD) : -1;
    _exit(res == 0 && signal(SIGPIPE, SIG_DFL) == SIG_DFL ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
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

// ---- signalling by group --------------------------------------------------------------------

TEST(TovVsdKill, HitsWhoeverHasTheDigitsInItsGroups) {
  const gid_t gid = group_of(VSD);
  Member exact({gid});
  Member second({5, gid});
  Member longer({gid * 10});
  Member other({gid + 1});
  Member none({});
  const std::string said = caught_diagnostics(
      TOV_MODULE_PUB, [&] { EXPECT_EQ(kill_proc_by_groups(SIGUSR1, static_cast<int>(gid)), 0); });
  for (Member *hit : {&exact, &second, &longer}) {
    EXPECT_EQ(hit->ended_by(), SIGUSR1);
    EXPECT_THAT(said, HasSubstr(" pid: " + hit->name() + "\n"));
  }
  EXPECT_THAT(said, HasSubstr("]delete vsd: supplement_id: " + std::to_string(gid) +
                              " pid: " + exact.name() + "\n"));
  EXPECT_THAT(said, HasSubstr("]delete vsd: supplement_id: " + std::to_string(gid * 10) +
                              " pid: " + longer.name() + "\n"));
  for (Member *missed : {&other, &none})
    EXPECT_TRUE(missed->is_unharmed());
}

TEST(TovVsdKill, HitsTheCallerToo) {
  const pid_t child = fork();
  if (child == 0) {
    const gid_t gid = group_of(VSD);
    if (setgroups(1, &gid) == 0) (void)kill_proc_by_groups(SIGUSR2, static_cast<int>(gid));
    _exit(EXIT_SUCCESS);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2);
}

TEST(TovVsdKill, SignalZeroOnlyAsks) {
  Member member({group_of(VSD)});
  EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), 0);
  EXPECT_TRUE(member.is_unharmed());
}

// Children that are born and die while /proc is read: a name that was there has no status file any
// more, or its file is read to the end of a process that is gone. Some a second: the daemons of
// other tests hear of each.
TEST(TovVsdKill, ProcessesThatVanishMeanwhileAreNoHindrance) {
  Member member({group_of(VSD)});
  const pid_t busy = fork();
  if (busy == 0) {
    for (;;) {
      const pid_t child = fork();
      if (child == 0) {
        usleep(5'000);
        _exit(EXIT_SUCCESS);
      }
      waitpid(child, nullptr, 0);
    }
  }
  ASSERT_GT(busy, 0);
  for (int round = 0; round < 20; round++)
    EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), 0);
  EXPECT_EQ(kill_proc_by_groups(SIGTERM, static_cast<int>(group_of(VSD))), 0);
  EXPECT_EQ(member.ended_by(), SIGTERM);
  kill(busy, SIGKILL);
  waitpid(busy, nullptr, 0);
}

TEST(TovVsdKill, ProcUnreadable) {
  const FewDescriptors few;
  EXPECT_EQ(kill_proc_by_groups(0, static_cast<int>(group_of(VSD))), -EMFILE);
}

// ---- listing --------------------------------------------------------------------------------

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
