// What the tests of the virtual devices share: numbers that no other device has, members, and calls
// that may return twice.
#ifndef TOV_TEST_MODULE_VSD_H
#define TOV_TEST_MODULE_VSD_H

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "util/owner.h"

namespace tov_test {

// Groups are the machine's, and a group is found by a search for its digits: a number whose group
// id is long, contains no other one and is that of no test beside this one. Six digits from 5 to 9
// stand in front of its two zeroes, so it holds none of 3100, 3200, ... 4600.
inline int unused_vsd() {
  static constexpr int DIGITS = 6, CHOICES = 5, LOWEST = 5, GROUP_OF_ZERO = 30;
  int number = 0;
  int rest = getpid();
  for (int i = 0; i < DIGITS; i++, rest /= CHOICES)
    number = 10 * number + LOWEST + rest % CHOICES;
  return number - GROUP_OF_ZERO;
}

inline gid_t group_of(int vsd) {
  return static_cast<gid_t>(3000 + 100 * vsd);
}

// A child that has the supplementary groups `groups`, does `first` and sleeps.
class Member : public Child {
 public:
  explicit Member(
      const std::vector<gid_t> &groups, const std::function<void()> &first = [] {})
      : Child([&] {
          if (setgroups(groups.size(), groups.data()) < 0) _exit(EXIT_FAILURE);
          first();
        }) {}
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
  outcome.output = content_of(output.n);
  return outcome;
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_VSD_H
