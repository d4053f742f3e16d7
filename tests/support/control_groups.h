// The version-1 memory, cpu and pids control groups of a private device.
//
// The hierarchies are machine-wide: two devices that both mounted them at /memory and /cpu would
// fight over vsd_1. Each device therefore makes one group of its own in each hierarchy and shows
// that group as the root: what its programs call /memory/vsd_1 is tov_device_PID/vsd_1 outside.
// A difference that can be seen: /proc/PID/cgroup tells the full name.
#ifndef TOV_TEST_CONTROL_GROUPS_H
#define TOV_TEST_CONTROL_GROUPS_H

#include <string>
#include <vector>

#include "util/owner.h"

namespace tov_test {

// Mounts the hierarchies below `site`, makes our group (named after the caller's process id) in
// each and binds it to `root`/memory, `root`/cpu and `root`/run/pids (the last for limit_processes
// of device.h, no part of the device that programs know). Groups that devices with a dead keeper
// left are removed first. Where the machine has no such hierarchy (version 2 only), the directory
// is made and stays an ordinary one. Returns the open hierarchies, for remove_control_groups.
// Throws std::runtime_error.
std::vector<tov_fd_t> mount_control_groups(const std::string &site, const std::string &root);

// Removes our group and every group below it from each hierarchy; no process may be in them.
// Returns false when one could not be removed.
bool remove_control_groups(const std::vector<tov_fd_t> &hierarchies);

}  // namespace tov_test

#endif  // TOV_TEST_CONTROL_GROUPS_H
