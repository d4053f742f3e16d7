#include "proc/find.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <vector>

#include "util/entries.h"
#include "util/tov_utils.h"

enum {
  COMMAND_SIZE = 1024,
  RETRY_PAUSE_US = 100000,
  USUAL_PROCESSES = 512,
};

// The process ids of the moment. A process that vanishes between the listing and the look spoils
// the scan (negative errno): which process it was cannot be said, so the caller scans again. On a
// busy machine something always vanishes; the looks therefore follow the listing at once, and the
// command lines, which take most of the time, are read afterwards.
static int list_processes(std::vector<pid_t> *pids) {
  tov_entries_t entries("/proc");
  if (!entries) return -errno;
  while (const char *name = entries.next()) {
    if (!isdigit(static_cast<unsigned char>(name[0]))) continue;
    struct stat status {};
    if (fstatat(entries.fd(), name, &status, 0) < 0) return -errno;
    if (S_ISDIR(status.st_mode)) pids->push_back(tov_atoi(name));
  }
  return 0;
}

static int scan_once(const char *proc, pid_t *pid) {
  std::vector<pid_t> pids;
  pids.reserve(USUAL_PROCESSES);
  int result = list_processes(&pids);
  if (result < 0) return result;
  for (pid_t candidate : pids) {
    char command[COMMAND_SIZE];
    if (pid_to_cmdline(candidate, command, sizeof command) == nullptr) continue;
    rtrim(command);
    if (strcmp(command, proc) == 0) {
      *pid = candidate;
      return 1;
    }
  }
  return 0;
}

int tov_proc_to_pid(char *proc, pid_t *pid, int retry_times) {
  rtrim(proc);
  for (int retry = 0;;) {
    int result = scan_once(proc, pid);
    if (result > 0 || retry >= retry_times) return result;
    retry++;
    // Whole seconds apart from the microseconds: a thousand retries must not overflow the latter.
    int pause_us = retry * RETRY_PAUSE_US;
    safe_sleep_common(pause_us / 1000000, pause_us % 1000000);
  }
}
