// Turns at the virtual devices' groups.
//
// Group ids are the machine's: the deletion of device 1 in one private device signals the members
// of device 1 in all others, and whoever looks for members finds theirs. Within one run of ctest
// the tests that delete or count run alone; this keeps the runs of several trees on one machine
// apart, too. A test that waits very long for its turn goes on without it. The lock is on a
// directory that every machine has, so nothing is left behind.
#ifndef TOV_TEST_VSD_TURN_H
#define TOV_TEST_VSD_TURN_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

// To be registered as a global environment of a test program.
class VsdTurn : public testing::Environment {
 public:
  //   operation  LOCK_EX for tests that delete or count members, LOCK_SH for those that have some
  explicit VsdTurn(int operation) : operation_(operation) {}
  void SetUp() override {
    static constexpr Millis LIMIT_MS{60'000};
    lock_ = tov_fd_t(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    wait_until([this] { return lock_.n < 0 || flock(lock_.n, operation_ | LOCK_NB) == 0; },
               LIMIT_MS / patience());
  }
  void TearDown() override { lock_.reset(); }

 private:
  int operation_;
  tov_fd_t lock_;
};

}  // namespace tov_test

#endif  // TOV_TEST_VSD_TURN_H
