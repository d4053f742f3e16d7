// Starts a program as a child of the test, in the test's own root or in a device.
//
// The child is prepared by a table of steps between fork and exec (async-signal-safe calls only,
// because the test has threads); a step that fails is reported through a pipe, so the caller learns
// what went wrong and not merely that a program ended with 127.
#ifndef TOV_TEST_SPAWN_H
#define TOV_TEST_SPAWN_H

#include <grp.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tov_test {

struct Limit {
  int resource;  // RLIMIT_...
  rlim_t soft;
  rlim_t hard;  // cannot be above the caller's
};

struct SpawnRequest {
  std::vector<std::string> argv =
      {};  // the first word is searched in PATH of `env` inside the device
  std::vector<std::string> env = {};  // NAME=VALUE, the whole environment
  std::string cwd = "/";
  bool session = true;                            // setsid
  std::optional<std::vector<gid_t>> groups = {};  // supplementary groups
  std::vector<Limit> limits = {};
  pid_t id = 0;          // the process id that it shall have; 0: any
  int output_fd = -1;    // standard output and error; -1: /dev/null
  int passed_fd = -1;    // becomes descriptor 3
  int mount_ns_fd = -1;  // namespaces to join; -1: stay
  int ipc_ns_fd = -1;
};

// Starts the program with default signal dispositions and an empty signal mask, standard input
// /dev/null, no other descriptor than those named.
// Returns the child's process id; bury_child (children.h) waits for it. Throws std::runtime_error
// naming the failed step.
pid_t spawn_process(const SpawnRequest &request);

}  // namespace tov_test

#endif  // TOV_TEST_SPAWN_H
