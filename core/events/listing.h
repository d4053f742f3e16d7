// What the list of third-part programs says, remembered as long as nothing has happened to it: so
// that the execution of a program that nobody has listed, which is nearly every one, costs the
// reader of process events next to nothing.
//
// What counts is whether a program can be listed: its executable's path stands somewhere in a line
// (util/list_file.h). Whether it is, and how, the event handler asks the list itself.
//
// Owned by the reader of process events; takes no lock.
#ifndef TOV_CORE_EVENTS_LISTING_H
#define TOV_CORE_EVENTS_LISTING_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "util/path_watch.h"

class tov_listing_s {
 public:
  tov_listing_s();

  // Looks whether the list has changed, and reads it anew then. Right before anything below is
  // asked, and behind the receipt of the event for which it is asked.
  void refresh();

  // The next refresh() reads it anew, whatever the watch says: after a wait for a change, and from
  // time to time.
  void doubt() { watch_.doubt(); }

  // Whether anything can be listed now. False only while a change would be told by `watch()`.
  bool any() const { return is_any_; }

  // Whether what a process executes can be listed. Also of one that cannot be asked any more: it
  // may have gone to the background.
  bool may_be_listed(pid_t pid) const;

  const tov_path_watch_t &watch() const { return watch_; }

 private:
  tov_path_watch_t watch_;
  bool is_known_ = false;  // `lines_` are the list's
  bool is_any_ = true;
  std::vector<std::string> lines_;
};
using tov_listing_t = tov_listing_s;

#endif  // TOV_CORE_EVENTS_LISTING_H
