// The registry after a restart of the daemon.
#include "core/policy/rebuild.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/tov_pidfile.h"
#include "core/policy/waits.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/claim.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"
#include "util/kernel_time.h"
#include "util/procfs.h"

namespace fs = std::filesystem;

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::names_in;
using tov_test::Program;
using tov_test::TemporaryFile;
using tov_test::write_file;

static std::function<void()> before_link;

// Takes the place of link(2) in this program: what happens right before it.
extern "C" int link(const char *from, const char *to) noexcept {
  if (before_link) std::exchange(before_link, nullptr)();
  return static_cast<int>(syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

namespace {

constexpr char DIRECTORY[] = "/tmp/vsd/0/tov/db";

class TovRebuildChains : public tov_test::World {
 protected:
  // Writes a registration file; returns its path.
  static std::string leave(pid_t pid, int action, const std::string &command, int device = 0) {
    const std::string program = command.substr(0, command.find(' '));
    std::string path = "/tmp/vsd/" + std::to_string(device) + "/tov/db/" +
                       program.substr(program.rfind('/') + 1) + "." + std::to_string(pid);
    write_file(path, std::to_string(pid) + "\n" + std::to_string(action) + "\n" + command);
    return path;
  }
  static void rebuild() { EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0); }
};

}  // namespace

TEST_F(TovRebuildChains, NoDirectoriesMakeAnEmptyRegistry) {
  tov_test::clear_path("/tmp/vsd");
  rebuild();
  EXPECT_EQ(count(), 0);
}

TEST_F(TovRebuildChains, LivingProcessStaysUnderItsId) {
  const Program program("living");
  const pid_t pid = tov_test::start(program.path + " -a b");
  program.birth();
  const std::string file = leave(pid, SHELL_RESTART, program.path + " -a b", 4);
  const auto written = fs::last_write_time(file);
  rebuild();
  const tov_pid_t *record = find(pid);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->vsd_id, 4);
  EXPECT_EQ(record->action, SHELL_RESTART);
  EXPECT_EQ(record->process, program.path + " -a b");
  EXPECT_EQ(record->pathname, program.path + " -a b");
  EXPECT_EQ(record->alarm_wait_flag, 0);
  EXPECT_EQ(record->restart_time, 0);
  EXPECT_EQ(record->flags, 0);
  EXPECT_EQ(record->count, 0);
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(fs::last_write_time(file), written);
  EXPECT_EQ(program.births().size(), 1u);
}

// The watcher and the server do not stand yet: a start-up that waited for forks would never end.
TEST_F(TovRebuildChains, ForksThatFailDoNotHoldUpTheStart) {
  leave(GONE, RESPAWN, "/opt/first");
  leave(GONE + 1, RESPAWN, "/opt/second");
  tov_test::in_child([] {
    tov_test::refuse({SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, EAGAIN);
    tov_waits_leave_to_handler(true);
    rebuild();
    EXPECT_EQ(record_of(tov_chains, GONE).start.wait, TOV_WAIT_FORK);
    EXPECT_EQ(record_of(tov_chains, GONE + 1).start.wait, TOV_WAIT_FORK);
    EXPECT_EQ(tov_test::read_file(TOV_FORK_FILE), "a");
  });
  EXPECT_TRUE(exists(std::string(DIRECTORY) + "/first." + std::to_string(GONE)));
}

TEST_F(TovRebuildChains, DeadProcessIsStartedAgain) {
  const Program program("dead");
  const std::string file = leave(GONE, RESPAWN, program.path + " -a");
  const std::string said = diagnostics([] { rebuild(); });
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " -a");
  EXPECT_EQ(find(GONE), nullptr);
  ASSERT_NE(find(birth.pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  const std::string new_id = std::to_string(birth.pid);
  EXPECT_THAT(said, HasSubstr("]pid (5000000) is not exist\n"));
  EXPECT_THAT(said, HasSubstr("]pid (" + new_id + ") restart ret = " + new_id + "\n"));
  EXPECT_THAT(notices(), IsEmpty());  // nothing is announced
}

TEST_F(TovRebuildChains, DeadProcessIsStartedWhateverItsAction) {
  for (const int action : {int{NORMAL_EXIT}, int{IGNORE_EXIT}, 0, 9}) {
    const Program program("action" + std::to_string(action));
    leave(GONE + action, action, program.path);
    rebuild();
    const tov_pid_t *record = find(program.birth().pid);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->action, action);
  }
}

TEST_F(TovRebuildChains, ScriptTaskIsStartedByTheScriptOfItsCommandLine) {
  const Program program("scripted");
  const TemporaryFile script("/etc/cmdmap/" + program.name + ".sh",
                             "exec " + program.path + " \"$@\"\n");
  leave(GONE, SHELL_RESTART, program.path + " -a");
  const std::string said = diagnostics([] { rebuild(); });
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " start");
  const std::string new_id = std::to_string(birth.pid);
  EXPECT_THAT(said, HasSubstr("]pid (" + new_id + ") shell restart ret = " + new_id + "\n"));
}

TEST_F(TovRebuildChains, LockedFileDefersTheStart) {
  const Program program("locked");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const auto holder = holder_of(file);
  rebuild();
  EXPECT_NE(find(GONE), nullptr);
  EXPECT_NE(find(GONE, tov_chains_delay), nullptr);
  EXPECT_TRUE(exists(file));
  EXPECT_THAT(program.births(), IsEmpty());
}

TEST_F(TovRebuildChains, SixteenDevicesFromZeroOn) {
  const Program program("devices");
  const pid_t pid = tov_test::start(program.path);
  fs::create_directories("/tmp/vsd/16/tov/db");
  for (int device = 0; device <= 16; device++)
    leave(pid, RESPAWN, program.path + " -" + std::to_string(device), device);
  rebuild();
  EXPECT_EQ(count(), 16);
  EXPECT_EQ(find(pid)->vsd_id, 15);  // the last one read
  tov_chains_guard_t guard(tov_chains);
  EXPECT_EQ(tov_get_oldest_node(pid)->vsd_id, 0);
}

TEST_F(TovRebuildChains, UnreadableFilesAreToldAndLeft) {
  const std::string dir = "/tmp/vsd/0/tov/db/";
  write_file(dir + "words", "no numbers here");
  write_file(dir + "empty", "");
  write_file(dir + "pathless", "41\n2\nword");
  write_file(dir + "everybody", "-1\n2\n/opt/a");
  fs::create_directory(dir + "directory");
  ASSERT_EQ(mkfifo((dir + "fifo").c_str(), 0666), 0);
  ASSERT_EQ(symlink((dir + "words").c_str(), (dir + "link").c_str()), 0);
  const std::string said = diagnostics([] { rebuild(); });
  EXPECT_EQ(count(), 0);
  for (const char *name :
       {"words", "empty", "pathless", "everybody", "directory", "fifo", "link"}) {
    EXPECT_THAT(said, HasSubstr("]tov_read_pidfile " + std::string(name) + " fail\n"));
    EXPECT_TRUE(fs::exists(fs::symlink_status(dir + name))) << name;
  }
}

TEST_F(TovRebuildChains, TrailingBlanksAreNoPartOfTheCommandLine) {
  const Program program("blanks");
  const pid_t pid = tov_test::start(program.path);
  leave(pid, RESPAWN, program.path + " -a \t ");
  rebuild();
  EXPECT_EQ(find(pid)->process, program.path + " -a");
}

TEST_F(TovRebuildChains, LongCommandLineComesBackCut) {
  const Program program("long");
  const pid_t pid = tov_test::start(program.path);
  const std::string command = program.path + " " + std::string(400, 'x');
  leave(pid, RESPAWN, command);
  rebuild();
  const std::string process = find(pid)->process;
  EXPECT_LT(process.size(), 256u);
  EXPECT_TRUE(command.starts_with(process));
}

TEST_F(TovRebuildChains, NewProcessIsOrdinaryForTheLowMemoryKiller) {
  const Program program("score");
  leave(GONE, RESPAWN, program.path);
  write_file("/proc/self/oom_score_adj", "500");
  rebuild();
  write_file("/proc/self/oom_score_adj", "0");
  const pid_t pid = program.birth().pid;
  EXPECT_EQ(tov_test::read_file("/proc/" + std::to_string(pid) + "/oom_score_adj"), "0\n");
}

// The record is kept, and the sweep will report it; so is its file, from which a next daemon would
// try again. The program is none at all, because one that is being executed shows its executable
// alone for a moment, and the search would find that.
TEST_F(TovRebuildChains, StartThatLedNowhereKeepsTheRecordAndItsFile) {
  const std::string command = "/opt/nowhere exit=0";
  const std::string file = leave(GONE, RESPAWN, command);
  write_file(TOV_THIRD_PART_LIST, command + " TOV_RESTART\n");
  rebuild();
  ASSERT_NE(find(GONE), nullptr);
  EXPECT_EQ(find(GONE)->process, command);
  EXPECT_EQ(find(GONE)->start.wait, TOV_WAIT_NONE);
  EXPECT_TRUE(exists(file));
  EXPECT_THAT(names_in(DIRECTORY), testing::SizeIs(1));
}

// ---- starts that the last daemon began ------------------------------------------------------

namespace {

class TovRebuildClaims : public TovRebuildChains {
 protected:
  void TearDown() override {
    before_link = nullptr;
    TovRebuildChains::TearDown();
  }

  // What a daemon that is gone called its first claim.
  static constexpr char CLAIM[] = "/tmp/vsd/0/tov/db/.claim.4999999.1";

  // A start whose child has not used its claim yet.
  static tov_claim_t leave_claim(pid_t pid, const std::string &command) {
    fs::rename(leave(pid, RESPAWN, command), CLAIM);
    tov_claim_t claim;
    claim.number = 1;
    (void)snprintf(claim.path, sizeof claim.path, "%s", CLAIM);
    return claim;
  }
};

}  // namespace

TEST_F(TovRebuildClaims, ClaimAloneIsStartedOnce) {
  const Program program("claimed");
  const tov_claim_t claim = leave_claim(GONE, program.path + " -a");
  rebuild();
  const Birth birth = program.birth();
  EXPECT_EQ(birth.argv, program.path + " -a");
  EXPECT_EQ(count(), 1);
  EXPECT_NE(find(birth.pid), nullptr);
  EXPECT_FALSE(tov_claim_use(claim));
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

// Whichever of the two the directory shows first.
TEST_F(TovRebuildClaims, ClaimAndFileOfOneProcessAreOneRecordStartedOnce) {
  for (const bool claim_is_older : {false, true}) {
    const Program program("both" + std::to_string(claim_is_older));
    const std::string file = leave(GONE, RESPAWN, program.path);
    fs::create_hard_link(file, CLAIM);
    if (claim_is_older) {
      fs::remove(file);
      fs::create_hard_link(CLAIM, file);
    }
    rebuild();
    EXPECT_EQ(count(), 1) << claim_is_older;
    EXPECT_NE(find(program.birth().pid), nullptr);
    EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
    EXPECT_EQ(program.births().size(), 1u);
    empty_registries();
  }
}

TEST_F(TovRebuildClaims, ClaimUsedBetweenListingAndSettlingStartsNothing) {
  const Program program("used");
  const tov_claim_t claim = leave_claim(GONE, program.path);
  bool used = false;
  before_link = [&] { used = tov_claim_use(claim); };
  rebuild();
  EXPECT_TRUE(used);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovRebuildClaims, ClaimOfALivingProcessIsItsRegistrationAgain) {
  const Program program("lives");
  const pid_t pid = tov_test::start(program.path);
  leave_claim(pid, program.path);
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + std::to_string(pid)));
}

TEST_F(TovRebuildClaims, UnreadableClaimIsLeft) {
  write_file(CLAIM, "no numbers here");
  const std::string said = diagnostics([] { rebuild(); });
  EXPECT_EQ(count(), 0);
  EXPECT_TRUE(exists(CLAIM));
  EXPECT_THAT(said, HasSubstr("]tov_read_pidfile .claim.4999999.1 fail\n"));
}

// A child of a daemon that was killed, and the next daemon: exactly one of them starts the task.
TEST_F(TovRebuildClaims, ChildAndRebuildAtTheSameTimeMakeOneCopy) {
  static constexpr int ROUNDS = 200;
  enum { TOGETHER, CHILD_FIRST, REBUILD_FIRST, ORDERS };
  const Program program("race");
  auto *go = static_cast<std::atomic<bool> *>(mmap(nullptr, sizeof(std::atomic<bool>),
                                                   PROT_READ | PROT_WRITE,
                                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  size_t started_here = 0, started_there = 0;
  for (int round = 0; round < ROUNDS; round++) {
    // A few of the rounds have a certain end, so that neither is never seen.
    const int order = round < 10 ? CHILD_FIRST : round < 20 ? REBUILD_FIRST : TOGETHER;
    const tov_claim_t claim =
        leave_claim(GONE + round, program.path + " exit=0 round=" + std::to_string(round));
    *go = order == CHILD_FIRST;
    const pid_t child = tov_test::fork_child();
    if (child == 0) {
      while (!*go) {
      }
      const int64_t end = tov_test::monotonic_ns() + round % 50 * int64_t{4000};
      while (order == TOGETHER && tov_test::monotonic_ns() < end) {
      }
      _exit(tov_claim_use(claim) ? 42 : 0);
    }
    int status = order == CHILD_FIRST ? tov_test::bury_child(child) : 0;
    if (order == TOGETHER) *go = true;
    rebuild();
    *go = true;
    if (order != CHILD_FIRST) status = tov_test::bury_child(child);
    ASSERT_TRUE(WIFEXITED(status));
    const bool there = WEXITSTATUS(status) == 42;
    ASSERT_EQ(there + count(), 1) << round << " " << there;
    started_there += there;
    started_here += !there;
    if (!there) program.birth(started_here);
    ASSERT_THAT(names_in(DIRECTORY), IsEmpty()) << round;
    empty_registries();
  }
  munmap(go, sizeof *go);
  EXPECT_EQ(program.births().size(), started_here);
  EXPECT_GE(started_here, 10u);
  EXPECT_GE(started_there, 10u);
  RecordProperty("started_by_the_child", static_cast<int>(started_there));
}

// ---- files that the last daemon was about to write ------------------------------------------

TEST_F(TovRebuildClaims, KeptFileThatHasNoNameYetIsARegistration) {
  const Program program("kept");
  fs::rename(leave(GONE, RESPAWN, program.path), std::string(DIRECTORY) + "/.claim.kept.4999999");
  rebuild();
  EXPECT_NE(find(program.birth().pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovRebuildClaims, KeptFileThatIsNotWrittenYetGoes) {
  write_file(std::string(DIRECTORY) + "/.claim.kept.4999999", "");
  rebuild();
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
}

TEST_F(TovRebuildClaims, NewFileBesideTheOldOneSaysNothing) {
  const Program program("renewed");
  const pid_t pid = tov_test::start(program.path);
  fs::rename(leave(GONE, RESPAWN, program.path), std::string(DIRECTORY) + "/.claim.new.4999999");
  leave(pid, RESPAWN, program.path);
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + std::to_string(pid)));
}

TEST_F(TovRebuildClaims, NewFileUnderTheOldNameIsTheLivingProcesses) {
  const Program program("successor");
  const pid_t pid = tov_test::start(program.path);
  const std::string old = std::string(DIRECTORY) + "/" + program.name + "." + std::to_string(GONE);
  fs::rename(leave(pid, RESPAWN, program.path), old);
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + std::to_string(pid)));
}

// ---- children on their way ------------------------------------------------------------------

namespace {

// A listed program whose child has used its claim and not executed it yet.
class TovRebuildChildren : public TovRebuildChains {
 protected:
  static std::string marker_of(pid_t child) {
    return std::string(DIRECTORY) + "/.claim.child." + std::to_string(child);
  }

  // Does in a child of ours what that child does after the claim's use.
  //   id  of the child; 0: any
  static pid_t begin(const std::string &command, const std::function<void()> &before_exec,
                     pid_t id = 0) {
    const pid_t child = id != 0 ? tov_test::fork_child_as(id) : tov_test::fork_child();
    if (child != 0) return child;
    before_exec();
    setsid();
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(3);
  }
};

}  // namespace

TEST_F(TovRebuildChildren, OneThatIsOnItsWayIsWaitedFor) {
  const Program program("onitsway");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t child = begin("exec " + program.path, [] { std::this_thread::sleep_for(400ms); });
  fs::create_hard_link(file, marker_of(child));
  rebuild();
  EXPECT_EQ(program.birth().pid, child);
  EXPECT_NE(find(child), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_THAT(names_in(DIRECTORY),
              testing::ElementsAre(program.name + "." + std::to_string(child)));
}

TEST_F(TovRebuildChildren, OfOneThatHasEndedTheTaskIsStartedAgain) {
  const Program program("ended");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t child = begin(program.path, [] { _exit(0); });
  tov_test::bury_child(child);
  fs::create_hard_link(file, marker_of(child));
  rebuild();
  const Birth birth = program.birth();
  EXPECT_NE(find(birth.pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(names_in(DIRECTORY),
              testing::ElementsAre(program.name + "." + std::to_string(birth.pid)));
}

// As a start script does: it ends, and what it has started leads no session.
TEST_F(TovRebuildChildren, WhatOneThatHasEndedLeavesBehindIsFound) {
  const Program program("left");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t child = begin("sh -c 'sleep 0.4; exec " + program.path + "' & exit 0", [] {});
  fs::create_hard_link(file, marker_of(child));
  EXPECT_EQ(tov_test::bury_child(child), 0);
  rebuild();
  const Birth birth = program.birth();
  EXPECT_NE(find(birth.pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(program.births().size(), 1u);
  EXPECT_THAT(names_in(DIRECTORY),
              testing::ElementsAre(program.name + "." + std::to_string(birth.pid)));
}

TEST_F(TovRebuildChildren, OneThatIsRegisteredIsNotWaitedFor) {
  const Program program("known");
  const std::string file = leave(GONE, RESPAWN, program.path);
  const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const pid_t child = begin("exec sleep 100", [] {});
  fs::create_hard_link(file, marker_of(child));
  leave(child, RESPAWN, "/opt/other");
  rebuild();
  EXPECT_NE(find(program.birth().pid), nullptr);
  EXPECT_STREQ(find(child)->process, "/opt/other");
  EXPECT_EQ(count(), 2);
  EXPECT_FALSE(exists(marker_of(child)));
}

// Nobody served its request: the last daemon was gone.
TEST_F(TovRebuildChildren, OfOneThatHasRegisteredItselfNothingElseIsStarted) {
  for (const bool lives : {true, false}) {
    const Program program(lives ? "itself" : "itselfgone");
    const std::string file = leave(GONE, RESPAWN, program.path);
    const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
    const pid_t child = begin("exec " + program.path, [] {});
    program.birth();
    if (!lives) tov_test::end_child(child);
    fs::create_hard_link(file, marker_of(child));
    leave(child, RESPAWN, program.path);
    rebuild();
    const Birth birth = program.birth(lives ? 1 : 2);
    EXPECT_NE(find(birth.pid), nullptr) << lives;
    EXPECT_EQ(count(), 1) << lives;
    EXPECT_EQ(program.births().size(), lives ? 1u : 2u);
    EXPECT_THAT(names_in(DIRECTORY),
                testing::ElementsAre(program.name + "." + std::to_string(birth.pid)));
    empty_registries();
    fs::remove(DIRECTORY + ("/" + program.name + "." + std::to_string(birth.pid)));
  }
}

TEST_F(TovRebuildChildren, StrangerThatWasGivenTheIdIsNotWaitedFor) {
  const Program program("stranger");
  const pid_t id = begin("", [] { _exit(0); });
  tov_test::bury_child(id);
  const std::string file = leave(GONE, RESPAWN, program.path);
  const TemporaryFile list(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  fs::create_hard_link(file, marker_of(id));
  std::this_thread::sleep_for(50ms);
  const pid_t stranger = begin(
      "exec sleep 100", [] {}, id);
  ASSERT_EQ(stranger, id);
  rebuild();
  const Birth birth = program.birth();
  EXPECT_NE(find(birth.pid), nullptr);
  EXPECT_EQ(find(id), nullptr);
  EXPECT_TRUE(tov_test::process_lives(id));
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildChildren, OneWhoseTaskWasWithdrawnIsForgotten) {
  const Program program("withdrawn");
  const pid_t child = begin("exec sleep 100", [] {});
  fs::rename(leave(GONE, RESPAWN, program.path), marker_of(child));
  rebuild();
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(names_in(DIRECTORY), IsEmpty());
  EXPECT_TRUE(tov_test::process_lives(child));
}

// ---- successors -----------------------------------------------------------------------------

namespace {

// How a process was started that runs a dead one's command line.
struct way_s {
  bool leads = true;  // a session of its own
  uid_t uid = 0;
  std::vector<gid_t> groups = {};
};

class TovRebuildSuccessor : public TovRebuildChains {
 protected:
  // Returns when its command line shows.
  static pid_t run(const std::string &command, const way_s &way = {}) {
    const pid_t child = tov_test::fork_child();
    if (child == 0) {
      const std::string path = command.substr(0, command.find(' '));
      const std::string word = command.substr(command.find(' ') + 1);
      if (way.leads) setsid();
      if (setgroups(way.groups.size(), way.groups.data()) < 0) _exit(1);
      if (way.uid != 0 && setresuid(way.uid, way.uid, way.uid) < 0) _exit(2);
      execl(path.c_str(), path.c_str(), word.c_str(), nullptr);
      _exit(3);
    }
    if (!tov_test::wait_until([&] { return tov_test::cmdline_of(child) == command; },
                              tov_test::PATIENT_MS))
      throw std::runtime_error(command + " does not run");
    return child;
  }

  // Sets the time of a file so many milliseconds off the present.
  static void date(const std::string &file, int ms) {
    fs::last_write_time(file, fs::file_time_type::clock::now() + std::chrono::milliseconds(ms));
  }

  // Sets the time of a file so many milliseconds off the start of a process, as the kernel shows
  // that. Of the two clocks each is read at the same time, or once more.
  static void date_by_start(const std::string &file, pid_t pid, int ms) {
    static constexpr int64_t AT_ONCE_US = 200;
    tov_stat_t stat;
    ASSERT_EQ(tov_read_stat(pid, &stat), 0);
    int64_t before_us, after_us;
    fs::file_time_type now;
    do {
      before_us = tov_kernel_clock_us(CLOCK_BOOTTIME);
      now = fs::file_time_type::clock::now();
      after_us = tov_kernel_clock_us(CLOCK_BOOTTIME);
    } while (after_us - before_us > AT_ONCE_US);
    const std::chrono::microseconds age(before_us - tov_ticks_us(stat.started));
    fs::last_write_time(file, now - age + std::chrono::milliseconds(ms));
  }

  // One dead process, and one that was started in some other way than by the daemon.
  static void expect_refused(const Program &program, pid_t stranger) {
    rebuild();
    EXPECT_TRUE(tov_test::wait_until(
        [&] {
          for (const Birth &birth : program.births())
            if (birth.pid != stranger && find(birth.pid) != nullptr) return true;
          return false;
        },
        tov_test::PATIENT_MS))
        << "nothing was brought back";
    EXPECT_EQ(find(GONE), nullptr);
    EXPECT_TRUE(tov_test::process_lives(stranger));
  }
};

}  // namespace

TEST_F(TovRebuildSuccessor, IsAdoptedWithAFileOfItsOwn) {
  const Program program("heir");
  const std::string command = program.path + " -a";
  const std::string file = leave(GONE, SHELL_RESTART, command);
  const pid_t pid = run(command);
  program.birth();
  const std::string said = diagnostics([] { rebuild(); });
  ASSERT_NE(find(pid), nullptr);
  EXPECT_EQ(find(pid)->action, SHELL_RESTART);
  EXPECT_EQ(find(pid)->process, command);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(program.births().size(), 1u);
  const std::string id = std::to_string(pid);
  EXPECT_THAT(said, HasSubstr("]pid (5000000) is not exist, " + id + " runs in its place\n"));
  EXPECT_FALSE(exists(file));
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + id));
  EXPECT_EQ(tov_test::read_file(file_of(*find(pid))), id + "\n3\n" + command);
  EXPECT_FALSE(tov_db_is_own(0, pid, command.c_str()));
}

TEST_F(TovRebuildSuccessor, IsSupervisedAfterTheNextRebuild) {
  const Program program("grandson");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a");
  program.birth();
  rebuild();
  empty_registries();
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovRebuildSuccessor, IsAdoptedInItsDevice) {
  const Program program("tenant");
  const std::string file = leave(GONE, RESPAWN, program.path + " -a", 4);
  const pid_t pid = run(program.path + " -a", {.groups = {3400}});
  program.birth();
  rebuild();
  ASSERT_NE(find(pid), nullptr);
  EXPECT_EQ(find(pid)->vsd_id, 4);
  EXPECT_EQ(count(), 1);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(exists(file_of(*find(pid))));
  EXPECT_EQ(program.births().size(), 1u);
}

TEST_F(TovRebuildSuccessor, OfAClaimThatWasNotUsedIsAdopted) {
  const Program program("settled");
  const std::string file = leave(GONE, RESPAWN, program.path + " -a");
  fs::rename(file, std::string(DIRECTORY) + "/.claim.4999999.1");
  const pid_t pid = run(program.path + " -a");
  program.birth();
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + std::to_string(pid)));
}

// The kernel cuts the time of a start to 10 ms, so one right behind the writing looks older.
TEST_F(TovRebuildSuccessor, StartedInTheTickOfTheWritingIsAdopted) {
  const Program program("tick");
  const pid_t pid = run(program.path + " -a");
  program.birth();
  date_by_start(leave(GONE, RESPAWN, program.path + " -a"), pid, 5);
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildSuccessor, StartedInATickBeforeTheWritingIsRefused) {
  const Program program("before");
  const pid_t pid = run(program.path + " -a");
  date_by_start(leave(GONE, RESPAWN, program.path + " -a"), pid, 25);
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
}

TEST_F(TovRebuildSuccessor, MemberOfAnothersSessionIsRefused) {
  const Program program("member");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a", {.leads = false});
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildSuccessor, ProcessOfAnotherUserIsRefused) {
  const Program program("user");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a", {.uid = 1234});
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildSuccessor, RegisteredProcessIsRefused) {
  const Program program("registered");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a");
  const std::string file = leave(pid, RESPAWN, program.path + " -a");
  expect_refused(program, pid);
  EXPECT_NE(find(pid), nullptr);  // under its own record
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(count(), 2);
}

TEST_F(TovRebuildSuccessor, ProcessThatIsOlderThanTheFileIsRefused) {
  const Program program("elder");
  const pid_t pid = run(program.path + " -a");
  date(leave(GONE, RESPAWN, program.path + " -a"), 1000);
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildSuccessor, ProcessOfAnotherDeviceIsRefused) {
  const Program program("neighbour");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a", {.groups = {3400}});
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
  EXPECT_EQ(count(), 1);
}

TEST_F(TovRebuildSuccessor, ProcessWithOtherArgumentsIsRefused) {
  const Program program("cousin");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -ab");
  expect_refused(program, pid);
  EXPECT_EQ(find(pid), nullptr);
}

TEST_F(TovRebuildSuccessor, OneThatIsRefusedDoesNotHideTheNext) {
  const Program program("queue");
  leave(GONE, RESPAWN, program.path + " -a");
  const pid_t stranger = run(program.path + " -a", {.leads = false});
  const pid_t registered = run(program.path + " -a");
  leave(registered, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a");
  const pid_t other = run(program.path + " -a", {.uid = 1234});
  program.birth(3);
  rebuild();
  EXPECT_NE(find(pid), nullptr);
  EXPECT_NE(find(registered), nullptr);
  EXPECT_EQ(count(), 2);
  EXPECT_TRUE(tov_test::process_lives(stranger));
  EXPECT_TRUE(tov_test::process_lives(other));
}

TEST_F(TovRebuildSuccessor, OfTwoDeadIsAdoptedOnceAndTheOtherIsBroughtBack) {
  const Program program("twins");
  leave(GONE, RESPAWN, program.path + " -a");
  leave(GONE + 1, RESPAWN, program.path + " -a");
  const pid_t pid = run(program.path + " -a");
  program.birth();
  rebuild();
  program.birth(2);
  EXPECT_EQ(count(), 2);
  EXPECT_NE(find(pid), nullptr);
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_EQ(find(GONE + 1), nullptr);
  size_t supervised = 0;
  for (const Birth &birth : program.births())
    supervised += find(birth.pid) != nullptr;
  EXPECT_EQ(supervised, 2u);
  EXPECT_EQ(program.births().size(), 2u);
  EXPECT_THAT(names_in(DIRECTORY), testing::ElementsAre(program.name + "." + std::to_string(pid)));
}
