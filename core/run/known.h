// Which processes' ends concern us: those that have a record, and the children of restarts that
// still search for their program.
//
// The reader of process events asks here before it hands an end on, so that the processes of
// everybody else, thousands a second perhaps, cost neither a place in the ring nor a wake-up of the
// event handler nor a registry's lock. Who enters and leaves is said by the registry, under its
// lock; the reader loads one counter and never waits.
//
// An id is entered before anybody asks whether its process still lives. So its end is heard either
// by that question or by its event: whoever is found alive has an end that comes later.
//
// "No" is certain, "yes" is not: ids that differ by a multiple of TOV_KNOWN_PLACES share a counter,
// and the event handler asks the registry itself.
#ifndef TOV_CORE_RUN_KNOWN_H
#define TOV_CORE_RUN_KNOWN_H

#include <sys/types.h>

enum { TOV_KNOWN_PLACES = 32768 };  // as many ids as most systems give out, before they begin anew

// One more reason, or one less, to hear of this process; ids below 1 are passed over. Any thread;
// for each entering one leaving.
void tov_known_enter(pid_t pid);
void tov_known_leave(pid_t pid);

// False: nobody has entered it. Any thread; a load or two.
bool tov_known_may_be(pid_t pid);

// While one of these lives, everybody is known. For the time from before a fork until the child's
// id is entered: a child may have ended before its parent knows its id.
class tov_known_all_s {
 public:
  tov_known_all_s();
  tov_known_all_s(const tov_known_all_s &) = delete;
  tov_known_all_s &operator=(const tov_known_all_s &) = delete;
  ~tov_known_all_s();
};
using tov_known_all_t = tov_known_all_s;

#endif  // TOV_CORE_RUN_KNOWN_H
