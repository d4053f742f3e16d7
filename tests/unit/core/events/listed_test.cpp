// Whom the walk finds whose execution was not heard, and which of several processes it takes.
#include "core/events/listed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using tov_test::kernel;

namespace {

class ListedWalk : public tov_test::Simulated {
 protected:
  ListedWalk() { list("/opt/listed -d TOV_RESTART\n/opt/plain TOV_RESTART\n"); }

  static void list(const std::string &text) { kernel().write_file(TOV_THIRD_PART_LIST, text); }
  static pid_t start(std::vector<std::string> words, pid_t parent = 1) {
    const pid_t pid = kernel().start(std::move(words));
    kernel().process(pid).parent = parent;
    return pid;
  }
  static std::vector<pid_t> found_by(tov_listed_walk_t &walk) {
    std::vector<pid_t> found;
    for (;;) {
      const tov_listed_walk_t::step_s step = walk.go_on();
      if (step.found > 0) found.push_back(step.found);
      if (!step.goes_on) return found;
    }
  }
  static std::vector<pid_t> found() {
    tov_listed_walk_t walk;
    walk.begin(0);
    return found_by(walk);
  }
};

}  // namespace

TEST_F(ListedWalk, FindsWhatIsListedWithItsArguments) {
  const pid_t listed = start({"/opt/listed", "-d"});
  const pid_t plain = start({"/opt/plain"});
  start({"/opt/listed", "-x"});
  start({"/opt/other"});
  EXPECT_THAT(found(), UnorderedElementsAre(listed, plain));
}

// It may be "/opt/listed -d" under a title.
TEST_F(ListedWalk, PartOfALineIsNotEnough) {
  const pid_t pid = start({"/opt/listed", "-d"});
  kernel().set_title(pid, {"listed: on"});
  EXPECT_THAT(found(), IsEmpty());
}

TEST_F(ListedWalk, DoesNothingUntilItBegins) {
  start({"/opt/plain"});
  tov_listed_walk_t walk;
  const int before = kernel().calls();
  EXPECT_THAT(found_by(walk), IsEmpty());
  EXPECT_EQ(kernel().calls(), before);
}

TEST_F(ListedWalk, BeginsAnewAsOftenAsItIsTold) {
  const pid_t pid = start({"/opt/plain"});
  tov_listed_walk_t walk;
  for (int round = 0; round < 2; round++) {
    walk.begin(0);
    (void)walk.go_on();
    walk.begin(0);
    EXPECT_THAT(found_by(walk), ElementsAre(pid));
    EXPECT_THAT(found_by(walk), IsEmpty());
  }
}

TEST_F(ListedWalk, ComesToItsEndInPortions) {
  for (int i = 0; i < 100; i++)
    start({"/opt/other"});
  const pid_t last = start({"/opt/plain"});
  tov_listed_walk_t walk;
  walk.begin(0);
  int steps = 1;
  pid_t found = 0;
  for (tov_listed_walk_t::step_s step = walk.go_on(); step.goes_on; step = walk.go_on(), steps++)
    if (step.found > 0) found = step.found;
  EXPECT_EQ(found, last);
  EXPECT_GT(steps, 5);
}

TEST_F(ListedWalk, OfAProgramAndItsWorkersTakesTheProgram) {
  const pid_t program = start({"/opt/plain"});
  start({"/opt/plain"}, start({"/opt/plain"}, program));
  EXPECT_THAT(found(), ElementsAre(program));
}

// As where workers were started before their ids were given out again.
TEST_F(ListedWalk, ParentCountsWhicheverOfTheTwoIsElder) {
  const pid_t worker = start({"/opt/plain"});
  const pid_t program = start({"/opt/plain"});
  kernel().process(worker).parent = program;
  EXPECT_THAT(found(), ElementsAre(program));
}

TEST_F(ListedWalk, OfTwoProgramsTakesTheEldest) {
  const pid_t younger = kernel().start_as(2000, {"/opt/plain"});
  kernel().process(younger).parent = 1;
  const pid_t elder = kernel().start_as(3000, {"/opt/plain"});
  kernel().process(elder).parent = 1;
  kernel().process(elder).started = kernel().process(younger).started - 1;
  EXPECT_THAT(found(), ElementsAre(elder));
}

// The workers of a program that has died show its command line, and belong to nobody.
TEST_F(ListedWalk, ProgramWithWorkersComesBeforeEldersWithout) {
  start({"/opt/plain"});
  const pid_t program = start({"/opt/plain"});
  start({"/opt/plain"}, program);
  EXPECT_THAT(found(), ElementsAre(program));
}

TEST_F(ListedWalk, TakesOneInEachDevice) {
  const pid_t base = start({"/opt/plain"});
  const pid_t member = start({"/opt/plain"}, base);
  kernel().process(member).groups = "3900";
  EXPECT_THAT(found(), UnorderedElementsAre(base, member));
}

TEST_F(ListedWalk, PassesOverWhoHasEndedOrSleepsInTheKernel) {
  kernel().process(start({"/opt/plain"})).state = 'D';
  EXPECT_THAT(found(), IsEmpty());
  kernel().process(start({"/opt/listed", "-d"})).state = 'Z';
  EXPECT_THAT(found(), IsEmpty());
}

TEST_F(ListedWalk, WorkerThatHasGivenUpTheGroupsOfItsDeviceIsStillOne) {
  const pid_t program = start({"/opt/plain"});
  kernel().process(program).groups = "3200";
  const pid_t worker = start({"/opt/plain"}, program);
  kernel().process(worker).groups = "";
  EXPECT_THAT(found(), ElementsAre(program));
}

// Who sleeps in the kernel may be the program whose worker it would be.
TEST_F(ListedWalk, WorkerOfOneThatSleepsInTheKernelIsPassedOverUntilThatIsKnown) {
  const pid_t program = start({"/opt/plain"});
  (void)start({"/opt/plain"}, program);
  kernel().process(program).state = 'D';
  tov_listed_walk_t walk;
  walk.begin(0);
  EXPECT_THAT(found_by(walk), IsEmpty());
  EXPECT_TRUE(walk.is_blind());
  kernel().process(program).state = 'S';
  walk.begin(0);
  EXPECT_THAT(found_by(walk), ElementsAre(program));
  EXPECT_FALSE(walk.is_blind());
}

TEST_F(ListedWalk, FindsNothingWithoutAListOrWithoutProc) {
  start({"/opt/plain"});
  kernel().proc_is_mounted = false;
  EXPECT_THAT(found(), IsEmpty());
  kernel().proc_is_mounted = true;
  kernel().remove(TOV_THIRD_PART_LIST);
  EXPECT_THAT(found(), IsEmpty());
}

// Of those that started earlier no one is wanted, but they tell who is a worker.
TEST_F(ListedWalk, YoungWorkerOfAnOlderProgramIsPassedOver) {
  const pid_t program = start({"/opt/plain"});
  kernel().pass(1'000'000);
  const int64_t born_us = kernel().now_us();
  kernel().pass(20'000);
  start({"/opt/plain"}, program);
  const pid_t young = start({"/opt/listed", "-d"});
  tov_listed_walk_t walk;
  walk.begin(born_us);
  EXPECT_THAT(found_by(walk), ElementsAre(young));
}

TEST_F(ListedWalk, WithoutDescriptorsIsBlind) {
  start({"/opt/plain"});
  const size_t limit = kernel().descriptor_limit;
  kernel().descriptor_limit = kernel().descriptors();
  tov_listed_walk_t walk;
  walk.begin(0);
  EXPECT_THAT(found_by(walk), IsEmpty());
  EXPECT_TRUE(walk.is_blind());
  kernel().descriptor_limit = limit;
  walk.begin(0);
  EXPECT_THAT(found_by(walk), testing::SizeIs(1));
  EXPECT_FALSE(walk.is_blind());
}

TEST_F(ListedWalk, WhoStartedEarlierThanWantedIsPassedOver) {
  start({"/opt/plain"});
  kernel().pass(1'000'000);
  const int64_t born_us = kernel().now_us();
  kernel().pass(20'000);
  const pid_t young = start({"/opt/listed", "-d"});
  tov_listed_walk_t walk;
  walk.begin(born_us);
  EXPECT_THAT(found_by(walk), ElementsAre(young));
  walk.begin(0);
  EXPECT_EQ(found_by(walk).size(), 2u);
}
