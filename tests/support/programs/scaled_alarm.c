/*
 * alarm(2) on a scaled clock, preloaded into the daemon in front of libfaketime.
 *
 * libfaketime divides the seconds by the clock's speed and hands the whole part on, so that an
 * alarm of a second or a few becomes alarm(0), which is no alarm at all. Here it becomes a timer
 * with microseconds. Everything else is left to libfaketime.
 *
 * The timer is asked for with the plain system call: nothing that is preloaded may scale it again.
 */
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

static const double USEC_PER_S = 1e6;

/* The speed in FAKETIME="+0 xSPEED"; 1 without one. */
static double clock_speed(void) {
  const char *setting = getenv("FAKETIME");
  const char *speed = setting != NULL ? strrchr(setting, 'x') : NULL;
  const double value = speed != NULL ? atof(speed + 1) : 1.0;
  return value > 0.0 ? value : 1.0;
}

__attribute__((visibility("default"))) unsigned int alarm(unsigned int seconds) {
  const double speed = clock_speed();
  const long usec = (long)(seconds / speed * USEC_PER_S);
  struct itimerval next = {{0, 0}, {usec / 1000000, usec % 1000000}};
  struct itimerval before = {{0, 0}, {0, 0}};
  if (seconds > 0 && usec == 0) next.it_value.tv_usec = 1;
  if (syscall(SYS_setitimer, ITIMER_REAL, &next, &before) < 0) return 0;

  /* As the kernel's: rounded to whole seconds, but a pending alarm is never told as none. */
  const double left =
      ((double)before.it_value.tv_sec + (double)before.it_value.tv_usec / USEC_PER_S) * speed;
  if (left <= 0.0) return 0;
  return left < 1.0 ? 1U : (unsigned int)(left + 0.5);
}
