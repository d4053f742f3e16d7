// Cheap signs are asked before dear ones: of most processes the command line says enough.
//
// Tested by: tests/unit/core/policy/succession_test.cpp,
// tests/unit/core/policy/succession_start_test.cpp,
// tests/unit/core/policy/succession_signs_test.cpp, tests/device/listed_service_test.cpp
#include "core/policy/succession.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <vector>

#include "core/registry/deadlines.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "proc/tov_proc.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/member.h"

enum { INIT = 1 };

// Whoever goes to the background does so in this time. A server that ends later leaves behind whom
// it has served with.
static constexpr int64_t YOUTH_US = 120'000'000;

// What is known of the process that is judged.
struct tov_succession_s::candidate_s {
  pid_t pid;
  const char *command;
  tov_stat_t stat;
  tov_identity_t identity;
};

// Whoever has lost his parent becomes one of theirs.
static std::vector<pid_t> ancestors_and_self() {
  std::vector<pid_t> pids;
  tov_stat_t stat;
  for (pid_t pid = tov_sys_getpid(); pid > 0 && tov_read_stat(pid, &stat) == 0; pid = stat.parent)
    pids.push_back(pid);
  pids.push_back(INIT);
  return pids;
}

tov_succession_s::tov_succession_s(const tov_chains_guard_t &held, const tov_pid_t &record)
    : vsd_id_(record.vsd_id),
      text_{},
      key_{},
      word_{},
      serial_(record.serial),
      dead_pid_(record.pid),
      dead_(record.identity),
      dead_how_(record.exit_how),
      dead_was_young_(tov_identity_is_start(dead_.started) &&
                      tov_kernel_clock_us(CLOCK_BOOTTIME) - tov_ticks_us(dead_.started) <=
                          YOUTH_US),
      searches_(record.start.wait == TOV_WAIT_SEARCH),
      child_(record.start.forked),
      child_started_(record.start.forked_started),
      child_executed_(record.start.executed),
      child_has_ended_(record.start.child_ended != 0),
      child_ended_well_(record.start.child_ended != 0 && record.start.child_code == 0),
      kin_are_known_(tov_identity_kin_are_known()),
      reapers_(ancestors_and_self()) {
  held.shows(tov_chains);
  (void)snprintf(text_, sizeof text_, "%s", record.process);
  rtrim(text_);
  tov_proc_search_key(record, key_);
  (void)snprintf(word_, sizeof word_, "%.*s", static_cast<int>(strcspn(text_, " \t")), text_);
}

// ---- signs ----------------------------------------------------------------------------------

// Until a child executes its program it is a copy of the daemon, and that of a script is a shell.
bool tov_succession_s::is_own_program(pid_t pid, const char *command) const {
  return strstr(command, " " TOV_SCRIPT_DIR "/") == nullptr && tov_identity_executes(pid, word_);
}

static bool are_in_other_sessions(const tov_identity_t &one, const tov_identity_t &other) {
  return one.session != 0 && other.session != 0 && one.session != other.session;
}

// Whether the dead one has made it of itself.
bool tov_succession_s::is_heir(const candidate_s &candidate) const {
  if (!kin_are_known_ || !tov_identity_are_kin(dead_, candidate.identity)) return false;
  if (dead_how_ == TOV_ENDED_WELL) return dead_was_young_;
  const bool was_forked_soon = candidate.identity.started >= dead_.started &&
                               tov_ticks_us(candidate.identity.started - dead_.started) <= YOUTH_US;
  return dead_how_ == TOV_ENDED_UNKNOWN && was_forked_soon &&
         are_in_other_sessions(dead_, candidate.identity);
}

bool tov_succession_s::is_childs_kin(const candidate_s &candidate) const {
  return kin_are_known_ && tov_identity_are_kin(child_executed_, candidate.identity);
}

// Whether it is a worker of a child that has failed. One that was killed when it had gone to the
// background is that in a session of its own.
bool tov_succession_s::is_left_by_child(const candidate_s &candidate) const {
  return child_had_failed() && is_childs_kin(candidate) &&
         !are_in_other_sessions(child_executed_, candidate.identity);
}

// Whether it is what the dead one, or one before it, has left behind.
bool tov_succession_s::is_left_behind(const candidate_s &candidate) const {
  if (is_heir(candidate)) return false;
  const bool is_older = tov_identity_is_older(candidate.pid, candidate.identity, dead_pid_, dead_);
  if (is_older || (kin_are_known_ && tov_identity_are_kin(dead_, candidate.identity))) return true;
  if (is_left_by_child(candidate)) return true;
  return !kin_are_known_ && dead_how_ != TOV_ENDED_WELL && dead_.session != 0 &&
         dead_.session == candidate.identity.session;
}

bool tov_succession_s::belongs_to_nobody(const candidate_s &candidate) const {
  return std::find(reapers_.begin(), reapers_.end(), candidate.stat.parent) != reapers_.end();
}

tov_sign_e tov_succession_s::sign_in_search(const candidate_s &candidate) const {
  // Where the last daemon's child has ended, whoever has its id is a stranger.
  const bool is_child =
      candidate.pid == child_ &&
      (child_started_ == 0 ? !child_has_ended_ : candidate.stat.started == child_started_);
  if (is_child)
    return is_own_program(candidate.pid, candidate.command) ? TOV_SIGN_CHILD : TOV_SIGN_NONE;
  const bool is_kin = is_childs_kin(candidate) && !is_left_by_child(candidate) &&
                      is_own_program(candidate.pid, candidate.command);
  return is_kin ? TOV_SIGN_KIN : TOV_SIGN_NONE;
}

tov_sign_e tov_succession_s::sign_of(const candidate_s &candidate) const {
  if (searches_) {
    if (const tov_sign_e sign = sign_in_search(candidate); sign != TOV_SIGN_NONE) return sign;
  } else if (is_heir(candidate)) {
    return TOV_SIGN_KIN;
  }
  const bool has_text = strcmp(candidate.command, text_) == 0;
  const bool has_word = searches_ && strcmp(candidate.command, key_) == 0;
  const bool may_be_since = searches_ && child_ended_well_ && child_started_ != 0 &&
                            candidate.stat.started >= child_started_;
  if (!has_text && !has_word && !may_be_since) return TOV_SIGN_NONE;
  if (is_left_behind(candidate)) return TOV_SIGN_NONE;
  if (has_text) return TOV_SIGN_TEXT;
  if (has_word) return TOV_SIGN_WORD;
  const bool is_since =
      belongs_to_nobody(candidate) && is_own_program(candidate.pid, candidate.command);
  return is_since ? TOV_SIGN_SINCE : TOV_SIGN_NONE;
}

// ---- whose it is ----------------------------------------------------------------------------

// Whether nobody else has it: no record stands for it, and where the sign is weak, no record's
// process has forked it.
bool tov_succession_s::is_free(const candidate_s &candidate, tov_sign_e sign) const {
  const tov_chains_guard_t held(tov_chains);
  if (tov_record_newest_of(held, candidate.pid) != nullptr) return false;
  const tov_pid_t *maker = tov_record_of_child(held, candidate.pid);
  if (maker != nullptr && maker->serial != serial_) return false;
  if (sign >= TOV_SIGN_KIN) return true;
  const auto is_of = [&](const tov_pid_t &other) {
    return (tov_record_has_process(other) &&
            tov_identity_are_kin(other.identity, candidate.identity)) ||
           tov_identity_are_kin(other.start.executed, candidate.identity);
  };
  for (const tov_pid_t &other : tov_chain_records(&tov_chains))
    if (kin_are_known_ && other.serial != serial_ && is_of(other)) return false;
  return true;
}

// A program may give up the groups that say which device it is in. A fork proves whose it is all
// the same, where it is not in another device; and the child was started by us.
bool tov_succession_s::may_be_in_device(const candidate_s &candidate, tov_sign_e sign) const {
  if (sign == TOV_SIGN_CHILD) return true;
  int vsd_id = 0;
  if (tov_vsd_of(candidate.pid, &vsd_id) < 0) return false;
  return std::max(vsd_id, 0) == vsd_id_ || (sign == TOV_SIGN_KIN && vsd_id <= 0);
}

static bool comes_before(const tov_successor_t &one, const tov_successor_t &other) {
  if (one.sign != other.sign) return one.sign > other.sign;
  return tov_identity_is_older(one.pid, one.identity, other.pid, other.identity);
}

// Whether more than the command line is to be read of it.
bool tov_succession_s::may_count(pid_t pid, const char *command) const {
  if (strcmp(command, text_) == 0) return true;
  if (!searches_) return kin_are_known_ && dead_how_ != TOV_ENDED_BADLY && dead_.stack != 0;
  return pid == child_ || child_ended_well_ || strcmp(command, key_) == 0 ||
         (kin_are_known_ && child_executed_.stack != 0);
}

bool tov_succession_s::consider(pid_t pid, const char *command) {
  if (!may_count(pid, command)) return found_.pid != 0;
  candidate_s candidate{pid, command, {}, {}};
  const bool is_alive = tov_read_stat(pid, &candidate.stat) == 0 &&
                        !tov_stat_is_end(candidate.stat.state) &&
                        tov_identity_take(pid, &candidate.identity) == 0;
  if (!is_alive) return found_.pid != 0;
  const tov_successor_t as{pid, candidate.identity, sign_of(candidate)};
  const bool counts = as.sign != TOV_SIGN_NONE && (found_.pid == 0 || comes_before(as, found_)) &&
                      may_be_in_device(candidate, as.sign) && is_free(candidate, as.sign);
  if (counts) found_ = as;
  return found_.pid != 0;
}
