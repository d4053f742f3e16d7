// The look after the end of a listed program: which process runs in its place, which ones it has
// left behind, and whose others are.
#include "tests/unit/succession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <string>

#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"

using testing::ElementsAre;
using tov_test::DEVICE_1;
using tov_test::kernel;
using tov_test::LISTED;

static constexpr char DRAWN_PLACES[] = "/proc/sys/kernel/randomize_va_space";

namespace {

class TovSuccessionLook : public tov_test::Succession {
 protected:
  enum { OTHER_SESSION = 77 };

  // What is left of the burst that was under way when the process ended.
  static int starts_counted(const tov_pid_t *record) { return record->count; }
};

}  // namespace

// ---- what the dead one has left behind ------------------------------------------------------

TEST_F(TovSuccessionLook, WorkerOfAKilledProgramIsLeftBehind) {
  const tov_pid_t *record = supervised();
  const pid_t worker = copy_of(record->pid);
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
  EXPECT_TRUE(kernel().has(worker));
}

TEST_F(TovSuccessionLook, WorkerOfAProgramThatFailedIsLeftBehind) {
  const tov_pid_t *record = supervised();
  (void)copy_of(record->pid);
  ends(record, tov_test::EXITED_WITH_1);
  run_first_look();
  expect_started(record);
}

// In a session of its own a worker is no more than a worker.
TEST_F(TovSuccessionLook, WorkerOfAKilledProgramIsLeftBehindInAnySession) {
  const tov_pid_t *record = supervised();
  kernel().process(copy_of(record->pid)).session = OTHER_SESSION;
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, ElderProcessIsLeftBehind) {
  const pid_t elder = starts(words());
  const tov_pid_t *record = supervised();
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
  EXPECT_TRUE(kernel().has(elder));
}

TEST_F(TovSuccessionLook, ElderProcessIsLeftBehindAfterAnEndWith0Too) {
  (void)starts(words());
  const tov_pid_t *record = supervised();
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

// ---- what it has made of itself -------------------------------------------------------------

TEST_F(TovSuccessionLook, CopyOfAProgramThatEndedWith0IsItsHeir) {
  const tov_pid_t *record = supervised();
  const pid_t heir = copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
}

TEST_F(TovSuccessionLook, HeirIsKnownUnderAnyTitle) {
  const tov_pid_t *record = supervised();
  const pid_t heir = titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
}

TEST_F(TovSuccessionLook, BurstGoesOnWithTheHeir) {
  tov_pid_t *record = supervised();
  begin_burst(record);
  begin_burst(record);
  const pid_t heir = copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
  EXPECT_EQ(starts_counted(record), 2);
}

TEST_F(TovSuccessionLook, OfTwoHeirsTheElderIsTaken) {
  const tov_pid_t *record = supervised();
  kernel().set_next_pid(6000);
  const pid_t elder = copy_of(record->pid);
  kernel().set_next_pid(5000);
  (void)copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, elder);
}

TEST_F(TovSuccessionLook, HeirIsTakenBesideACopyThatHasARecordOfItsOwn) {
  const tov_pid_t *record = supervised();
  const pid_t registered = titled_copy_of(record->pid), heir = titled_copy_of(record->pid);
  (void)add(registered, "/opt/worker");
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
}

// The text alone may be another's.
TEST_F(TovSuccessionLook, HeirComesBeforeAProcessOfTheSameText) {
  const tov_pid_t *record = supervised();
  const pid_t by_hand = starts(words());
  const pid_t heir = titled_copy_of(record->pid);
  ASSERT_LT(by_hand, heir);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
}

// ---- ends of which nobody knows how they came -----------------------------------------------

TEST_F(TovSuccessionLook, CopyInAnotherSessionIsTheHeirOfOneWithAnUnknownEnd) {
  tov_pid_t *record = supervised();
  const pid_t heir = titled_copy_of(record->pid);
  kernel().process(heir).session = OTHER_SESSION;
  ends_unheard(record);
  run_first_look();
  expect_found(record, heir);
}

TEST_F(TovSuccessionLook, CopyInTheSameSessionIsAWorkerOfOneWithAnUnknownEnd) {
  tov_pid_t *record = supervised();
  (void)copy_of(record->pid);
  ends_unheard(record);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, CopyIsAWorkerWhereTheDeadOnesSessionIsNotKnown) {
  tov_pid_t *record = supervised();
  record->identity.session = 0;
  kernel().process(copy_of(record->pid)).session = OTHER_SESSION;
  ends_unheard(record);
  run_first_look();
  expect_started(record);
}

// ---- programs that were started again -------------------------------------------------------

TEST_F(TovSuccessionLook, ProgramThatWasStartedAgainIsTakenOver) {
  for (const int exit_code : {SIGKILL, 0, tov_test::EXITED_WITH_1}) {
    tov_pid_t *record = supervised();
    const pid_t again = starts(words());
    ends(record, exit_code);
    run_first_look();
    expect_found(record, again);
    kernel().end(again);
    forget(record);
  }
}

TEST_F(TovSuccessionLook, ProgramThatWasStartedAgainBeginsNoBurst) {
  tov_pid_t *record = supervised();
  begin_burst(record);
  begin_burst(record);
  const pid_t again = starts(words());
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, again);
  EXPECT_EQ(starts_counted(record), 0);
}

TEST_F(TovSuccessionLook, ProgramThatWasStartedAgainIsKnownBesideWorkers) {
  const tov_pid_t *record = supervised();
  const pid_t worker = copy_of(record->pid);
  const pid_t again = starts(words());
  ASSERT_LT(worker, again);
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, again);
}

// A start within the clock tick of the dead one's is no earlier one.
TEST_F(TovSuccessionLook, ProgramThatWasStartedInTheSameTickIsTakenOver) {
  const tov_pid_t *record = supervised();
  const pid_t again = kernel().start(words());
  ASSERT_EQ(kernel().process(again).started, record->identity.started);
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, again);
}

TEST_F(TovSuccessionLook, ProgramThatWasStartedAgainWithTheDeadOnesIdIsTakenOver) {
  const tov_pid_t *record = supervised();
  const pid_t id = record->pid;
  kernel().end(id);
  (void)kernel().start_as(id, words());
  die(record);
  run_first_look();
  expect_found(record, id);
}

// What its own titles say is no sign for a look: that program may be another one's.
TEST_F(TovSuccessionLook, PartOfTheCommandLineIsNotEnough) {
  const tov_pid_t *record = supervised();
  (void)starts({LISTED});
  kernel().set_title(starts(words()), title());
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, ZombieDoesNotRun) {
  const tov_pid_t *record = supervised();
  const pid_t heir = copy_of(record->pid);
  kernel().process(heir).state = 'Z';
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

// ---- where copies are not known -------------------------------------------------------------

TEST_F(TovSuccessionLook, WithoutDrawnPlacesACopyIsNotKnownUnderATitle) {
  kernel().write_file(DRAWN_PLACES, "0\n");
  const tov_pid_t *record = supervised();
  (void)titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, OneKindOfDrawnPlacesIsEnough) {
  kernel().write_file(DRAWN_PLACES, "1\n");
  const tov_pid_t *record = supervised();
  const pid_t heir = titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
}

TEST_F(TovSuccessionLook, WhereItIsNotToldWhetherPlacesAreDrawnTheyAreNot) {
  kernel().remove(DRAWN_PLACES);
  const tov_pid_t *record = supervised();
  (void)titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

// Its burst does not go on: it may be any process of that text.
TEST_F(TovSuccessionLook, WithoutDrawnPlacesTheTextIsTakenOverAfterAnEndWith0) {
  kernel().write_file(DRAWN_PLACES, "0\n");
  tov_pid_t *record = supervised();
  begin_burst(record);
  const pid_t copy = copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, copy);
  EXPECT_EQ(starts_counted(record), 0);
}

TEST_F(TovSuccessionLook, WithoutDrawnPlacesTheSessionTellsWorkersOfAKilledProgram) {
  kernel().write_file(DRAWN_PLACES, "0\n");
  const tov_pid_t *record = supervised();
  (void)copy_of(record->pid);
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, WithoutDrawnPlacesAnotherSessionTellsWhatWasStartedAgain) {
  kernel().write_file(DRAWN_PLACES, "0\n");
  const tov_pid_t *record = supervised();
  const pid_t again = copy_of(record->pid);
  kernel().process(again).session = OTHER_SESSION;
  ends(record, SIGKILL);
  run_first_look();
  expect_found(record, again);
}

// ---- devices --------------------------------------------------------------------------------

TEST_F(TovSuccessionLook, SameTextInAnotherDeviceDoesNotCount) {
  const tov_pid_t *record = supervised();
  (void)starts(words(), DEVICE_1);
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, CopyThatIsInAnotherDeviceDoesNotCount) {
  const tov_pid_t *record = supervised();
  kernel().process(titled_copy_of(record->pid)).groups = DEVICE_1;
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, ProgramOfADeviceIsFoundThereAlone) {
  const tov_pid_t *record = supervised(words(), 1);
  (void)starts(words());
  (void)starts(words(), "3200");
  const pid_t again = starts(words(), DEVICE_1);
  ends(record, SIGKILL);
  run_first_look();
  EXPECT_EQ(forks(), 0u);
  expect_has(record, again, 1);
}

// Its member file says where the next start is made.
TEST_F(TovSuccessionLook, ProgramThatIsTakenOverInADeviceIsStartedThereNextTime) {
  const tov_pid_t *record = supervised(words(), 1);
  kernel().write_file(member_file(record->pid), "");
  const pid_t again = starts(words(), DEVICE_1);
  ends(record, SIGKILL);
  EXPECT_EQ(record->start.vsd_no, 1);
  run_first_look();
  ASSERT_EQ(record->pid, again);
  ends(record, SIGKILL);
  EXPECT_EQ(record->start.vsd_no, 1);
}

// ---- whose it is ----------------------------------------------------------------------------

// A wrapper that was registered has executed the program.
TEST_F(TovSuccessionLook, ProcessWithARecordOfItsOwnDoesNotCount) {
  const tov_pid_t *record = supervised();
  const pid_t pid = starts({"/opt/wrapper"});
  const tov_pid_t *wrapper = add(pid, "/opt/wrapper");
  kernel().exec(pid, words());
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
  EXPECT_EQ(wrapper->pid, pid);
}

TEST_F(TovSuccessionLook, WorkerOfAProcessWithARecordDoesNotCount) {
  const tov_pid_t *record = supervised();
  const pid_t wrapper = starts({"/opt/wrapper"});
  kernel().exec(wrapper, words());
  (void)add(wrapper, "/opt/wrapper");
  (void)copy_of(wrapper);
  ends(record, SIGKILL);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, ChildOfAnotherRestartDoesNotCount) {
  list("/opt/daemon -d TOV_RESTART\n/opt/launcher TOV_RESTART\n");
  const tov_pid_t *launcher = supervised({"/opt/launcher"});
  const tov_pid_t *record = supervised();
  is_started_anew(launcher);
  kernel().exec(child(), words());  // not what it is searched for
  ends(record, SIGKILL);
  run_first_look();
  EXPECT_EQ(forks(), 2u);
  EXPECT_NE(record->pid, kernel().forks[0]);
}

// The one whose end is told first drops the other.
TEST_F(TovSuccessionLook, TwoDeadRecordsOfOneTextDoNotShareAProcess) {
  tov_pid_t *first = supervised(), *second = supervised();
  first->flags = second->flags = TOV_FLAG_STARTED;
  const pid_t again = starts(words());
  for (const tov_pid_t *record : {first, second})
    kernel().end(record->pid);
  die(first);
  if (is_registered(second)) die(second);
  run_first_look();
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(forks(), 0u);
  EXPECT_NE(find(again), nullptr);
  EXPECT_THAT(files(), ElementsAre("daemon." + std::to_string(again)));
}

// It was free when the scan read it.
TEST_F(TovSuccessionLook, ProcessThatWasRegisteredMeanwhileIsNotTaken) {
  const tov_pid_t *record = supervised();
  const pid_t again = starts(words());
  ends(record, SIGKILL);
  kernel().before(tov_test::CALL_CLOSEDIR, 2, [&] { (void)add(again, "/opt/wrapper"); });
  run_first_look();
  expect_started(record);
  EXPECT_NE(record->pid, again);
}

TEST_F(TovSuccessionLook, RecordGoesOnWithTheTitleOfItsHeir) {
  tov_pid_t *record = supervised();
  const pid_t heir = titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_found(record, heir);
  const pid_t next = titled_copy_of(heir);
  ends(record, 0);
  run_first_look();
  expect_found(record, next);
}

// A server that ends after a while leaves behind whom it has served with.
TEST_F(TovSuccessionLook, CopiesOfOneThatEndedWellLongAfterItsStartAreLeftBehind) {
  static constexpr int SERVES_S = 121;
  const tov_pid_t *record = supervised();
  (void)copy_of(record->pid);
  kernel().pass(SERVES_S * tov_test::US_PER_S);
  (void)titled_copy_of(record->pid);
  ends(record, 0);
  run_first_look();
  expect_started(record);
}

TEST_F(TovSuccessionLook, NoteOfTheDeviceGoesWithItsProcess) {
  children_become(words());
  tov_pid_t *record = supervised(words(), 1);
  const std::string dir = "/tmp/vsd/1/tov/";
  const std::string dead = std::to_string(record->pid);
  kernel().write_file(dir + dead, "");
  ends(record);
  run_first_look();
  kernel().process(child()).groups = DEVICE_1;
  first_scan();
  EXPECT_EQ(record->pid, child());
  EXPECT_TRUE(kernel().exists(dir + std::to_string(child())));
  EXPECT_FALSE(kernel().exists(dir + dead));
}

// The child of a start that came to nothing has removed it.
TEST_F(TovSuccessionLook, ProgramWhoseNoteIsLostIsStartedInItsDevice) {
  tov_pid_t *record = supervised(words(), 1);
  ends(record);
  run_first_look();
  EXPECT_EQ(record->start.vsd_no, 1);
}

// Its fork proves whose it is.
TEST_F(TovSuccessionLook, CopyThatHasGivenUpTheGroupsOfItsDeviceIsFound) {
  tov_pid_t *record = supervised(words(), 1);
  const pid_t copy = titled_copy_of(record->pid);
  kernel().process(copy).groups = "";
  ends(record, 0);
  run_first_look();
  EXPECT_EQ(forks(), 0u);
  EXPECT_EQ(record->pid, copy);
}

// It has not entered its device, yet, or could not.
TEST_F(TovSuccessionLook, ChildIsFoundInWhicheverDevice) {
  children_become(words());
  tov_pid_t *record = supervised(words(), 1);
  ends(record);
  run_first_look();
  first_scan();
  EXPECT_EQ(record->pid, child());
}
