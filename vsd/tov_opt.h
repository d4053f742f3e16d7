// The command line: one executable is the daemon and the operator's tool for virtual devices.
#ifndef TOV_OPT_H
#define TOV_OPT_H

// Carries out a tool command and ends the process, or returns when the daemon is to start.
//
//   words                returns             ends with
//   (none)               at once
//   -s, -v, -h                               0
//   -c COUNT                                 0; also when a device could not be created
//   -d NUMBER                                0; also when the device could not be deleted
//   add PROGRAM NUMBER   after the work
//   one plain word       after the error line
//   -c or -d with 0, less or no number: the error line, then whatever follows decides (normally
//   nothing does: another error line, returns)
//   other two, three or four words           1, after the error line
//   more                                     0, after the error line
// (Words counted with the program's name.) Output goes to standard output whatever the debug level.
//
// To be called before the process has threads or a SIGCHLD handler: a deletion takes about 15 s, a
// creation waits for its start scripts. May return twice, in a forked child as well, when a device
// could not be entered (create.h).
void tov_handle_options(int argc, char **argv);

// Prints the usage text, ten lines with the diagnostic prefix.
void tov_help(void);

// Prints the version and the owner's notice.
void tov_version(void);

#endif  // TOV_OPT_H
