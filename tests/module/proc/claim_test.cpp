// The right to start a task: who takes it, gives it back, uses it, and who of two is faster.
#include "proc/claim.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/child.h"
#include "proc/tov_proc.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/clock.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using tov_test::exists;
using tov_test::GONE;
using tov_test::names_in;
using tov_test::Program;
using tov_test::read_file;
using tov_test::refuse;

static std::function<void()> after_link;
static int link_error = 0;  // what every link(2) fails with; 0: none does

// Takes the place of link(2) in this program: what happens right behind it, and failures.
extern "C" int link(const char *from, const char *to) noexcept {
  if (link_error != 0) return errno = link_error, -1;
  const int result = static_cast<int>(syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
  const int error = errno;
  if (after_link) std::exchange(after_link, nullptr)();
  errno = error;
  return result;
}

namespace {

constexpr char DIRECTORY[] = "/tmp/vsd/0/tov/db";
constexpr char FOO[] = "/opt/foo -d";
constexpr bool STAYS = true;

class TovClaim : public tov_test::World {
 protected:
  void TearDown() override {
    after_link = nullptr;
    link_error = 0;
    World::TearDown();
  }

  // A dead process of the registry, with its file.
  static tov_pid_t *registered(const std::string &command = FOO, pid_t pid = GONE) {
    tov_pid_t *record = add(pid, command);
    write_file_of(*record);
    return record;
  }
  static tov_claim_t take(const tov_pid_t &record, bool stays = false) {
    const tov_chains_guard_t held(tov_chains);
    return tov_claim_take(held, record, stays);
  }
  static pid_t fork_task(tov_pid_t *record, bool stays = false) {
    const tov_chains_guard_t held(tov_chains);
    return tov_proc_fork(held, record, -1, stays);
  }
  static void note(tov_pid_t *record, const tov_claim_t &claim) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_claim(held, record, claim.number);
  }
  static struct stat status_of(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }
  static void expect_same(const struct stat &now, const struct stat &before) {
    EXPECT_EQ(now.st_ino, before.st_ino);
    EXPECT_EQ(now.st_nlink, before.st_nlink);
    EXPECT_EQ(now.st_mode, before.st_mode);
    EXPECT_EQ(now.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(now.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  }
  // The exit status of what uses the claim in a child of its own.
  static int status_of_use(const tov_claim_t &claim) {
    return WEXITSTATUS(tov_test::status_in_child([&] { return tov_claim_use(claim) ? 42 : 0; }));
  }
  static int status_of_run(const Program &program, const tov_claim_t &claim) {
    return WEXITSTATUS(tov_test::status_in_child([&] {
      const tov_words_t words((program.path + " exit=42").c_str());
      tov_proc_plan_t plan;
      plan.how = &tov_proc_by_exec;
      plan.file = words.word[0];
      plan.argv = words.word;
      plan.claim = claim;
      return tov_proc_child_run(&plan) < 0 ? 43 : 44;
    }));
  }
};

using TovClaimUse = TovClaim;
using TovClaimSettle = TovClaim;

// Two processes that begin at the same instant.
class Start {
 public:
  Start()
      : go_(static_cast<std::atomic<bool> *>(mmap(nullptr, sizeof(std::atomic<bool>),
                                                  PROT_READ | PROT_WRITE,
                                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  Start(const Start &) = delete;
  Start &operator=(const Start &) = delete;
  ~Start() { munmap(go_, sizeof *go_); }
  void give() { *go_ = true; }
  void wait() const {
    while (!*go_) {
    }
  }

 private:
  std::atomic<bool> *go_;
};

}  // namespace

static void spin_us(int us) {
  const int64_t end = tov_test::monotonic_ns() + int64_t{us} * 1000;
  while (tov_test::monotonic_ns() < end) {
  }
}

// ---- taking and giving back -----------------------------------------------------------------

TEST_F(TovClaim, TakenByARenameAndGivenBackAsItWas) {
  const tov_pid_t *record = registered();
  const std::string file = file_of(*record), text = read_file(file);
  const struct stat before = status_of(file);
  const tov_claim_t claim = take(*record);
  ASSERT_NE(claim.number, 0u);
  EXPECT_EQ(claim.path, std::string(DIRECTORY) + "/.claim." + std::to_string(getpid()) + "." +
                            std::to_string(claim.number));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre(StartsWith(".claim.")));
  expect_same(status_of(claim.path), before);
  tov_claim_give_back(*record, claim, false);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
  expect_same(status_of(file), before);
  EXPECT_EQ(read_file(file), text);
}

TEST_F(TovClaim, FileThatStaysHasTwoNamesUntilItIsGivenBack) {
  const tov_pid_t *record = registered();
  const std::string file = file_of(*record), text = read_file(file);
  const struct stat before = status_of(file);
  const tov_claim_t claim = take(*record, STAYS);
  ASSERT_NE(claim.number, 0u);
  EXPECT_EQ(status_of(claim.path).st_ino, before.st_ino);
  EXPECT_EQ(status_of(file).st_ino, before.st_ino);
  tov_claim_give_back(*record, claim, STAYS);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
  expect_same(status_of(file), before);
  EXPECT_EQ(read_file(file), text);
}

TEST_F(TovClaim, WithoutAFileThereIsNothingToClaim) {
  const tov_pid_t *record = add(GONE, FOO);
  for (const bool stays : {false, true}) {
    const tov_claim_t claim = take(*record, stays);
    EXPECT_EQ(claim.number, 0u);
    EXPECT_STREQ(claim.path, "");
    EXPECT_TRUE(tov_claim_use(claim));
    tov_claim_give_back(*record, claim, stays);
    EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
  }
}

TEST_F(TovClaim, FileNameOfAnotherRecordIsNotClaimed) {
  const tov_pid_t *record = registered("/opt/foo -d");
  add(GONE, "/usr/sbin/foo -other");  // the same program name and id
  EXPECT_EQ(take(*record).number, 0u);
  EXPECT_EQ(take(*record, STAYS).number, 0u);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
}

TEST_F(TovClaim, OtherIdsProgramsAndDevicesHaveFilesOfTheirOwn) {
  const tov_pid_t *record = registered();
  add(GONE + 1, FOO);
  add(GONE, "/opt/bar -d");
  add(GONE, FOO, RESPAWN, 3);
  EXPECT_NE(take(*record).number, 0u);
}

TEST_F(TovClaim, EachHasANameOfItsOwn) {
  const tov_claim_t first = take(*registered());
  const tov_claim_t second = take(*registered(FOO, GONE + 1));
  EXPECT_NE(first.number, second.number);
  EXPECT_STRNE(first.path, second.path);
  EXPECT_TRUE(exists(first.path));
  EXPECT_TRUE(exists(second.path));
}

TEST_F(TovClaim, FileOfADeviceIsClaimedThere) {
  const tov_pid_t *record = add(GONE, FOO, RESPAWN, 4);
  write_file_of(*record);
  const tov_claim_t claim = take(*record);
  EXPECT_THAT(claim.path, StartsWith("/tmp/vsd/4/tov/db/.claim."));
  EXPECT_TRUE(exists(claim.path));
}

TEST_F(TovClaim, NamesOfProgramsAreNoClaims) {
  for (const char *name : {"foo.812", "claim.812", ".claim", ".claims.1.1", "foo.claim.1", ""})
    EXPECT_FALSE(tov_claim_is_name(name)) << name;
  EXPECT_TRUE(tov_claim_is_name(".claim.812.1"));
  EXPECT_TRUE(tov_claim_is_name(".claim.kept.812"));
  for (const char *name : {".claim.child.812", ".claim.new.812", ".claim."})
    EXPECT_FALSE(tov_claim_is_name(name)) << name;
}

TEST_F(TovClaim, ChildIsKnownByTheNameThatItGave) {
  EXPECT_EQ(tov_claim_child_of(".claim.child.812"), 812);
  for (const char *name : {".claim.812.1", ".claim.kept.812", "foo.812", ""}) {
    EXPECT_FALSE(tov_claim_is_used(name)) << name;
    EXPECT_EQ(tov_claim_child_of(name), 0) << name;
  }
  for (const char *name : {".claim.child.", ".claim.child.x", ".claim.child.0"}) {
    EXPECT_TRUE(tov_claim_is_used(name)) << name;
    EXPECT_EQ(tov_claim_child_of(name), 0) << name;
  }
}

// A child of a daemon that had our id may still be on its way to its claim.
TEST_F(TovClaim, NumbersDoNotBeginAtOneInEveryDaemon) {
  constexpr unsigned int SPAN_US = 600'000'000;  // of this program's life
  const tov_claim_t claim = take(*registered());
  const auto now_us = static_cast<unsigned int>(tov_clock_us());
  if (now_us < 2 * SPAN_US) GTEST_SKIP() << "the clock is near the numbers of all daemons";
  EXPECT_LT(now_us - claim.number, SPAN_US);
}

// ---- the child ------------------------------------------------------------------------------

TEST_F(TovClaimUse, ChildThatUsesItGoesOn) {
  const tov_claim_t claim = take(*registered());
  EXPECT_EQ(status_of_use(claim), 42);
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
  EXPECT_EQ(status_of_use(claim), 0) << "a second time";
}

TEST_F(TovClaimUse, OfAFileThatStaysGivesTheClaimTheNameOfTheChild) {
  const tov_pid_t *record = registered(FOO);
  const struct stat before = status_of(file_of(*record));
  const tov_claim_t claim = take(*record, STAYS);
  const pid_t child = tov_test::fork_child();
  if (child == 0) _exit(tov_claim_use(claim) ? 42 : 0);
  EXPECT_EQ(WEXITSTATUS(tov_test::bury_child(child)), 42);
  const std::string name = ".claim.child." + std::to_string(child);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre(name, "foo." + std::to_string(GONE)));
  EXPECT_EQ(status_of(DIRECTORY + ("/" + name)).st_ino, before.st_ino);
  EXPECT_EQ(status_of_use(claim), 0) << "a second time";
  tov_claim_drop(*record, child + 1);
  tov_claim_drop(*record, 0);
  EXPECT_THAT(names_in(DIRECTORY), testing::Contains(name));
  tov_claim_drop(*record, child);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
}

TEST_F(TovClaimUse, NameThatSomebodyElseHasTakenCostsTheNameAlone) {
  const tov_claim_t claim = take(*registered(), STAYS);
  const int status = tov_test::status_in_child([&] {
    const std::string taken = DIRECTORY + ("/.claim.child." + std::to_string(getpid()));
    if (mkdir(taken.c_str(), 0700) < 0) return 1;
    const bool used = tov_claim_use(claim);
    rmdir(taken.c_str());
    return used ? 42 : 0;
  });
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
}

TEST_F(TovClaimUse, WhatCannotBeRemovedIsNotLost) {
  const tov_claim_t claim = take(*registered());
  EXPECT_EQ(WEXITSTATUS(tov_test::status_in_child([&] {
              refuse({SYS_unlink, SYS_unlinkat}, EIO);
              return tov_claim_use(claim) ? 42 : 0;
            })),
            42);
}

TEST_F(TovClaimUse, ProgramIsExecutedByWhoUsedTheClaim) {
  const Program program("used");
  const tov_claim_t claim = take(*registered());
  EXPECT_EQ(status_of_run(program, claim), 42);
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_FALSE(exists(claim.path));
}

TEST_F(TovClaimUse, ChildThatFindsItGoneLeavesWithZeroAndStartsNothing) {
  const Program program("lost");
  tov_test::write_file(TOV_FORK_FILE, "aaa");
  const tov_claim_t claim = take(*registered());
  ASSERT_EQ(unlink(claim.path), 0);
  EXPECT_EQ(status_of_run(program, claim), 0);
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_EQ(read_file(TOV_FORK_FILE), "aaa") << "a later step was made";
}

TEST_F(TovClaimUse, ForkClaimsTheStartAndTheChildUsesIt) {
  const Program program("forked");
  tov_pid_t *record = registered(program.path);
  const pid_t child = fork_task(record);
  ASSERT_GT(child, 0);
  EXPECT_NE(record->claim, 0u);
  EXPECT_EQ(program.birth().pid, child);
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovClaimUse, ForkForAFileThatStaysLeavesTheFile) {
  const Program program("kept");
  tov_pid_t *record = registered(program.path);
  const pid_t child = fork_task(record, STAYS);
  EXPECT_NE(record->claim, 0u);
  EXPECT_EQ(program.birth().pid, child);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre(".claim.child." + std::to_string(child),
                                               program.name + "." + std::to_string(GONE)));
}

TEST_F(TovClaimUse, ForkWithoutAFileStartsAllTheSame) {
  const Program program("fileless");
  tov_pid_t *record = add(GONE, program.path);
  record->claim = 7;  // of the start before
  const pid_t child = fork_task(record);
  EXPECT_EQ(record->claim, 0u);
  EXPECT_EQ(program.birth().pid, child);
}

TEST_F(TovClaimUse, ForkThatFailsLeavesTheFileAsItWas) {
  tov_pid_t *record = registered();
  const std::string file = file_of(*record);
  const struct stat before = status_of(file);
  for (const bool stays : {false, true}) {
    tov_test::in_child([&] {
      refuse({SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, EAGAIN);
      EXPECT_EQ(fork_task(record, stays), -EAGAIN);
      EXPECT_EQ(record->claim, 0u);
    });
    EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
    expect_same(status_of(file), before);
  }
}

// ---- the child's end ------------------------------------------------------------------------

TEST_F(TovClaim, WhatADeadChildHasLeftIsDropped) {
  for (const bool stays : {false, true}) {
    tov_pid_t *record = registered(FOO, GONE + stays);
    note(record, take(*record, stays));
    const pid_t child = tov_test::fork_child();
    if (child == 0) {
      pause();
      _exit(1);
    }
    tov_test::end_child(child);  // before its first act
    EXPECT_THAT(names_in(DIRECTORY), testing::Contains(StartsWith(".claim.")));
    tov_claim_drop(*record, 0);
    EXPECT_THAT(names_in(DIRECTORY), testing::Not(testing::Contains(StartsWith(".claim."))));
    EXPECT_EQ(exists(file_of(*record)), stays);
  }
}

TEST_F(TovClaim, DroppedWhileTheChildIsOnItsWayItIsLost) {
  tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record, STAYS);
  note(record, claim);
  tov_claim_drop(*record, 0);
  EXPECT_EQ(status_of_use(claim), 0);
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
}

TEST_F(TovClaim, OnlyTheRecordsOwnIsDropped) {
  tov_pid_t *without = add(GONE + 1, "/opt/bar");
  tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record);
  tov_claim_drop(*without, 0);
  EXPECT_TRUE(exists(claim.path));
  note(record, claim);
  ASSERT_EQ(status_of_use(claim), 42);
  write_file_of(*record);  // somebody's new registration
  tov_claim_drop(*record, 0);
  EXPECT_TRUE(exists(file_of(*record)));
}

// ---- the next daemon ------------------------------------------------------------------------

TEST_F(TovClaimSettle, FileIsBackUnderItsName) {
  const tov_pid_t *record = registered();
  const std::string file = file_of(*record), text = read_file(file);
  const struct stat before = status_of(file);
  const tov_claim_t claim = take(*record);
  EXPECT_TRUE(tov_claim_settle(claim.path, *record));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
  expect_same(status_of(file), before);
  EXPECT_EQ(read_file(file), text);
  EXPECT_EQ(status_of_use(claim), 0) << "of the child that comes late";
}

TEST_F(TovClaimSettle, ChildThatWasFasterHasStarted) {
  const tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record);
  ASSERT_EQ(status_of_use(claim), 42);
  EXPECT_FALSE(tov_claim_settle(claim.path, *record));
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovClaimSettle, ChildThatComesInBetweenHasStartedAndLeavesNoFile) {
  const tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record);
  bool seen = false;
  after_link = [&] {
    seen = exists(file_of(*record));
    EXPECT_TRUE(tov_claim_use(claim));
  };
  EXPECT_FALSE(tov_claim_settle(claim.path, *record));
  EXPECT_TRUE(seen);
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovClaimSettle, BothNamesOfOneFileBecomeTheRegistration) {
  const tov_pid_t *record = registered();
  const std::string file = file_of(*record);
  const struct stat before = status_of(file);
  const tov_claim_t claim = take(*record, STAYS);
  EXPECT_TRUE(tov_claim_settle(claim.path, *record));
  EXPECT_THAT(names_in(DIRECTORY), ElementsAre("foo." + std::to_string(GONE)));
  expect_same(status_of(file), before);
}

TEST_F(TovClaimSettle, FileThatStayedIsNotTheChildsToTake) {
  const tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record, STAYS);
  ASSERT_EQ(status_of_use(claim), 42);
  EXPECT_FALSE(tov_claim_settle(claim.path, *record));
  EXPECT_THAT(names_in(DIRECTORY),
              ElementsAre(StartsWith(".claim.child."), "foo." + std::to_string(GONE)));
}

TEST_F(TovClaimSettle, WhatCannotBeRemovedIsNotUsed) {
  const tov_pid_t *record = registered();
  const tov_claim_t claim = take(*record);
  tov_test::in_child([&] {
    refuse({SYS_unlink, SYS_unlinkat}, EIO);
    EXPECT_TRUE(tov_claim_settle(claim.path, *record));
  });
  EXPECT_TRUE(exists(file_of(*record)));
}

// A file system without room for a second name.
TEST_F(TovClaimSettle, FileThatCannotBeLinkedIsNotLost) {
  const tov_pid_t *record = registered();
  const std::string text = read_file(file_of(*record));
  const tov_claim_t claim = take(*record);
  link_error = ENOSPC;
  EXPECT_TRUE(tov_claim_settle(claim.path, *record));
  EXPECT_EQ(read_file(file_of(*record)), text);
}

TEST_F(TovClaimSettle, OneOfTwoAtTheSameTimeHasIt) {
  static constexpr int ROUNDS = 200;
  for (const bool stays : {false, true}) {
    for (int round = 0; round < ROUNDS; round++) {
      tov_pid_t *record = registered();
      const tov_claim_t claim = take(*record, stays);
      Start start;
      const pid_t child = tov_test::fork_child();
      if (child == 0) {
        start.wait();
        spin_us(round % 20);
        _exit(tov_claim_use(claim) ? 42 : 0);
      }
      start.give();
      spin_us(round % 7 * 3);
      const bool settled = tov_claim_settle(claim.path, *record);
      const int status = tov_test::bury_child(child);
      ASSERT_TRUE(WIFEXITED(status));
      ASSERT_EQ(WEXITSTATUS(status), settled ? 0 : 42) << round;
      ASSERT_FALSE(exists(claim.path));
      ASSERT_EQ(exists(file_of(*record)), settled || stays) << round;
      tov_test::clear_path(file_of(*record));
      tov_claim_end_child(0, child);
      ASSERT_THAT(names_in(DIRECTORY), IsEmpty()) << round;
      empty_registries();
    }
  }
}
