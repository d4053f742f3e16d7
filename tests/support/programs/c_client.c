/*
 * A client in C: a supervised program that makes the library's calls as it is told.
 *
 * Tests copy it under names of their own (NAME: the file name of its executable). Each life carries
 * out the words of its command line, and then, line by line, what is appended to /data/do.NAME
 * while it lives. It appends to /data/client.NAME
 *   PID born            first of all
 *   PID begins WORD     before a word is carried out
 *   PID did WORD RESULT behind it, with the call's result
 * and works until it is killed. Several instances share the files; a line of /data/do.NAME is meant
 * for the one whose id it begins with: "PID WORD".
 *
 * Words:
 *   exec             reg_process_exit_action, execute again
 *   script           the same, run the start script
 *   path=PATH        reg_process_exit_action_shell
 *   text=TYPE        reg_third_part_process_exit_action
 *   negative         reg_process_exit_action for process -1
 *   negative-path    reg_process_exit_action_shell for process -1
 *   wait=SECONDS     tov_time_set
 *   cancel           tov_cancel_proc
 *   watch            tov_client_reg_thread_notify for the first thread, which then gives signs of
 * life alive            tov_client_reset_thread_notify once leave tov_client_unreg_thread_notify
 * for the first thread, which gives no more signs threads=COUNT    so many threads, each of which
 * registers, gives a hundred signs of life, registers the process, looks into files and
 * unregisters; RESULT is the number of calls that failed fork             fork; the child lives as
 * a process of its own and carries out "exec"
 *
 * Linked statically, like the victim and for the same reason.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <tov/tov_xtach.h>
#include <unistd.h>

enum { TICK_MS = 10, WORD_SIZE = 256, THREADS_MAX = 32, SIGNS_OF_LIFE = 100 };
static const unsigned int PERIOD = 120;
static const unsigned int COUNT = 5;

static char name[WORD_SIZE];
static int watched = 0;

static void report(const char *text) {
  char path[WORD_SIZE + 16];
  char line[2 * WORD_SIZE];
  snprintf(path, sizeof path, "/data/client.%s", name);
  const int length = snprintf(line, sizeof line, "%d %s\n", (int)getpid(), text);
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  if (write(fd, line, (size_t)length) < 0) perror(path);
  close(fd);
}

static void sleep_ms(long ms) {
  struct timespec left = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000};
  while (nanosleep(&left, &left) < 0 && errno == EINTR)
    continue;
}

static void *live_in_a_thread(void *failures) {
  const pid_t pid = getpid();
  const pid_t tid = gettid();
  int failed = tov_client_reg_thread_notify(pid, tid, PERIOD, COUNT) != 0;
  for (int i = 0; i < SIGNS_OF_LIFE; i++) {
    failed += tov_client_reset_thread_notify(pid, tid, PERIOD, COUNT) != 0;
  }
  failed += reg_process_exit_action(0, TOV_RESTART) != 0;
  failed += pid_exist_in_file(tid, "/data/nobody") != 0;
  failed += tov_client_unreg_thread_notify(tid) != 0;
  __atomic_add_fetch((int *)failures, failed, __ATOMIC_RELAXED);
  return NULL;
}

static int run_threads(int count) {
  pthread_t threads[THREADS_MAX];
  int failures = 0;
  int running = 0;
  while (running < count && running < THREADS_MAX &&
         pthread_create(&threads[running], NULL, live_in_a_thread, &failures) == 0)
    running++;
  for (int i = 0; i < running; i++)
    pthread_join(threads[i], NULL);
  return failures + (count - running);
}

static void do_word(const char *word);

static int live_in_a_child(void) {
  const pid_t child = fork();
  if (child != 0) return child < 0 ? -1 : 0;
  watched = 0;
  report("born");
  do_word("exec");
  return 0;
}

static int carry_out(const char *word) {
  const char *equals = strchr(word, '=');
  const char *value = equals == NULL ? "" : equals + 1;
  const size_t length = equals == NULL ? strlen(word) : (size_t)(equals - word);
#define IS(key) (length == strlen(key) && strncmp(word, key, length) == 0)
  if (IS("exec")) return reg_process_exit_action(0, TOV_RESTART);
  if (IS("script")) return reg_process_exit_action(0, TOV_SHELL_RESTART);
  if (IS("path")) return reg_process_exit_action_shell(0, TOV_SHELL_RESTART, value);
  if (IS("text")) return reg_third_part_process_exit_action(getpid(), value);
  if (IS("negative")) return reg_process_exit_action(-1, TOV_RESTART);
  if (IS("negative-path")) return reg_process_exit_action_shell(-1, TOV_SHELL_RESTART, "/opt/x");
  if (IS("wait")) return tov_time_set(0, TOV_RESTART, atoi(value));
  if (IS("cancel")) return tov_cancel_proc(0);
  if (IS("watch")) {
    const int ret = tov_client_reg_thread_notify(getpid(), gettid(), PERIOD, COUNT);
    watched = 1;
    return ret;
  }
  if (IS("alive")) return tov_client_reset_thread_notify(getpid(), gettid(), PERIOD, COUNT);
  if (IS("leave")) {
    watched = 0;
    return tov_client_unreg_thread_notify(gettid());
  }
  if (IS("threads")) return run_threads(atoi(value));
  if (IS("fork")) return live_in_a_child();
#undef IS
  return -99; /* no such word */
}

static void do_word(const char *word) {
  char text[WORD_SIZE + 32];
  const pid_t before = getpid();
  snprintf(text, sizeof text, "begins %s", word);
  report(text);
  const int ret = carry_out(word);
  if (getpid() != before) return; /* the child of a fork has reported for itself */
  snprintf(text, sizeof text, "did %s %d", word, ret);
  report(text);
}

/* Reads the next line of the orders behind `*at`; 0 when there is no whole one. */
static int next_order(long *at, char (*line)[WORD_SIZE]) {
  char path[WORD_SIZE + 16];
  snprintf(path, sizeof path, "/data/do.%s", name);
  FILE *file = fopen(path, "re");
  if (file == NULL) return 0;
  const int found = fseek(file, *at, SEEK_SET) == 0 && fgets(*line, WORD_SIZE, file) != NULL &&
                    strchr(*line, '\n') != NULL;
  if (found) *at = ftell(file);
  fclose(file); /* before the order is carried out: it may fork */
  return found;
}

/* Carries out the next order if it is meant for this process. */
static void do_order(long *at) {
  char line[WORD_SIZE];
  char *word = NULL;
  if (!next_order(at, &line)) return;
  line[strcspn(line, "\n")] = '\0';
  if (strtol(line, &word, 10) == getpid() && *word == ' ') do_word(word + 1);
}

int main(int argc, char **argv) {
  char exe[WORD_SIZE] = "";
  if (readlink("/proc/self/exe", exe, sizeof exe - 1) < 0) return EXIT_FAILURE;
  snprintf(name, sizeof name, "%s", strrchr(exe, '/') + 1);
  report("born");
  for (int i = 1; i < argc; i++)
    do_word(argv[i]);
  for (long at = 0;;) {
    do_order(&at);
    if (watched) (void)tov_client_reset_thread_notify(getpid(), gettid(), PERIOD, COUNT);
    sleep_ms(TICK_MS);
  }
}
