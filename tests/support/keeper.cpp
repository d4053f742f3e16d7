// The keeper of a private device: `device_keeper OWNER [option...]`, its socket is descriptor 3.
//
// It builds the device's root in namespaces of its own, which live as long as it does, and then
// waits for its owner, the test. When the test asks for it or ends in whatever way (a failed
// assertion, a crash, SIGKILL, the terminal's SIGINT), the keeper kills every process of the device
// and removes its control groups; the mounts vanish with the keeper itself.
//
// Why a program: a forked copy of the test would carry its memory, its descriptors and its threads'
// locks. Why both the socket and a process descriptor are watched: a forked child of the test may
// hold the socket open although the test has ended.
//
// Options: --data2, --console=pty|file|null, --visible=DIR (may be repeated).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "tests/support/control_groups.h"
#include "tests/support/keeper_channel.h"
#include "tests/support/processes.h"
#include "tests/support/root_builder.h"

namespace tov_test {

static constexpr Millis END_LIMIT_MS{20'000};

static constexpr struct {
  const char *word;
  Console kind;
} consoles[] = {{"pty", Console::PTY}, {"file", Console::FILE}, {"null", Console::NULL_DEVICE}};

static RootPlan parse_plan(int argc, char **argv) {
  RootPlan plan;
  plan.control_groups = true;
  for (int i = 2; i < argc; i++) {
    const std::string word = argv[i];
    const std::string value = word.substr(std::min(word.size(), word.find('=') + 1));
    if (word == "--data2") plan.data2 = true;
    if (word.starts_with("--visible=")) plan.visible.push_back(value);
    if (word.starts_with("--console="))
      for (const auto &console : consoles)
        if (value == console.word) plan.console = console.kind;
  }
  return plan;
}

// Nothing but SIGKILL ends the keeper before its work is done.
static void leave_session() {
  setsid();
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
}

// Whoever started the test reads its output until the last holder has closed it.
static void drop_output() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = 0; fd <= 2; fd++)
    dup2(null, fd);
}

static void report_ready(const NewRoot &root) {
  std::vector<int> console;
  if (root.console_master.n >= 0) console = {root.console_master.n, root.console_slave.n};
  send_message(KEEPER_SOCKET, KEEPER_READY, console);
}

// Returns when the device is to be closed: by a message, or because the owner is gone.
static void wait_for_owner(int owner) {
  pollfd watched[] = {{KEEPER_SOCKET, POLLIN, 0}, {owner, POLLIN, 0}};
  while (poll(watched, 2, -1) < 0 && errno == EINTR) {
  }
  // Unread, the message would turn our answer into a connection reset.
  (void)receive_message(KEEPER_SOCKET, Millis(0));
}

static std::string end_everything(const NewRoot &root, const NamespaceId &machine) {
  const auto here = mount_namespace_of(getpid());
  if (!here) return "the keeper does not find its own namespace";
  const size_t left = end_processes_in(*here, machine, getpid(), END_LIMIT_MS);
  if (left > 0) return std::to_string(left) + " processes of the device could not be ended";
  if (!remove_control_groups(root.hierarchies)) return "a control group could not be removed";
  return KEEPER_CLOSED;
}

static int keep(int argc, char **argv) {
  const pid_t owner_pid = argc > 1 ? atoi(argv[1]) : 0;  // NOLINT(cert-err34-c): checked below
  leave_session();
  const tov_fd_t owner(static_cast<int>(syscall(SYS_pidfd_open, owner_pid, 0)));
  const auto machine = mount_namespace_of(owner_pid);
  if (owner.n < 0 || !machine || getppid() != owner_pid) return EXIT_FAILURE;
  NewRoot root;
  std::string outcome;
  try {
    root = enter_new_root(parse_plan(argc, argv));
    drop_output();
    report_ready(root);
    root.console_master.reset();  // the owner's end must be the only one
    root.console_slave.reset();
    wait_for_owner(owner.n);
    outcome = end_everything(root, *machine);
  } catch (const std::exception &failure) {
    outcome = failure.what();
    remove_control_groups(root.hierarchies);
  }
  send_message(KEEPER_SOCKET, outcome);
  return outcome == KEEPER_CLOSED ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tov_test

int main(int argc, char **argv) {
  // No exit handlers: a leak check has nothing to find here and could hold us up.
  _exit(tov_test::keep(argc, argv));
}
