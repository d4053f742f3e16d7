// A private root for a unit test whose subject uses fixed system paths.
//
// Inside, the machine's files are seen through an overlay whose writes vanish with the process;
// /tmp, /data (a real mount), /dev, /dev/shm and /sys (an empty directory) are the process's own,
// System V IPC objects as well. /proc is the machine's. Left-overs of earlier runs (/etc/tov,
// /qxos, flag files) are not visible.
#ifndef TOV_TEST_PRIVATE_ROOT_H
#define TOV_TEST_PRIVATE_ROOT_H

namespace tov_test {

// Moves the process into its private root, working directory "/". A second call does nothing.
// Call it from main or from the first test, before threads are started: only the calling thread
// and what it starts afterwards moves.
// Prints the failed step and aborts when it cannot be done: running the test on the machine's own
// root must never happen. Needs root.
void enter_private_root();

}  // namespace tov_test

#endif  // TOV_TEST_PRIVATE_ROOT_H
