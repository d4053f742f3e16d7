// What a daemon costs, and what it leaves lying about.
#ifndef TOV_CHAOS_HEALTH_H
#define TOV_CHAOS_HEALTH_H

#include <stddef.h>
#include <sys/types.h>

#include <string>

namespace tov_chaos {

struct Usage {
  size_t descriptors = 0;
  long resident_kib = 0;

  std::string text() const;
};

// Of a living process; zeros of one that is gone.
Usage usage_of(pid_t pid);

// The ids of a process's dead children that it has not waited for, each behind a blank.
std::string zombies_of(pid_t parent);

// Whether `now` is more than chance makes of `before` when nothing was added that needs more.
bool has_grown(const Usage &before, const Usage &now);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_HEALTH_H
