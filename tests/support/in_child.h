// Runs a part of a test in a forked child: for what a process does once in its life (mapping an
// area, caching an id), for locks, which belong to a process, and for another user's rights.
//
// Fork from a single-threaded test only. Failures inside are printed by the child and make the
// calling test fail.
#ifndef TOV_TEST_IN_CHILD_H
#define TOV_TEST_IN_CHILD_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef TOV_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace tov_test {

// Ends a forked child without the parent's exit handlers, but with its coverage data.
[[noreturn]] inline void leave_child(int status) {
  fflush(stdout);
#ifdef TOV_COVERAGE
  __gcov_dump();
#endif
  _exit(status);
}

// Runs `body` in a forked child; what it returns is the child's exit status.
//   pid  set to the child's id if it is wanted
// Returns the wait status.
template <typename Body>
int status_in_child(Body body, pid_t *pid = nullptr) {
  fflush(stdout);
  const pid_t child = fork();
  EXPECT_GE(child, 0);
  if (child == 0) leave_child(body());
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  if (pid != nullptr) *pid = child;
  return status;
}

template <typename Body>
void in_child(Body body) {
  const int status = status_in_child([&] {
    body();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace tov_test

#endif  // TOV_TEST_IN_CHILD_H
