// Sums over /proc/PID/smaps, compared with the limits of the control groups.
//
// Why smaps and not the group's own figure: a process counts for the device whose group id it
// carries, in whatever control group it is, and the shared libraries count for no device.
//
// Threads: one sweeps; the arrays have no lock, a 64-bit value is read and written in one piece.
// Losses: processes that vanish, or that may not be read, count with what was read of them.
#include "vsd/accounting.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/entries.h"
#include "util/lines.h"
#include "util/owner.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/member.h"
#include "vsd/path.h"

uint64_t array_rss[TOV_VSD_RSS_NUM];
uint64_t mem_use_rss[TOV_VSD_RSS_NUM];

static constexpr uint64_t SWEEP_REST_US = 100'000;
static constexpr uint64_t US_PER_S = 1'000'000;
static constexpr uint64_t BYTES_PER_KB = 1024;
static constexpr size_t SMAPS_LINE_MAX = 1023;
static constexpr size_t LIMIT_SIZE = 256;

// ---- one process ----------------------------------------------------------------------------

// The text `skip` bytes behind `word`, or the end of the line when it has no more.
static const char *behind(const char *word, size_t skip) {
  return word + strnlen(word, skip);
}

// Four characters behind the word stand the colon and the number, which white space may precede.
static uint64_t rss_number(const char *word) {
  return strtoull(behind(word, sizeof "Rss"), nullptr, 10);
}

int get_vsd_mem(char *file, int vsd, uint64_t *array) {
  const tov_fd_t smaps(open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (smaps.n < 0) return TOV_VSD_FAILED(__func__, "open conf file fail");
  if (vsd >= TOV_VSD_RSS_NUM) return 0;  // single programs may be placed in device 16
  uint64_t *sum = &array[std::max(vsd, 0)];

  bool skip = false;  // the next size is a shared library's
  tov_lines_s lines(smaps.n, SMAPS_LINE_MAX);
  for (const char *line = lines.next(); line != nullptr; line = lines.next()) {
    if (strstr(line, "/lib") != nullptr) {
      skip = true;
      continue;
    }
    const char *rss = strstr(line, "Rss");
    if (rss == nullptr) continue;
    if (!skip) *sum += rss_number(rss);
    skip = false;
  }
  return 0;
}

// ---- limits ---------------------------------------------------------------------------------

int vsd_exist(int vsd_no) {
  tov_vsd_path_t path = tov_vsd_path(TOV_VSD_DIR_FMT "/", vsd_no);
  return tov_file_exists(path.text) ? 1 : 0;
}

uint64_t get_maxmem_set(int vsd_no) {
  if (vsd_no == 0) return 0;
  const tov_vsd_path_t path =
      tov_vsd_path(TOV_VSD_MEMORY_GROUP_FMT "memory.limit_in_bytes", vsd_no);
  const tov_fd_t file(open(path.text, O_RDWR | O_CLOEXEC));
  if (file.n < 0) {
    (void)TOV_VSD_FAILED(__func__, "open fail");
    return 0;
  }
  char text[LIMIT_SIZE + 1];
  const ssize_t length = safe_read(file.n, text, LIMIT_SIZE);
  if (length < 0) {
    (void)TOV_VSD_FAILED(__func__, "read fail");
    return 0;
  }
  text[length] = '\0';
  return strtoull(text, nullptr, 10) / BYTES_PER_KB;
}

// ---- the largest member ---------------------------------------------------------------------

namespace {

struct largest_s {
  pid_t pid = 0;
  int rss_kb = 0;
};

}  // namespace

static constexpr const char *FIND_MAX = "find_max_rss";

// The "VmRSS:" number of a process, 0 without one; negative when the process cannot be read.
static int resident_kb(pid_t pid) {
  tov_status_file_t status(pid);
  if (!status) return TOV_VSD_FAILED(FIND_MAX, "fopen fail");
  static constexpr char NAME[] = "Name:";  // the program's own choice: it may hold the word, too
  int rss_kb = 0;
  for (const char *line = status.next(); line != nullptr; line = status.next()) {
    const char *word = strstr(line, "VmRSS:");
    if (word != nullptr && strncmp(line, NAME, strlen(NAME)) != 0)
      rss_kb = tov_atoi(behind(word, sizeof "VmRSS:"));
  }
  return rss_kb;
}

static void measure_member(const char *name, largest_s *largest) {
  struct stat found {};
  // The bare name: this looks into the working directory and normally finds nothing there.
  if (stat(name, &found) < 0) (void)TOV_VSD_FAILED(FIND_MAX, "stat fail");
  if (S_ISDIR(found.st_mode)) return;
  const pid_t pid = tov_atoi(name);
  if (pid < 0) {
    errno = EINVAL;
    (void)TOV_VSD_FAILED(FIND_MAX, "atio proc");
  }
  const int rss_kb = resident_kb(pid);
  if (rss_kb > largest->rss_kb) *largest = {pid, rss_kb};
}

void find_max_rss(int vsd_no) {
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no);
  tov_entries_t members(path.text);
  if (!members) {
    (void)TOV_VSD_FAILED(__func__, "open dir fail");
    return;
  }
  largest_s largest;
  while (const char *name = members.next())
    measure_member(name, &largest);
  TOV_DBG("max_pid %d max_rss %d\n", largest.pid, largest.rss_kb);
  (void)fflush(stdout);  // the signal may be for ourselves
  // 0 when no member was measured: the kernel then takes our own process group, and the sweeper
  // ends with everything that it started. Wanted so.
  (void)kill(largest.pid, SIGKILL);
}

// ---- sweeps ---------------------------------------------------------------------------------

static void rest(uint64_t us) {
  const uint64_t seconds = std::min<uint64_t>(us / US_PER_S, INT_MAX);
  safe_sleep_common(static_cast<int>(seconds), static_cast<int>(us % US_PER_S));
}

static void add_process(pid_t pid) {
  char smaps[32];
  (void)snprintf(smaps, sizeof smaps, "%s/%d/smaps", "/proc", pid);
  if (get_vsd_mem(smaps, get_vsdid(pid), array_rss) < 0)
    (void)TOV_VSD_FAILED("poll_use_mem", "get vsd mem fail");
}

static void hold_to_limit(int vsd_no) {
  const uint64_t limit = vsd_exist(vsd_no) == 1 ? get_maxmem_set(vsd_no) : 0;
  if (limit == 0) {
    array_rss[vsd_no] = 0;
    return;
  }
  if (array_rss[vsd_no] <= limit) return;
  find_max_rss(vsd_no);
  array_rss[vsd_no] = limit;
}

void poll_use_mem(uint64_t usleep_time) {
  tov_entries_t proc("/proc");
  if (!proc) {
    (void)TOV_VSD_FAILED(__func__, "open dir fail");
    return;
  }
  while (const char *name = proc.next()) {
    const pid_t pid = tov_atoi(name);
    if (pid <= 0) continue;
    add_process(pid);
    rest(usleep_time);
  }
  for (int vsd_no = 1; vsd_no < TOV_VSD_RSS_NUM; vsd_no++)
    hold_to_limit(vsd_no);
}

void set_vsd_mem(void) {
  poll_use_mem(SWEEP_REST_US);
  for (int vsd_no = 0; vsd_no < TOV_VSD_RSS_NUM; vsd_no++) {
    mem_use_rss[vsd_no] = array_rss[vsd_no];
    array_rss[vsd_no] = 0;
  }
}

uint64_t vsd_use_mem(int vsd_no) {
  return vsd_no < 0 || vsd_no >= TOV_VSD_RSS_NUM ? 0 : mem_use_rss[vsd_no];
}
