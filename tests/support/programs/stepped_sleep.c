/*
 * Sleeps that end when the test says so, preloaded into the command line's tool.
 *
 * A deletion waits 5 s and 10 s for things that happen elsewhere in the meantime. With this library
 * a sleep of a second and more (select(2) without descriptors) writes how many seconds it is asked
 * for into the file PREFIX.asleep.K, where PREFIX is $TOV_TEST_SLEEPS and K counts from 1, and ends
 * when the file PREFIX.awake.K appears. So the test can look at everything while nothing moves, and
 * no slow machine makes it late. Shorter sleeps, and waits for descriptors, are left alone.
 */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

static const long PAUSE_NS = 2000000;
static const long NS_PER_USEC = 1000;

static void sleep_until_woken(const char *prefix, long seconds) {
  static int count;
  char asleep[PATH_MAX];
  char awake[PATH_MAX];
  char fresh[PATH_MAX];
  count++;
  snprintf(asleep, sizeof asleep, "%s.asleep.%d", prefix, count);
  snprintf(awake, sizeof awake, "%s.awake.%d", prefix, count);
  snprintf(fresh, sizeof fresh, "%s.asleep.new", prefix);
  FILE *file = fopen(fresh, "we");
  if (file == NULL) return;
  fprintf(file, "%ld", seconds);
  fclose(file);
  if (rename(fresh, asleep) < 0) return;
  while (access(awake, F_OK) < 0) {
    const struct timespec pause = {0, PAUSE_NS};
    nanosleep(&pause, NULL);
  }
}

__attribute__((visibility("default"))) int select(int count, fd_set *in, fd_set *out,
                                                  fd_set *except, struct timeval *limit) {
  const char *prefix = getenv("TOV_TEST_SLEEPS");
  if (count == 0 && limit != NULL && limit->tv_sec > 0 && prefix != NULL) {
    sleep_until_woken(prefix, limit->tv_sec);
    return 0;
  }
  struct timespec exact = {0, 0};
  if (limit != NULL) {
    exact.tv_sec = limit->tv_sec;
    exact.tv_nsec = limit->tv_usec * NS_PER_USEC;
  }
  return pselect(count, in, out, except, limit != NULL ? &exact : NULL, NULL);
}
