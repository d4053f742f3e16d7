// What a victim program (programs/victim.cpp) tells about its start.
//
// One line in /data/victim.NAME for each start: "birth", then KEY=VALUE items, separated by tabs.
// Lines that begin with "note" are later remarks.
#ifndef TOV_TEST_BIRTH_H
#define TOV_TEST_BIRTH_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tov_test {

struct Birth {
  pid_t pid = 0;
  pid_t ppid = 0;
  pid_t sid = 0;
  pid_t pgrp = 0;
  int64_t main_ns = 0;  // CLOCK_MONOTONIC at the first line of main, never scaled
  std::string argv;     // words joined by blanks
  std::string cwd;
  std::map<int, std::string> fds;  // number and what it leads to
  uint64_t blocked = 0;            // signal masks, bit N - 1 for signal N
  uint64_t ignored = 0;
  uint64_t caught = 0;
  int policy = -1;  // SCHED_...
  int priority = -1;
  int nice = 0;
  int oom_score_adj = 0;
  std::string groups;                      // supplementary groups, blank-separated
  int64_t nofile = 0;                      // soft limit
  std::map<std::string, std::string> env;  // the QX*, QXOS*, DATA_QXOS* and TMPDIR variables
};

// Empty when the line is not a whole birth line.
std::optional<Birth> parse_birth(const std::string &line);

// All of a report; other lines are passed over.
std::vector<Birth> parse_births(const std::vector<std::string> &lines);

}  // namespace tov_test

#endif  // TOV_TEST_BIRTH_H
