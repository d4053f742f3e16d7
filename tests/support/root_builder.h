// Builds a private root file system: an overlay over the machine's root whose writes vanish.
//
// The caller moves into new mount and IPC namespaces and the new root becomes the root of that
// namespace (pivot_root); nothing of the machine's own mounts stays reachable through it. When the
// last process of the namespace has ended, the kernel unmounts everything: there is no file or
// mount point on the machine to clean up. The only traces outside are the control groups, because
// those hierarchies are machine-wide; see control_groups.h.
#ifndef TOV_TEST_ROOT_BUILDER_H
#define TOV_TEST_ROOT_BUILDER_H

#include <string>
#include <vector>

#include "util/owner.h"

namespace tov_test {

enum class Console {
  NULL_DEVICE,  // /dev/console is the null device
  PTY,          // the slave side of a pseudo terminal in raw mode
  FILE,         // a plain file
};

struct RootPlan {
  bool data2 = false;           // is there a /data2 (a mount of its own)?
  bool control_groups = false;  // mount /memory and /cpu?
  Console console = Console::NULL_DEVICE;
  std::vector<std::string> visible =
      {};  // directories of the machine that must be seen at their path
};

// What is left in the caller's hands. The descriptors are close-on-exec.
struct NewRoot {
  tov_fd_t console_master;            // -1 unless Console::PTY
  tov_fd_t console_slave;             // kept open so that the master never reads a hang-up
  std::vector<tov_fd_t> hierarchies;  // mounts that hold our control group
};

// Moves the calling thread (call it in a single-threaded process) into the new root, working
// directory "/". Needs CAP_SYS_ADMIN.
// Throws std::runtime_error that names the failed step; the process is then unusable.
NewRoot enter_new_root(const RootPlan &plan);

}  // namespace tov_test

#endif  // TOV_TEST_ROOT_BUILDER_H
