// How much memory each virtual device uses, and what happens beyond its limit.
//
// A sweep adds up the resident sizes of all mappings of every process of the machine by device,
// shared libraries left out, and kills the largest member of a device that is over the limit of its
// memory group. The kernel enforces the same limit on the processes in the group; a sweep also
// counts members that are not in it, those that were restarted for instance.
//
// Not for the daemon (a sweep may signal its own process group), and no command calls it: it is
// there for a tool that sweeps all the time. One thread sweeps; others may read a value meanwhile
// and accept that it is the last sweep's. Needs root.
#ifndef TOV_VSD_ACCOUNTING_H
#define TOV_VSD_ACCOUNTING_H

#include <stdint.h>

enum { TOV_VSD_RSS_NUM = 16 };  // devices 0 to 15; 0 is whatever belongs to no device

// Kilobytes by device: of the sweep that goes on, and of the last published one.
extern uint64_t array_rss[TOV_VSD_RSS_NUM];
extern uint64_t mem_use_rss[TOV_VSD_RSS_NUM];

// One sweep with 100 ms of rest after each process (some 30 s for 300), then publishes the sums and
// begins new ones.
void set_vsd_mem(void);

// The last published kilobytes of a device; 0 before the first sweep and for a device that is not
// counted (below 0, above 15).
uint64_t vsd_use_mem(int vsd_no);

// One sweep, added to what is in `array_rss`, with `usleep_time` microseconds of rest after each
// process. Afterwards the sum of a device without limit, or without directory, is 0, and that of a
// device which was over its limit, and lost its largest member, is the limit.
void poll_use_mem(uint64_t usleep_time);

// Adds the resident kilobytes of one smaps file to array[vsd]: every "Rss" number but the first one
// behind a line that contains "/lib". A negative device counts as 0, one above 15 is not counted.
// Returns 0, or a negative errno when the file cannot be opened.
int get_vsd_mem(char *file, int vsd, uint64_t *array);

// The memory limit of a device in kilobytes; 0 for device 0 and when it cannot be read. The group
// of a device without limit gives the kernel's largest number and not 0.
uint64_t get_maxmem_set(int vsd_no);

// 1 when the directory "/tmp/vsd/N/" exists, otherwise 0.
int vsd_exist(int vsd_no);

// Kills (SIGKILL) the recorded member of a device with the largest VmRSS. When no member could be
// measured the signal goes to the caller's own process group. Nothing is killed when the member
// directory cannot be read. Entries are told from directories by their bare names in the caller's
// working directory.
void find_max_rss(int vsd_no);

#endif  // TOV_VSD_ACCOUNTING_H
