// The test's children, and the orphans of its devices.
//
// When the daemon dies, the programs that it started become orphans. On a real system process 1
// buries them at once; in a container it may take seconds or never do it, and a zombie looks like a
// living process to whoever asks for its id. Test processes therefore take in the orphans of their
// descendants (PR_SET_CHILD_SUBREAPER), and the collector threads of the open devices bury them.
//
// A child counts as an orphan when it was not started here (fork_child) and is in another session
// than the test: what a test forks by itself stays untouched.
// Any thread; one mutex guards the list of children.
#ifndef TOV_TEST_CHILDREN_H
#define TOV_TEST_CHILDREN_H

#include <sys/types.h>

#include <optional>

#include "tests/support/processes.h"

namespace tov_test {

// From now on the orphans of our descendants become our children.
void adopt_orphans();

// fork, with the child on the list before it can end. In the child nothing of this file may be
// used.
pid_t fork_child();

// The same for a child with a given process id, which must be free. A process of our own forks it
// and is gone when this returns. Needs CAP_SYS_ADMIN. Returns `id`, or -1 with errno (EEXIST: it is
// in use, EINVAL: it is above kernel.pid_max).
pid_t fork_child_as(pid_t id);

// waitpid for a child from fork_child and takes it off the list. Returns its wait status, or -1
// when other code has waited for it.
int bury_child(pid_t child);

// The same with a limit (times patience()). Empty when the child still runs at its end.
std::optional<int> wait_child(pid_t child, Millis limit);

// Kills a child and buries it. Returns its wait status, as bury_child does.
int end_child(pid_t child);

// Ends and buries all children, adopted ones and their own children included.
void end_children();

// Buries the orphans that have ended. Cheap when there are none.
void bury_orphans();

}  // namespace tov_test

#endif  // TOV_TEST_CHILDREN_H
