// Finding a running process by its command line.
#ifndef TOV_PROC_FIND_H
#define TOV_PROC_FIND_H

#include <stddef.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "util/entries.h"

// One scan of /proc for the processes of some command lines, to be made in portions: between two of
// them the caller does what is more urgent. A program that goes to the background meanwhile is
// seen: who came while others were read is read, too.
//
// One thread an object; takes no lock. Allocates what opendir(3) needs, until the scan is over, a
// kilobyte for each command line and the ids of the machine's processes.
class tov_scan_s {
 public:
  enum { ALL = -1 };  // as a portion: the rest of the scan

  // Which processes count.
  using accepts_t = std::function<bool(pid_t)>;

  // Adds `command`, of which trailing blanks and tabs do not count. Before the first portion.
  //   accepts  asked about each process of that command line; empty: all count
  void look_for(const char *command, accepts_t accepts = {});

  // Judges each process by its command line, which is without trailing blanks. Returns whether it,
  // or one before it, is the one that was looked for; a better one may come.
  using considers_t = std::function<bool(pid_t pid, const char *command)>;

  // Adds somebody who judges all processes himself, and knows which one he has found.
  void ask(considers_t considers);

  // Reads the command lines of at most `portion` further processes.
  // Returns nothing while there are more; then 1 when everything looked for was found, 0 when
  // something was not, negative errno when the scan could not be finished, or when something was
  // not found and the command line of some process could not be read. A scan that is over answers
  // the same again.
  std::optional<int> go_on(int portion);

  // The first process of the command line that was added as number `index`, from 0 on; 0: none was
  // found.
  pid_t found(size_t index) const { return wanted_[index].pid; }

 private:
  enum { COMMAND_SIZE = 1024 };
  struct wanted_s {
    char command[COMMAND_SIZE] = {};
    pid_t pid = 0;
    accepts_t accepts;
  };
  struct asked_s {
    considers_t considers;
    bool has_found = false;
  };

  void read_command(pid_t candidate);
  bool is_new(pid_t candidate) const;
  int begin_round();
  std::optional<int> end_round();

  int answer() const;

  std::vector<wanted_s> wanted_;
  std::vector<asked_s> asked_;
  size_t missing_ = 0;                        // command lines without a process
  std::unique_ptr<tov_entries_t> processes_;  // once they are read
  std::vector<pid_t> read_;                   // who has been read in earlier rounds, sorted
  std::vector<pid_t> newcomers_;              // in this one
  int rounds_ = 0;                            // of reading
  int unread_ = 0;                            // negative errno of a command line, 0: none
  std::optional<int> result_;
};
using tov_scan_t = tov_scan_s;

// Whether the answer of a scan leaves it open what runs: it was no process's end that spoiled it.
bool tov_scan_is_blind(int result);

// Finds a process whose command line equals `proc`, whose trailing blanks and tabs are stripped in
// place first. Scans /proc once, and again after 100, 200, ... ms for up to `retry_times` retries:
// with 10 retries the search takes about 5.5 s at the most, with 0 it is one scan.
//   pid  written on success only
// Returns 1, 0 when no process was found, negative errno when the last scan could not be finished.
int tov_proc_to_pid(char *proc, pid_t *pid, int retry_times);

#endif  // TOV_PROC_FIND_H
