// Finding a running process by its command line.
#include "proc/find.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/module/fake_sleep.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

using testing::ElementsAre;
using tov_test::Program;

namespace {

class TovProcToPid : public tov_test::NotesSleeps<tov_test::World> {
 protected:
  // A process that vanishes during the only scan spoils it, so that the machine's other business
  // could decide a test; such a scan is made again.
  static int scan(const std::string &command, pid_t *found) {
    int result = -1;
    tov_test::wait_until(
        [&] {
          std::vector<char> key(command.begin(), command.end());
          key.push_back('\0');
          return (result = tov_proc_to_pid(key.data(), found, 0)) >= 0;
        },
        tov_test::PATIENT_MS);
    return result;
  }
};

}  // namespace

TEST_F(TovProcToPid, ProcessOfTheSameCommandLine) {
  const Program program("found");
  const pid_t pid = tov_test::start(program.path + " -a b");
  pid_t found = 0;
  EXPECT_EQ(scan(program.path + " -a b", &found), 1);
  EXPECT_EQ(found, pid);
}

TEST_F(TovProcToPid, CommandLinesAreComparedWhole) {
  const Program program("whole");
  tov_test::start(program.path + " -a b");
  pid_t found = 77;
  EXPECT_EQ(scan(program.path, &found), 0);
  EXPECT_EQ(scan(program.path + " -a", &found), 0);
  EXPECT_EQ(scan(program.path + " -a b c", &found), 0);
  EXPECT_EQ(found, 77);  // written on success only
}

TEST_F(TovProcToPid, TrailingBlanksOfTheKeyAreStrippedInPlace) {
  const Program program("blanks");
  const pid_t pid = tov_test::start(program.path);
  std::string key = program.path + " \t ";
  pid_t found = 0;
  EXPECT_EQ(tov_proc_to_pid(key.data(), &found, 10), 1);
  EXPECT_EQ(found, pid);
  EXPECT_STREQ(key.c_str(), program.path.c_str());
}

TEST_F(TovProcToPid, TrailingBlanksOfAProcessDoNotCount) {
  const Program program("argument");
  const pid_t pid = tov_test::start_program({program.path, "", ""});
  program.birth();
  pid_t found = 0;
  EXPECT_EQ(scan(program.path, &found), 1);
  EXPECT_EQ(found, pid);
}

TEST_F(TovProcToPid, DeadProcessIsNotFound) {
  const Program program("dead");
  const pid_t pid = tov_test::start(program.path + " exit=0");
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  pid_t found = 0;
  EXPECT_EQ(scan(program.path + " exit=0", &found), 0);
}

TEST_F(TovProcToPid, PausesGrowByATenthOfASecond) {
  char key[] = "/no/such/program";
  pid_t found = 0;
  tov_test::note_sleeps(false);
  EXPECT_LE(tov_proc_to_pid(key, &found, 3), 0);
  EXPECT_THAT(tov_test::fake_sleep.slept_us, ElementsAre(100'000, 200'000, 300'000));
}

TEST_F(TovProcToPid, ProcessThatComesLaterIsFound) {
  const Program program("later");
  pid_t pid = 0;
  std::thread starter([&] {
    usleep(250000);
    pid = tov_test::start(program.path);
  });
  std::string key = program.path;
  pid_t found = 0;
  EXPECT_EQ(tov_proc_to_pid(key.data(), &found, 10), 1);
  starter.join();
  EXPECT_EQ(found, pid);
}

TEST_F(TovProcToPid, ScanThatCannotBeMadeIsANegativeErrorNumber) {
  tov_test::in_child([] {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    char key[] = "/bin/sh";
    pid_t found = 77;
    EXPECT_EQ(tov_proc_to_pid(key, &found, 1), -EMFILE);
    EXPECT_EQ(found, 77);
  });
}
