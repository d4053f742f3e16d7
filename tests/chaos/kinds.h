// The kinds of programs in a chaos run.
#ifndef TOV_CHAOS_KINDS_H
#define TOV_CHAOS_KINDS_H

#include <string>
#include <vector>

namespace tov_chaos {

// Who makes a program known to the daemon.
enum class By {
  NOBODY,   // a stranger, which must never be started by the daemon
  LIBRARY,  // itself or its helper, by a client call
  FILE,     // itself, by its registration file alone: known from the daemon's next start on
  LIST,     // the daemon, when the program is executed
};

struct Kind {
  const char *label;
  By by;
  bool comes_back;  // after any end but that by signal 15
  bool by_script;
  int vsd;
  std::vector<std::string> words;
  int share;  // of a hundred programs
  // Words that make it execute itself with `words`; none: it needs no such start.
  std::vector<std::string> starter;
  // May execute another program and is then started anew beside it.
  bool replaceable = true;
  // Asks for a restart delay of its own, see Program.
  bool delays = false;
};

const std::vector<Kind> &all_kinds();

}  // namespace tov_chaos

#endif  // TOV_CHAOS_KINDS_H
