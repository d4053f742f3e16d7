// Which process a listed program is from now on.
//
// A listed program does not register: when its process has ended, the daemon looks whether it runs
// again by itself, and when it was started, which process it has become, since many fork themselves
// into the background. All processes of the machine are looked at, and each is judged by what it
// shows. The signs, the weakest first:
//
//   since  it executes the task's program since the start, whose child has ended well, and belongs
//          to nobody: a program that has rewritten its title
//   word   its command line is the first word of the task's
//   text   its command line is the task's
//   kin    it is a copy of the child, made by fork, or of the dead one, if that ended well and
//          soon: it has gone to the background
//   child  it is the child that was started
//
// A process of another virtual device never counts, but for the child, nor one that has a record of
// its own. One that has given up the groups of its device is known by its kin. Nor does what a dead
// process has left behind: its workers, and those of one before it. They execute the same program
// with the same stack. Where the dead one was young and ended well, or is not known to have ended
// badly and was in another session, they are what it has made of itself; else they are left behind.
// Of a child that has failed likewise: who is in another session counts.
#ifndef TOV_CORE_POLICY_SUCCESSION_H
#define TOV_CORE_POLICY_SUCCESSION_H

#include <stdint.h>
#include <sys/types.h>

#include <vector>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

enum tov_sign_e {
  TOV_SIGN_NONE,
  TOV_SIGN_SINCE,
  TOV_SIGN_WORD,
  TOV_SIGN_TEXT,
  TOV_SIGN_KIN,
  TOV_SIGN_CHILD,
};

// A process that was found.
struct tov_successor_s {
  pid_t pid = 0;  // 0: none
  tov_identity_t identity{};
  tov_sign_e sign = TOV_SIGN_NONE;
};
using tov_successor_t = tov_successor_s;

// What one record wants to know of a scan of /proc (proc/find.h). Holds what it needs of the
// record, so the scan is made without the lock.
class tov_succession_s {
 public:
  //   record  waits for a look or a search (core/policy/search.h)
  tov_succession_s(const tov_chains_guard_t &held, const tov_pid_t &record);

  // Judges a process. Reads /proc, and takes the lock of `tov_chains` for one that may count.
  // Returns whether one has been found so far.
  bool consider(pid_t pid, const char *command);

  // The best so far; of equals, the one that started first.
  const tov_successor_t &found() const { return found_; }

  // Whether the child had ended otherwise than with 0 before the first was judged: nothing comes of
  // it any more.
  bool child_had_failed() const { return child_has_ended_ && !child_ended_well_; }

 private:
  struct candidate_s;

  bool may_count(pid_t pid, const char *command) const;
  tov_sign_e sign_of(const candidate_s &candidate) const;
  tov_sign_e sign_in_search(const candidate_s &candidate) const;
  bool is_heir(const candidate_s &candidate) const;
  bool is_childs_kin(const candidate_s &candidate) const;
  bool is_left_by_child(const candidate_s &candidate) const;
  bool is_left_behind(const candidate_s &candidate) const;
  bool may_be_in_device(const candidate_s &candidate, tov_sign_e sign) const;
  bool belongs_to_nobody(const candidate_s &candidate) const;
  bool is_free(const candidate_s &candidate, tov_sign_e sign) const;
  bool is_own_program(pid_t pid, const char *command) const;

  int vsd_id_;
  char text_[TOV_PROCESS_SIZE];  // the task's command line
  char key_[TOV_PROCESS_SIZE];   // what messages name it by: its first word, or all of it
  char word_[TOV_PROCESS_SIZE];  // the program's path
  uint64_t serial_;              // of the record
  pid_t dead_pid_;
  tov_identity_t dead_;
  int dead_how_;  // TOV_ENDED_*
  bool dead_was_young_;
  bool searches_;  // after a start; else it looks whether the program runs again
  pid_t child_;
  uint64_t child_started_;
  tov_identity_t child_executed_;
  bool child_has_ended_;
  bool child_ended_well_;
  bool kin_are_known_;
  std::vector<pid_t> reapers_;  // who gets orphans: our ancestors, ourselves
  tov_successor_t found_;
};
using tov_succession_t = tov_succession_s;

#endif  // TOV_CORE_POLICY_SUCCESSION_H
