// Programs of a device: the daemon, test programs, their births and deaths.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/birth.h"
#include "tests/support/children.h"
#include "tests/support/device.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/sanitizer_env.h"
#include "tests/support/spawn.h"

namespace tov_test {

static const std::string DAEMON_SOCKET = "/tmp/tov/.tov";
static const std::string PROCESS_GROUPS = "/run/pids";  // see control_groups.cpp
static const std::string VICTIM_REPORT = "/data/victim.";
static const std::string LAST_THREAD = "tov_proc_stat_c\n";  // the kernel keeps 15 characters
static constexpr Millis STOP_LIMIT_MS{5'000};

bool RunResult::exited_with(int code) const {
  return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// Not the test's environment: what a developer happens to have set must not matter.
Environment Device::base_environment() const {
  Environment env = {{"PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"},
                     {"HOME", "/"},
                     {"LANG", "C"},
                     {"TERM", "linux"}};
  add_sanitizer_settings(env);
  for (const auto &[name, value] : options_.env)
    env[name] = value;
  return env;
}

SpawnRequest Device::request(const std::vector<std::string> &argv,
                             const SpawnOptions &options) const {
  // Without the namespaces the program would start on the machine itself.
  if (!open_) throw std::runtime_error("device: it is closed");
  SpawnRequest wanted;
  Environment all = base_environment();
  for (const auto &[name, value] : options.env)
    all[name] = value;
  for (const auto &[name, value] : all)
    wanted.env.push_back(std::string(name).append("=").append(value));
  wanted.argv = argv;
  wanted.cwd = options.cwd;
  wanted.session = options.session;
  wanted.groups = options.groups;
  wanted.limits = options.limits;
  wanted.id = options.id;
  wanted.mount_ns_fd = mount_ns_.n;
  wanted.ipc_ns_fd = ipc_ns_.n;
  return wanted;
}

pid_t Device::start(const SpawnRequest &wanted) {
  const pid_t pid = spawn_process(wanted);
  children_[pid] = std::nullopt;
  return pid;
}

pid_t Device::spawn(const std::vector<std::string> &argv, const SpawnOptions &options) {
  return start(request(argv, options));
}

RunResult Device::run(const std::vector<std::string> &argv, const SpawnOptions &options,
                      Millis limit) {
  const tov_fd_t output(memfd_create("output", MFD_CLOEXEC));
  SpawnRequest wanted = request(argv, options);
  wanted.output_fd = output.n;
  const pid_t pid = start(wanted);
  const auto status = wait(pid, limit);
  if (!status) {
    ::kill(pid, SIGKILL);
    wait(pid, limit);
  }
  return {status.value_or(-1), content_of(output.n)};
}

int Device::call_inside(const std::function<int()> &function) {
  const pid_t pid = fork_child();
  if (pid == 0) {
    const bool inside = setns(ipc_ns_.n, CLONE_NEWIPC) == 0 && setns(mount_ns_.n, CLONE_NEWNS) == 0;
    _exit(inside ? function() : 127);
  }
  if (pid < 0) throw std::runtime_error(std::string("device: fork: ") + strerror(errno));
  children_[pid] = std::nullopt;
  return wait(pid, Millis(60'000)).value_or(-1);
}

std::optional<int> Device::wait(pid_t child, Millis limit) {
  const auto known = children_.find(child);
  if (known == children_.end()) throw std::runtime_error("device: wait for a process not started");
  if (known->second) return known->second;
  return known->second = wait_child(child, limit);
}

void Device::kill(pid_t pid, int signal) {
  // A child of ours that already ended keeps its id until we reap it.
  const auto child = children_.find(pid);
  const bool ours = child != children_.end() && !child->second;
  if (pid <= 0 || (!ours && !lives(pid)))
    throw std::runtime_error("device: " + std::to_string(pid) + " does not live here");
  if (::kill(pid, signal) < 0) throw std::runtime_error("device: kill " + std::to_string(pid));
  // The first thread takes the signal and stops the others: until it has its turn they go on.
  const auto has_stopped = [&] { return process_state(pid) != 'R' && process_state(pid) != 'S'; };
  if (signal == SIGSTOP && !wait_until(has_stopped, STOP_LIMIT_MS))
    throw std::runtime_error("device: " + std::to_string(pid) + " does not stop");
}

pid_t Device::start_daemon(const DaemonOptions &options) {
  std::vector<std::string> argv = options.args;
  argv.insert(argv.begin(),
              options.program.empty() ? options_.binary_dir + "/tov" : options.program);
  Environment env = options.env;
  if (!options.faketime.empty()) add_faketime_settings(env, options.faketime);
  SpawnRequest wanted =
      request(argv, {.env = env, .session = options.as_session, .limits = options.limits});
  wanted.output_fd = daemon_output_.n;
  socket_before_ = status(DAEMON_SOCKET);
  daemon_pid_ = start(wanted);
  return daemon_pid_;
}

// Is there a netlink socket of protocol 11 (connector), port PID, group 1 (process events)?
static bool hears_process_events(pid_t pid) {
  std::istringstream table(read_small_file("/proc/net/netlink"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns(line);
    std::string address, groups;
    int protocol = 0;
    long port = 0;
    if (columns >> address >> protocol >> port >> groups && protocol == 11 && port == pid &&
        (strtoul(groups.c_str(), nullptr, 16) & 1) != 0)
      return true;
  }
  return false;
}

// Does the last of the daemon's threads run?
static bool runs_all_threads(pid_t pid) {
  std::error_code gone;
  std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", gone);
  for (; !gone && tasks != std::filesystem::directory_iterator(); tasks.increment(gone)) {
    if (read_small_file(tasks->path() / "comm") == LAST_THREAD) return true;
  }
  return false;
}

bool Device::wait_daemon_ready(Millis limit) {
  bool ready = false;
  wait_until(
      [&] {
        if (wait(daemon_pid_, Millis(0))) return true;
        const auto socket = status(DAEMON_SOCKET);
        const bool bound = socket && (!socket_before_ || socket->st_ino != socket_before_->st_ino);
        ready = bound && hears_process_events(daemon_pid_) && runs_all_threads(daemon_pid_);
        return ready;
      },
      limit);
  return ready;
}

pid_t Device::start_ready_daemon(const DaemonOptions &options) {
  start_daemon(options);
  if (!wait_daemon_ready()) throw std::runtime_error("the daemon did not come up\n" + dump());
  return daemon_pid_;
}

std::optional<int> Device::wait_daemon(Millis limit) {
  return wait(daemon_pid_, limit);
}

std::optional<int> Device::kill_daemon(int signal, Millis limit) {
  kill(daemon_pid_, signal);
  return wait_daemon(limit);
}

std::string Device::daemon_output() const {
  return content_of(daemon_output_.n);
}

std::string Device::install_program(const std::string &name, const std::string &program) {
  const std::string from = options_.binary_dir + "/tests/programs/" + program;
  std::string inside = "/opt/" + name + "/" + name;
  const tov_fd_t source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat found {};
  if (source.n < 0 || fstat(source.n, &found) < 0)
    throw std::runtime_error("device: " + from + ": " + strerror(errno));
  mkdir("/opt/" + name);
  const tov_fd_t copy = open_inside(inside, O_WRONLY | O_CREAT | O_TRUNC, 0755);
  for (off_t done = 0; done < found.st_size;)
    if (sendfile(copy.n, source.n, &done, static_cast<size_t>(found.st_size - done)) <= 0)
      throw std::runtime_error("device: copy to " + inside + ": " + strerror(errno));
  return inside;
}

std::string Device::install_start_script(const std::string &name, const std::string &body) {
  std::string inside = "/etc/cmdmap/" + name + ".sh";
  write(inside, "#!/bin/sh\n" + body, 0755);
  return inside;
}

std::vector<Birth> Device::births(const std::string &name) const {
  return parse_births(lines(VICTIM_REPORT + name));
}

std::optional<Birth> Device::wait_birth(const std::string &name, size_t nth, Millis limit) const {
  std::vector<Birth> all;
  wait_until([&] { return (all = births(name)).size() >= nth; }, limit);
  return all.size() < nth ? std::nullopt : std::optional(all[nth - 1]);
}

std::vector<std::string> Device::victim_notes(const std::string &name) const {
  static const std::string MARK = "note\t";
  std::vector<std::string> notes;
  for (const std::string &line : lines(VICTIM_REPORT + name))
    if (line.starts_with(MARK)) notes.push_back(line.substr(MARK.size()));
  return notes;
}

std::vector<Device::Process> Device::processes() const {
  std::vector<Process> living;
  if (!open_) return living;
  for (const pid_t pid : processes_in(namespace_))
    if (pid != keeper_pid_) living.push_back({pid, command_line(pid)});
  return living;
}

bool Device::lives(pid_t pid) const {
  return open_ && pid > 0 && mount_namespace_of(pid) == namespace_;
}

bool Device::limit_processes(pid_t pid, int most) {
  if (!exists(PROCESS_GROUPS + "/tasks")) return false;
  const std::string group = PROCESS_GROUPS + "/limited_" + std::to_string(pid);
  mkdir(group);
  append(group + "/pids.max", most < 0 ? "max" : std::to_string(most));
  append(group + "/cgroup.procs", std::to_string(pid));
  return true;
}

bool Device::has_control_groups() const {
  return exists("/memory/tasks") && exists("/cpu/tasks");
}

}  // namespace tov_test
