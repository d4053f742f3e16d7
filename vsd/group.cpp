// Putting members into control groups and writing limits.
//
// A control file takes one value in one write; the kernel says in that write, or when the file is
// closed, whether it accepts it. So no streams here: every step is one system call and checked.
//
// Threads: one. Losses: a member that ends while its id is on the way is refused by the kernel
// (ESRCH); should its id already belong to another process, that one is moved.
#include "vsd/group.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "include/tov_ras_comp_config.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/tov_utils.h"
#include "vsd/path.h"

enum {
  VALUE_SIZE = 32,
  SHARES_DEFAULT = 1024,  // of the kernel
  WEIGHT_DEFAULT = 10,
};
static constexpr mode_t GROUP_MODE = 0777;

// The groups of a device.
static constexpr const char *groups[] = {TOV_VSD_MEMORY_GROUP_FMT, TOV_VSD_CPU_GROUP_FMT};

// Writes a control file in one piece. Nothing is created or cut.
static int write_control(const char *caller, const char *path, const char *value) {
  tov_fd_t file(open(path, O_RDWR | O_CLOEXEC));
  if (file.n < 0) return TOV_VSD_FAILED(caller, "fopen fail");
  const size_t length = strlen(value);
  ssize_t written = 0;
  do
    written = write(file.n, value, length);
  while (written < 0 && errno == EINTR);
  if (written >= 0 && static_cast<size_t>(written) < length) errno = EIO;
  if (written != static_cast<ssize_t>(length) || close(tov_fd_take(file)) < 0)
    return TOV_VSD_FAILED(caller, "fwrite fail");
  return 0;
}

// ---- members --------------------------------------------------------------------------------

void add_cgroups(char *vsd_path, int pid) {
  char value[VALUE_SIZE];
  (void)snprintf(value, sizeof value, "%d", pid);
  (void)write_control(__func__, vsd_path, value);
}

static void add_to_groups(int vsd_no, int pid) {
  for (const char *group : groups) {
    tov_vsd_path_t tasks = tov_vsd_path(group, vsd_no);
    const size_t length = strlen(tasks.text);
    (void)snprintf(tasks.text + length, sizeof tasks.text - length, "tasks");
    add_cgroups(tasks.text, pid);
  }
}

// Goes through the member directory, which is the working directory.
static int add_members(tov_entries_t &members, int vsd_no) {
  while (const char *name = members.next()) {
    struct stat found {};
    if (stat(name, &found) < 0) (void)TOV_VSD_FAILED("set_cgroups", "stat fail");
    if (S_ISDIR(found.st_mode)) continue;  // "db", the registrations
    const int pid = tov_atoi(name);
    if (pid < 0) {
      errno = EINVAL;
      return TOV_VSD_FAILED("set_cgroups", "atio proc");
    }
    add_to_groups(vsd_no, pid);
  }
  return 0;
}

int set_cgroups(int vsd_no) {
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no);
  if (chdir(path.text) < 0) return TOV_VSD_FAILED(__func__, "chdir fail");
  int res = 0;
  {
    tov_entries_t members(path.text);
    res = members ? add_members(members, vsd_no) : TOV_VSD_FAILED(__func__, "open dir fail");
  }
  if (chdir("/") < 0 && res == 0) res = TOV_VSD_FAILED(__func__, "chdir fail");
  return res;
}

int set_cgroups_all(int vsd_no) {
  for (const char *group : groups) {
    const tov_vsd_path_t path = tov_vsd_path(group, vsd_no);
    // No parents: without the hierarchy this must stay a failure and not become a directory that
    // looks like a group.
    (void)mkdir(path.text, GROUP_MODE);
    (void)chmod(path.text, GROUP_MODE);
  }
  const int res = set_cgroups(vsd_no);
  if (res < 0) {
    errno = -res;
    (void)TOV_VSD_FAILED(__func__, "set mem group fail");
  }
  return 0;
}

// ---- limits ---------------------------------------------------------------------------------

int set_mem_limit_group(int vsd_no, uint64_t mem, char *mem_type) {
  char path[PATH_MAX];
  const tov_vsd_path_t group = tov_vsd_path(TOV_VSD_MEMORY_GROUP_FMT, vsd_no);
  const int length = snprintf(path, sizeof path, "%s%s", group.text, mem_type);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
    errno = ENAMETOOLONG;
    return TOV_VSD_FAILED(__func__, "fopen fail");
  }
  char value[VALUE_SIZE];
  (void)snprintf(value, sizeof value, "%" PRIu64 "K", mem);
  return write_control(__func__, path, value);
}

int set_mem_group(int vsd_no, uint64_t mem) {
  char hard[] = "memory.limit_in_bytes";
  char soft[] = "memory.soft_limit_in_bytes";
  int res = set_mem_limit_group(vsd_no, mem, hard);
  if (res < 0) {
    errno = -res;
    return TOV_VSD_FAILED(__func__, "set_hard_mem_limit fail");
  }
  res = set_mem_limit_group(vsd_no, mem, soft);
  if (res < 0) {
    errno = -res;
    return TOV_VSD_FAILED(__func__, "set_soft_mem_limit fail");
  }
  return 0;
}

int set_cpu_group(int vsd_no, int cpu_weight) {
  char path[PATH_MAX];
  const tov_vsd_path_t group = tov_vsd_path(TOV_VSD_CPU_GROUP_FMT, vsd_no);
  (void)snprintf(path, sizeof path, "%scpu.shares", group.text);
  char value[VALUE_SIZE];
  const int64_t shares = int64_t{cpu_weight} * SHARES_DEFAULT / WEIGHT_DEFAULT;
  (void)snprintf(value, sizeof value, "%" PRId64, shares);
  return write_control(__func__, path, value);
}
