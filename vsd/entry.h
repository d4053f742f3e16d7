// A restarted program comes back inside its virtual device: group, environment, directory,
// member file.
//
// Which device a dead process belonged to is known from the member file named by its id in the
// device's member directory. The child of a restart must set itself up without heap and locks
// (the daemon is threaded), so everything it needs is prepared before the fork; only the
// platform's own call has to run in the child.
//
// Threads: any, without a lock; each function says on which side of the fork it belongs.
#ifndef TOV_VSD_ENTRY_H
#define TOV_VSD_ENTRY_H

#include <stddef.h>
#include <sys/types.h>

#include <iterator>

#include "util/owner.h"
#include "vsd/path.h"
#include "vsd/variables.h"

enum {
  TOV_SPAWN_VSD_MIN = 1,
  TOV_SPAWN_VSD_MAX = 16  // callers accept 16, although find_app() never answers it
};

// The device, 1 to 15, whose member directory holds an entry whose decimal value is `tid`, a
// process id; -1 when there is none or `tid` is not above 0. Reads up to fifteen directories.
int find_app(pid_t tid);

// Whether a deletion is marked, of any device, also of one number more than there are: operators'
// tools may mark that. Tests sixteen files.
bool tov_vsd_any_is_being_deleted(void);

// Makes the member file of `pid` for a device, mode 0754, if the device's run directory can be
// entered. Failures are ignored: the program runs all the same.
void save_proc_info(int vsd_no, pid_t pid);

// What a child needs to enter a device, prepared by its parent.
struct tov_proc_env_s {
  static constexpr size_t VARIABLES = std::size(tov_vsd_variables);
  enum { TEXT_SIZE = 80, SPARE_VARIABLES = 64 };

  int vsd_no = 0;
  gid_t gid = 0;
  char text[VARIABLES][TEXT_SIZE] = {};  // "NAME=value"; an empty text is left out
  tov_vsd_path_t run_dir = {};
  tov_vsd_path_t marker = {};       // of the dead instance
  size_t room = 0;                  // of `variables`
  tov_block_t<char *[]> variables;  // becomes the child's environment
};
using tov_proc_env_t = tov_proc_env_s;

// Prepares the way into `vsd_no` for the successor of process `pid`. In the parent. Without memory
// it waits until there is some, as the start that it serves waits for a fork.
void tov_proc_env_prepare(tov_proc_env_t *env, int vsd_no, pid_t pid);

// Enters the device: the platform's environment, our variables over it, the run directory, the
// group; removes the dead instance's member file. In the child; async-signal-safe but for the
// platform's call. A failed platform call or directory change leaves the rest undone.
void tov_proc_env_enter(tov_proc_env_t *env);

// Both in one, for a process with a single thread; what it allocates is never freed.
void set_proc_env(int vsd_no, pid_t pid);

#endif  // TOV_VSD_ENTRY_H
