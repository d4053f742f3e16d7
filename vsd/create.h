// Creating a virtual device and starting a program inside one.
//
// Both fork, and in both the forked child returns to its caller when it fails before its program
// runs: the caller's code then goes on twice. The command line is written for that; any other
// caller must be, too. They wait for their own children, so they do not belong into a process whose
// SIGCHLD handler reaps everything. Not for threaded processes.
#ifndef TOV_VSD_CREATE_H
#define TOV_VSD_CREATE_H

// Creates device `vsd_no` and waits until its start scripts have run: a child takes the device's
// group, environment, directories and working directory and becomes
// "/bin/run-parts /etc/rc.d/rc.vsd/ -a vsd". Then records the members (save_vsdinfo).
// Returns 0 in the calling process, also when the fork failed. In the child it returns, with a
// negative errno, only when the device could not be entered.
int create_vsd(int vsd_no);

// Starts a program in device `vsd_no`, 0 to 16, without waiting for anything: the script
// "/etc/cmdmap/NAME.sh" with the word "start" if there is one, otherwise "/sbin/NAME" without
// words. For a device above 0 the program has the device's group, environment and working directory
// and a member file; for 0 it is started as the caller is.
// Returns 0 in the calling process, also when the fork failed, or -EINVAL for another number. In
// the child it returns, with a negative errno, when the device could not be entered or the member
// file not be made.
int create_proc_to_vsd(char *proc_name, int vsd_no);

// Makes a member file for every process of the machine that now belongs to device `vsd_no` (1 and
// up). Ends at the first one that cannot be made.
void save_vsdinfo(int vsd_no);

// 1 when "/etc/cmdmap/NAME.sh" exists, otherwise 0. The name is not looked into: with slashes it
// may lead to a script elsewhere.
int check_shell(char *sbin_name);

// 1 when "/sbin/" has an entry of exactly that name, 0 when not, a negative errno when it cannot be
// read.
int check_sbin(char *sbin_name);

#endif  // TOV_VSD_CREATE_H
