// Reading a process's device out of /proc/<pid>/status.
//
// Read with plain reads on the stack: the listing of a device asks for every process of the
// machine, and clients ask at each registration.
#include "vsd/member.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/lines.h"
#include "util/tov_utils.h"

enum { STATUS_NAME_SIZE = 64 };
static constexpr size_t STATUS_LINE_MAX = 254;
static constexpr char GROUPS[] = "Groups:";

// Opens the status file of a process; the empty owner, with errno, when there is none.
static tov_fd_t open_status(pid_t pid) {
  char path[STATUS_NAME_SIZE];
  snprintf(path, sizeof path, "/proc/%d/status", pid);
  errno = ENOENT;  // no process has an id of 0 or below
  return tov_fd_t(pid > 0 ? open(path, O_RDONLY | O_CLOEXEC) : -1);
}

// The number that begins two characters behind the colon (a tab stands between), 0 if none does.
static int first_group(const char *groups) {
  const char *behind = groups + strlen(GROUPS);
  return behind[0] == '\0' ? 0 : tov_atoi(behind + 1);
}

int get_vsdid(pid_t pid) {
  tov_fd_t status = open_status(pid);
  if (status.n < 0) {
    const int cause = errno;
    TOV_DBG("%s: fopen fail: %s\n", __func__, strerror(cause));
    return -cause;
  }
  int group = 0;
  tov_lines_s lines(status.n, STATUS_LINE_MAX);
  // The last such line counts: a program's name stands further up and may hold the word, too.
  for (const char *line = lines.next(); line != nullptr; line = lines.next()) {
    const char *groups = strstr(line, GROUPS);
    if (groups != nullptr) group = first_group(groups);
  }
  return (group - TOV_VSD_GID_BASE) / TOV_VSD_GID_STEP;
}

int sisdigit(const char *text) {
  if (text == nullptr || text[0] == '\0') return -1;
  const size_t digits = strspn(text, "0123456789");
  return text[digits] == '\0' ? 0 : -1;
}
