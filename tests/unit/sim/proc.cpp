// The simulated kernel: a process as /proc shows it.
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "tests/unit/sim/kernel.h"

namespace tov_test {

static std::string stat_text(const process_s &process, size_t threads) {
  return std::to_string(process.pid) + " (" + process.name + ") " + process.state + " " +
         std::to_string(process.parent) +
         " 1 1 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 " +  // threads: the 20th field
         std::to_string(threads) + " 0 " +            // start time: the 22nd
         std::to_string(process.started) + " 1000000 100 18446744073709551615\n";
}

// In a status file, unlike in a stat file, the kernel escapes what would break the line.
static std::string escaped(const std::string &name) {
  std::string text;
  for (const char c : name)
    text += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
  return text;
}

static std::string status_text(const process_s &process) {
  return "Name:\t" + escaped(process.name) + "\nUmask:\t0022\nState:\t" + process.state +
         "\nTgid:\t" + std::to_string(process.group) + "\nNgid:\t0\nPid:\t" +
         std::to_string(process.pid) + "\nPPid:\t" + std::to_string(process.parent) +
         "\nTracerPid:\t0\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\nFDSize:\t64\nGroups:\t" +
         process.groups + " \nNStgid:\t" + std::to_string(process.group) + "\n";
}

static std::string cmdline_text(const process_s &process) {
  std::string text;
  for (const std::string &word : process.words)
    text += word + '\0';
  return text;
}

inode_t kernel_s::proc_inode(const std::string &path) const {
  static constexpr char PROC[] = "/proc/";
  if (!path.starts_with(PROC)) return nullptr;
  char *end = nullptr;
  const long pid = strtol(path.c_str() + strlen(PROC), &end, 10);
  const auto found = processes_.find(static_cast<pid_t>(pid));
  if (found == processes_.end() || pid < 1) return nullptr;

  const process_s &process = found->second;
  const std::string name = end;
  const auto file = [](mode_t mode, std::string text) {
    return std::make_shared<inode_s>(inode_s{mode, 0, std::move(text)});
  };
  if (name.empty()) return file(S_IFDIR | 0555, "");
  if (name == "/stat") {
    const auto is_beside = [&](const auto &entry) { return entry.second.group == process.group; };
    const auto threads = std::count_if(processes_.begin(), processes_.end(), is_beside);
    return file(S_IFREG | 0444, stat_text(process, static_cast<size_t>(threads)));
  }
  if (name == "/status") return file(S_IFREG | 0444, status_text(process));
  if (name == "/cmdline") return file(S_IFREG | 0444, cmdline_text(process));
  if (name == "/exe" && !process.exe.empty()) return file(S_IFLNK | 0777, process.exe);
  if (name == "/oom_score_adj") return process.oom_score_adj;
  return nullptr;
}

}  // namespace tov_test
