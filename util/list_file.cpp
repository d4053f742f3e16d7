// Looking an executable up in a list file.
//
// Cheap on purpose: for a program that is in no list, which is nearly every one, this costs the
// link and the file, and without a list file only the link and one failing open.
#include "util/list_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "util/lines.h"
#include "util/owner.h"
#include "util/tov_sys.h"

enum {
  EXE_LINK_SIZE = 32,   // "/proc/%d/exe"
  EXE_PATH_SIZE = 1024  // bytes of an executable's path that are looked for
};
static constexpr size_t LIST_LINE_MAX = 1023;

int pid_to_proc(pid_t pid, char *buf, int size) {
  if (size <= 0) return 0;
  memset(buf, 0, static_cast<size_t>(size));
  if (pid <= 0) return 0;
  char link[EXE_LINK_SIZE];
  snprintf(link, sizeof link, "/proc/%d/exe", pid);
  return tov_sys_readlink(link, buf, static_cast<size_t>(size)) < 0 ? 0 : 1;
}

// The first line that contains `name`, or null.
static const char *matching_line(tov_lines_s &lines, const char *name) {
  const char *line = lines.next();
  while (line != nullptr && strstr(line, name) == nullptr)
    line = lines.next();
  return line;
}

// O_NONBLOCK: a FIFO in the place of the list must not hold the event handler for ever.
static int open_list(const char *list_path) {
  return tov_sys_open(list_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

int tov_proc_in_tovdb(const char *list_path, const char *name, char *out, int size) {
  const tov_fd_t fd(open_list(list_path));
  if (fd.n < 0 || size <= 0) return 0;
  memset(out, 0, static_cast<size_t>(size));
  if (name[0] == '\0') return 0;  // would be part of every line

  tov_lines_s lines(fd.n, LIST_LINE_MAX);
  const char *line = matching_line(lines, name);
  const char *blank = line == nullptr ? nullptr : strrchr(line, ' ');
  if (blank == nullptr) return 0;
  snprintf(out, static_cast<size_t>(size), "%s", blank + 1);
  return 1;
}

int tov_pid_in_tovdb(pid_t pid, const char *list_path, char *out, int size) {
  char exe[EXE_PATH_SIZE + 1];  // the link may fill its part without a terminator
  exe[EXE_PATH_SIZE] = '\0';
  if (pid_to_proc(pid, exe, EXE_PATH_SIZE) == 0) return 0;
  return tov_proc_in_tovdb(list_path, exe, out, size);
}

std::optional<std::vector<std::string>> tov_lines_in_tovdb(const char *list_path) {
  std::vector<std::string> all;
  const tov_fd_t fd(open_list(list_path));
  if (fd.n < 0 && errno != ENOENT) return std::nullopt;
  if (fd.n < 0) return all;
  tov_lines_s lines(fd.n, LIST_LINE_MAX);
  errno = 0;
  while (const char *line = lines.next())
    if (line[0] != '\n') all.emplace_back(line);
  if (errno != 0) return std::nullopt;
  return all;
}

std::vector<std::string> tov_commands_in_tovdb(const char *list_path) {
  std::vector<std::string> commands;
  const tov_fd_t fd(open_list(list_path));
  if (fd.n < 0) return commands;
  tov_lines_s lines(fd.n, LIST_LINE_MAX);
  while (const char *line = lines.next()) {
    const char *end = strrchr(line, ' ');
    while (end != nullptr && end > line && end[-1] == ' ')
      end--;
    if (end != nullptr && end > line) commands.emplace_back(line, end);
  }
  return commands;
}
