// The rebuild over a simulated kernel: the order in which it reads and changes a directory.
#include "core/policy/rebuild.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "core/registry/record.h"
#include "core/registry/supervised.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"

using testing::ElementsAre;
using tov_test::kernel;

namespace {

class TovRebuild : public tov_test::Waiting {
 protected:
  TovRebuild() { children_execute("/opt/a"); }
  ~TovRebuild() override {
    const tov_chains_guard_t held(tov_chains);
    tov_supervised_close();
  }

  static void leave(pid_t pid) { leave("a", pid, "/opt/a " + std::to_string(pid)); }
  // The registration file of a dead process.
  static void leave(const std::string &name, pid_t pid, const std::string &command) {
    const std::string id = std::to_string(pid);
    kernel().write_file("/tmp/vsd/0/tov/db/" + name + "." + id, id + "\n2\n" + command);
  }
  // What is supervised, of one command line.
  static std::vector<pid_t> supervised(const std::string &command) {
    std::vector<pid_t> pids;
    const tov_chains_guard_t held(tov_chains);
    for (const tov_pid_t &record : tov_chain_records(&tov_chains))
      if (record.process == command && tov_record_has_process(record)) pids.push_back(record.pid);
    return pids;
  }
};

}  // namespace

// A file system may show a name that is given while its directory is read, or not: the process
// would be read as one more of the dead.
TEST_F(TovRebuild, ReadsAllNamesBeforeItChangesAny) {
  static constexpr int FILES = 40, FIRST = 1'000'000;
  for (int i = 0; i < FILES; i++)
    leave(FIRST + i);
  int read_before = 0;
  for (const tov_test::call_e change :
       {tov_test::CALL_RENAME, tov_test::CALL_LINK, tov_test::CALL_UNLINK})
    kernel().before(change, 1, [&] {
      if (read_before == 0) read_before = kernel().calls(tov_test::CALL_READDIR);
    });
  EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0);
  EXPECT_GT(read_before, FILES);
  EXPECT_EQ(forks(), size_t{FILES});
  EXPECT_EQ(count(), FILES);
}

// ---- listed programs ------------------------------------------------------------------------

static constexpr pid_t DEAD = 1'000'000;

TEST_F(TovRebuild, ListedProgramThatRunsAgainIsTakenOver) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/daemon -d TOV_RESTART\n");
  leave("daemon", DEAD, "/opt/daemon -d");
  const pid_t again = kernel().start({"/opt/daemon", "-d"});
  EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0);
  run(tov_test::US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised("/opt/daemon -d"), ElementsAre(again));
  EXPECT_TRUE(kernel().exists("/tmp/vsd/0/tov/db/daemon." + std::to_string(again)));
  EXPECT_FALSE(kernel().exists("/tmp/vsd/0/tov/db/daemon." + std::to_string(DEAD)));
}

TEST_F(TovRebuild, ListedProgramOfAnotherDeviceIsNoneOfThem) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/daemon -d TOV_RESTART\n");
  leave("daemon", DEAD, "/opt/daemon -d");
  const pid_t other = kernel().start({"/opt/daemon", "-d"});
  kernel().process(other).groups = "3100 ";
  children_execute("/opt/daemon");
  EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0);
  run(tov_test::US_PER_S);
  ASSERT_EQ(forks(), 1u);
  EXPECT_THAT(supervised("/opt/daemon -d"), ElementsAre(kernel().forks[0]));
}

// The one search must not take what belongs to the other.
TEST_F(TovRebuild, TwoListedProgramsOfOneExecutableBothComeBack) {
  kernel().write_file(TOV_THIRD_PART_LIST,
                      "/opt/daemon -a TOV_RESTART\n/opt/daemon -b TOV_RESTART\n");
  leave("daemon", DEAD, "/opt/daemon -a");
  leave("daemon", DEAD + 1, "/opt/daemon -b");
  children_execute("/opt/daemon");
  EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0);
  run(tov_test::US_PER_S);
  ASSERT_EQ(forks(), 2u);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(supervised("/opt/daemon -a").size(), 1u);
  EXPECT_EQ(supervised("/opt/daemon -b").size(), 1u);
  EXPECT_NE(supervised("/opt/daemon -a"), supervised("/opt/daemon -b"));
}

TEST_F(TovRebuild, OneProcessSucceedsOneOfTwoThatWereRegistered) {
  kernel().write_file(TOV_THIRD_PART_LIST, "/opt/daemon -d TOV_RESTART\n");
  leave("daemon", DEAD, "/opt/daemon -d");
  leave("daemon", DEAD + 1, "/opt/daemon -d");
  const pid_t again = kernel().start({"/opt/daemon", "-d"});
  EXPECT_EQ(tov_rebuild_chains(&tov_chains), 0);
  run(10 * tov_test::US_PER_S);
  EXPECT_EQ(forks(), 0u);
  EXPECT_THAT(supervised("/opt/daemon -d"), ElementsAre(again));
}
