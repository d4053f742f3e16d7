// Creating a virtual device, starting a program in one.
//
// The two ways into a device differ in a few points only, so there is one procedure and a record of
// the differences (way_in_s): whoever creates a device makes everything, whoever joins one leaves
// out what only its creation makes.
//
// Threads: one; forked children share nothing but the files. Standard output is flushed before each
// fork and before each exec, because what stays in its buffer would be written twice or not at all.
// Losses: when a fork fails, nothing is started and the caller is not told; a program that ends
// before the members are recorded gets no file.
#include "vsd/create.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "platform/tov_platform.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/path.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"
#include "vsd/member.h"
#include "vsd/path.h"
#include "vsd/variables.h"

#ifdef TOV_COVERAGE
extern "C" void __gcov_dump(void);
#endif

enum {
  PLACE_FIRST = 0,  // the base system
  PLACE_LAST = 16,  // one more than the listing and the daemon know; kept so
  UPTIME_SIZE = 256,
};
static constexpr mode_t OPEN_MODE = 0777;

namespace {

// The ways into a device.
struct way_in_s {
  const char *name;  // of the function, for its diagnostics
  bool creates;      // makes also what a joining program finds there
};

}  // namespace

static constexpr way_in_s CREATE = {"create_vsd", true};
static constexpr way_in_s PLACE = {"create_proc_to_vsd", false};

namespace {

// A device's directories, in the order in which they are made.
struct vsd_dir_s {
  const char *path;    // a format, takes the device
  bool creation_only;  // a joining program does without
  bool in_data2;       // only where there is a second data tree
};

}  // namespace

static constexpr vsd_dir_s vsd_dirs[] = {
    {TOV_VSD_QX_CFG_DIR_FMT, false, false},  {TOV_VSD_QXOS_DIR_FMT, false, false},
    {TOV_VSD_DATA_DIR_FMT, false, false},    {TOV_VSD_DATA2_DIR_FMT, true, true},
    {TOV_VSD_DATA2_RUN_DIR_FMT, true, true}, {TOV_VSD_ETC_DIR_FMT, false, false},
    {TOV_VSD_DIR_FMT, false, false},         {TOV_VSD_MEMBER_DIR_FMT, false, false},
    {TOV_VSD_DB_DIR_FMT, true, false},       {TOV_VSD_RUN_DIR_FMT, false, false},
};

// ---- helpers --------------------------------------------------------------------------------

// Ends a child. No exit handlers: they belong to the parent.
[[noreturn]] static void leave() {
  (void)fflush(stdout);
#ifdef TOV_COVERAGE
  __gcov_dump();
#endif
  _exit(EXIT_SUCCESS);
}

static pid_t fork_flushed() {
  (void)fflush(stdout);
  return fork();
}

static int make_member_file(const char *caller, int vsd_no, pid_t pid) {
  return tov_vsd_make_member_file(vsd_no, pid) < 0 ? TOV_VSD_FAILED(caller, "open fail") : 0;
}

// ---- entering a device ----------------------------------------------------------------------

static void join_group(const way_in_s &way, int vsd_no) {
  const gid_t gid = tov_vsd_gid(vsd_no);
  if (setgroups(1, &gid) == 0) TOV_DBG("%s: Setgroups success\n", way.name);
}

static void make_directories(const way_in_s &way, int vsd_no) {
  for (const vsd_dir_s &row : vsd_dirs) {
    if (row.creation_only && !way.creates) continue;
    if (row.in_data2 && !tov_file_exists(TOV_DATA2_DIR)) continue;
    const tov_vsd_path_t path = tov_vsd_path(row.path, vsd_no);
    (void)tov_make_dir(path.text);  // what is missing shows when the run directory is entered
  }
}

// A joining program is not told of the second data tree.
static void set_variables(const way_in_s &way, int vsd_no) {
  for (const tov_vsd_variable_t &row : tov_vsd_variables) {
    if (row.in_data2 && !(way.creates && tov_file_exists(TOV_DATA2_DIR))) continue;
    const tov_vsd_path_t path = tov_vsd_path(row.format, vsd_no);
    (void)setenv(row.name, path.text, 1);
  }
}

// Gives the calling process what makes it a member, all but the working directory.
static int enter_device(const way_in_s &way, int vsd_no) {
  join_group(way, vsd_no);
  errno = 0;
  if (fs_set_vsd_envs(vsd_no) < 0) return TOV_VSD_FAILED(way.name, "fs get vsd envs fail");
  // Nodes that the members share with processes of other users; not every machine has them.
  (void)chmod(TOV_VSD_LSM_NODE, OPEN_MODE);
  (void)chmod(TOV_VSD_MMAPIPC_NODE, OPEN_MODE);
  make_directories(way, vsd_no);
  set_variables(way, vsd_no);
  return 0;
}

static int enter_run_directory(const way_in_s &way, int vsd_no) {
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_RUN_DIR_FMT, vsd_no);
  return chdir(path.text) < 0 ? TOV_VSD_FAILED(way.name, "chdir fail") : 0;
}

// ---- creation -------------------------------------------------------------------------------

// Notes since when the device runs. The file is written from its beginning and not cut before, so
// an older, longer text keeps its tail. Opening "/proc/uptime" for writing needs root.
static int write_start_time(int vsd_no) {
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_START_TIME_FMT, vsd_no);
  const tov_fd_t file(tov_open_regular(path.text, O_RDWR | O_CREAT, TOV_VSD_FILE_MODE));
  if (file.n < 0) return TOV_VSD_FAILED(CREATE.name, "open fail");
  const tov_fd_t uptime(open("/proc/uptime", O_RDWR | O_CLOEXEC));
  if (uptime.n < 0) return TOV_VSD_FAILED(CREATE.name, "open uptime fail");

  char text[UPTIME_SIZE];
  const ssize_t length = safe_read(uptime.n, text, sizeof text);
  if (length < 0) return TOV_VSD_FAILED(CREATE.name, "read fail");
  errno = EIO;  // a short write sets none
  const ssize_t written = safe_write(file.n, text, static_cast<size_t>(length));
  return written != length ? TOV_VSD_FAILED(CREATE.name, "write fail") : 0;
}

// The child of create_vsd(); comes back only to fail.
static int run_start_scripts(int vsd_no) {
  int res = enter_device(CREATE, vsd_no);
  if (res == 0) res = write_start_time(vsd_no);
  if (res == 0) res = enter_run_directory(CREATE, vsd_no);
  if (res < 0) return res;
  (void)fflush(stdout);
  execl(TOV_VSD_RUN_PARTS, TOV_VSD_RUN_PARTS, TOV_VSD_SCRIPT_DIR, "-a", "vsd",
        static_cast<char *>(nullptr));
  leave();
}

static void wait_for(pid_t child) {
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

int create_vsd(int vsd_no) {
  const pid_t child = fork_flushed();
  if (child == 0) return run_start_scripts(vsd_no);
  if (child > 0) {
    TOV_DBG("%s: parent proc: %s\n", __func__, strerror(errno));
    wait_for(child);
  }
  save_vsdinfo(vsd_no);
  return 0;
}

void save_vsdinfo(int vsd_no) {
  tov_entries_t proc("/proc/");
  if (!proc) {
    (void)TOV_VSD_FAILED(__func__, "opendir fail");
    return;
  }
  while (const char *name = proc.next()) {
    if (sisdigit(name) != 0) continue;
    const pid_t pid = tov_atoi(name);
    const int found = get_vsdid(pid);
    if (found < 1 || found != vsd_no) continue;
    if (make_member_file(__func__, vsd_no, pid) < 0) return;
  }
}

// ---- placement ------------------------------------------------------------------------------

// Where the start script of a program lies. False when the name is too long for a path.
static bool script_path(char (&path)[PATH_MAX], const char *name) {
  const int length = snprintf(path, sizeof path, "%s/%s.sh", TOV_SCRIPT_DIR, name);
  return length > 0 && static_cast<size_t>(length) < sizeof path;
}

int check_shell(char *sbin_name) {
  char path[PATH_MAX];
  return script_path(path, sbin_name) && tov_file_exists(path) ? 1 : 0;
}

// "." and ".." count as entries here: a program of that name is placed, fails to run and gets its
// member file all the same, as with every other name that stands there.
int check_sbin(char *sbin_name) {
  const tov_dir_t programs(opendir(TOV_VSD_PROGRAM_DIR));
  if (!programs) return TOV_VSD_FAILED(__func__, "opendir fail");
  while (const dirent *entry = readdir(programs.get()))
    if (strcmp(entry->d_name, sbin_name) == 0) return 1;
  return 0;
}

static pid_t start_script(const char *name) {
  const pid_t pid = fork_flushed();
  if (pid != 0) return pid;
  char path[PATH_MAX];
  (void)script_path(path, name);  // it fitted when it was looked for
  execl("/bin/sh", "/bin/sh", path, "start", static_cast<char *>(nullptr));
  TOV_DBG("%s: sh %s error.\n", PLACE.name, path);
  leave();
}

static pid_t start_program(const char *name) {
  const pid_t pid = fork_flushed();
  if (pid != 0) return pid;
  char path[PATH_MAX];
  (void)snprintf(path, sizeof path, "%s%s", TOV_VSD_PROGRAM_DIR, name);
  execl(path, path, static_cast<char *>(nullptr));
  leave();
}

// Starts what the name stands for; a script goes before a program. Returns the new process, or a
// value of 0 or below when there is none.
static pid_t start_named(char *name) {
  if (check_shell(name) == 1) return start_script(name);
  if (check_sbin(name) == 1) return start_program(name);
  TOV_DBG("%s: /sbin/%s is not exist.\n", PLACE.name, name);
  return -1;
}

// The child of create_proc_to_vsd(); comes back only to fail.
static int place_program(char *name, int vsd_no) {
  if (vsd_no > 0) {
    int res = enter_device(PLACE, vsd_no);
    if (res == 0) res = enter_run_directory(PLACE, vsd_no);
    if (res < 0) return res;
  }
  const pid_t program = start_named(name);
  if (program > 0 && vsd_no > 0) {
    const int res = make_member_file(PLACE.name, vsd_no, program);
    if (res < 0) return res;
  }
  leave();
}

int create_proc_to_vsd(char *proc_name, int vsd_no) {
  if (vsd_no < PLACE_FIRST || vsd_no > PLACE_LAST) {
    TOV_DBG("%s: vsd_no: %d error\n", __func__, vsd_no);
    errno = EINVAL;
    return -EINVAL;
  }
  const pid_t child = fork_flushed();
  if (child == 0) return place_program(proc_name, vsd_no);
  if (child > 0) TOV_DBG("%s: parent proc: %s\n", __func__, strerror(errno));
  return 0;
}
