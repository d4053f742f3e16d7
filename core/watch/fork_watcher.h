// The watcher: reacts to failing forks and to the switch that permits reloads.
//
// Two files are watched with inotify. Every failed fork appends a character to the fork-error
// file, every program that was started removes it: more than six characters mean that nothing can
// be started any more, and the daemon ends so that a fresh one may do better. The device's
// configuration file holds the switch; it is mirrored where operators look.
//
// What could get lost: a file that is removed and made again between two readings, or one that
// another process holds open while it is removed. Both files are read once after every
// set-up, and the set-up is made again whenever a watch ends, for whatever reason, or a quiet
// minute shows that another file stands under the name by now.
//
// Every user can write in both directories. In the place of the fork-error file nothing but a
// regular file is left standing, otherwise a link could hide every failure.
//
// Thread: "tov_inotify_fork", detached, at ordinary priority. It never takes a registry lock: the
// endless retry of a failing fork holds one, and this thread is what ends it. Once `quit` is set it
// is not needed for that: whoever waits for a fork hears it, too.
#ifndef TOV_CORE_WATCH_FORK_WATCHER_H
#define TOV_CORE_WATCH_FORK_WATCHER_H

// Thread body; the parameter is ignored and the result is null. Waits until /data is mounted; ends
// the process on a fatal error. Ends as soon as `quit` is raised, within a minute when the flag
// alone is set.
void *tov_inotify_fork_error(void *);

#endif  // TOV_CORE_WATCH_FORK_WATCHER_H
