// Finding a process by its command line: what counts as equal, and how often one looks.
#include "proc/find.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

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
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), 4 * 2);  // two rounds a look
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
