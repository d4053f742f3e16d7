/*
 * A host program in C11, compiled and linked against an installed tree.
 *
 * It owns names that the library uses inside, calls everything that does its work without a daemon,
 * and returns 0 when all of it behaved. The names at the top would collide, or be taken by the
 * library for its own, if more than the public calls were visible.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <tov/tov_xtach.h>
#include <unistd.h>

int quit = 7;
int tov_rpc_sd = 8;
int g_tov_dbg_level = 9;
static int calls = 0;
void rtrim(char *text);
ssize_t safe_read(int fd, void *buf, size_t size);
ssize_t safe_write(int fd, const void *buf, size_t size);
void *safe_malloc(size_t size);
void safe_sleep(int seconds);
int tov_rpc(void);
int get_vsdid(pid_t pid);

void rtrim(char *text) {
  (void)text;
  calls++;
}
ssize_t safe_read(int fd, void *buf, size_t size) {
  (void)fd, (void)buf, (void)size;
  calls++;
  return -1;
}
ssize_t safe_write(int fd, const void *buf, size_t size) {
  (void)fd, (void)buf, (void)size;
  calls++;
  return -1;
}
void *safe_malloc(size_t size) {
  (void)size;
  calls++;
  return NULL;
}
void safe_sleep(int seconds) {
  (void)seconds;
  calls++;
}
int tov_rpc(void) {
  calls++;
  return -1;
}
int get_vsdid(pid_t pid) {
  (void)pid;
  calls++;
  return 5;
}

_Static_assert(sizeof(tov_msg_xtach_t) == 320, "the wire does not depend on the language");
_Static_assert(TOV_SHELL_RESTART == 2, "nor do the types");

static int failures = 0;
#define EXPECT(condition)                                 \
  do {                                                    \
    if (!(condition)) {                                   \
      printf("%d: not true: %s\n", __LINE__, #condition); \
      failures++;                                         \
    }                                                     \
  } while (0)

int main(void) {
  /* Refused before anything is sent. */
  EXPECT(reg_third_part_process_exit_action(getpid(), "nothing of ours") == -1);
  EXPECT(tov_cancel_proc(-1) == -1);
  EXPECT(tov_client_reg_thread_notify(0, 0, 0, 0) == -1);
  EXPECT(tov_client_reg_thread_notify_no_proc(0, 0, 0, 0) == -1);
  EXPECT(signal(SIGABRT, SIG_DFL) == SIG_IGN);
  EXPECT(tov_client_reset_thread_notify(getpid(), getpid() + 1, 1, 1) == -1);

  struct rlimit files;
  getrlimit(RLIMIT_NOFILE, &files);
  EXPECT(get_resource_limit(RLIMIT_NOFILE) == (int)files.rlim_cur);
  tov_client_watch_process_fd(getpid());

  EXPECT(string_exist_in_file("Name:", "/proc/self/status") == 0);
  EXPECT(string_exist_in_file("no such file", "/nonexistent") == 0);
  EXPECT(pid_exist_in_file(1, "/nonexistent") == 0);
  EXPECT(get_pid_notify_counter("1", "/nonexistent") == 0);
  EXPECT(pid_reset_counter_in_file(1, "/nonexistent") == 0);

  /* Named so that a program that only links them does link. */
  int (*const requests[])(pid_t, TOV_MSG_TYPE) = {reg_process_exit_action};
  int (*const shell)(pid_t, TOV_MSG_TYPE, const char *) = reg_process_exit_action_shell;
  int (*const wait)(pid_t, TOV_MSG_TYPE, int) = tov_time_set;
  int (*const leave)(pid_t) = tov_client_unreg_thread_notify;
  EXPECT(requests[0] != NULL && shell != NULL && wait != NULL && leave != NULL);

  EXPECT(quit == 7 && tov_rpc_sd == 8 && g_tov_dbg_level == 9);
  EXPECT(calls == 0);
  return failures == 0 ? 0 : 1;
}
