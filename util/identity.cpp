// Tested by: tests/unit/util/identity_test.cpp, tests/unit/util/life_test.cpp,
// tests/module/util/identity_test.cpp
#include "util/identity.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include "include/tov_registry.h"
#include "util/owner.h"
#include "util/procfs.h"
#include "util/tov_sys.h"

enum { EXE_PATH_SIZE = 32 };

// One reading. A task that was released between the opening and the reading, or is about to be, is
// nobody. Where there is no /proc, nobody would be there at all: the kernel is asked once more.
static int read_task(pid_t task, tov_stat_t *stat) {
  const int result = tov_read_stat(task, stat);
  const bool released = result == 0 && tov_stat_is_end(stat->state) && stat->threads == 0;
  if (!released && result != -ENOENT && result != -ESRCH) return result;
  if (task < 1) return -ESRCH;
  const bool known = tov_sys_kill(task, 0) == 0 || errno != ESRCH;
  return known ? -EAGAIN : -ESRCH;
}

// A thread that executes a program takes over the id of its process's first thread, which is
// released. Whoever reads at that moment may have found the old one; the next look finds the new.
static int look_at(pid_t task, tov_stat_t *stat) {
  const int result = read_task(task, stat);
  return result == -ESRCH || result == -EAGAIN ? read_task(task, stat) : result;
}

static tov_life_e life_of(pid_t task, const tov_identity_t &identity, tov_life_e as_zombie) {
  tov_stat_t stat;
  const int result = look_at(task, &stat);
  if (result == -ESRCH) return TOV_LIFE_ENDED;
  if (result < 0) return TOV_LIFE_UNKNOWN;
  if (identity.started != 0 && stat.started != 0 && stat.started != identity.started)
    return TOV_LIFE_REUSED;
  if (!tov_stat_is_end(stat.state)) return TOV_LIFE_LIVES;
  // The kernel counts a zombie itself until it is released.
  if (stat.threads == 1) return TOV_LIFE_ENDED;
  const bool is_open = stat.threads < 0 && as_zombie == TOV_LIFE_THREADS;
  return is_open ? TOV_LIFE_UNKNOWN : as_zombie;
}

tov_life_e tov_identity_life(pid_t pid, const tov_identity_t &identity) {
  return life_of(pid, identity, TOV_LIFE_THREADS);
}

tov_life_e tov_identity_thread_life(pid_t tid, const tov_identity_t &identity) {
  return life_of(tid, identity, TOV_LIFE_ENDED);
}

int tov_identity_take(pid_t pid, tov_identity_t *identity) {
  tov_stat_t stat;
  const int result = look_at(pid, &stat);
  if (result == -ESRCH) *identity = tov_identity_of_start(TOV_NEVER_STARTED);
  if (result < 0) return result;
  *identity = {stat.started, stat.stack, 0, 0, static_cast<uint64_t>(stat.session)};
  char path[EXE_PATH_SIZE];
  (void)snprintf(path, sizeof path, "/proc/%d/exe", pid);
  struct stat executable {};
  if (tov_sys_fstatat(AT_FDCWD, path, &executable, 0) == 0) {
    identity->exe_dev = executable.st_dev;
    identity->exe_ino = executable.st_ino;
  }
  return 0;
}

bool tov_identity_equals(pid_t one, const tov_identity_t &one_is, pid_t other,
                         const tov_identity_t &other_is) {
  return one == other && one_is.started != 0 && one_is.started == other_is.started;
}

bool tov_identity_differs(pid_t one, const tov_identity_t &one_is, pid_t other,
                          const tov_identity_t &other_is) {
  if (one != other) return true;
  return one_is.started != 0 && other_is.started != 0 && one_is.started != other_is.started;
}

bool tov_identity_is_older(pid_t one, const tov_identity_t &one_is, pid_t other,
                           const tov_identity_t &other_is) {
  if (!tov_identity_is_start(one_is.started) || !tov_identity_is_start(other_is.started))
    return false;
  return one_is.started != other_is.started ? one_is.started < other_is.started : one < other;
}

bool tov_identity_executed(const tov_identity_t &then, const tov_identity_t &now) {
  const bool moved = then.stack != 0 && now.stack != 0 && then.stack != now.stack;
  const bool both_known = then.exe_ino != 0 && now.exe_ino != 0;
  return moved || (both_known && (then.exe_ino != now.exe_ino || then.exe_dev != now.exe_dev));
}

// ---- kin ------------------------------------------------------------------------------------

bool tov_identity_are_kin(const tov_identity_t &one, const tov_identity_t &other) {
  return one.stack != 0 && one.stack == other.stack && one.exe_ino != 0 &&
         one.exe_ino == other.exe_ino && one.exe_dev == other.exe_dev;
}

bool tov_identity_kin_are_known() {
  static constexpr char DRAWS_NONE = '0';
  const tov_fd_t fd(tov_sys_open("/proc/sys/kernel/randomize_va_space", O_RDONLY | O_CLOEXEC));
  char drawn = DRAWS_NONE;
  return fd.n >= 0 && tov_sys_read(fd.n, &drawn, sizeof drawn) == sizeof drawn &&
         drawn != DRAWS_NONE;
}

// ---- programs -------------------------------------------------------------------------------

static bool is_file_of(const char *exe, const char *word) {
  struct stat executed {
  }, named{};
  return word[0] == '/' && tov_sys_fstatat(AT_FDCWD, exe, &executed, 0) == 0 &&
         tov_sys_fstatat(AT_FDCWD, word, &named, 0) == 0 && executed.st_dev == named.st_dev &&
         executed.st_ino == named.st_ino;
}

// What the kernel says behind the path of an executable that was removed or replaced is no part of
// its name.
static bool has_path(const char *exe, const char *word) {
  static constexpr char removed[] = " (deleted)";
  static constexpr size_t removed_size = sizeof removed - 1;
  char path[PATH_MAX];
  const ssize_t size = tov_sys_readlink(exe, path, sizeof path - 1);
  if (size <= 0) return false;
  path[size] = '\0';
  const size_t length = static_cast<size_t>(size);
  if (length >= removed_size && strcmp(path + length - removed_size, removed) == 0)
    path[length - removed_size] = '\0';
  const char *name = strrchr(path, '/');
  return strcmp(path, word) == 0 ||
         (strchr(word, '/') == nullptr && name != nullptr && strcmp(name + 1, word) == 0);
}

bool tov_identity_executes(pid_t pid, const char *word) {
  if (pid < 1 || word[0] == '\0') return false;
  char exe[EXE_PATH_SIZE];
  (void)snprintf(exe, sizeof exe, "/proc/%d/exe", pid);
  return is_file_of(exe, word) || has_path(exe, word);
}
