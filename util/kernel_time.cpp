// Bare system calls, not the C library's functions; see the header.
#include "util/kernel_time.h"

#include <fcntl.h>
#include <linux/stat.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "util/tov_sys.h"

static int64_t us_of(const timespec &time) {
  constexpr int64_t us_per_s = 1000000, ns_per_us = 1000;
  return time.tv_sec * us_per_s + time.tv_nsec / ns_per_us;
}

int64_t tov_kernel_clock_us(clockid_t clock) {
  timespec now{};
  (void)tov_sys_kernel_clock(clock, &now);
  return us_of(now);
}

int64_t tov_kernel_to_monotonic_us(clockid_t clock) {
  return tov_kernel_clock_us(CLOCK_MONOTONIC) - tov_kernel_clock_us(clock);
}

int64_t tov_file_time_us(const char *path, unsigned int which) {
  struct statx status {};
  if (syscall(SYS_statx, AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, which, &status) < 0) return INT64_MAX;
  const auto &time = which == STATX_MTIME ? status.stx_mtime : status.stx_ctime;
  return us_of({time.tv_sec, time.tv_nsec}) -
         (tov_kernel_clock_us(CLOCK_REALTIME) - tov_kernel_clock_us(CLOCK_BOOTTIME));
}
