// A private device: a root file system, a console, a system log and control groups of its own, in
// which a test runs the shipped daemon and real programs.
//
// The test itself stays outside. It reaches the device's files through /proc/KEEPER/root (the
// keeper is the process that holds the device's namespaces, see keeper.cpp), starts programs that
// join the namespaces before they execute, and receives what they write to the console and the
// system log. Process ids are the machine's: there is no pid namespace, because the kernel's
// process events reach only the first one. Programs of other tests are therefore visible; use
// unique_name().
//
// What the device has: an overlay over the machine's root whose writes vanish, its own /tmp, /data
// (a real mount), /data2 if wanted, /dev with /dev/console, /dev/shm and /dev/log, /memory and /cpu
// (version-1 control groups), an empty /sys in which anything may be created, the machine's /proc,
// empty /etc/tov and /etc/cmdmap. None of the daemon's other directories and flag files exist.
//
// The end: the destructor kills and reaps everything that lives in the device and removes its
// traces; if the test process ends in any other way, the keeper does. When the running test has
// failed by then, the destructor prints dump(). A sanitizer's report of any program of the device
// is a failure of the test.
// Orphans of the device become children of the test and are buried at once (children.h).
//
// Threads: one object is used by one thread; it runs a collector thread of its own.
// Errors: what should always work throws std::runtime_error, which fails the test.
// Time limits are multiplied by patience() (processes.h) in slow builds.
#ifndef TOV_TEST_DEVICE_H
#define TOV_TEST_DEVICE_H

#include <signal.h>
#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/birth.h"
#include "tests/support/collector.h"
#include "tests/support/processes.h"
#include "tests/support/root_builder.h"
#include "tests/support/spawn.h"
#include "util/owner.h"

namespace tov_test {

using Environment = std::map<std::string, std::string>;

struct DeviceOptions {
  bool data2 = false;                     // is there a /data2?
  Console console = Console::PTY;         // what /dev/console is
  Environment env = {};                   // added to the environment of every program of the device
  std::string binary_dir = {};            // where `tov` and `tests/programs` are; empty: this build
  bool expect_sanitizer_reports = false;  // true: a report is no failure
};

struct SpawnOptions {
  Environment env = {};  // added to the device's
  std::string cwd = "/";
  bool session = true;                            // in a session of its own
  std::optional<std::vector<gid_t>> groups = {};  // supplementary groups; unset: the test's
  pid_t id = 0;                                   // the process id that it shall have; 0: any
  std::vector<Limit> limits = {};  // RLIMIT_NOFILE...; a core needs {RLIMIT_CORE, 1 << 30, 1 << 30}
};

struct DaemonOptions {
  Environment env = {};
  std::vector<std::string> args = {};
  std::string faketime = {};  // as libfaketime reads it, "+0 x60" makes a minute of every second
  std::vector<Limit> limits = {};
  bool as_session = true;
  std::string program = {};  // empty: binary_dir/tov
};

struct RunResult {
  int status = -1;  // as waitpid gives it; -1: it did not end in time and was killed
  std::string output = {};
  bool exited_with(int code) const;
};

class Device {
 public:
  // Opens a device. Takes some 20 ms. Needs root.
  explicit Device(DeviceOptions options = {});
  Device(const Device &) = delete;
  Device &operator=(const Device &) = delete;
  ~Device();
  // Does what the destructor does, now. Only the collected texts can be asked for afterwards.
  void close();

  // --- Files (device_files.cpp). Paths are absolute and as the device's programs see them;
  // symbolic links are followed inside the device.

  // The machine's path of a device's file, for calls that have no counterpart here. Beware: an
  // absolute symbolic link on its way (/var/run) would lead out of the device.
  std::string path(const std::string &inside) const;
  // A whole file; empty when it cannot be opened.
  std::string read(const std::string &inside) const;
  // Its lines, without line ends (LF or CR LF).
  std::vector<std::string> lines(const std::string &inside) const;
  // Creates or truncates; missing parent directories are made. `mode` is set exactly.
  void write(const std::string &inside, const std::string &text, mode_t mode = 0644);
  void append(const std::string &inside, const std::string &text);
  // lstat; empty when there is no such file.
  std::optional<struct stat> status(const std::string &inside) const;
  // The permission bits, 0 when there is no such file.
  mode_t mode(const std::string &inside) const;
  bool exists(const std::string &inside) const;  // a dangling symbolic link exists
  // Removes a file or a whole directory; false when there was nothing.
  bool remove(const std::string &inside);
  // Makes a directory and its missing parents; `mode` is set exactly, on the last one only.
  void mkdir(const std::string &inside, mode_t mode = 0755);
  void symlink(const std::string &target, const std::string &inside);
  // Names in a directory, sorted, without "." and ".."; empty when there is no such directory.
  std::vector<std::string> list(const std::string &inside) const;
  // Writes the registration file that a client would leave (/tmp/vsd/VSD/tov/db/NAME.PID) without
  // holding its lock. Returns its path. For a locked one start `victim lock=ACTION`.
  std::string register_file(int vsd, pid_t pid, int action, const std::string &command);
  static std::string register_path(int vsd, pid_t pid, const std::string &command);

  // --- Programs (device_programs.cpp). Every program started here is a child of the test.

  // Starts the daemon. Its standard output and error go to daemon_output(). Several may be started,
  // one after the other or side by side; daemon_pid() names the latest.
  pid_t start_daemon(const DaemonOptions &options = {});
  // Waits until the daemon has started its threads, listens on its socket and hears the kernel's
  // process events. False when it did not in time or has ended.
  bool wait_daemon_ready(Millis limit = PATIENT_MS);
  // Starts the daemon and waits for it; throws when it does not come up.
  pid_t start_ready_daemon(const DaemonOptions &options = {});
  pid_t daemon_pid() const { return daemon_pid_; }
  // Its exit status as waitpid gives it; empty when it still runs at the end of the limit.
  std::optional<int> wait_daemon(Millis limit);
  // Sends a signal and waits for the end.
  std::optional<int> kill_daemon(int signal = SIGKILL, Millis limit = PATIENT_MS);
  // What all daemons of this device have printed so far.
  std::string daemon_output() const;

  // Starts any program; the first word is searched in the device's PATH. Its output is discarded.
  pid_t spawn(const std::vector<std::string> &argv, const SpawnOptions &options = {});
  // Starts a program and waits for its end. What outlives it may hold its output open.
  RunResult run(const std::vector<std::string> &argv, const SpawnOptions &options = {},
                Millis limit = Millis(20'000));
  // Runs a function of the test inside the device, in a forked child: for client calls.
  // Returns the child's wait status; the function's result is its exit code.
  int call_inside(const std::function<int()> &function);
  // Waits for a child of the test (started by spawn or start_daemon). Its status stays known.
  std::optional<int> wait(pid_t child, Millis limit);
  // Sends a signal to a process of this device. Throws when `pid` does not live in it.
  void kill(pid_t pid, int signal);

  // Lets a process and all that it starts from now on have at most so many threads together (-1:
  // any number); a fork beyond that fails with EAGAIN. RLIMIT_NPROC does not stop root.
  // False when the machine has no version-1 pids controller; the test should then skip.
  bool limit_processes(pid_t pid, int most);

  // Copies a test program (tests/programs/PROGRAM) to /opt/NAME/NAME and returns that path.
  // The name shall be unique_name(...), since it is visible to other devices.
  std::string install_program(const std::string &name, const std::string &program = "victim");
  // Writes an executable shell script to /etc/cmdmap/NAME.sh. `body` begins after "#!/bin/sh".
  std::string install_start_script(const std::string &name, const std::string &body);
  // Everything that victims of this name have reported about their starts, oldest first.
  std::vector<Birth> births(const std::string &name) const;
  // The `nth` start (from 1), as soon as it was reported.
  std::optional<Birth> wait_birth(const std::string &name, size_t nth = 1,
                                  Millis limit = PATIENT_MS) const;
  // Further lines that victims wrote, without their "note" and tab.
  std::vector<std::string> victim_notes(const std::string &name) const;

  struct Process {
    pid_t pid;
    std::string command;
  };
  // The living processes of this device, the keeper excepted.
  std::vector<Process> processes() const;
  bool lives(pid_t pid) const;  // in this device

  // --- What the device says (device_logs.cpp).

  std::vector<Notice> notices() const;
  // The first notice that contains the text (the `nth` one), waiting for it if need be.
  std::optional<Notice> wait_notice(const std::string &text, Millis limit = PATIENT_MS,
                                    size_t nth = 1) const;
  size_t count_notices(const std::string &text) const;
  // Lines of all event log files whose name begins so ("tov_run_event.log"), in the order of their
  // time stamps, without line ends.
  std::vector<std::string> event_log(const std::string &name) const;
  std::optional<std::string> wait_event(const std::string &name, const std::string &text,
                                        Millis limit = PATIENT_MS, size_t nth = 1) const;
  size_t count_events(const std::string &name, const std::string &text) const;
  std::string console() const;
  bool wait_console(const std::string &text, Millis limit = PATIENT_MS) const;
  bool wait_output(const std::string &text, Millis limit = PATIENT_MS) const;  // of the daemon
  // What sanitizers have written in this device.
  std::string sanitizer_reports() const;
  // Everything above as one text for a failure message.
  std::string dump() const;

  // False on a machine whose memory and cpu controllers have no version-1 hierarchy.
  bool has_control_groups() const;
  pid_t keeper_pid() const { return keeper_pid_; }
  const NamespaceId &namespace_id() const { return namespace_; }
  const std::string &binary_dir() const { return options_.binary_dir; }

 private:
  void start_keeper();
  void open_namespaces(std::vector<tov_fd_t> console);
  void end_processes();
  void reap_children();
  tov_fd_t open_inside(const std::string &inside, int flags, mode_t mode = 0) const;
  tov_fd_t open_parent(const std::string &inside) const;
  Environment base_environment() const;
  SpawnRequest request(const std::vector<std::string> &argv, const SpawnOptions &options) const;
  pid_t start(const SpawnRequest &wanted);

  DeviceOptions options_;
  pid_t keeper_pid_ = -1;
  tov_fd_t keeper_socket_;
  tov_fd_t root_;  // the device's root directory; keeps its mounts until we close it
  tov_fd_t mount_ns_;
  tov_fd_t ipc_ns_;
  tov_fd_t console_slave_;
  NamespaceId namespace_;
  std::unique_ptr<Collector> collector_;
  tov_fd_t daemon_output_;  // memory file, shared by all daemons
  pid_t daemon_pid_ = -1;
  std::optional<struct stat> socket_before_;      // of the registration socket, see start_daemon
  std::map<pid_t, std::optional<int>> children_;  // wait status once reaped
  bool open_ = false;
};

}  // namespace tov_test

#endif  // TOV_TEST_DEVICE_H
