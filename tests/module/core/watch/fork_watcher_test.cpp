// The thread that watches over failing forks: how long it stays, and what it does when it cannot
// watch.
#include "core/watch/fork_watcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <thread>

#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/module/self_healing.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::MatchesRegex;
using tov_test::read_file;
using tov_test::write_file;

using TovInotifyForkError = tov_test::World;

// Runs the thread in a forked child until it ends the process. Returns the wait status.
static int watch_in_child() {
  return tov_test::status_in_child([] {
    std::thread([] { tov_inotify_fork_error(nullptr); }).join();
    return 0;
  });
}

TEST_F(TovInotifyForkError, LooksOnceEvenIfTheDaemonIsToEnd) {
  tov_flag_set(quit, 1);
  write_file(TOV_FORK_FILE, "aaaaaaa");
  const int status = watch_in_child();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Unable to restart the process, tov will be restart."));
}

TEST_F(TovInotifyForkError, WatchThatCannotBeMadeEndsTheProcessWithItsRecords) {
  fs::remove(TOV_EXIT_REASON_FILE);
  const tov_test::SelfHealing healing;
  // Neither there nor missing: the way to the record leads through a file.
  fs::rename("/tmp/tov", "/tmp/tov.away");
  write_file("/tmp/tov", "");
  const int status = watch_in_child();
  fs::remove("/tmp/tov");
  fs::rename("/tmp/tov.away", "/tmp/tov");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;

  // The descriptor's number is the process's own business.
  static const std::string values =
      "\\(inotifyfd, wd_fork, wd_tov_cfg, fd_num\\)=\\([0-9]+, -1, -1, -1\\)\\.";
  EXPECT_THAT(healing.request(),
              MatchesRegex("\\[1\\]\\[0\\]\\[tov\\]\\[tov_inotify_fork_error!" + values + "\\]"));
  EXPECT_THAT(read_file(TOV_EXIT_REASON_FILE),
              MatchesRegex("[A-Z][a-z]+ .* [0-9]{4} tov_inotify_fork_error!" + values + "\n"));
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre(MatchesRegex(
                  "Thread \"tov_inotify_fork_error\" exit, tov will be restart. " + values)));
}
