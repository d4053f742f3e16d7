// A search is a number of scans of /proc with growing pauses between them, and a scan a number of
// rounds over /proc.
#include "proc/find.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "util/entries.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum {
  ROUNDS_MAX = 4,  // of reading, for newcomers' newcomers; on a busy machine somebody always comes
  RETRY_PAUSE_US = 100000,
};

static bool names_a_process(const char *entry) {
  return isdigit(static_cast<unsigned char>(entry[0])) != 0;
}

// Whether every process of the moment is still there when it is looked at, at once. Returns 0, or
// negative errno: of the listing, or of the process that was gone.
static int look_at_all() {
  tov_entries_t processes("/proc");
  if (!processes) return -errno;
  while (const char *name = processes.next()) {
    struct stat status {};
    if (names_a_process(name) && tov_sys_fstatat(processes.fd(), name, &status, 0) < 0)
      return -errno;
  }
  return 0;
}

void tov_scan_s::look_for(const char *command, accepts_t accepts) {
  wanted_s &wanted = wanted_.emplace_back();
  // One that does not fit is no process's: command lines are compared whole. Empty, it is none's.
  if (strlen(command) < sizeof wanted.command) {
    (void)snprintf(wanted.command, sizeof wanted.command, "%s", command);
    rtrim(wanted.command);
  }
  wanted.accepts = std::move(accepts);
  missing_++;
}

void tov_scan_s::ask(considers_t considers) {
  asked_.push_back({std::move(considers)});
}

bool tov_scan_is_blind(int result) {
  return result < 0 && tov_is_ignorance(-result);
}

void tov_scan_s::read_command(pid_t candidate) {
  newcomers_.push_back(candidate);
  char command[COMMAND_SIZE];
  const int result = tov_read_cmdline(candidate, command, sizeof command);
  if (tov_scan_is_blind(result)) unread_ = result;
  if (result < 0) return;
  rtrim(command);
  for (wanted_s &wanted : wanted_) {
    if (wanted.pid != 0 || strcmp(command, wanted.command) != 0) continue;
    if (wanted.accepts && !wanted.accepts(candidate)) continue;
    wanted.pid = candidate;
    missing_--;
  }
  for (asked_s &asked : asked_)
    asked.has_found = asked.considers(candidate, command);
}

// When all processes were looked at.
int tov_scan_s::answer() const {
  const bool all_found =
      missing_ == 0 && std::all_of(asked_.begin(), asked_.end(),
                                   [](const asked_s &asked) { return asked.has_found; });
  return all_found && !asked_.empty() ? 1 : unread_;
}

// ---- rounds -------------------------------------------------------------------------------------

bool tov_scan_s::is_new(pid_t candidate) const {
  return !std::binary_search(read_.begin(), read_.end(), candidate);
}

int tov_scan_s::begin_round() {
  rounds_++;
  processes_ = std::make_unique<tov_entries_t>("/proc");
  return *processes_ ? 0 : -errno;
}

// Who goes to the background may do so by two forks, and the one in between end before it is read:
// whom that has made stands in no list yet. So one round more is made, for those who were not there
// before, until nobody is new. Returns the scan's result, or nothing where it goes on.
std::optional<int> tov_scan_s::end_round() {
  const int so_far = answer();
  if (so_far > 0 || newcomers_.empty() || rounds_ >= ROUNDS_MAX) return so_far;
  read_.insert(read_.end(), newcomers_.begin(), newcomers_.end());
  std::sort(read_.begin(), read_.end());
  newcomers_.clear();
  if (const int failed = begin_round(); failed < 0) return failed;
  return std::nullopt;
}

// A process that vanishes between the listing and the look spoils the scan (negative errno): which
// process it was cannot be said, so the caller scans again. On a busy machine something always
// vanishes; so one round only looks, at once, and the others read the command lines, which takes
// most of the time and is what portions are of.
std::optional<int> tov_scan_s::go_on(int portion) {
  if (result_) return result_;
  if (!processes_) {
    if (const int gone = look_at_all(); gone < 0) return result_ = gone;
    if (const int failed = begin_round(); failed < 0) return result_ = failed;
  }
  for (int read = 0; read != portion && !result_;) {
    const char *name = processes_->next();
    if (name == nullptr) {
      result_ = end_round();
    } else if (names_a_process(name) && is_new(tov_atoi(name))) {
      read_command(tov_atoi(name));
      read++;
      if (missing_ == 0 && asked_.empty()) result_ = 1;
    }
  }
  if (result_) processes_.reset();
  return result_;
}

// ---- searches -----------------------------------------------------------------------------------

int tov_proc_to_pid(char *proc, pid_t *pid, int retry_times) {
  rtrim(proc);
  for (int retry = 0;;) {
    tov_scan_t scan;
    scan.look_for(proc);
    const int result = scan.go_on(tov_scan_t::ALL).value_or(-EAGAIN);
    if (result > 0) *pid = scan.found(0);
    if (result > 0 || retry >= retry_times) return result;
    retry++;
    // Whole seconds apart from the microseconds: a thousand retries must not overflow the latter.
    const int pause_us = retry * RETRY_PAUSE_US;
    safe_sleep_common(pause_us / 1000000, pause_us % 1000000);
  }
}
