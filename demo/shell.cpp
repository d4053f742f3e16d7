// Only the shell itself sits on the user's terminal: it joins the device's namespaces and takes the
// standard streams along. The keys that interrupt are for the shell and what runs in it, so they
// are ignored here until it ends.
#include "demo/shell.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "demo/stage.h"
#include "tests/support/children.h"
#include "tests/support/device.h"
#include "util/owner.h"

namespace tov_demo {

static constexpr useconds_t LOOK_PERIOD_US = 20'000;
static constexpr int EXIT_NOT_STARTED = 127;
static constexpr char RC_FILE[] = "/etc/tov_shell_rc";
static constexpr char MESSAGES[] = "/var/log/messages";
static constexpr char CONSOLE[] = "/var/log/console";

static constexpr char RC_TEXT[] = R"rc(
PS1='(tov device) \w # '
HISTFILE=
logs()     { sort /qxos/vsd_common/tov/*.log* | tr -d '\r' | tail -n "${1:-20}"; }
notices()  { tail -n "${1:-20}" /var/log/messages; }
programs() { for f in /tmp/vsd/*/tov/db/*; do
             [ -f "$f" ] && printf '%8s  %s\n' "${f##*.}" "$(sed -n '3p' "$f")"; done; }
pid()      { for f in /tmp/vsd/*/tov/db/"$1".*; do [ -f "$f" ] && echo "${f##*.}"; done; }
hints() {
cat <<'EOF'
You are inside a private device in which tov supervises three example programs.
Its files vanish, and everything in it ends, when you leave this shell.
Process ids are the machine's: signal nothing but what "programs" lists.

  programs                        what is registered: process id and command line
  kill -KILL $(pid supervised_c)  end a program; it comes back within some 35 ms
  kill -TERM $(pid supervised_c)  a deliberate stop; it stays away
  notices, logs                   what tov has said (an argument: how many lines)

  /qxos/vsd_common/tov/           event logs          /tmp/vsd/0/tov/db/  registrations
  /var/log/messages               system log          /var/log/console    console
  echo 3 > /debug_time            self-check period in seconds (300); then kill one five times
  touch /etc/debug_log            keep a restart journal in /tmp/tov/tov.log1 and tov.log2
  touch /etc/dev_mon              the next restart happens silently

"hints" shows this again; "exit" closes the device.
EOF
}
[ -t 1 ] && hints
)rc";

[[noreturn]] static void become_shell(int ipc_ns, int mount_ns) {
  for (int number : {SIGINT, SIGQUIT, SIGTTOU})
    signal(number, SIG_DFL);
  if (setns(ipc_ns, CLONE_NEWIPC) < 0 || setns(mount_ns, CLONE_NEWNS) < 0 || chdir("/root") < 0) {
    perror("enter the device");
    _exit(EXIT_NOT_STARTED);
  }
  setenv("HOME", "/root", 1);
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("DATA_QXOS_DIR", "/data/.qxos/vsd/0", 1);
  unsetenv("PROMPT_COMMAND");
  if (isatty(STDIN_FILENO) != 0) {
    execl("/bin/bash", "bash", "--noprofile", "--rcfile", RC_FILE, "-i", nullptr);
  } else {
    setenv("BASH_ENV", RC_FILE, 1);  // commands from a pipe find the same helpers
    execl("/bin/bash", "bash", "--noprofile", "-s", nullptr);
  }
  perror("/bin/bash");
  _exit(EXIT_NOT_STARTED);
}

static pid_t start_shell(const tov_test::Device &device) {
  const std::string ns = "/proc/" + std::to_string(device.keeper_pid()) + "/ns/";
  const tov_fd_t ipc(open((ns + "ipc").c_str(), O_RDONLY | O_CLOEXEC));
  const tov_fd_t mount(open((ns + "mnt").c_str(), O_RDONLY | O_CLOEXEC));
  fflush(stdout);
  const pid_t child = tov_test::fork_child();
  if (child == 0) become_shell(ipc.n, mount.n);
  return child;
}

namespace {

// Hands on what the device has said since the last look.
class Recorder {
 public:
  explicit Recorder(tov_test::Device &device) : device_(device) {
    device_.write(MESSAGES, "");
    device_.write(CONSOLE, "");
  }

  void record() {
    const auto notices = device_.notices();
    for (; notices_ < notices.size(); notices_++)
      device_.append(MESSAGES, notices[notices_].text + "\n");
    const std::string console = device_.console();
    if (console.size() > console_bytes_) device_.append(CONSOLE, console.substr(console_bytes_));
    console_bytes_ = console.size();
  }

 private:
  tov_test::Device &device_;
  size_t notices_ = 0;
  size_t console_bytes_ = 0;
};

}  // namespace

static bool has_ended(pid_t child) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == child;
}

int run_shell(Stage &stage) {
  tov_test::Device &device = stage.device();
  Recorder recorder(device);
  device.write(RC_FILE, RC_TEXT);
  for (int number : {SIGINT, SIGQUIT})
    signal(number, SIG_IGN);
  const pid_t shell = start_shell(device);
  while (shell > 0 && !has_ended(shell)) {
    recorder.record();
    usleep(LOOK_PERIOD_US);
  }
  const int status = shell > 0 ? tov_test::bury_child(shell) : -1;
  // The shell took the terminal for itself; to print again we must own it.
  signal(SIGTTOU, SIG_IGN);
  (void)tcsetpgrp(STDIN_FILENO, getpgrp());
  for (int number : {SIGINT, SIGQUIT})
    signal(number, SIG_DFL);
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

}  // namespace tov_demo
