// Readers of the kernel's /proc files of a process.
//
// A process may vanish, or be replaced by another one under the same id, before the answer is used
// and between two files: each function says what it read. A process id below 1 names no process.
//
// Any thread, no state. Only fixed buffers on the stack: nothing here allocates.
#ifndef TOV_UTIL_PROCFS_H
#define TOV_UTIL_PROCFS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "util/lines.h"
#include "util/owner.h"

// The status file of a task (/proc/TASK/status), line by line.
class tov_status_file_s {
 public:
  // Lines come in pieces of at most PIECE_MAX bytes. What could not be opened has none, says so and
  // leaves errno.
  explicit tov_status_file_s(pid_t task);
  explicit operator bool() const { return file_.n >= 0; }

  // The next line, its line end included; valid until the next call. Null at the end.
  const char *next() { return file_.n < 0 ? nullptr : lines_.next(); }

  // What follows `key` in the next line that begins with it, or null. The name of a task is its own
  // choice and may hold any key, but no line end.
  const char *find(const char *key);

 private:
  static constexpr size_t PIECE_MAX = 254;  // longer lists of groups are cut there, as agreed

  tov_fd_t file_;
  tov_lines_s lines_;
};
using tov_status_file_t = tov_status_file_s;

// The command line of a process: the path of its executable (/proc/PID/exe) followed by the
// arguments from the second on (/proc/PID/cmdline), separated by single blanks; argv[0] may hold
// anything and is not used. One trailing blank is dropped. A line feed within an argument ends the
// visible text. Only the path comes back when the arguments cannot be read or when fewer than 3
// bytes would be left for them.
//   len  size of `buf`; the text is cut to len - 1 bytes, its NUL is always there
// Returns buf, or null (buf untouched) when there is no executable: a kernel thread, a zombie, a
// vanished process.
char *pid_to_cmdline(pid_t pid, char *buf, int len);

// The thread-group id of a task ("Tgid:" of /proc/TASK/status): for a thread id the process that
// owns the thread, not the parent process. -1 when it cannot be read.
pid_t tov_get_ppid_form_pid(pid_t pid);

// The same text, for who must know what is missing in it. Returns 0, or -errno: of the link to the
// executable (ENOENT: there is none; buf untouched), or of the arguments (the path alone is there).
// -ESRCH: the process has ended between the two.
int tov_read_cmdline(pid_t pid, char *buf, int len);

// Copies the name of a task ("Name:" of /proc/TASK/status) into `pid_name` of `len` bytes, cut to
// len - 1 characters. Returns 0, or -1 (no buffer, no such task, empty name; buffer untouched).
int tov_get_pid_name(pid_t pid, char *pid_name, int len);

// Whether an error of a call says nothing about what was asked for, but that the asker had no
// descriptor or no memory, or was interrupted.
bool tov_is_ignorance(int error);

// ---- stat file ------------------------------------------------------------------------------

// What /proc/TASK/stat says. A field that is not there, or hidden, is 0, the threads are -1 then.
struct tov_stat_s {
  char state = '\0';
  pid_t parent = 0;      // 0: it has none, or it is another namespace's
  pid_t session = 0;     // id of its session; its own id: it leads it
  int threads = 0;       // of its process that were not released, itself included
  uint64_t started = 0;  // in clock ticks (10 ms) since boot
  uint64_t stack = 0;    // where the stack of its program begins
};
using tov_stat_t = tov_stat_s;

// Returns 0, or -errno: -ENOENT or -ESRCH, no task has the id; -EIO, there was no sense in the
// text.
int tov_read_stat(pid_t task, tov_stat_t *stat);

// Whether a state letter says that the task has ended.
bool tov_stat_is_end(char state);

// Microseconds of CLOCK_BOOTTIME at that many clock ticks since boot.
int64_t tov_ticks_us(uint64_t ticks);

// ---- liveness -------------------------------------------------------------------------------

// How often, and after which pauses, an answer is asked for before it counts as a death.
inline constexpr int TOV_LIFE_LOOKS = 3;
inline constexpr useconds_t TOV_LIFE_PAUSE_US = 10000;

// Tells whether a process lives: 0 when it does, -1 otherwise. Zombies are dead, and so is a
// process whose first thread has ended while others still run.
// Says 0 after one reading. Before it says -1 it reads three times and sleeps 10 ms after each,
// about 30 ms in all, because the answer -1 may start a second copy of the program.
int process_life(pid_t pid);

#endif  // TOV_UTIL_PROCFS_H
