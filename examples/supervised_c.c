/*
 * A daemon in C that is started again whenever it ends.
 *
 *   cc supervised_c.c $(pkg-config --cflags --libs tov) -o supervised_c
 *
 * It registers itself, does its work, and withdraws the registration before it ends on purpose.
 * Kill it with any other signal than SIGTERM and it comes back with the same command line, which is
 * why registering is the first thing that each of its lives does.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <tov/tov_xtach.h>
#include <unistd.h>

static volatile sig_atomic_t asked_to_end = 0;

static void on_term(int signal_number) {
  (void)signal_number;
  asked_to_end = 1;
}

int main(void) {
  struct sigaction action = {.sa_handler = on_term};
  sigaction(SIGTERM, &action, NULL);

  /* Blocks until the daemon has taken the request, six minutes without one; a program that cannot
   * wait makes the call in a thread. Always 0: a missing daemon is the device's problem, not ours,
   * and the registration file that the call wrote is found when the daemon starts. */
  reg_process_exit_action(0, TOV_RESTART);
  printf("supervised_c: process %d is registered\n", (int)getpid());
  fflush(stdout);

  while (!asked_to_end) {
    const struct timespec second = {.tv_sec = 1};
    nanosleep(&second, NULL); /* the daemon's work; a signal ends the pause */
  }

  /* A deliberate end. Without this the exit would look like a failure and be answered by a
   * restart. */
  if (tov_cancel_proc(0) < 0) fprintf(stderr, "supervised_c: still registered\n");
  return EXIT_SUCCESS;
}
