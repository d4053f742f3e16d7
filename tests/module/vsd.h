// What the tests of the virtual devices share: numbers that nobody else uses, members, and calls
// that may return twice.
#ifndef TOV_TEST_MODULE_VSD_H
#define TOV_TEST_MODULE_VSD_H

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "log/tov_dbg.h"
#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

// Groups are the machine's, and a group is found by a search for its digits: a number whose group
// id is long and holds nobody else's.
inline int unused_vsd() {
  const int pid = getpid();
  return (40 + pid % 20) * 10'000 + 20 + (pid / 20) % 70;
}

inline gid_t group_of(int vsd) {
  return static_cast<gid_t>(3000 + 100 * vsd);
}

// A child that has the supplementary groups `groups`, does `first` and waits to be killed. Killed
// and reaped at the latest by the destructor.
class Member {
 public:
  explicit Member(
      const std::vector<gid_t> &groups, const std::function<void()> &first = [] {}) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) abort();
    const tov_fd_t in(ends[0]);
    tov_fd_t out(ends[1]);
    pid_ = fork();
    if (pid_ == 0) {
      if (setgroups(groups.size(), groups.data()) < 0) _exit(EXIT_FAILURE);
      first();
      (void)!write(out.n, "r", 1);
      for (;;)
        pause();
    }
    out.reset();
    char ready = 0;
    if (read(in.n, &ready, 1) != 1) abort();
    // It touches its last new page on the way into the pause; its size must not change any more.
    wait_until([this] { return process_state(pid_) == 'S'; }, Millis(30'000));
  }
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;
  ~Member() {
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  std::string name() const { return std::to_string(pid_); }
  // The signal that has ended it, waiting for its end; 0 when none did within a while.
  int ended_by() {
    wait_until([this] { return status_ >= 0 || waitpid(pid_, &status_, WNOHANG) == pid_; },
               Millis(30'000));
    return status_ >= 0 && WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
  }
  // Whether it lives, seen after a moment in which a signal would have arrived.
  bool is_unharmed() {
    return !wait_until([this] { return !process_lives(pid_); }, Millis(30));
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

struct Outcome {
  std::vector<int> results;  // sorted: of every process in which the call returned
  std::string output;        // what they and their programs have printed, diagnostics included
};

// Makes a call that forks, and that may return in the child as well, in a process of its own; waits
// until that and all its children have ended or have become other programs.
template <typename Call>
Outcome outcome_of(Call call) {
  const tov_fd_t output(memfd_create("output", MFD_CLOEXEC));
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) abort();
  const tov_fd_t in(ends[0]);
  tov_fd_t out(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    dup2(output.n, STDOUT_FILENO);
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
    const int result = call();
    fflush(stdout);
    (void)!write(out.n, &result, sizeof result);
    _exit(EXIT_SUCCESS);
  }
  out.reset();
  Outcome outcome;
  int result = 0;
  while (read(in.n, &result, sizeof result) == sizeof result)
    outcome.results.push_back(result);
  waitpid(child, nullptr, 0);
  std::sort(outcome.results.begin(), outcome.results.end());
  char part[4096];
  for (ssize_t got = 0;
       (got = pread(output.n, part, sizeof part, static_cast<off_t>(outcome.output.size()))) > 0;)
    outcome.output.append(part, static_cast<size_t>(got));
  return outcome;
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_VSD_H
