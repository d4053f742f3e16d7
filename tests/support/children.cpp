// The test's children, and the orphans of its devices.
#include "tests/support/children.h"

#include <linux/sched.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

namespace fs = std::filesystem;

static std::mutex children_mutex;
static std::set<pid_t> own_children;  // guarded by children_mutex

void adopt_orphans() {
  // Refused only by kernels that do not know it; then process 1 goes on doing it.
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

pid_t fork_child() {
  const std::lock_guard guard(children_mutex);
  const pid_t child = fork();
  if (child > 0) own_children.insert(child);
  return child;
}

// The plain system call, which knows nothing of the C library's threads. Only in a process that has
// one; the new one becomes its brother.
static pid_t clone_brother(pid_t id) {
  clone_args wanted{};
  wanted.flags = CLONE_PARENT;
  wanted.set_tid = reinterpret_cast<uintptr_t>(&id);
  wanted.set_tid_size = 1;
  return static_cast<pid_t>(syscall(SYS_clone3, &wanted, sizeof wanted));
}

pid_t fork_child_as(pid_t id) {
  const std::lock_guard guard(children_mutex);
  own_children.insert(id);
  const pid_t between = fork();
  if (between == 0) {
    const pid_t brother = clone_brother(id);
    if (brother == 0) return 0;
    _exit(brother < 0 ? errno : 0);
  }
  int status = 0;
  while (between > 0 && waitpid(between, &status, 0) < 0 && errno == EINTR) {
  }
  if (between > 0 && status == 0) return id;
  own_children.erase(id);
  if (between > 0) errno = WIFEXITED(status) ? WEXITSTATUS(status) : ECHILD;
  return -1;
}

int bury_child(pid_t child) {
  int status = 0;
  pid_t buried;
  do {
    buried = waitpid(child, &status, 0);
  } while (buried < 0 && errno == EINTR);
  const std::lock_guard guard(children_mutex);
  own_children.erase(child);
  return buried == child ? status : -1;
}

std::optional<int> wait_child(pid_t child, Millis limit) {
  const tov_fd_t process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  pollfd ended{process.n, POLLIN, 0};
  if (poll(&ended, 1, static_cast<int>(limit.count()) * patience()) <= 0) return std::nullopt;
  return bury_child(child);
}

int end_child(pid_t child) {
  kill(child, SIGKILL);
  return bury_child(child);
}

// Children of every thread.
static std::vector<pid_t> all_children() {
  std::vector<pid_t> all;
  for (const auto &task : fs::directory_iterator("/proc/self/task")) {
    std::istringstream children(read_small_file(task.path().string() + "/children"));
    for (pid_t child = 0; children >> child;)
      all.push_back(child);
  }
  return all;
}

void end_children() {
  for (std::vector<pid_t> children; !(children = all_children()).empty();) {
    for (const pid_t child : children)
      kill(child, SIGKILL);  // all of them before the first wait: the end of one frees its own
    for (const pid_t child : children)
      (void)bury_child(child);
  }
}

// The session is told for a zombie, too. A process that is gone has none.
static bool is_orphan(pid_t child) {
  const std::string stat = read_small_file("/proc/" + std::to_string(child) + "/stat");
  const size_t name_end = stat.rfind(')');
  int parent = 0, group = 0, session = 0;
  if (name_end == std::string::npos ||
      sscanf(stat.c_str() + name_end, ") %*c %d %d %d", &parent, &group, &session) != 3)
    return false;
  return parent == getpid() && session != getsid(0);
}

// The question to /proc comes last: there may be a thousand living orphans.
static bool bury_if_orphan(pid_t child) {
  siginfo_t ended{};
  if (own_children.contains(child)) return false;
  if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) < 0 ||
      ended.si_pid == 0 || !is_orphan(child))
    return false;
  return waitpid(child, nullptr, WNOHANG) == child;
}

// The long way: a child that the test has not waited for yet hides the orphans behind it.
static void search_orphans() {
  for (const pid_t child : all_children())
    bury_if_orphan(child);
}

void bury_orphans() {
  const std::lock_guard guard(children_mutex);
  for (;;) {
    siginfo_t ended{};
    if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) < 0 || ended.si_pid == 0) return;
    if (bury_if_orphan(ended.si_pid)) continue;
    search_orphans();
    return;
  }
}

}  // namespace tov_test
