// Listing the virtual devices.
#ifndef TOV_VSD_SHOW_H
#define TOV_VSD_SHOW_H

// Prints to standard output, for each device from 1 to 15 that has a member directory, a line
// "Vsd_N: /tmp/vsd/N/tov/" and a line for each entry of it: the process ids of the recorded members
// and "db". Device 16 is never listed.
void show_vsd(void);

#endif  // TOV_VSD_SHOW_H
