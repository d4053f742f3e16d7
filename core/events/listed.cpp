// Whether a program is registered already, under this process or another one, is asked where its
// execution is handled.
//
// Tested by: tests/unit/core/events/listed_test.cpp, tests/device/listed_before_test.cpp
#include "core/events/listed.h"

#include <errno.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "util/list_file.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/member.h"

enum {
  PORTION = 16,  // processes
  PATH_SIZE = 1024,
};

void tov_listed_walk_s::open() {
  candidates_.clear();
  sleeping_.clear();
  processes_.emplace("/proc");
  if (!*processes_) is_blind_ = is_blind_ || tov_is_ignorance(errno);
}

void tov_listed_walk_s::begin(int64_t born_us) {
  born_us_ = born_us;
  reads_all_ = born_us <= 0;
  errno = 0;
  listed_ = tov_commands_in_tovdb(TOV_THIRD_PART_LIST);
  is_blind_ = listed_.empty() && tov_is_ignorance(errno);
  processes_.reset();
  chosen_.clear();
  candidates_.clear();
  sleeping_.clear();
  if (!listed_.empty()) open();
}

// Whether a line begins with the executable's path: most processes are told apart by it.
bool tov_listed_walk_s::may_be_listed(pid_t pid) const {
  char path[PATH_SIZE];
  if (pid_to_proc(pid, path, sizeof path) == 0 || path[sizeof path - 1] != '\0') return false;
  const auto begins_so = [&](const std::string &command) { return command.starts_with(path); };
  return std::any_of(listed_.begin(), listed_.end(), begins_so);
}

void tov_listed_walk_s::read(pid_t pid) {
  tov_stat_t stat;
  if (const int result = tov_read_stat(pid, &stat); result < 0) {
    is_blind_ = is_blind_ || tov_is_ignorance(-result);
    return;
  }
  const bool is_young = tov_ticks_us(stat.started) >= born_us_;
  if (!(reads_all_ || is_young) || !may_be_listed(pid)) return;
  if (tov_stat_is_end(stat.state)) return;
  if (stat.state == 'D') {
    sleeping_.push_back(pid);
    is_blind_ = true;
    return;
  }
  char command[TOV_PROCESS_SIZE];
  if (pid_to_cmdline(pid, command, sizeof command) == nullptr) return;
  rtrim(command);
  if (std::find(listed_.begin(), listed_.end(), command) == listed_.end()) return;
  candidates_.push_back({pid, stat.parent, stat.started, tov_vsd_or_base(pid), command});
}

bool tov_listed_walk_s::is_the_program(const candidate_s &candidate) const {
  const auto is_of_it = [&](const candidate_s &other) {
    return other.vsd_id == candidate.vsd_id && other.command == candidate.command;
  };
  // A worker may have given up the groups of its device.
  const auto is_worker = [&](const candidate_s &one) {
    return std::any_of(candidates_.begin(), candidates_.end(), [&](const candidate_s &other) {
      return other.pid == one.parent && other.command == one.command &&
             (one.vsd_id == other.vsd_id || one.vsd_id == 0);
    });
  };
  const auto is_alone = [&](const candidate_s &one) {
    return std::none_of(candidates_.begin(), candidates_.end(), [&](const candidate_s &other) {
      return is_of_it(other) && other.parent == one.pid;
    });
  };
  const auto rank = [&](const candidate_s &one) {
    return std::tuple(is_alone(one), one.started, one.pid);
  };
  const auto comes_before = [&](const candidate_s &other) {
    return is_of_it(other) && !is_worker(other) && rank(other) < rank(candidate);
  };
  return !is_worker(candidate) &&
         std::none_of(candidates_.begin(), candidates_.end(), comes_before);
}

void tov_listed_walk_s::choose() {
  for (const candidate_s &candidate : candidates_) {
    const bool is_young = tov_ticks_us(candidate.started) >= born_us_;
    const bool may_be_worker =
        std::find(sleeping_.begin(), sleeping_.end(), candidate.parent) != sleeping_.end();
    if (is_young && !may_be_worker && is_the_program(candidate)) chosen_.push_back(candidate.pid);
  }
  std::reverse(chosen_.begin(), chosen_.end());
}

// All have been read. Whether somebody young is a worker is known when the elder ones are, too.
void tov_listed_walk_s::end() {
  processes_.reset();
  if (reads_all_ || candidates_.empty()) return choose();
  reads_all_ = true;
  open();
}

tov_listed_walk_s::step_s tov_listed_walk_s::go_on() {
  for (int i = 0; processes_ && i < PORTION; i++) {
    if (const char *name = processes_->next()) {
      if (const pid_t pid = tov_atoi(name); pid > 0) read(pid);
    } else {
      end();
    }
  }
  if (processes_) return {true, 0};
  if (chosen_.empty()) return {false, 0};
  const pid_t found = chosen_.back();
  chosen_.pop_back();
  return {true, found};
}
