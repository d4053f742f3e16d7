// Finding a process by its command line: what counts as equal, and how often one looks.
#include "proc/find.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;

static constexpr int64_t US_PER_MS = 1000;

namespace {

class TovProcToPid : public tov_test::Simulated {
 protected:
  static int search(std::string key, pid_t *pid, int retries = 0) {
    return tov_proc_to_pid(key.data(), pid, retries);
  }
};

class TovScan : public tov_test::Simulated {
 protected:
  static constexpr int ALL = tov_scan_t::ALL;
  static int reads() { return kernel().calls(tov_test::CALL_READLINK); }
};

}  // namespace

TEST_F(TovProcToPid, WholeCommandLineDecides) {
  (void)kernel().start({"/opt/foo"});
  const pid_t wanted = kernel().start({"/opt/foo", "-d"});
  (void)kernel().start({"/opt/foo", "-d", "more"});
  pid_t found = 0;
  EXPECT_EQ(search("/opt/foo -d", &found), 1);
  EXPECT_EQ(found, wanted);
}

TEST_F(TovProcToPid, TrailingBlanksCountOnNeitherSide) {
  const pid_t wanted = kernel().start({"/opt/foo", "", ""});
  pid_t found = 0;
  EXPECT_EQ(search("/opt/foo \t ", &found), 1);
  EXPECT_EQ(found, wanted);
}

TEST_F(TovProcToPid, ZombiesAndThreadsAreNotFound) {
  const pid_t zombie = kernel().fork();
  kernel().process(zombie).words = {"/opt/foo"};
  kernel().end(zombie);
  const pid_t owner = kernel().start({"/opt/bar"});
  const pid_t thread = kernel().start_thread(owner);
  kernel().process(thread).exe = "/opt/foo";
  pid_t found = 77;
  EXPECT_EQ(search("/opt/foo", &found), 0);
  EXPECT_EQ(found, 77);
}

TEST_F(TovProcToPid, PausesGrowByATenthOfASecond) {
  pid_t found = 0;
  EXPECT_EQ(span_us([&] { EXPECT_EQ(search("/opt/foo", &found, 3), 0); }), 600 * US_PER_MS);
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), 4 * 3);  // three rounds a look
  EXPECT_EQ(span_us([&] { EXPECT_EQ(search("/opt/foo", &found, 10), 0); }), 5500 * US_PER_MS);
  EXPECT_EQ(span_us([&] { EXPECT_EQ(search("/opt/foo", &found, 0), 0); }), 0);
}

TEST_F(TovProcToPid, ProcessThatComesLaterIsFoundAtTheNextLook) {
  pid_t later = 0;
  kernel().after(250 * US_PER_MS, [&] { later = kernel().start({"/opt/foo"}); });
  pid_t found = 0;
  EXPECT_EQ(span_us([&] { EXPECT_EQ(search("/opt/foo", &found, 10), 1); }), 300 * US_PER_MS);
  EXPECT_EQ(found, later);
}

TEST_F(TovProcToPid, ScanThatAVanishingProcessSpoilsIsMadeAgain) {
  const pid_t goner = kernel().start({"/opt/goner"});
  const pid_t wanted = kernel().start({"/opt/foo"});
  kernel().before(tov_test::CALL_FSTATAT, 1, [=] { kernel().end(goner); });
  pid_t found = 77;
  EXPECT_EQ(search("/opt/foo", &found), -ENOENT);
  EXPECT_EQ(found, 77);
  const pid_t second = kernel().start({"/opt/goner"});
  kernel().before(tov_test::CALL_FSTATAT, 1, [=] { kernel().end(second); });
  EXPECT_EQ(search("/opt/foo", &found, 1), 1);
  EXPECT_EQ(found, wanted);
}

TEST_F(TovProcToPid, ScanThatCannotBeMadeIsANegativeErrorNumber) {
  const size_t before = kernel().descriptors();
  pid_t found = 77;
  kernel().fail(tov_test::CALL_OPENDIR, 1, EMFILE);
  EXPECT_EQ(search("/opt/foo", &found), -EMFILE);
  EXPECT_EQ(found, 77);
  EXPECT_EQ(kernel().descriptors(), before);
}

// Whose maker was listed, but had ended before it was read.
TEST_F(TovProcToPid, WhoComesByTwoForksDuringTheScanIsFound) {
  const pid_t between = kernel().start({"/opt/foo"});
  pid_t last = 0, found = 0;
  kernel().before(tov_test::CALL_READLINK, 1, [&] {
    last = kernel().start({"/opt/foo"});
    kernel().end(between);
  });
  EXPECT_EQ(search("/opt/foo", &found), 1);
  EXPECT_EQ(found, last);
}

TEST_F(TovProcToPid, ScanEndsThoughSomebodyAlwaysComes) {
  const auto somebody_comes = [](const auto &self) -> void {
    (void)kernel().start({"/opt/short"});
    kernel().before(tov_test::CALL_READLINK, 1, [=] { self(self); });
  };
  kernel().before(tov_test::CALL_READLINK, 1, [=] { somebody_comes(somebody_comes); });
  pid_t found = 0;
  EXPECT_EQ(search("/opt/foo", &found), 0);
  EXPECT_LE(kernel().calls(tov_test::CALL_OPENDIR), 5);
}

// ---- several command lines in one scan --------------------------------------------------------

TEST_F(TovScan, EachCommandLineFindsItsProcess) {
  const pid_t first = kernel().start({"/opt/foo"});
  const pid_t second = kernel().start({"/opt/bar", "-d"});
  tov_scan_t scan;
  scan.look_for("/opt/bar -d \t");
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 1);
  EXPECT_EQ(scan.found(0), second);
  EXPECT_EQ(scan.found(1), first);
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), 2);
}

TEST_F(TovScan, OneWithoutAProcessLeavesTheOthersTheirs) {
  const pid_t wanted = kernel().start({"/opt/foo"});
  tov_scan_t scan;
  scan.look_for("/opt/none");
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 0);
  EXPECT_EQ(scan.found(0), 0);
  EXPECT_EQ(scan.found(1), wanted);
}

TEST_F(TovScan, EqualCommandLinesFindTheSameProcess) {
  const pid_t wanted = kernel().start({"/opt/foo"});
  (void)kernel().start({"/opt/foo"});
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 1);
  EXPECT_EQ(scan.found(0), wanted);  // the first of two
  EXPECT_EQ(scan.found(1), wanted);
}

TEST_F(TovScan, FirstProcessOfACommandLineStaysItsOwn) {
  const pid_t wanted = kernel().start({"/opt/foo"});
  (void)kernel().start({"/opt/foo"});
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  scan.look_for("/opt/none");
  EXPECT_EQ(scan.go_on(ALL), 0);
  EXPECT_EQ(scan.found(0), wanted);
}

TEST_F(TovScan, PortionReadsSoManyProcesses) {
  for (int i = 0; i < 10; i++)
    (void)kernel().start({"/opt/crowd"});
  const pid_t wanted = kernel().start({"/opt/foo"});  // the twelfth: one was there before
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  for (int portion = 0; portion < 2; portion++) {
    const int before = reads();
    EXPECT_EQ(scan.go_on(5), std::nullopt);
    EXPECT_EQ(reads() - before, 5);
    EXPECT_EQ(scan.found(0), 0);
  }
  EXPECT_EQ(scan.go_on(5), 1);
  EXPECT_EQ(scan.found(0), wanted);
}

TEST_F(TovScan, EndsWithTheLastCommandLineThatHasItsProcess) {
  (void)kernel().start({"/opt/foo"});
  for (int i = 0; i < 10; i++)
    (void)kernel().start({"/opt/crowd"});
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 1);
  EXPECT_EQ(reads(), 2);
}

TEST_F(TovScan, ThatIsOverAnswersTheSameAgain) {
  const size_t open_before = kernel().descriptors();
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 0);
  EXPECT_EQ(kernel().descriptors(), open_before);
  (void)kernel().start({"/opt/foo"});
  const int before = kernel().calls();
  EXPECT_EQ(scan.go_on(ALL), 0);
  EXPECT_EQ(scan.found(0), 0);
  EXPECT_EQ(kernel().calls(), before);
}

TEST_F(TovScan, ThatIsSpoiledHasFoundNothing) {
  const pid_t goner = kernel().start({"/opt/goner"});
  (void)kernel().start({"/opt/foo"});
  kernel().before(tov_test::CALL_FSTATAT, 1, [=] { kernel().end(goner); });
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(1), -ENOENT);
  EXPECT_EQ(scan.found(0), 0);
  EXPECT_EQ(scan.go_on(1), -ENOENT);
}

// What runs there may be what is looked for.
TEST_F(TovScan, CommandLineThatCannotBeReadLeavesItOpenWhatRuns) {
  (void)kernel().start({"/opt/foo"});
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
    kernel().fail(tov_test::CALL_OPEN, 2, error);  // the second process's arguments
    tov_scan_t scan;
    scan.look_for("/opt/none");
    const int result = scan.go_on(ALL).value_or(0);
    EXPECT_EQ(result, -error);
    EXPECT_TRUE(tov_scan_is_blind(result));
    EXPECT_EQ(scan.go_on(ALL), -error);
  }
}

TEST_F(TovScan, CommandLineThatCannotBeReadHidesNoOther) {
  (void)kernel().start({"/opt/bar"});
  const pid_t wanted = kernel().start({"/opt/foo"});
  kernel().fail(tov_test::CALL_OPEN, 2, EMFILE);
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), 1);
  EXPECT_EQ(scan.found(0), wanted);
}

TEST_F(TovScan, ProcessWithoutAnExecutableLeavesNothingOpen) {
  const pid_t goner = kernel().start({"/opt/goner"});
  (void)kernel().start({});  // a kernel thread
  kernel().before(tov_test::CALL_READLINK, 2, [=] { kernel().end(goner); });
  tov_scan_t scan;
  scan.look_for("/opt/none");
  EXPECT_EQ(scan.go_on(ALL), 0);
}

TEST_F(TovScan, BlindIsNotTheSameAsSpoiled) {
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO, EINTR})
    EXPECT_TRUE(tov_scan_is_blind(-error)) << error;
  for (const int result : {-ENOENT, -ESRCH, -EACCES, 0, 1, EMFILE})
    EXPECT_FALSE(tov_scan_is_blind(result)) << result;
}

TEST_F(TovScan, ProcessThatEndsBetweenTwoPortionsIsPassedOver) {
  const pid_t goner = kernel().start({"/opt/foo"});
  const pid_t wanted = kernel().start({"/opt/foo"});
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(1), std::nullopt);
  kernel().end(goner);
  EXPECT_EQ(scan.go_on(ALL), 1);
  EXPECT_EQ(scan.found(0), wanted);
}

TEST_F(TovScan, ScanThatIsGivenUpLeavesNoDescriptor) {
  (void)kernel().start({"/opt/crowd"});
  const size_t before = kernel().descriptors();
  {
    tov_scan_t scan;
    scan.look_for("/opt/foo");
    EXPECT_EQ(scan.go_on(1), std::nullopt);
    EXPECT_EQ(kernel().descriptors(), before + 1);
  }
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovScan, SecondRoundThatCannotBeMadeIsANegativeErrorNumber) {
  const size_t before = kernel().descriptors();
  kernel().fail(tov_test::CALL_OPENDIR, 2, EMFILE);
  tov_scan_t scan;
  scan.look_for("/opt/foo");
  EXPECT_EQ(scan.go_on(ALL), -EMFILE);
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovScan, EveryCallMayFailAndLeavesNoDescriptor) {
  const pid_t wanted = kernel().start({"/opt/foo"});
  const size_t open_before = kernel().descriptors();
  const auto scan_once = [&] {
    tov_scan_t scan;
    scan.look_for("/opt/foo");
    const int result = scan.go_on(ALL).value_or(-EAGAIN);
    EXPECT_EQ(scan.found(0), result > 0 ? wanted : 0);
  };
  const int calls_before = kernel().calls();
  scan_once();
  const int calls = kernel().calls() - calls_before;
  for (int nth = 1; nth <= calls; nth++) {
    kernel().fail_any(nth, EIO);
    scan_once();
    EXPECT_EQ(kernel().descriptors(), open_before) << nth;
  }
}
