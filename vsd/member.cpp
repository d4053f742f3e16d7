// Reading a process's device out of /proc/<pid>/status: without stdio, because the listing of a
// device asks for every process of the machine, and clients ask at each registration.
#include "vsd/member.h"

#include <errno.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

static constexpr char GROUPS[] = "Groups:";

// The number that begins two characters behind the colon (a tab stands between), 0 if none does.
static int first_group(const char *groups) {
  const char *behind = groups + strlen(GROUPS);
  return behind[0] == '\0' ? 0 : tov_atoi(behind + 1);
}

int tov_vsd_of(pid_t pid, int *vsd_id) {
  tov_status_file_t status(pid);
  if (!status) return -errno;
  int group = 0;
  // The last such line counts: a program's name stands further up and may hold the word, too.
  for (const char *line = status.next(); line != nullptr; line = status.next()) {
    const char *groups = strstr(line, GROUPS);
    if (groups != nullptr) group = first_group(groups);
  }
  *vsd_id = (group - TOV_VSD_GID_BASE) / TOV_VSD_GID_STEP;
  return 0;
}

int get_vsdid(pid_t pid) {
  int vsd_id = 0;
  const int result = tov_vsd_of(pid, &vsd_id);
  if (result == 0) return vsd_id;
  TOV_DBG("%s: fopen fail: %s\n", __func__, strerror(-result));
  return result;
}

int tov_vsd_or_base(pid_t pid) {
  return std::max(get_vsdid(pid), 0);
}

int sisdigit(const char *text) {
  if (text == nullptr || text[0] == '\0') return -1;
  const size_t digits = strspn(text, "0123456789");
  return text[digits] == '\0' ? 0 : -1;
}
