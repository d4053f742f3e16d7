// Recognising members by their member files, and a child's way into a device.
//
// Threads: any; the child's part makes async-signal-safe calls only, but for the platform's.
// Losses: a step of the way in that fails leaves the rest undone, and the program runs all the
// same.
#include "vsd/entry.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <iterator>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "platform/tov_platform.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/path.h"
#include "vsd/variables.h"

enum { FIND_VSD_FIRST = 1, FIND_VSD_LAST = 15, MARKER_FIRST = 1, MARKER_LAST = 16 };

static bool device_has_member(int vsd_no, pid_t tid) {
  tov_entries_t members(tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no).text);
  while (const char *name = members.next()) {
    // "db", the registration directory, always stands here and reads as 0.
    if (tov_atoi(name) == tid) return true;
  }
  return false;
}

bool tov_vsd_any_is_being_deleted(void) {
  for (int vsd_no = MARKER_FIRST; vsd_no <= MARKER_LAST; vsd_no++) {
    if (tov_file_exists(tov_vsd_path(TOV_VSD_DELETE_MARKER_FMT, vsd_no).text)) return true;
  }
  return false;
}

int find_app(pid_t tid) {
  if (tid <= 0) return -1;
  for (int vsd_no = FIND_VSD_FIRST; vsd_no <= FIND_VSD_LAST; vsd_no++) {
    if (device_has_member(vsd_no, tid)) return vsd_no;
  }
  return -1;
}

void save_proc_info(int vsd_no, pid_t pid) {
  // The device's run directory is the proof that the device still stands. It is opened, not
  // entered: the daemon's working directory belongs to all its threads.
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_RUN_DIR_FMT, vsd_no);
  const tov_fd_t run_dir(tov_sys_open(path.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (run_dir.n < 0 || tov_sys_faccessat(run_dir.n, ".", X_OK, 0) < 0) return;
  (void)tov_vsd_make_member_file(vsd_no, pid);
}

void tov_proc_env_prepare(tov_proc_env_t *env, int vsd_no, pid_t pid) {
  env->vsd_no = vsd_no;
  env->gid = tov_vsd_gid(vsd_no);
  const bool data2 = tov_file_exists(TOV_DATA2_DIR);
  for (size_t i = 0; i < std::size(tov_vsd_variables); i++) {
    const tov_vsd_variable_t &row = tov_vsd_variables[i];
    if (row.in_data2 && !data2) continue;
    const tov_vsd_path_t value = tov_vsd_path(row.format, vsd_no);
    (void)snprintf(env->text[i], sizeof env->text[i], "%s=%s", row.name, value.text);
  }
  env->run_dir = tov_vsd_path(TOV_VSD_RUN_DIR_FMT, vsd_no);
  env->marker = tov_vsd_member_path(vsd_no, pid);

  size_t inherited = 0;
  while (environ != nullptr && environ[inherited] != nullptr)
    inherited++;
  env->room = inherited + tov_proc_env_t::SPARE_VARIABLES;
  env->variables.reset(static_cast<char **>(safe_malloc((env->room + 1) * sizeof(char *))));
}

// Puts "NAME=value" over the variable of that name, or behind the last one.
static size_t lay_over(char **variables, size_t count, size_t room, char *text) {
  const size_t name_length = static_cast<size_t>(strchr(text, '=') - text) + 1;
  for (size_t i = 0; i < count; i++) {
    if (strncmp(variables[i], text, name_length) == 0) {
      variables[i] = text;
      return count;
    }
  }
  if (count == room) return count;
  variables[count] = text;
  return count + 1;
}

// The child's environment is what the platform left in `environ` with our variables laid over. It
// is read only now because the platform's call may have changed it.
static void take_environment(tov_proc_env_t *env) {
  size_t count = 0;
  // Our own five must fit whatever the platform added.
  const size_t copied_room = env->room - tov_proc_env_t::VARIABLES;
  while (environ != nullptr && environ[count] != nullptr && count < copied_room) {
    env->variables[count] = environ[count];
    count++;
  }
  for (char *text : env->text) {
    if (text[0] != '\0') count = lay_over(env->variables.get(), count, env->room, text);
  }
  env->variables[count] = nullptr;
  environ = env->variables.get();
}

void tov_proc_env_enter(tov_proc_env_t *env) {
  if (fs_set_vsd_envs(env->vsd_no) < 0) {
    TOV_DBG_CHILD("set_proc_env: fs set vsd envs fail\n");
    return;
  }
  take_environment(env);
  if (chdir(env->run_dir.text) < 0) return;
  // The bare system call: the library's setgroups() would speak to threads that the fork left
  // behind.
  if (syscall(SYS_setgroups, 1, &env->gid) == 0) TOV_DBG_CHILD("setgroups success\n");
  (void)unlink(env->marker.text);  // it may never have been there
}

void set_proc_env(int vsd_no, pid_t pid) {
  // Never freed: it is the process's environment from here on.
  auto *env = new tov_proc_env_t;
  tov_proc_env_prepare(env, vsd_no, pid);
  tov_proc_env_enter(env);
}
