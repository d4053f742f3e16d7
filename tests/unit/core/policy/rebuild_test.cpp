// The rebuild over a simulated kernel: the order in which it reads and changes a directory.
#include "core/policy/rebuild.h"

#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/types.h>

#include <string>

#include "core/registry/supervised.h"
#include "core/registry/tov_chain.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"

using tov_test::kernel;

namespace {

class TovRebuild : public tov_test::Waiting {
 protected:
  TovRebuild() { children_execute("/opt/a"); }
  ~TovRebuild() override {
    const tov_chains_guard_t held(tov_chains);
    tov_supervised_close();
  }

  static void leave(pid_t pid) {
    const std::string id = std::to_string(pid);
    kernel().write_file("/tmp/vsd/0/tov/db/a." + id, id + "\n2\n/opt/a " + id);
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
