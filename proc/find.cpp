// A search is a number of scans of /proc with growing pauses between them. No list of
// processes is kept from one round over /proc to the next.
#include "proc/find.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "util/entries.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum {
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

void tov_scan_s::read_command(const char *name) {
  const pid_t candidate = tov_atoi(name);
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

// A process that vanishes between the listing and the look spoils the scan (negative errno): which
// process it was cannot be said, so the caller scans again. On a busy machine something always
// vanishes; so one round only looks, at once, and a second one reads the command lines, which takes
// most of the time and is what portions are of.
std::optional<int> tov_scan_s::go_on(int portion) {
  if (result_) return result_;
  if (!processes_) {
    if (const int gone = look_at_all(); gone < 0) return result_ = gone;
    processes_.emplace("/proc");
    if (!*processes_) return result_ = -errno;
  }
  for (int read = 0; read != portion && !result_; read++) {
    const char *name = processes_->next();
    if (name == nullptr) {
      result_ = answer();
    } else if (names_a_process(name)) {
      read_command(name);
      if (missing_ == 0 && asked_.empty()) result_ = 1;
    }
  }
  if (result_) processes_.reset();
  return result_;
}

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
