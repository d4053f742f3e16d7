// Processes seen from outside, through /proc and process descriptors.
#include "tests/support/processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "util/owner.h"

namespace tov_test {

static constexpr Millis POLL_PERIOD_MS{2};

static std::string proc_path(pid_t pid, const std::string &rest) {
  return "/proc/" + std::to_string(pid) + "/" + rest;
}

// Process or thread ids listed in a directory of /proc.
static std::vector<pid_t> ids_in(const std::string &directory) {
  std::vector<pid_t> ids;
  const tov_dir_t dir(opendir(directory.c_str()));
  if (!dir) return ids;
  while (const dirent *entry = readdir(dir.get())) {
    const int id = atoi(entry->d_name);  // NOLINT(cert-err34-c): anything else than an id gives 0
    if (id > 0) ids.push_back(id);
  }
  return ids;
}

static std::optional<NamespaceId> namespace_at(const std::string &path) {
  struct stat found {};
  if (stat(path.c_str(), &found) < 0) return std::nullopt;
  return NamespaceId{found.st_dev, found.st_ino};
}

std::optional<NamespaceId> mount_namespace_of(pid_t pid) {
  if (auto found = namespace_at(proc_path(pid, "ns/mnt"))) return found;
  for (const pid_t tid : ids_in(proc_path(pid, "task")))
    if (auto found = namespace_at(proc_path(pid, "task/" + std::to_string(tid) + "/ns/mnt")))
      return found;
  return std::nullopt;
}

std::vector<pid_t> processes_in(const NamespaceId &where) {
  std::vector<pid_t> living;
  for (const pid_t pid : ids_in("/proc"))
    if (mount_namespace_of(pid) == where) living.push_back(pid);
  return living;
}

// The descriptor pins the process, the second look at its namespace proves that the id had not
// been reused before the descriptor was opened.
static void kill_if_in(const NamespaceId &where, pid_t pid) {
  const tov_fd_t process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (process.n < 0) return;
  if (mount_namespace_of(pid) != where) return;
  // A process that ended in between is what we want.
  (void)syscall(SYS_pidfd_send_signal, process.n, SIGKILL, nullptr, 0);
}

size_t end_processes_in(const NamespaceId &where, const NamespaceId &machine, pid_t spare,
                        Millis limit) {
  if (machine == where || mount_namespace_of(1) == where)
    throw std::logic_error("refusing to end the processes of the machine's own namespace");
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto living = processes_in(where);
    std::erase(living, spare);
    if (living.empty() || std::chrono::steady_clock::now() > deadline) return living.size();
    for (const pid_t pid : living)
      kill_if_in(where, pid);
    std::this_thread::sleep_for(POLL_PERIOD_MS);
  }
}

std::string read_small_file(const std::string &path) {
  std::string text;
  const tov_fd_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.n < 0) return text;
  char part[4096];
  ssize_t got;
  while ((got = read(file.n, part, sizeof part)) > 0)
    text.append(part, static_cast<size_t>(got));
  return text;
}

char process_state(pid_t pid) {
  const std::string stat = read_small_file(proc_path(pid, "stat"));
  const size_t name_end = stat.rfind(')');
  return name_end == std::string::npos || name_end + 2 >= stat.size() ? '\0' : stat[name_end + 2];
}

uint64_t start_of(pid_t pid) {
  static constexpr int FIELDS_BETWEEN = 19;  // the state and what follows it
  const std::string text = read_small_file(proc_path(pid, "stat"));
  const size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream rest(text.substr(name_end + 1));
  std::string skipped;
  for (int i = 0; i < FIELDS_BETWEEN; i++)
    rest >> skipped;
  uint64_t started = 0;
  rest >> started;
  return started;
}

bool process_lives(pid_t pid) {
  return pid > 0 && mount_namespace_of(pid).has_value();
}

std::string command_line(pid_t pid) {
  std::string text = read_small_file(proc_path(pid, "cmdline"));
  while (!text.empty() && text.back() == '\0')
    text.pop_back();
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

std::string status_field(pid_t pid, const std::string &field) {
  const std::string text = "\n" + read_small_file(proc_path(pid, "status"));
  const size_t at = text.find("\n" + field + ":");
  if (at == std::string::npos) return {};
  const size_t begin = text.find_first_not_of(" \t", at + field.size() + 2);
  const size_t end = text.find('\n', begin);
  return begin >= end ? std::string() : text.substr(begin, end - begin);
}

static std::runtime_error no_process(pid_t pid) {
  return std::runtime_error("no such process: " + std::to_string(pid));
}

uint64_t resident_kb(pid_t pid) {
  std::istringstream words(read_small_file(proc_path(pid, "smaps_rollup")));
  uint64_t kilobytes = 0;
  for (std::string word; words >> word;)
    if (word == "Rss:" && words >> kilobytes) return kilobytes;
  throw no_process(pid);
}

size_t descriptors_of(pid_t pid, const std::string &part) {
  size_t count = 0;
  std::error_code gone;
  for (std::filesystem::directory_iterator entry(proc_path(pid, "fd"), gone), end;
       !gone && entry != end; entry.increment(gone)) {
    std::error_code closed;
    const std::string target = std::filesystem::read_symlink(entry->path(), closed).string();
    if (target.find(part) != std::string::npos) count++;
  }
  if (gone) throw no_process(pid);
  return count;
}

std::string unique_name(const std::string &prefix) {
  return prefix + std::to_string(getpid());
}

int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

int patience() {
#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD)
  return 4;
#elif defined(TOV_COVERAGE)
  return 2;
#else
  return 1;
#endif
}

bool wait_until(const std::function<bool()> &holds, Millis limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit * patience();
  for (;;) {
    if (holds()) return true;
    if (std::chrono::steady_clock::now() > deadline) return holds();
    std::this_thread::sleep_for(POLL_PERIOD_MS);
  }
}

}  // namespace tov_test
