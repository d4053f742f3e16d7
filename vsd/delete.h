// Ending a virtual device: its processes are killed, then its directories removed.
//
// While it goes on, the file "/tmp/vsd/N/delete_vsd" tells the daemon that the deaths it sees are
// wanted: it drops the registrations instead of restarting anything. That holds for every
// registered process of the machine, not only for members of that device.
//
// The ending functions block for about 15 s and print three progress lines on standard output. One
// thread per device; not for the daemon.
#ifndef TOV_VSD_DELETE_H
#define TOV_VSD_DELETE_H

// Ends device `vsd_no` and removes what belongs to it; the variants differ in how much:
//   delete_vsd     everything, with the control groups
//   stop_vsd       its directories in /tmp and /etc, the control groups; the data stays
//   re_delete_vsd  its directories in /tmp and /etc only, for a reload
// Steps: the delete marker, SIGTERM to the members, 5 s, SIGKILL, 10 s, marker and directories off.
// Return 0, also when something could not be removed, or a negative errno: the marker cannot be
// made (then nothing is killed; -ENOENT: there is no such device), or "/proc/" cannot be read (then
// the marker stays, and with it the daemon's restraint).
int delete_vsd(int vsd_no);
int stop_vsd(int vsd_no);
int re_delete_vsd(int vsd_no);

// Ends a device, keeping its data, and creates it again (create_vsd). Returns 0 or a negative
// errno; forks, and returns in the child as create_vsd() does.
int reload_vsd(int vsd_no);

// Removes a device's directories in /tmp and /etc and its run directory, without killing or
// waiting. Always 0.
int delete_vsd_file(int vsd_no);

#endif  // TOV_VSD_DELETE_H
