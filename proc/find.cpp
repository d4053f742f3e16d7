// A search is a number of scans of /proc with growing pauses between them. No list of
// processes is kept from one round over /proc to the next.
#include "proc/find.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "util/entries.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum {
  COMMAND_SIZE = 1024,
  RETRY_PAUSE_US = 100000,
};

// Calls `look` with the name of each process of the moment until it answers other than 0.
// Returns that answer, 0, or the negative errno of a listing that could not be opened.
template <typename Look>
static int for_each_process(Look look) {
  tov_entries_t entries("/proc");
  if (!entries) return -errno;
  int answer = 0;
  for (const char *name = entries.next(); name != nullptr && answer == 0; name = entries.next())
    if (isdigit(static_cast<unsigned char>(name[0]))) answer = look(entries.fd(), name);
  return answer;
}

static int look_whether_there(int proc_fd, const char *name) {
  struct stat status {};
  return tov_sys_fstatat(proc_fd, name, &status, 0) < 0 ? -errno : 0;
}

// A process that vanishes between the listing and the look spoils the scan (negative errno): which
// process it was cannot be said, so the caller scans again. On a busy machine something always
// vanishes; so one round only looks, at once, and a second one reads the command lines, which takes
// most of the time. Two rounds and no list between them: a search goes on without memory.
static int scan_once(const char *proc, pid_t *pid) {
  const int result = for_each_process(look_whether_there);
  if (result < 0) return result;
  return for_each_process([&](int, const char *name) {
    const pid_t candidate = tov_atoi(name);
    char command[COMMAND_SIZE];
    if (pid_to_cmdline(candidate, command, sizeof command) == nullptr) return 0;
    rtrim(command);
    if (strcmp(command, proc) != 0) return 0;
    *pid = candidate;
    return 1;
  });
}

int tov_proc_to_pid(char *proc, pid_t *pid, int retry_times) {
  rtrim(proc);
  for (int retry = 0;;) {
    const int result = scan_once(proc, pid);
    if (result > 0 || retry >= retry_times) return result;
    retry++;
    // Whole seconds apart from the microseconds: a thousand retries must not overflow the latter.
    const int pause_us = retry * RETRY_PAUSE_US;
    safe_sleep_common(pause_us / 1000000, pause_us % 1000000);
  }
}
