// The version-1 memory and cpu control groups of a private device.
#include "tests/support/control_groups.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

static const std::string GROUP_PREFIX = "tov_device_";
static constexpr int REMOVE_TRIES = 1'000;
static constexpr Millis REMOVE_PAUSE_MS{10};

// A controller may share its hierarchy with another one; both spellings are tried in turn.
static constexpr struct {
  const char *name;
  const char *target;  // in the device
  const char *options[2];
} hierarchies_wanted[] = {{"memory", "/memory", {"memory", nullptr}},
                          {"cpu", "/cpu", {"cpu", "cpu,cpuacct"}},
                          {"pids", "/run/pids", {"pids", nullptr}}};

static std::string own_group() {
  return GROUP_PREFIX + std::to_string(getpid());
}

static bool is_plain_name(const char *name) {
  return strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Only directories can be removed there; the control files go with them.
static bool remove_group(int parent, const std::string &name) {
  {
    const tov_dir_t group(
        fdopendir(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (!group) return errno == ENOENT;
    while (const dirent *entry = readdir(group.get()))
      if (entry->d_type == DT_DIR && is_plain_name(entry->d_name))
        remove_group(dirfd(group.get()), entry->d_name);
  }
  // A process that was just killed may need a moment to leave its group.
  for (int tries = 0; tries < REMOVE_TRIES; tries++) {
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return true;
    std::this_thread::sleep_for(REMOVE_PAUSE_MS);
  }
  return false;
}

static void remove_stale_groups(int hierarchy) {
  const tov_dir_t dir(fdopendir(openat(hierarchy, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!dir) return;
  while (const dirent *entry = readdir(dir.get())) {
    if (strncmp(entry->d_name, GROUP_PREFIX.c_str(), GROUP_PREFIX.size()) != 0) continue;
    const pid_t keeper = atoi(entry->d_name + GROUP_PREFIX.size());  // NOLINT(cert-err34-c)
    if (keeper > 0 && !process_lives(keeper)) remove_group(hierarchy, entry->d_name);
  }
}

static bool mount_hierarchy(const std::string &at, const char *const (&options)[2]) {
  for (const char *option : options)
    if (option != nullptr && mount("tov", at.c_str(), "cgroup", 0, option) == 0) return true;
  return false;
}

std::vector<tov_fd_t> mount_control_groups(const std::string &site, const std::string &root) {
  std::vector<tov_fd_t> opened;
  for (const auto &wanted : hierarchies_wanted) {
    const std::string at = site + "/" + wanted.name;
    const std::string target = root + wanted.target;
    mkdir(at.c_str(), 0755);
    mkdir(target.c_str(), 0755);
    if (!mount_hierarchy(at, wanted.options)) continue;
    tov_fd_t hierarchy(open(at.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    remove_stale_groups(hierarchy.n);
    remove_group(hierarchy.n, own_group());  // of a dead keeper that had our process id
    const std::string group = at + "/" + own_group();
    if (hierarchy.n < 0 || (mkdir(group.c_str(), 0777) < 0 && errno != EEXIST) ||
        mount(group.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) < 0)
      throw std::runtime_error("private root: control group " + group + ": " + strerror(errno));
    opened.push_back(std::move(hierarchy));
  }
  return opened;
}

bool remove_control_groups(const std::vector<tov_fd_t> &hierarchies) {
  bool removed = true;
  for (const tov_fd_t &hierarchy : hierarchies)
    removed = remove_group(hierarchy.n, own_group()) && removed;
  return removed;
}

}  // namespace tov_test
