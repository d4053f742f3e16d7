// Starts a program as a child of the test.
#include "tests/support/spawn.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "tests/support/children.h"
#include "util/owner.h"

namespace tov_test {

static constexpr int REPORT_FD_MIN = 100;  // out of the way of the descriptors that the child gets
static constexpr int EXIT_NOT_STARTED = 127;

namespace {

// What the child needs, prepared before the fork.
struct Prepared {
  const SpawnRequest &request;
  std::vector<char *> argv;
  std::vector<char *> env;
};

struct Step {
  const char *name;
  bool (*run)(const Prepared &prepared);  // false: errno tells
};

}  // namespace

static bool join(int ns, int kind) {
  return ns < 0 || setns(ns, kind) == 0;
}

static bool set_limits(const Prepared &prepared) {
  for (const Limit &limit : prepared.request.limits) {
    const rlimit value{limit.soft, limit.hard};
    if (setrlimit(static_cast<__rlimit_resource_t>(limit.resource), &value) < 0) return false;
  }
  return true;
}

static bool set_groups(const Prepared &prepared) {
  const auto &groups = prepared.request.groups;
  return !groups || setgroups(groups->size(), groups->data()) == 0;
}

static bool reset_signals(const Prepared &) {
  // By the kernel's own call: the C library refuses its internal signals, and those may have come
  // ignored, because its posix_spawn() leaves them so in whatever started the tests.
  static constexpr char by_default[64] = {};  // more than the kernel's record, whose zeroes mean it
  for (int number = 1; number < NSIG; number++) {
    (void)syscall(SYS_rt_sigaction, number, by_default, nullptr, NSIG / 8);  // not SIGKILL, SIGSTOP
  }
  sigset_t none;
  sigemptyset(&none);
  return sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

static bool set_standard_streams(const Prepared &prepared) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int output = prepared.request.output_fd < 0 ? null : prepared.request.output_fd;
  return null >= 0 && dup2(null, 0) >= 0 && dup2(output, 1) >= 0 && dup2(output, 2) >= 0;
}

static bool pass_descriptor(const Prepared &prepared) {
  const int fd = prepared.request.passed_fd;
  if (fd < 0) return close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
  if (fd == 3 ? fcntl(fd, F_SETFD, 0) < 0 : dup2(fd, 3) < 0) return false;
  return close_range(4, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

static bool execute(const Prepared &prepared) {
  environ = const_cast<char **>(prepared.env.data());
  execvp(prepared.argv[0], prepared.argv.data());
  return false;
}

static constexpr Step steps[] = {
    {"join the IPC namespace",
     [](const Prepared &p) { return join(p.request.ipc_ns_fd, CLONE_NEWIPC); }},
    {"join the mount namespace",
     [](const Prepared &p) { return join(p.request.mount_ns_fd, CLONE_NEWNS); }},
    {"streams", set_standard_streams},
    {"setsid", [](const Prepared &p) { return !p.request.session || setsid() > 0; }},
    {"setgroups", set_groups},
    {"chdir", [](const Prepared &p) { return chdir(p.request.cwd.c_str()) == 0; }},
    {"setrlimit", set_limits},
    {"signals", reset_signals},
    {"descriptors", pass_descriptor},
    {"exec", execute},
};

namespace {

struct Report {
  size_t step;
  int error;
};

}  // namespace

[[noreturn]] static void child_main(const Prepared &prepared, int report_fd) {
  Report report{0, 0};
  while (steps[report.step].run(prepared))
    report.step++;
  report.error = errno;
  (void)!write(report_fd, &report, sizeof report);  // the exit status still tells
  _exit(EXIT_NOT_STARTED);
}

static std::vector<char *> pointers(const std::vector<std::string> &words) {
  std::vector<char *> out;
  out.reserve(words.size() + 1);
  for (const std::string &word : words)
    out.push_back(const_cast<char *>(word.c_str()));
  out.push_back(nullptr);
  return out;
}

pid_t spawn_process(const SpawnRequest &request) {
  const Prepared prepared{request, pointers(request.argv), pointers(request.env)};
  int ends[2];
  if (request.argv.empty() || pipe2(ends, O_CLOEXEC) < 0)
    throw std::runtime_error("spawn: nothing to start, or no pipe");
  const tov_fd_t reader(ends[0]);
  tov_fd_t writer(fcntl(ends[1], F_DUPFD_CLOEXEC, REPORT_FD_MIN));
  close(ends[1]);
  const pid_t pid = request.id > 0 ? fork_child_as(request.id) : fork_child();
  if (pid < 0) throw std::runtime_error(std::string("spawn: fork: ") + strerror(errno));
  if (pid == 0) child_main(prepared, writer.n);
  writer.reset();
  Report report{};
  ssize_t got;
  do {
    got = read(reader.n, &report, sizeof report);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof report)) return pid;  // the exec closed the pipe
  bury_child(pid);
  throw std::runtime_error("spawn " + request.argv[0] + ": " + steps[report.step].name + ": " +
                           strerror(report.error));
}

}  // namespace tov_test
