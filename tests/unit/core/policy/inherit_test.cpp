// What was noted of a listed program's execution, for the registration that comes after it.
#include "core/policy/inherit.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <string>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "tests/unit/simulated.h"
#include "util/identity.h"

static constexpr pid_t PROCESS = 4711;
static constexpr uint64_t STARTED = 7;
static constexpr tov_identity_t GONE = tov_identity_of_start(TOV_NEVER_STARTED);

namespace {

class TovNotedExecution : public tov_test::Simulated {
 protected:
  static void note(pid_t pid = PROCESS) {
    tov_pid_t program{};
    program.pid = pid;
    program.identity = {STARTED, 1, 2, 3, 4};
    strcpy(program.process, "/opt/a -x");
    const tov_chains_guard_t held(tov_chains);
    tov_inherit_note_execution(held, program);
  }
  // What is known of a process of which this was read.
  static tov_identity_t completed(pid_t pid, const tov_identity_t &read) {
    const tov_chains_guard_t held(tov_chains);
    return tov_inherit_more_of(held, pid, read);
  }
  static std::string command_of(uint64_t started) {
    const tov_chains_guard_t held(tov_chains);
    return tov_inherit_command_of(held, PROCESS, tov_identity_of_start(started));
  }
};

}  // namespace

TEST_F(TovNotedExecution, CompletesWhatIsReadLater) {
  note();
  EXPECT_EQ(completed(PROCESS, tov_identity_of_start(STARTED + 1)).stack, 0u) << "another one";
  EXPECT_EQ(completed(PROCESS, {}).stack, 0u) << "perhaps another one";
  EXPECT_EQ(completed(PROCESS + 1, GONE).started, TOV_NEVER_STARTED);
  EXPECT_EQ(completed(PROCESS, {STARTED, 9, 2, 3, 4}).stack, 9u) << "read";
  EXPECT_EQ(completed(PROCESS, tov_identity_of_start(STARTED)).stack, 1u);
  note();
  EXPECT_EQ(completed(PROCESS, GONE).stack, 1u);
}

TEST_F(TovNotedExecution, IsToldOnce) {
  note();
  EXPECT_EQ(completed(PROCESS, GONE).stack, 1u);
  EXPECT_EQ(completed(PROCESS, GONE).stack, 0u);
  note();
  EXPECT_EQ(command_of(STARTED), "/opt/a -x");
  EXPECT_EQ(command_of(STARTED), "");
}

TEST_F(TovNotedExecution, CommandLineIsThatOfTheProcessAlone) {
  note();
  EXPECT_EQ(command_of(STARTED + 1), "");
  EXPECT_EQ(command_of(STARTED), "/opt/a -x");
}

// A request is acknowledged before it is carried out.
TEST_F(TovNotedExecution, LastOnesAreKept) {
  note();
  for (pid_t pid = PROCESS + 1; pid < PROCESS + 16; pid++)
    note(pid);
  EXPECT_EQ(command_of(STARTED), "/opt/a -x");
  note();
  for (pid_t pid = PROCESS + 1; pid <= PROCESS + 16; pid++)
    note(pid);
  EXPECT_EQ(command_of(STARTED), "");
}
