// What the tests of starting programs share.
//
// Include it in one file of a program only; fake_sleep.h defines a function.
#ifndef TOV_TEST_MODULE_PROC_SPAWNING_H
#define TOV_TEST_MODULE_PROC_SPAWNING_H

#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "include/tov_ras_comp_config.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/world.h"
#include "tests/support/files.h"

namespace tov_test {

class Spawning : public NotesSleeps<World> {
 protected:
  void SetUp() override {
    NotesSleeps::SetUp();
    // What this test program inherited is its own matter, as it is the daemon's.
    (void)close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  }

  // The exit status of a child, or -1 when it did not leave by itself.
  static int status_of(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  pid_t res_ = 77;
};

// The private root's console is a null device over a plain file; for as long as this lives it is
// the plain file.
class PlainConsole {
 public:
  PlainConsole() {
    EXPECT_EQ(umount(TOV_CONSOLE), 0);
    write_file(TOV_CONSOLE, "");
  }
  ~PlainConsole() { (void)mount("/dev/null", TOV_CONSOLE, nullptr, MS_BIND, nullptr); }
  PlainConsole(const PlainConsole &) = delete;
  PlainConsole &operator=(const PlainConsole &) = delete;
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_PROC_SPAWNING_H
