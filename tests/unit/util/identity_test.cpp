// Which process an id stands for, and whether it still lives: five answers, and none by ignorance.
#include "util/identity.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;
using tov_test::kernel_s;

static constexpr pid_t ID = 4711;
static constexpr int64_t US_PER_MS = 1000;

// What leaves every question open.
static constexpr int ignorance[] = {EMFILE, ENFILE, ENOMEM, EACCES, EPERM, EIO, ELOOP, ENOTDIR};

namespace {

class TovIdentity : public tov_test::Simulated {
 protected:
  static constexpr tov_identity_t SOMEBODY{1, 2, 3, 4, 5};
  static constexpr tov_identity_t NOBODY{TOV_NEVER_STARTED, 0, 0, 0, 0};

  // Of a process that is there.
  static tov_identity_t taken(pid_t pid) {
    tov_identity_t identity = SOMEBODY;
    EXPECT_EQ(tov_identity_take(pid, &identity), 0);
    return identity;
  }
  static std::string text_of(const tov_identity_t &identity) {
    return std::to_string(identity.started) + " " + std::to_string(identity.stack) + " " +
           std::to_string(identity.exe_dev) + " " + std::to_string(identity.exe_ino);
  }
  // A child of ours that has ended and is not reaped.
  static pid_t zombie() {
    const pid_t pid = kernel().fork();
    kernel().end(pid);
    return pid;
  }
  // A process whose first thread has ended.
  static pid_t leaderless(pid_t *worker) {
    const pid_t pid = kernel().start({"/opt/a"});
    *worker = kernel().start_thread(pid);
    kernel().end_thread(pid);
    return pid;
  }
  static pid_t leaderless() {
    pid_t worker = 0;
    return leaderless(&worker);
  }

  // Lets each call of a question fail in turn, with what leaves it open.
  template <typename Question, typename Judge>
  static void each_call_fails(Question question, Judge judge) {
    const int before = kernel().calls();
    question();
    const int calls = kernel().calls() - before;
    ASSERT_GE(calls, 3);  // open, read, close
    const size_t open_before = kernel().descriptors();
    for (int nth = 1; nth <= calls; nth++) {
      for (const int error : ignorance) {
        SCOPED_TRACE("call " + std::to_string(nth) + " of " + std::to_string(calls) +
                     " fails with " + std::to_string(error));
        kernel().fail_any(nth, error);
        judge();
        EXPECT_EQ(kernel().descriptors(), open_before);
      }
    }
  }
};

}  // namespace

// ---- who has an id --------------------------------------------------------------------------

TEST_F(TovIdentity, IsStartStackAndExecutable) {
  const pid_t pid = kernel().start({"/opt/a", "-d"});
  const tov_test::process_s &process = kernel().process(pid);
  const tov_identity_t identity = taken(pid);
  EXPECT_EQ(identity.started, process.started);
  EXPECT_EQ(identity.stack, process.stack);
  EXPECT_EQ(identity.exe_dev, process.exe_file->device);
  EXPECT_EQ(identity.exe_ino, process.exe_file->number);
  EXPECT_NE(identity.exe_ino, 0u);
}

TEST_F(TovIdentity, TitleAndReplacedOrRemovedExecutableAreNoPartOfIt) {
  const pid_t pid = kernel().start({"/opt/a", "-d"});
  const std::string before = text_of(taken(pid));
  kernel().set_title(pid, {"a: idle"});
  kernel().replace_binary("/opt/a");
  EXPECT_EQ(text_of(taken(pid)), before);
  kernel().remove_binary("/opt/a");
  EXPECT_EQ(text_of(taken(pid)), before);
}

TEST_F(TovIdentity, NobodysIsOneThatNoProcessHas) {
  for (const pid_t pid : {ID, zombie(), pid_t{0}, pid_t{-1}, pid_t{INT_MIN}}) {
    if (kernel().has(pid)) kernel().reap(pid);
    tov_identity_t identity = SOMEBODY;
    EXPECT_EQ(tov_identity_take(pid, &identity), -ESRCH) << pid;
    EXPECT_EQ(text_of(identity), text_of(NOBODY)) << pid;
  }
}

TEST_F(TovIdentity, WhatTheKernelHidesIsNotKnown) {
  const pid_t first = leaderless();
  EXPECT_EQ(text_of(taken(first)), std::to_string(kernel().process(first).started) + " 0 0 0");
  const pid_t kernel_thread = kernel().start({});
  EXPECT_EQ(text_of(taken(kernel_thread)),
            std::to_string(kernel().process(kernel_thread).started) + " 0 0 0");
}

TEST_F(TovIdentity, OfAThreadIsItsOwnStart) {
  const pid_t pid = kernel().start({"/opt/a"});
  kernel().pass(50 * US_PER_MS);
  const pid_t thread = kernel().start_thread(pid);
  EXPECT_EQ(taken(thread).started, kernel().process(thread).started);
  EXPECT_NE(taken(thread).started, taken(pid).started);
}

TEST_F(TovIdentity, ThatCannotBeReadIsLeftAsItWas) {
  tov_identity_t identity = SOMEBODY;
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(tov_identity_take(kernel_s::SELF, &identity), -EMFILE);
  kernel().proc_is_mounted = false;
  EXPECT_EQ(tov_identity_take(kernel_s::SELF, &identity), -EAGAIN);
  EXPECT_EQ(text_of(identity), text_of(SOMEBODY));
}

TEST_F(TovIdentity, FailureOfACallTakesNoOther) {
  const pid_t pid = kernel().start({"/opt/a"});
  const tov_identity_t whole = taken(pid);
  each_call_fails([&] { (void)taken(pid); },
                  [&] {
                    tov_identity_t identity = SOMEBODY;
                    const int result = tov_identity_take(pid, &identity);
                    EXPECT_NE(result, -ESRCH);
                    if (result < 0) {
                      EXPECT_EQ(text_of(identity), text_of(SOMEBODY));
                    } else if (identity.exe_ino != 0) {
                      EXPECT_EQ(text_of(identity), text_of(whole));
                    } else {  // without its executable
                      EXPECT_EQ(identity.started, whole.started);
                      EXPECT_EQ(identity.exe_dev, 0u);
                    }
                  });
}

// ---- whether it lives -----------------------------------------------------------------------

TEST_F(TovIdentity, LivesAsLongAsItsFirstThreadRuns) {
  const pid_t pid = kernel().start({"/opt/a"});
  const tov_identity_t identity = taken(pid);
  for (const char state : {'R', 'S', 'D', 'T', 't', 'I', 'W', 'P', 'K'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_LIVES) << state;
  }
}

TEST_F(TovIdentity, LivesInItsThreads) {
  pid_t worker = 0;
  const pid_t pid = leaderless(&worker);
  EXPECT_EQ(tov_identity_life(pid, taken(pid)), TOV_LIFE_THREADS);
  kernel().end_thread(worker);
  EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_ENDED);
}

TEST_F(TovIdentity, HasEndedAsAZombieAndInItsGrave) {
  const pid_t pid = kernel().fork();
  const tov_identity_t identity = taken(pid);
  kernel().end(pid);
  ASSERT_TRUE(kernel().has(pid));
  EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_ENDED);
  kernel().reap(pid);
  EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_ENDED);
  for (const pid_t none : {0, -1, INT_MIN})
    EXPECT_EQ(tov_identity_life(none, {}), TOV_LIFE_ENDED) << none;
}

// Its id outlives it, as a zombie's, too.
TEST_F(TovIdentity, HasEndedWhenAnotherProcessHasTheId) {
  kernel().start_as(ID, {"/opt/a"});
  const tov_identity_t first = taken(ID);
  kernel().end(ID);
  kernel().start_as(ID, {"/opt/a"});
  EXPECT_EQ(tov_identity_life(ID, first), TOV_LIFE_REUSED);
  EXPECT_EQ(tov_identity_life(ID, taken(ID)), TOV_LIFE_LIVES);
  kernel().start_thread(ID);
  kernel().end_thread(ID);
  EXPECT_EQ(tov_identity_life(ID, first), TOV_LIFE_REUSED);
  EXPECT_EQ(tov_identity_life(ID, {}), TOV_LIFE_THREADS);
  const pid_t child = zombie();
  EXPECT_EQ(tov_identity_life(child, first), TOV_LIFE_REUSED);
}

TEST_F(TovIdentity, WhoWasThereAtNoTimeIsNotTheProcessThatHasTheIdLater) {
  tov_identity_t identity{};
  ASSERT_EQ(tov_identity_take(ID, &identity), -ESRCH);
  EXPECT_EQ(tov_identity_life(ID, identity), TOV_LIFE_ENDED);
  kernel().start_as(ID, {"/opt/a"});
  EXPECT_EQ(tov_identity_life(ID, identity), TOV_LIFE_REUSED);
}

TEST_F(TovIdentity, ThatIsNotKnownMeansAnyProcessOfTheId) {
  kernel().start_as(ID, {"/opt/a"});
  EXPECT_EQ(tov_identity_life(ID, {}), TOV_LIFE_LIVES);
  kernel().end(ID);
  kernel().start_as(ID, {"/opt/b"});
  EXPECT_EQ(tov_identity_life(ID, {}), TOV_LIFE_LIVES);
}

TEST_F(TovIdentity, OutlivesExecutions) {
  const pid_t pid = kernel().start({"/opt/a"});
  const tov_identity_t identity = taken(pid);
  kernel().pass(50 * US_PER_MS);
  kernel().exec(pid, {"/opt/b"});
  EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_LIVES);
  for (const bool first_ends : {false, true}) {
    const pid_t worker = kernel().start_thread(pid);
    if (first_ends) kernel().end_thread(pid);
    kernel().pass(50 * US_PER_MS);
    kernel().exec(worker, {"/opt/c"});
    EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_LIVES) << first_ends;
  }
}

// Whoever reads while a worker executes finds the first thread's entry gone once.
TEST_F(TovIdentity, IsLookedForTwiceWhereItIsNotFound) {
  const pid_t pid = kernel().start({"/opt/a"});
  const tov_identity_t identity = taken(pid);
  for (const int error : {ENOENT, ESRCH}) {
    kernel().fail(tov_test::CALL_OPEN, 1, error);
    EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_LIVES) << error;
    kernel().fail(tov_test::CALL_READ, 1, error);
    EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_LIVES) << error;
  }
}

TEST_F(TovIdentity, WithoutProcNobodyWhoIsThereHasEnded) {
  const pid_t living = kernel().start({"/opt/a"});
  const pid_t child = zombie();
  const tov_identity_t identity = taken(living);
  kernel().proc_is_mounted = false;
  EXPECT_EQ(tov_identity_life(living, identity), TOV_LIFE_UNKNOWN);
  EXPECT_EQ(tov_identity_life(child, {}), TOV_LIFE_UNKNOWN);
  EXPECT_EQ(tov_identity_life(ID, {}), TOV_LIFE_ENDED);
  for (const int error : {EPERM, EACCES}) {  // somebody is there
    kernel().fail(tov_test::CALL_KILL, 2, error);
    EXPECT_EQ(tov_identity_life(ID, {}), TOV_LIFE_UNKNOWN);
  }
  EXPECT_TRUE(kernel().kills.empty()) << "it is asked for, and gets no signal";
}

TEST_F(TovIdentity, WithoutADescriptorNothingIsKnown) {
  const pid_t living = kernel().start({"/opt/a"});
  kernel().descriptor_limit = kernel().descriptors();
  for (const pid_t pid : {living, zombie(), ID}) {
    EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_UNKNOWN) << pid;
    EXPECT_EQ(tov_identity_thread_life(pid, {}), TOV_LIFE_UNKNOWN) << pid;
  }
}

TEST_F(TovIdentity, FailureOfACallIsNeverAnEnd) {
  const pid_t first = leaderless();
  const pid_t living = kernel().start({"/opt/a"});
  for (const pid_t pid : {living, first}) {
    const tov_identity_t identity = taken(pid);
    const tov_life_e truth = pid == living ? TOV_LIFE_LIVES : TOV_LIFE_THREADS;
    each_call_fails([&] { EXPECT_EQ(tov_identity_life(pid, identity), truth); },
                    [&] {
                      const tov_life_e life = tov_identity_life(pid, identity);
                      EXPECT_TRUE(life == truth || life == TOV_LIFE_UNKNOWN) << life;
                    });
  }
}

TEST_F(TovIdentity, FailureOfACallDoesNotRaiseTheDead) {
  kernel().start_as(ID, {"/opt/a"});
  const tov_identity_t identity = taken(ID);
  kernel().end(ID);
  const auto is_over_or_unknown = [&] {
    const tov_life_e life = tov_identity_life(ID, identity);
    EXPECT_TRUE(tov_life_is_over(life) || life == TOV_LIFE_UNKNOWN) << life;
  };
  each_call_fails([&] { EXPECT_EQ(tov_identity_life(ID, identity), TOV_LIFE_ENDED); },
                  is_over_or_unknown);
  kernel().start_as(ID, {"/opt/a"});
  each_call_fails([&] { EXPECT_EQ(tov_identity_life(ID, identity), TOV_LIFE_REUSED); },
                  is_over_or_unknown);
}

TEST_F(TovIdentity, OverAreTwoAnswersOfFive) {
  EXPECT_TRUE(tov_life_is_over(TOV_LIFE_ENDED));
  EXPECT_TRUE(tov_life_is_over(TOV_LIFE_REUSED));
  for (const tov_life_e life : {TOV_LIFE_LIVES, TOV_LIFE_THREADS, TOV_LIFE_UNKNOWN})
    EXPECT_FALSE(tov_life_is_over(life)) << life;
}

// ---- a single thread ------------------------------------------------------------------------

TEST_F(TovIdentity, ThreadEndsByItself) {
  pid_t worker = 0;
  const pid_t pid = leaderless(&worker);
  EXPECT_EQ(tov_identity_thread_life(pid, taken(pid)), TOV_LIFE_ENDED);
  EXPECT_EQ(tov_identity_thread_life(worker, taken(worker)), TOV_LIFE_LIVES);
  const pid_t other = kernel().start({"/opt/a"});
  const pid_t second = kernel().start_thread(other);
  const tov_identity_t identity = taken(second);
  kernel().end_thread(second);
  EXPECT_EQ(tov_identity_thread_life(second, identity), TOV_LIFE_ENDED);
  kernel().start_as(second, {"/opt/b"});
  EXPECT_EQ(tov_identity_thread_life(second, identity), TOV_LIFE_REUSED);
}

// ---- two identities -------------------------------------------------------------------------

TEST_F(TovIdentity, SameIdAndStartAreOneProcess) {
  const tov_identity_t known{7, 1, 1, 1, 1}, later{8, 1, 1, 1, 1}, executed{7, 2, 3, 4, 1};
  EXPECT_TRUE(tov_identity_equals(ID, known, ID, executed));
  EXPECT_FALSE(tov_identity_differs(ID, known, ID, executed));
  EXPECT_FALSE(tov_identity_equals(ID, known, ID, later));
  EXPECT_TRUE(tov_identity_differs(ID, known, ID, later));
  EXPECT_FALSE(tov_identity_equals(ID, known, ID + 1, known));
  EXPECT_TRUE(tov_identity_differs(ID, known, ID + 1, known));
  EXPECT_TRUE(tov_identity_differs(ID, known, ID, NOBODY));
}

TEST_F(TovIdentity, ThatIsNotKnownIsNeitherTheSameNorAnother) {
  const tov_identity_t known{7, 1, 1, 1, 1}, unknown{};
  for (const tov_identity_t &one : {known, unknown}) {
    EXPECT_FALSE(tov_identity_equals(ID, one, ID, unknown));
    EXPECT_FALSE(tov_identity_equals(ID, unknown, ID, one));
    EXPECT_FALSE(tov_identity_differs(ID, one, ID, unknown));
    EXPECT_FALSE(tov_identity_differs(ID, unknown, ID, one));
    EXPECT_TRUE(tov_identity_differs(ID, one, ID + 1, unknown));
  }
}

TEST_F(TovIdentity, EarlierStartIsOlderAndWithinATickTheLowerId) {
  const tov_identity_t early{7, 0, 0, 0, 0}, late{8, 0, 0, 0, 0};
  EXPECT_TRUE(tov_identity_is_older(ID + 1, early, ID, late));
  EXPECT_FALSE(tov_identity_is_older(ID, late, ID + 1, early));
  EXPECT_TRUE(tov_identity_is_older(ID, early, ID + 1, early));
  EXPECT_FALSE(tov_identity_is_older(ID + 1, early, ID, early));
  EXPECT_FALSE(tov_identity_is_older(ID, early, ID, early));
}

TEST_F(TovIdentity, WithoutAStartNothingIsOlder) {
  const tov_identity_t known{7, 0, 0, 0, 0};
  for (const tov_identity_t &unknown : {tov_identity_t{}, NOBODY}) {
    EXPECT_FALSE(tov_identity_is_older(ID, known, ID + 1, unknown));
    EXPECT_FALSE(tov_identity_is_older(ID, unknown, ID + 1, known));
  }
}

TEST_F(TovIdentity, StackOrExecutableProveAnExecution) {
  const tov_identity_t then{7, 10, 20, 30, 1};
  EXPECT_FALSE(tov_identity_executed(then, then));
  EXPECT_TRUE(tov_identity_executed(then, {7, 11, 20, 30, 1})) << "the stack";
  EXPECT_TRUE(tov_identity_executed(then, {7, 10, 21, 30, 1})) << "the device";
  EXPECT_TRUE(tov_identity_executed(then, {7, 10, 20, 31, 1})) << "the inode";
}

TEST_F(TovIdentity, WhatIsNotKnownProvesNoExecution) {
  const tov_identity_t then{7, 10, 20, 30, 1};
  for (const tov_identity_t &now :
       {tov_identity_t{7, 0, 20, 30, 0}, {7, 10, 0, 0, 0}, {7, 10, 21, 0, 0}, {7, 0, 0, 0, 0}}) {
    EXPECT_FALSE(tov_identity_executed(then, now)) << text_of(now);
    EXPECT_FALSE(tov_identity_executed(now, then)) << text_of(now);
  }
}

TEST_F(TovIdentity, ExecutionOfTheSameFileShowsInTheStack) {
  const pid_t pid = kernel().start({"/opt/busybox", "sh"});
  const tov_identity_t then = taken(pid);
  kernel().exec(pid, {"/opt/busybox", "ls"});
  EXPECT_TRUE(tov_identity_executed(then, taken(pid)));
  EXPECT_EQ(taken(pid).exe_ino, then.exe_ino);
}
