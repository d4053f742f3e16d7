// The simulated kernel: a process as /proc shows it.
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "tests/unit/sim/kernel.h"

namespace tov_test {

// The fields of a stat file from the state on; the others have some value or none.
static std::string stat_text(const process_s &process, size_t threads) {
  enum {
    FIRST = 3,
    PARENT = 4,
    GROUP = 5,
    SESSION = 6,
    FOREGROUND = 8,
    FLAGS = 9,
    PRIORITY = 18,
    THREADS = 20,
    STARTED = 22,
    SIZE = 23,
    RESIDENT = 24,
    RESIDENT_LIMIT = 25,
    STACK = 28,
    LAST = 52
  };
  std::map<int, std::string> fields;
  fields[FIRST] = process.state;
  fields[PARENT] = std::to_string(process.parent);
  fields[GROUP] = "1";
  fields[SESSION] = std::to_string(process.session);
  fields[FOREGROUND] = "-1";
  fields[FLAGS] = "4194560";
  fields[PRIORITY] = "20";
  fields[THREADS] = std::to_string(threads);
  fields[STARTED] = std::to_string(process.started);
  fields[SIZE] = "1000000";
  fields[RESIDENT] = "100";
  fields[RESIDENT_LIMIT] = "18446744073709551615";
  fields[STACK] = std::to_string(process.stack);
  std::string text = std::to_string(process.pid) + " (" + process.name + ")";
  for (int field = FIRST; field <= LAST; field++)
    text += " " + (fields.contains(field) ? fields[field] : "0");
  return text + "\n";
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
  const auto file = [](mode_t mode, std::string text) {
    return std::make_shared<inode_s>(inode_s{mode, 0, std::move(text)});
  };
  static constexpr char BOOT_ID[] = "/proc/sys/kernel/random/boot_id";
  if (path == BOOT_ID) return file(S_IFREG | 0444, boot_id + "\n");
  if (path.size() < strlen(BOOT_ID) && std::string(BOOT_ID).starts_with(path + "/"))
    return file(S_IFDIR | 0555, "");

  char *end = nullptr;
  const long pid = strtol(path.c_str() + strlen(PROC), &end, 10);
  const auto found = processes_.find(static_cast<pid_t>(pid));
  if (found == processes_.end() || pid < 1) return nullptr;
  const process_s &process = found->second;
  const std::string name = end;
  if (name.empty()) return file(S_IFDIR | 0555, "");
  if (name == "/stat") return file(S_IFREG | 0444, stat_text(process, threads_of(process.group)));
  if (name == "/status") return file(S_IFREG | 0444, status_text(process));
  if (name == "/cmdline") return file(S_IFREG | 0444, cmdline_text(process));
  if (name == "/exe" && !process.exe.empty()) return file(S_IFLNK | 0777, process.exe);
  if (name == "/oom_score_adj") return process.oom_score_adj;
  return nullptr;
}

// What a followed link to an executable leads to: the file itself, whatever its name leads to now.
inode_t kernel_s::executable_behind(const std::string &path) const {
  static constexpr char EXE[] = "/exe";
  const inode_t link = path.ends_with(EXE) ? proc_inode(path) : nullptr;
  if (link == nullptr || !S_ISLNK(link->mode)) return nullptr;
  return processes_.at(atoi(path.c_str() + strlen("/proc/"))).exe_file;
}

}  // namespace tov_test
