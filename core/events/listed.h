// Listed programs whose execution nobody heard.
//
// A listed program is registered when it is executed. One that was executed while no daemon
// listened, or whose event was lost, would never be: so after the subscription and after each loss
// (core/policy/look.h) all processes are walked through, and those that are listed are handled as
// if their execution had been heard just then.
//
// Here a process is listed only by its whole command line. One that is just being executed shows
// what it was told to be; one that has run for a while may show what it has made of that, and a
// part of a line would register it as something else.
//
// Of several processes of one command line in one device only one is the program, the others are
// its workers: the one whose parent is none of them; of several such ones one that has workers,
// since those whose program has died have none; of several of these the eldest.
#ifndef TOV_CORE_EVENTS_LISTED_H
#define TOV_CORE_EVENTS_LISTED_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "util/entries.h"

// One object for the event handler; takes no lock.
class tov_listed_walk_s {
 public:
  struct step_s {
    bool goes_on;  // it has not come to its end
    pid_t found;   // a program whose execution was not heard, perhaps; 0: none in this step
  };

  // Begins anew.
  //   born_us  does not hand out who started before, microseconds of CLOCK_BOOTTIME; 0: everybody.
  //            With a time it is cheaper: nothing else is read where nobody is younger
  void begin(int64_t born_us);

  // Whether something could not be read since it began, for want of descriptors or memory, or since
  // who may be listed sleeps in the kernel: whom it has not found may be there.
  bool is_blind() const { return is_blind_; }

  // Makes a portion of the walk, some hundred microseconds, or hands out the next program. Passed
  // over is who sleeps in the kernel, since his command line may keep its reader waiting.
  step_s go_on();

 private:
  struct candidate_s {
    pid_t pid;
    pid_t parent;
    uint64_t started;
    int vsd_id;
    std::string command;
  };

  void open();
  void end();
  bool may_be_listed(pid_t pid) const;
  void read(pid_t pid);
  bool is_the_program(const candidate_s &candidate) const;
  void choose();

  std::vector<std::string> listed_;  // command lines
  int64_t born_us_ = 0;
  bool reads_all_ = false;  // else only who is young enough
  bool is_blind_ = false;
  std::optional<tov_entries_t> processes_;  // while it walks
  std::vector<candidate_s> candidates_;
  std::vector<pid_t> sleeping_;  // in the kernel, and perhaps listed
  std::vector<pid_t> chosen_;    // the last one first
};
using tov_listed_walk_t = tov_listed_walk_s;

#endif  // TOV_CORE_EVENTS_LISTED_H
