// A kernel in memory: what the decisions of the product meet in a pure test.
//
// Time stands still until the code under test waits; a wait then moves it on at once, and what a
// test has planned for a moment in between (a signal, the end of a process) happens on the way.
// Processes are entries of a table, shown under /proc as the kernel shows them: they execute,
// rename themselves, lose threads, the first one included, and their ids may be used again. Record
// locks belong to processes and go when any descriptor of their file is closed. A call that would
// wait for ever throws stuck_s instead.
//
// Any call can be made to fail: the n-th of its kind, or the n-th of all. A test that lets each
// call of a procedure fail in turn asks calls() how many there are.
//
// What it is not: permissions, threads, quotas, several file systems. The caller is root, and only
// its own descriptors exist. One thread at a time.
#ifndef TOV_TEST_UNIT_SIM_KERNEL_H
#define TOV_TEST_UNIT_SIM_KERNEL_H

#include <dirent.h>
#include <limits.h>
#include <linux/cn_proc.h>
#include <linux/filter.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct flock;

namespace tov_test {

// The kinds of calls: one for each function of the seam.
enum call_e {
  CALL_CLOCK_GETTIME,
  CALL_KERNEL_CLOCK,
  CALL_SLEEP,
  CALL_USLEEP,
  CALL_POLL,
  CALL_ALARM,
  CALL_SET_NAME,
  CALL_SET_SCHEDULE,
  CALL_SCHED_SETSCHEDULER,
  CALL_GETPID,
  CALL_FORK,
  CALL_KILL,
  CALL_WAITPID,
  CALL_PIDFD_OPEN,
  CALL_PIDFD_SIGNAL,
  CALL_OPEN,
  CALL_READ,
  CALL_WRITE,
  CALL_OPENAT,
  CALL_PREAD,
  CALL_PWRITE,
  CALL_LSEEK,
  CALL_FTRUNCATE,
  CALL_FSYNC,
  CALL_CLOSE,
  CALL_DUP_ABOVE,
  CALL_SET_FLAGS,
  CALL_LOCK,
  CALL_LOCK_HOLDER,
  CALL_FSTAT,
  CALL_LSTAT,
  CALL_FSTATAT,
  CALL_ACCESS,
  CALL_FACCESSAT,
  CALL_READLINK,
  CALL_UNLINK,
  CALL_LINK,
  CALL_RENAME,
  CALL_RENAMEAT,
  CALL_UNLINKAT,
  CALL_MKDIR,
  CALL_RMDIR,
  CALL_OPENDIR,
  CALL_READDIR,
  CALL_DIRFD,
  CALL_CLOSEDIR,
  CALL_EVENTFD,
  CALL_SOCKET,
  CALL_SETSOCKOPT,
  CALL_GETSOCKOPT,
  CALL_BIND,
  CALL_SEND,
  CALL_RECVFROM,
  CALL_RECVMMSG,
  CALL_COUNT
};

// A wait that nothing will ever end.
struct stuck_s : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct inode_s {
  mode_t mode;  // kind and permissions
  ino_t number;
  std::string text;     // content, or where a link leads
  pid_t locked_by = 0;  // who has the write lock on the whole file; 0: no process
  dev_t device = 1;
  uid_t owner = 0;
  nlink_t links = 1;  // names; a test may claim more than the tree has
};
using inode_t = std::shared_ptr<inode_s>;

// A process, or one of its threads but the first: that has the entry of the process.
struct process_s {
  pid_t pid;
  pid_t parent;
  pid_t group;                     // the process that a thread belongs to, itself for a process
  pid_t session;                   // 1 for all that do not say otherwise
  uint64_t serial;                 // tells two users of one id apart, also within one tick
  uint64_t started;                // in clock ticks since boot
  uint64_t stack;                  // where that of its program begins; 0: without a program
  char state;                      // as in /proc/PID/stat; 'Z': ended, not reaped
  std::string name;                // "Name:", at most 15 characters
  std::string exe;                 // where the link leads; empty: a kernel thread
  inode_t exe_file;                // what it executes, whatever has become of the name
  std::vector<std::string> words;  // argv
  std::string groups;              // "Groups:", as the kernel prints it
  inode_t oom_score_adj;
};

struct datagram_s {
  std::string sender;  // the bytes of its address
  std::string data;
};

struct socket_s {
  std::deque<datagram_s> queue;
  std::vector<std::string> sent;
  std::string bound;               // the bytes of its address
  std::map<int, std::string> set;  // options by name

  // Of a listener to process events.
  std::vector<sock_filter> filter;  // empty: everything comes through
  size_t room = SIZE_MAX;           // datagrams that its queue takes
  bool congested = false;           // it was full, and has not been read empty since
  int error = 0;                    // what the next receive answers
  uint32_t drops = 0;
};

// What the kernel tells of processes, when a test says so: post(). It is told to every socket that
// has joined the group, as far as its filter lets it through.
struct connector_s {
  bool answers = true;                // a subscription, and a new name of a thread
  int refusal = 0;                    // the error in the former
  std::map<uint32_t, uint32_t> next;  // numbers, by processor
};

struct kill_s {
  pid_t pid;
  int sig;
  bool operator==(const kill_s &) const = default;
};

// What a descriptor stands for. A copy of a descriptor has an offset of its own.
struct open_file_s {
  open_file_s() = default;
  open_file_s(inode_t of, std::string at, int opened_with)
      : inode(std::move(of)), path(std::move(at)), flags(opened_with) {}

  inode_t inode;     // null: a socket, a counter or a process
  std::string path;  // without links
  int flags = 0;     // of open(2)
  size_t offset = 0;
  pid_t pid = 0;                     // whose /proc file it is, or whom it stands for; 0: nobody
  uint64_t serial = 0;               // of that process
  std::shared_ptr<socket_s> socket;  // null: a file, a counter or a process
  uint64_t counter = 0;
};

class kernel_s {
 public:
  static constexpr pid_t SELF = 500;  // the process under test

  kernel_s();

  // ---- time -----------------------------------------------------------------------------------

  // Sets the time since boot, for what must not depend on it.
  void set_uptime(int64_t seconds) { now_us_ = seconds * 1'000'000; }
  int64_t now_us() const { return now_us_; }
  // Lets time pass, as if the caller slept.
  void pass(int64_t span_us) {
    (void)wait(span_us, [] { return false; });
  }
  // Plans something for a moment to come; it happens during a wait.
  void after(int64_t span_us, std::function<void()> what);
  // Plans a signal whose handler does nothing but interrupt.
  void interrupt_after(int64_t span_us);

  // ---- failures -------------------------------------------------------------------------------

  // Makes a call to come fail with `error`: the nth of its kind, 1 is the next. For the calls that
  // return no errno (CALL_SET_SCHEDULE) it is the result.
  void fail(call_e kind, int nth, int error);
  // The same for the nth call of any kind.
  void fail_any(int nth, int error);
  // Does something right before the nth call of a kind.
  void before(call_e kind, int nth, std::function<void()> what);
  // Calls made so far.
  int calls(call_e kind) const { return made_[kind]; }
  int calls() const { return made_in_all_; }

  size_t transfer_limit = SIZE_MAX;  // bytes that one read or write moves at most

  // ---- processes ------------------------------------------------------------------------------

  // Starts a process with its command line; words[0] is its executable. Every path without a file
  // has an executable, too, which no directory shows.
  pid_t start(std::vector<std::string> words);
  pid_t start_thread(pid_t process);
  // The id of the next one that starts, although others may have had it before.
  void set_next_pid(pid_t pid) { next_pid_ = pid; }
  // Gives an id that is free to a process, in a later clock tick than all before or in this one.
  enum tick_e { LATER_TICK, SAME_TICK };
  pid_t start_as(pid_t pid, std::vector<std::string> words, tick_e tick = LATER_TICK);
  bool has(pid_t pid) const { return processes_.contains(pid); }
  process_s &process(pid_t pid) { return processes_.at(pid); }

  // Executes another program: same id, same start, no other thread left. Its locks go with their
  // descriptors, which are close-on-exec. A thread that executes becomes the first one, with its
  // id.
  void exec(pid_t task, std::vector<std::string> words);
  // Overwrites the command line of a process.
  void set_title(pid_t pid, const std::vector<std::string> &words);
  // Puts another file in an executable's place, as an upgrade does, or removes it: whoever runs the
  // old one goes on with it and shows it as "PATH (deleted)".
  void replace_binary(const std::string &path);
  void remove_binary(const std::string &path);

  // Ends a process with all its threads: a child of SELF stays a zombie, any other is gone. Its
  // locks go. Of a thread but the first one: ends that thread.
  void end(pid_t pid);
  // Ends a single thread. The first one stays as a zombie while others run; the process ends with
  // the last of them.
  void end_thread(pid_t tid);
  void reap(pid_t pid) { processes_.erase(pid); }
  // Whether a process has ended with all its threads.
  bool is_over(pid_t pid, uint64_t serial) const;

  // False: nothing is below /proc, as after umount(8).
  bool proc_is_mounted = true;

  std::vector<pid_t> forks;                        // children, in order
  std::function<void(process_s &)> child_becomes;  // what a forked child makes of itself
  std::vector<kill_s> kills;                       // signals that were sent
  std::function<void(int)> on_alarm;               // the handler of SIGALRM
  int alarms = 0;                                  // that rang
  unsigned int alarm_left_s() const;               // 0: none is pending
  std::string thread_name;                         // of the calling thread
  int policy = 0;                                  // of the calling thread: SCHED_OTHER

  // ---- files ----------------------------------------------------------------------------------

  void make_dir(const std::string &path);  // with those above it
  void write_file(const std::string &path, const std::string &text, mode_t mode = 0644);
  void make_link(const std::string &path, const std::string &target);
  void make_fifo(const std::string &path);
  void make_device(const std::string &path);
  void rename(const std::string &from, const std::string &to);
  void remove(const std::string &path);
  bool exists(const std::string &path) const { return inode_at(path) != nullptr; }
  // Of a file that is there.
  std::string text_of(const std::string &path) const { return inode_at(path)->text; }
  void give_away(const std::string &path, uid_t owner) { inode_at(path)->owner = owner; }
  void set_mode(const std::string &path, mode_t mode) {
    inode_at(path)->mode = (inode_at(path)->mode & S_IFMT) | mode;
  }
  mode_t mode_of(const std::string &path) const { return inode_at(path)->mode & 07777; }
  // The lock on a file: taken on behalf of another process, and who has it (0: no process).
  void lock(const std::string &path, pid_t pid) { inode_at(path)->locked_by = pid; }
  pid_t lock_holder(const std::string &path) const {
    const inode_t inode = inode_at(path);
    return inode == nullptr ? 0 : inode->locked_by;
  }

  size_t descriptors() const { return files_.size(); }  // open ones, standard streams included
  size_t descriptor_limit = SIZE_MAX;                   // with so many open, no more are given out
  size_t inherited_descriptors() const;                 // of them those that an exec hands on
  void close_standard_streams();                        // as a daemon's parent may have done
  std::string boot_id = "6f1d4e1c-52a0-4d8e-9b0e-3f5c7a9b1d2e";
  mode_t umask = 022;
  std::string console;  // what was written to the standard streams

  // ---- sockets --------------------------------------------------------------------------------

  connector_s connector;
  // Tells of an event: it gets the next number of its processor, and the present time.
  //   late_us  it is older than that
  void post(proc_event event, uint32_t processor = 0, int64_t late_us = 0);
  // The same for events that no socket gets and nobody is told of.
  void lose(uint32_t count, uint32_t processor = 0) { connector.next[processor] += count; }
  socket_s &socket(int fd) { return *files_.at(fd).socket; }

  // ---- the calls, which return -errno; see util/tov_sys.h ---------------------------------------

  // Counts a call and says whether it goes on; if not, errno is set.
  bool enter(call_e kind);

  enum wait_e { READY, TIMED_OUT, INTERRUPTED };
  // Moves time on until `ready`, but for `span_us` at most (negative: no limit).
  //   left_us  receives what was left of it
  wait_e wait(int64_t span_us, const std::function<bool()> &ready, int64_t *left_us = nullptr);

  unsigned int set_alarm(unsigned int seconds);
  pid_t fork();
  int kill(pid_t pid, int sig);
  pid_t waitpid(pid_t pid, int *status, int options);
  int pidfd_open(pid_t pid);
  int pidfd_signal(int fd, int sig);

  int open(const char *path, int flags, mode_t mode);
  ssize_t read(int fd, void *buf, size_t size);
  ssize_t write(int fd, const void *buf, size_t size);
  int close(int fd);
  int lock_descriptor(int fd, const flock &lock);
  int lock_holder(int fd, flock *lock);
  int stat_of(const std::string &path, bool follow, struct stat *status) const;
  int stat_of_descriptor(int fd, struct stat *status) const;
  ssize_t readlink(const char *path, char *buf, size_t size) const;
  int unlink(const char *path);
  int link(const char *from, const char *to, bool stays);
  int mkdir(const char *path, mode_t mode);
  int rmdir(const char *path);
  // Names below a directory; -ENOTDIR and the like in *error.
  std::vector<std::string> names_in(const char *path, int *error) const;

  // Gives a descriptor of at least `lowest` to `file`; -EMFILE.
  int install(open_file_s file, int lowest = 0);
  open_file_s *file_of(int fd);  // null: no such descriptor
  int poll(pollfd *waited, nfds_t count, int timeout_ms);
  void tell_name();
  void answer_subscription(const std::string &message);
  ssize_t receive(int fd, void *buf, size_t size, int flags, sockaddr *sender,
                  socklen_t *sender_size);

 private:
  struct found_s {
    int error;         // 0, also when only the last name is missing
    std::string path;  // without links
    inode_t inode;     // null: the last name is missing
  };
  struct plan_s {
    int error;                   // 0: none
    std::function<void()> what;  // null: nothing
  };

  inode_t make(const std::string &path, mode_t mode, const std::string &text = "");
  inode_t inode_at(const std::string &path) const;
  inode_t proc_inode(const std::string &path) const;
  inode_t executable_behind(const std::string &path) const;
  inode_t executable_at(const std::string &path);
  found_s walk(std::string rest, bool follow_last) const;
  bool is_readable(int fd);
  void drop_locks(pid_t pid);
  void rename_running(const inode_t &executable, const std::string &name);
  size_t threads_of(pid_t group) const;
  void end_group(pid_t group);
  void ring(int generation);

  int64_t now_us_ = 1'000'000'000;
  std::multimap<int64_t, std::function<void()>> events_;
  int signals_ = 0;  // delivered so far
  int64_t alarm_due_us_ = 0;
  int alarm_generation_ = 0;
  int alarms_to_handle_ = 0;  // rang during the wait under way

  int made_[CALL_COUNT] = {};
  int made_in_all_ = 0;
  std::map<std::pair<int, int>, plan_s> plans_;  // by kind (CALL_COUNT: any) and number

  std::map<pid_t, process_s> processes_;
  pid_t next_pid_ = 1000;
  uint64_t next_serial_ = 1;
  std::map<std::string, inode_t> executables_;  // of paths without a file

  std::map<std::string, inode_t> tree_;  // by path; "" is the root
  ino_t next_inode_ = 2;
  std::map<int, open_file_s> files_;
};

// The one kernel of the program; a fixture makes it anew for each test.
kernel_s &kernel();
void boot();

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_SIM_KERNEL_H
