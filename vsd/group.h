// The control groups of a virtual device and their limits.
//
// Version-1 hierarchies: memory is mounted at "/memory", cpu at "/cpu"; a device's groups are
// "/memory/vsd_N" and "/cpu/vsd_N". No command calls these functions: they are the interface by
// which other tools put a device under limits, docs/vsd.md shows the order.
//
// What these functions put into a group stays there with its later children; a member that the
// daemon restarts is a child of the daemon, so it is outside until set_cgroups_all() runs again.
//
// Single-threaded processes only: set_cgroups() changes the working directory.
#ifndef TOV_VSD_GROUP_H
#define TOV_VSD_GROUP_H

#include <stdint.h>

// Makes both groups of a device (mode 0777) and puts its members into them. Always 0.
int set_cgroups_all(int vsd_no);

// Puts every recorded member of a device into its groups: one line for each file in
// "/tmp/vsd/N/tov/", whose name is the process id. A file whose name is no number stands for 0,
// which to the kernel means the caller: it moves itself. Processes that are gone, and groups that
// cannot be written, are passed over.
// Returns 0, with "/" as the working directory, or a negative errno: the member directory cannot be
// read, or it holds a negative number (-EINVAL).
int set_cgroups(int vsd_no);

// Writes a process id into a tasks file, which must exist. Failures give a diagnostic only.
void add_cgroups(char *vsd_path, int pid);

// Limits the memory of a device, in kilobytes: first the hard limit, then the soft one.
// Returns 0 or the negative errno of the first that failed (-EBUSY: more is in use and cannot be
// reclaimed); after a failed hard limit the soft one is left alone.
int set_mem_group(int vsd_no, uint64_t mem);

// Writes `mem` kilobytes into one control file of the device's memory group.
//   mem_type  its name, "memory.limit_in_bytes"
// Returns 0 or a negative errno.
int set_mem_limit_group(int vsd_no, uint64_t mem, char *mem_type);

// Sets a device's share of the processor: weight 10 is what every process has, 100 ten times that.
// The kernel keeps shares of 2 to 262144 (weight 2560) and brings others to the nearer end.
// Returns 0 or a negative errno.
int set_cpu_group(int vsd_no, int cpu_weight);

#endif  // TOV_VSD_GROUP_H
