// Runs a part of a test in a forked child: for what a process does once in its life (mapping an
// area, caching an id), for locks, which belong to a process, and for another user's rights.
//
// Fork from a single-threaded test only. Failures inside are printed by the child and make the
// calling test fail.
#ifndef TOV_TEST_IN_CHILD_H
#define TOV_TEST_IN_CHILD_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

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

template <typename Body>
void in_child(Body body) {
  fflush(stdout);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    leave_child(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// A child that has done its `setup` and then keeps its locks until this object goes.
class helper_process_s {
 public:
  template <typename Setup>
  explicit helper_process_s(Setup setup) {
    int ready[2] = {-1, -1};
    EXPECT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      setup();
      (void)!write(ready[1], "r", 1);
      for (;;)
        pause();
    }
    close(ready[1]);
    char letter = 0;
    EXPECT_EQ(read(ready[0], &letter, 1), 1) << "the helper failed";
    close(ready[0]);
  }
  helper_process_s(const helper_process_s &) = delete;
  helper_process_s &operator=(const helper_process_s &) = delete;
  ~helper_process_s() { end(); }

  pid_t pid() const { return pid_; }

  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, 0), nullptr, 0);
  }

 private:
  pid_t pid_ = 0;
};

}  // namespace tov_test

#endif  // TOV_TEST_IN_CHILD_H
