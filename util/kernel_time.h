// Times as the kernel itself keeps them: of clocks, and of files.
//
// Start times of processes and times of process events are the kernel's. A library that scales the
// daemon's time does not scale those, so what is compared with them is asked of the kernel by the
// bare system call.
//
// Any thread; async-signal-safe.
#ifndef TOV_UTIL_KERNEL_TIME_H
#define TOV_UTIL_KERNEL_TIME_H

#include <stdint.h>
#include <sys/types.h>

// Microseconds of a clock of the kernel.
int64_t tov_kernel_clock_us(clockid_t clock);

// What is to be added to a time of CLOCK_BOOTTIME, or of CLOCK_REALTIME, to have that moment on
// CLOCK_MONOTONIC, in microseconds. It changes when the machine sleeps, or when the wall clock is
// set: good for the moment at which it is asked for.
int64_t tov_kernel_to_monotonic_us(clockid_t clock);

// When the file was written (STATX_MTIME) or renamed (STATX_CTIME), in microseconds of
// CLOCK_BOOTTIME; INT64_MAX when it cannot be said. A file has the wall clock's time; that clock
// being set in between makes the file look older or younger than it is, which nothing here can see.
int64_t tov_file_time_us(const char *path, unsigned int which);

#endif  // TOV_UTIL_KERNEL_TIME_H
