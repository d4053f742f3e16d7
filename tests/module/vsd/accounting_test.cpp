// Memory by device: the reading of smaps, the sweep, the limits, the kill of the largest member.
#include "vsd/accounting.h"

#include <ctype.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "include/tov_registry.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/vsd.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace fs = std::filesystem;

using testing::Each;
using testing::EndsWith;
using testing::HasSubstr;
using tov_test::caught_diagnostics;
using tov_test::fake_sleep;
using tov_test::group_of;
using tov_test::Member;
using tov_test::write_file;

// A device that hardly anybody else has processes of.
static constexpr int VSD = 13;
static const std::string DEVICE = "/tmp/vsd/13/";
static const std::string MEMBERS = DEVICE + "tov/";
static const std::string LIMIT = "/memory/vsd_13/memory.limit_in_bytes";

// Makes a child hold so many kilobytes more.
static std::function<void()> holding(size_t kb) {
  return [kb] {
    void *block = mmap(nullptr, kb * 1024, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (block == MAP_FAILED) _exit(EXIT_FAILURE);
  };
}

static void be_member(const Member &member) {
  write_file(MEMBERS + member.name(), "");
}

// Kilobytes that a sweep counts of a process.
static uint64_t counted(const Member &member) {
  uint64_t sums[TOV_VSD_RSS_NUM] = {};
  std::string file = "/proc/" + member.name() + "/smaps";
  EXPECT_EQ(get_vsd_mem(file.data(), 1, sums), 0);
  return sums[1];
}

// Does something while no member's size changes: the kernel may take pages away at any moment, and
// then it is done again. Returns the sum of all sizes.
static uint64_t with_steady_sizes(const std::vector<const Member *> &members,
                                  const std::function<void()> &action) {
  for (;;) {
    const auto sum = [&] {
      uint64_t kilobytes = 0;
      for (const Member *member : members)
        kilobytes += counted(*member);
      return kilobytes;
    };
    const uint64_t before = sum();
    action();
    if (sum() == before) return before;
  }
}

class TovVsdMemory : public testing::Test {
 protected:
  void SetUp() override {
    std::fill(std::begin(array_rss), std::end(array_rss), 0);
    fs::create_directories(MEMBERS + "db");
    fs::create_directories("/memory/vsd_13");
  }
  void TearDown() override {
    fake_sleep = {};
    fs::remove_all("/tmp/vsd");
    fs::remove_all("/memory");
  }
};

// ---- smaps ----------------------------------------------------------------------------------

class TovVsdSmaps : public testing::Test {
 protected:
  // What a file of this content adds to device 2; nothing else may change.
  uint64_t sum_of(const std::string &text) {
    uint64_t sums[TOV_VSD_RSS_NUM] = {};
    write_file(path, text);
    EXPECT_EQ(get_vsd_mem(path.data(), 2, sums), 0);
    const uint64_t sum = std::exchange(sums[2], 0);
    EXPECT_THAT(sums, Each(0U));
    return sum;
  }
  tov_test::ScratchDir scratch;
  std::string path = scratch / "smaps";
};

TEST_F(TovVsdSmaps, SizesAreAddedAndLibrariesLeftOut) {
  EXPECT_EQ(sum_of("5500-5600 r-xp 00000000 fe:00 10                /opt/foo\n"
                   "Size:               1000 kB\n"
                   "Rss:                 100 kB\n"
                   "Pss:                  50 kB\n"
                   "7f00-7f10 r-xp 00000000 fe:00 11                /usr/lib/libc.so.6\n"
                   "Size:               2000 kB\n"
                   "Rss:                1500 kB\n"
                   "Pss:                 700 kB\n"
                   "7f20-7f30 rw-p 00000000 00:00 0 \n"
                   "Rss:                  23 kB\n"
                   "7ffc-7ffd rw-p 00000000 00:00 0                 [stack]\n"
                   "Rss:\t\t 7 kB\n"),
            130U);
}

TEST_F(TovVsdSmaps, OnlyTheFirstSizeBehindALibraryIsLeftOut) {
  EXPECT_EQ(sum_of("/lib/a\nRss: 1 kB\nRss: 2 kB\n/data/library/b\n/lib/c\nRss: 4 kB\nRss: 8 kB\n"),
            10U);
}

TEST_F(TovVsdSmaps, MappingNamedAfterTheWordCounts) {
  EXPECT_EQ(sum_of("7f00-7f10 r--p 0 fe:00 11 /opt/Rss=\nRss: 5 kB\n"), 5U);
  EXPECT_EQ(sum_of("7f00-7f10 r--p 0 fe:00 11 /opt/Rss: 30\nRss: 5 kB\n"), 35U);
}

TEST_F(TovVsdSmaps, HugeAndTornTexts) {
  EXPECT_EQ(sum_of("Rss: 18446744073709551615 kB\n"), UINT64_MAX);
  EXPECT_EQ(sum_of("Rss:"), 0U);
  EXPECT_EQ(sum_of("Rss"), 0U);
  EXPECT_EQ(sum_of("Rss\n"), 0U);
  EXPECT_EQ(sum_of(""), 0U);
  EXPECT_EQ(sum_of(std::string(3000, 'x') + "\nRss: 5 kB\n"), 5U);
  EXPECT_EQ(sum_of(std::string("Rss: 1\0 kB\nRss: 2 kB\n", 21)), 3U);
}

TEST_F(TovVsdSmaps, DevicesThatAreNotCounted) {
  uint64_t sums[TOV_VSD_RSS_NUM + 2] = {};
  write_file(path, "Rss: 9 kB\n");
  for (int vsd : {int{TOV_VSD_RSS_NUM}, 625, INT_MAX})
    EXPECT_EQ(get_vsd_mem(path.data(), vsd, sums), 0);
  EXPECT_THAT(sums, Each(0U));
  for (int vsd : {-1, -30, INT_MIN})  // no device, vanished processes
    EXPECT_EQ(get_vsd_mem(path.data(), vsd, sums), 0);
  EXPECT_EQ(sums[0], 27U);
  EXPECT_EQ(get_vsd_mem(path.data(), 15, sums), 0);
  EXPECT_EQ(sums[15], 9U);
}

TEST_F(TovVsdSmaps, UnreadableFile) {
  uint64_t sums[TOV_VSD_RSS_NUM] = {};
  std::string none = scratch / "none";
  int res = 0;
  const std::string said =
      caught_diagnostics(TOV_MODULE_PUB, [&] { res = get_vsd_mem(none.data(), 2, sums); });
  EXPECT_EQ(res, -ENOENT);
  EXPECT_THAT(said, EndsWith("]get_vsd_mem: open conf file fail: No such file or directory\n"));
  // A directory opens and has no lines.
  std::string directory = scratch.path();
  EXPECT_EQ(get_vsd_mem(directory.data(), 2, sums), 0);
  EXPECT_THAT(sums, Each(0U));
}

TEST_F(TovVsdSmaps, OwnProcessAgreesWithTheKernelsRollup) {
  Member member({}, holding(40'000));
  uint64_t sums[TOV_VSD_RSS_NUM] = {};
  std::string file = "/proc/" + member.name() + "/smaps";
  ASSERT_EQ(get_vsd_mem(file.data(), 1, sums), 0);
  const uint64_t whole = std::stoull(tov_test::status_field(member.pid(), "VmRSS"));
  EXPECT_GE(sums[1], 40'000U);
  EXPECT_LE(sums[1], whole + 1000) << "libraries are left out of it";
}

// ---- limits ---------------------------------------------------------------------------------

TEST_F(TovVsdMemory, LimitInKilobytes) {
  write_file(LIMIT, "67108864\n");
  EXPECT_EQ(get_maxmem_set(VSD), 65536U);
  write_file(LIMIT, "9223372036854771712\n");
  EXPECT_EQ(get_maxmem_set(VSD), 9007199254740988U) << "what the kernel says without a limit";
  write_file(LIMIT, "1023\n");
  EXPECT_EQ(get_maxmem_set(VSD), 0U);
  write_file(LIMIT, "");
  EXPECT_EQ(get_maxmem_set(VSD), 0U);
}

TEST_F(TovVsdMemory, LimitThatCannotBeRead) {
  EXPECT_EQ(get_maxmem_set(0), 0U);
  uint64_t limit = 1;
  std::string said = caught_diagnostics(TOV_MODULE_PUB, [&] { limit = get_maxmem_set(VSD); });
  EXPECT_EQ(limit, 0U);
  EXPECT_THAT(said, EndsWith("]get_maxmem_set: open fail: No such file or directory\n"));
  fs::create_symlink("/proc/self/mem", LIMIT);  // opens, and its first byte cannot be read
  said = caught_diagnostics(TOV_MODULE_PUB, [&] { limit = get_maxmem_set(VSD); });
  EXPECT_EQ(limit, 0U);
  EXPECT_THAT(said, EndsWith("]get_maxmem_set: read fail: Input/output error\n"));
}

TEST_F(TovVsdMemory, DeviceExistsAsADirectory) {
  EXPECT_EQ(vsd_exist(VSD), 1);
  EXPECT_EQ(vsd_exist(12), 0);
  write_file("/tmp/vsd/12", "");
  EXPECT_EQ(vsd_exist(12), 0);
}

// ---- the largest member ---------------------------------------------------------------------

TEST_F(TovVsdMemory, LargestMemberIsKilled) {
  Member small({}), large({}, holding(30'000)), middle({}, holding(10'000));
  Member outsider({}, holding(60'000));
  for (const Member *member : {&small, &large, &middle})
    be_member(*member);
  write_file(MEMBERS + "99999999", "");  // gone, or never there
  const std::string said = caught_diagnostics(TOV_MODULE_PUB, [] { find_max_rss(VSD); });
  EXPECT_EQ(large.ended_by(), SIGKILL);
  EXPECT_THAT(said, HasSubstr("]max_pid " + large.name() + " max_rss "));
  EXPECT_THAT(said, HasSubstr("]find_max_rss: stat fail: No such file or directory\n"));
  EXPECT_THAT(said, HasSubstr("]find_max_rss: fopen fail: No such file or directory\n"));
  for (Member *spared : {&small, &middle, &outsider})
    EXPECT_TRUE(spared->is_unharmed());
}

// A program names itself as it likes, and its name stands in the status file before the figures.
TEST_F(TovVsdMemory, NameThatLooksLikeAFigureIsNone) {
  const auto boasting = [] { (void)prctl(PR_SET_NAME, "VmRSS: 9999999"); };
  Member large({}, holding(30'000)), small({}, boasting), dead({}, boasting);
  for (const Member *member : {&large, &small, &dead})
    be_member(*member);
  // What has ended has no figures at all, only the name.
  ASSERT_EQ(kill(dead.pid(), SIGTERM), 0);
  ASSERT_TRUE(tov_test::wait_until([&] { return tov_test::process_state(dead.pid()) == 'Z'; },
                                   tov_test::Millis(30'000)));
  const std::string said = caught_diagnostics(TOV_MODULE_PUB, [] { find_max_rss(VSD); });
  EXPECT_THAT(said, HasSubstr("]max_pid " + large.name() + " max_rss "));
  EXPECT_EQ(large.ended_by(), SIGKILL);
  EXPECT_TRUE(small.is_unharmed());
}

TEST_F(TovVsdMemory, NamesAreJudgedInTheWorkingDirectory) {
  Member large({}, holding(20'000)), small({});
  be_member(large);
  be_member(small);
  const tov_test::ScratchDir elsewhere;
  fs::create_directory(elsewhere / large.name());
  ASSERT_EQ(chdir(elsewhere.path().c_str()), 0);
  find_max_rss(VSD);
  ASSERT_EQ(chdir("/"), 0);
  EXPECT_EQ(small.ended_by(), SIGKILL);
  EXPECT_TRUE(large.is_unharmed()) << "taken for a directory";
}

// Calls it in a child with a process group of its own. Returns the signal that ended the child.
static int signal_that_ends_the_searcher(std::string *said) {
  const tov_fd_t output(memfd_create("output", MFD_CLOEXEC));
  const int status = tov_test::status_in_child([&] {
    setpgid(0, 0);
    dup2(output.n, STDOUT_FILENO);
    tov_test::set_diagnostics(TOV_DBG_VERBOSE);
    find_max_rss(VSD);
    return 0;
  });
  *said = tov_test::content_of(output.n);
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

TEST_F(TovVsdMemory, WithoutAMeasuredMemberTheSearcherEndsItself) {
  std::string said;
  write_file(MEMBERS + "-7", "");
  EXPECT_EQ(signal_that_ends_the_searcher(&said), SIGKILL);
  EXPECT_THAT(said, HasSubstr("]find_max_rss: atio proc: Invalid argument\n"));
  EXPECT_THAT(said, EndsWith("]max_pid 0 max_rss 0\n"));
}

TEST_F(TovVsdMemory, WithoutMemberDirectoryNoProcessIsKilled) {
  fs::remove_all(DEVICE);
  std::string said;
  EXPECT_EQ(signal_that_ends_the_searcher(&said), 0);
  EXPECT_THAT(said, EndsWith("]find_max_rss: open dir fail: No such file or directory\n"));
}

// ---- sweeps ---------------------------------------------------------------------------------

TEST_F(TovVsdMemory, SumOfADeviceIsThatOfItsProcesses) {
  write_file(LIMIT, "1073741824\n");
  Member first({group_of(VSD)}, holding(20'000)), second({group_of(VSD)}, holding(5'000));
  Member other({5, group_of(VSD)}, holding(90'000));  // its first group is 5: no device
  const uint64_t expected = with_steady_sizes({&first, &second}, [] {
    std::fill(std::begin(array_rss), std::end(array_rss), 0);
    poll_use_mem(0);
  });
  EXPECT_EQ(array_rss[VSD], expected);
  EXPECT_GE(array_rss[0], 90'000U);
  EXPECT_EQ(vsd_use_mem(VSD), 0U) << "not published yet";
  const uint64_t again = with_steady_sizes({&first, &second}, [&] {
    array_rss[VSD] = expected;
    poll_use_mem(0);
  });
  EXPECT_EQ(array_rss[VSD], expected + again) << "a sweep adds to the one before";
}

// (And rests may take seconds. Every sweep costs time: there are few.)
TEST_F(TovVsdMemory, DeviceWithoutLimitOrDirectoryIsNotCounted) {
  Member member({group_of(VSD)}, holding(1'000));
  be_member(member);
  poll_use_mem(2'500'000);
  EXPECT_FALSE(fake_sleep.slept_us.empty());
  EXPECT_THAT(fake_sleep.slept_us, Each(2'500'000));
  EXPECT_EQ(array_rss[VSD], 0U);
  write_file(LIMIT, "1024\n");
  fs::remove_all(DEVICE);
  poll_use_mem(0);
  EXPECT_EQ(array_rss[VSD], 0U);
  EXPECT_TRUE(member.is_unharmed());
}

TEST_F(TovVsdMemory, DeviceBeyondItsLimitLosesItsLargestMember) {
  write_file(LIMIT, "31457280\n");  // 30720 kB
  Member small({group_of(VSD)}, holding(5'000)), large({group_of(VSD)}, holding(40'000));
  be_member(small);
  be_member(large);
  poll_use_mem(0);
  EXPECT_EQ(array_rss[VSD], 30'720U);
  EXPECT_EQ(large.ended_by(), SIGKILL);
  EXPECT_TRUE(small.is_unharmed());
}

TEST_F(TovVsdMemory, SumAtItsLimitIsLeftAlone) {
  Member member({group_of(VSD)}, holding(5'000));
  be_member(member);
  // The limit does not move with the sum; no member may be killed meanwhile.
  uint64_t limit = 0;
  const uint64_t expected = with_steady_sizes({&member}, [&] {
    array_rss[VSD] = 0;
    limit = counted(member);
    write_file(LIMIT, std::to_string(limit * 1024));
    poll_use_mem(0);
  });
  EXPECT_EQ(limit, expected);
  EXPECT_EQ(array_rss[VSD], expected);
  EXPECT_TRUE(member.is_unharmed());
}

TEST_F(TovVsdMemory, SweepIsPublishedWholeAndRestsAfterEachProcess) {
  EXPECT_EQ(vsd_use_mem(VSD), 0U);
  write_file(LIMIT, "1073741824\n");
  Member member({group_of(VSD)}, holding(20'000));
  const auto processes = [] {
    std::set<std::string> names;
    for (const std::string &name : tov_test::names_in("/proc"))
      if (isdigit(name[0]) != 0) names.insert(name);
    return names;
  };
  const auto before = processes();
  set_vsd_mem();
  EXPECT_GE(vsd_use_mem(VSD), 20'000U);
  EXPECT_EQ(vsd_use_mem(VSD), mem_use_rss[VSD]);
  EXPECT_THAT(array_rss, Each(0U));
  EXPECT_THAT(fake_sleep.slept_us, Each(100'000));
  size_t there_all_the_time = 0;
  for (const std::string &name : processes())
    there_all_the_time += before.count(name);
  EXPECT_GE(fake_sleep.slept_us.size(), there_all_the_time);
  EXPECT_EQ(vsd_use_mem(-1), 0U);
  EXPECT_EQ(vsd_use_mem(TOV_VSD_RSS_NUM), 0U);
}

TEST_F(TovVsdMemory, ProcessesThatVanishMeanwhileAreNoHindrance) {
  write_file(LIMIT, "1073741824\n");
  std::vector<std::unique_ptr<Member>> members(20);
  for (auto &member : members)
    member = std::make_unique<Member>(std::vector<gid_t>{group_of(VSD)});
  fake_sleep.meanwhile = [&] {
    if (!members.empty()) members.pop_back();
  };
  poll_use_mem(0);
  EXPECT_TRUE(members.empty());
}

TEST_F(TovVsdMemory, ProcUnreadable) {
  const auto outcome = tov_test::outcome_of([] {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NOFILE, &none) == 0) poll_use_mem(0);
    return static_cast<int>(fake_sleep.slept_us.size());
  });
  EXPECT_THAT(outcome.results, testing::ElementsAre(0));
  EXPECT_THAT(outcome.output, EndsWith("]poll_use_mem: open dir fail: Too many open files\n"));
}
