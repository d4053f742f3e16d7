// The simulated kernel: processes and their threads.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/sim/kernel.h"
#include "util/tov_sys.h"

namespace tov_test {

static constexpr int64_t US_PER_TICK = 10'000;

// Apart by a page, below the end of the address space.
static uint64_t stack_of(uint64_t serial) {
  static constexpr uint64_t HIGHEST = 0x7fff'ffff'f000;
  static constexpr uint64_t PAGE = 4096;
  return HIGHEST - serial * PAGE;
}

static std::string name_of(const std::string &exe) {
  static constexpr size_t LONGEST = 15;
  return exe.substr(exe.rfind('/') + 1).substr(0, LONGEST);
}

// ---- births ---------------------------------------------------------------------------------

pid_t kernel_s::start(std::vector<std::string> words) {
  while (processes_.contains(next_pid_))
    next_pid_++;
  const pid_t pid = next_pid_++;
  const uint64_t serial = next_serial_++;
  const std::string exe = words.empty() ? "" : words[0];
  process_s &process = processes_[pid];
  process = {};
  process.pid = process.group = pid;
  process.parent = process.session = 1;
  process.serial = serial;
  process.started = static_cast<uint64_t>(now_us_ / US_PER_TICK);
  process.state = 'S';
  process.name = name_of(exe);
  process.exe = exe;
  if (!exe.empty()) {
    process.stack = stack_of(serial);
    process.exe_file = executable_at(exe);
  }
  process.words = std::move(words);
  process.oom_score_adj = std::make_shared<inode_s>(inode_s{S_IFREG | 0644, 0, "0\n"});
  return pid;
}

pid_t kernel_s::start_as(pid_t pid, std::vector<std::string> words, tick_e tick) {
  if (has(pid)) ADD_FAILURE() << "process " << pid << " is there";
  if (tick == LATER_TICK) pass(US_PER_TICK);
  const pid_t next = std::exchange(next_pid_, pid);
  const pid_t started = start(std::move(words));
  next_pid_ = next;
  return started;
}

// Everything but what is a task's own comes from `from`.
static void share_memory(const process_s &from, process_s *task) {
  task->session = from.session;
  task->stack = from.stack;
  task->name = from.name;
  task->exe = from.exe;
  task->exe_file = from.exe_file;
  task->words = from.words;
  task->groups = from.groups;
}

pid_t kernel_s::start_thread(pid_t process) {
  const process_s owner = processes_.at(process);
  const pid_t pid = start({});
  process_s &thread = processes_[pid];
  share_memory(owner, &thread);
  thread.parent = owner.parent;
  thread.group = process;
  thread.oom_score_adj = owner.oom_score_adj;
  return pid;
}

pid_t kernel_s::fork() {
  const pid_t pid = start({});
  process_s &child = processes_[pid];
  share_memory(processes_.at(SELF), &child);
  child.parent = SELF;
  forks.push_back(pid);
  if (child_becomes) child_becomes(child);
  return pid;
}

// ---- executions -----------------------------------------------------------------------------

inode_t kernel_s::executable_at(const std::string &path) {
  if (inode_t inode = walk(path, true).inode) return inode;
  inode_t &executable = executables_[path];
  if (executable == nullptr)
    executable = std::make_shared<inode_s>(inode_s{S_IFREG | 0755, next_inode_++, ""});
  return executable;
}

void kernel_s::exec(pid_t task, std::vector<std::string> words) {
  const pid_t pid = processes_.at(task).group;
  std::erase_if(processes_, [pid](const auto &entry) {
    return entry.second.group == pid && entry.first != pid;
  });
  drop_locks(pid);
  process_s &process = processes_.at(pid);
  process.state = 'S';
  process.stack = stack_of(next_serial_++);
  process.exe = words.at(0);
  process.exe_file = executable_at(process.exe);
  process.name = name_of(process.exe);
  process.words = std::move(words);
}

void kernel_s::set_title(pid_t pid, const std::vector<std::string> &words) {
  for (auto &[id, task] : processes_)
    if (task.group == pid && task.state != 'Z') task.words = words;
}

void kernel_s::rename_running(const inode_t &executable, const std::string &name) {
  for (auto &[id, task] : processes_)
    if (executable != nullptr && task.exe_file == executable) task.exe = name;
}

void kernel_s::replace_binary(const std::string &path) {
  const inode_t old = executable_at(path);
  rename_running(old, path + " (deleted)");
  inode_t &place = tree_.contains(path) ? tree_[path] : executables_[path];
  place = std::make_shared<inode_s>(inode_s{old->mode, next_inode_++, old->text});
}

void kernel_s::remove_binary(const std::string &path) {
  rename_running(executable_at(path), path + " (deleted)");
  executables_.erase(path);
  tree_.erase(path);
}

// ---- ends -----------------------------------------------------------------------------------

void kernel_s::drop_locks(pid_t pid) {
  for (const auto &[path, inode] : tree_)
    if (inode->locked_by == pid) inode->locked_by = 0;
}

// A zombie counts until it is reaped.
size_t kernel_s::threads_of(pid_t group) const {
  const auto is_beside = [group](const auto &entry) { return entry.second.group == group; };
  return static_cast<size_t>(std::count_if(processes_.begin(), processes_.end(), is_beside));
}

bool kernel_s::is_over(pid_t pid, uint64_t serial) const {
  const auto found = processes_.find(pid);
  if (found == processes_.end() || found->second.serial != serial) return true;
  return found->second.state == 'Z' && threads_of(found->second.group) == 1;
}

// What remains of a task that is not reaped.
static void bury(process_s *task) {
  task->state = 'Z';
  task->stack = 0;
  task->exe.clear();
  task->exe_file = nullptr;
  task->words.clear();
}

void kernel_s::end_group(pid_t group) {
  drop_locks(group);
  std::erase_if(processes_, [group](const auto &entry) {
    return entry.second.group == group && entry.first != group;
  });
  const auto leader = processes_.find(group);
  if (leader == processes_.end()) return;
  if (leader->second.parent == SELF) {
    bury(&leader->second);
  } else {
    processes_.erase(leader);
  }
}

void kernel_s::end_thread(pid_t tid) {
  process_s &task = processes_.at(tid);
  const pid_t group = task.group;
  if (threads_of(group) == 1) {
    end_group(group);
  } else if (tid == group) {
    bury(&task);
  } else {
    processes_.erase(tid);
    const auto leader = processes_.find(group);
    const bool was_last = threads_of(group) == 1 && leader->second.state == 'Z';
    if (was_last) end_group(group);
  }
}

void kernel_s::end(pid_t pid) {
  const auto found = processes_.find(pid);
  if (found == processes_.end() || found->second.group == pid) {
    end_group(pid);
  } else {
    end_thread(pid);
  }
}

// Signals are a process's: an id of one of its threads stands for it.
int kernel_s::kill(pid_t pid, int sig) {
  const auto found = processes_.find(pid);
  if (found == processes_.end()) return -ESRCH;
  if (sig == 0) return 0;
  kills.push_back({pid, sig});
  if (sig == SIGKILL) end_group(found->second.group);
  return 0;
}

pid_t kernel_s::waitpid(pid_t pid, int *status, int options) {
  bool has_children = false;
  for (const auto &[id, process] : processes_) {
    if (process.parent != SELF || process.group != id || (pid > 0 && id != pid)) continue;
    has_children = true;
    if (!is_over(id, process.serial)) continue;
    if (status != nullptr) *status = 0;
    const pid_t reaped = id;
    reap(reaped);
    return reaped;
  }
  if (!has_children) return -ECHILD;
  if ((options & WNOHANG) == 0) throw stuck_s("waitpid() for a child that lives");
  return 0;
}

// ---- descriptors of processes ---------------------------------------------------------------

int kernel_s::pidfd_open(pid_t pid) {
  if (pid < 1) return -EINVAL;
  const auto found = processes_.find(pid);
  if (found == processes_.end()) return -ESRCH;
  if (found->second.group != pid) return -EINVAL;  // a thread; later kernels say ENOENT
  open_file_s file;
  file.flags = O_RDWR | O_CLOEXEC;
  file.pid = pid;
  file.serial = found->second.serial;
  return install(std::move(file));
}

int kernel_s::pidfd_signal(int fd, int sig) {
  const open_file_s *file = file_of(fd);
  if (file == nullptr || file->inode != nullptr || file->pid == 0) return -EBADF;
  const auto found = processes_.find(file->pid);
  if (found == processes_.end() || found->second.serial != file->serial) return -ESRCH;
  return kill(file->pid, sig);
}

}  // namespace tov_test
