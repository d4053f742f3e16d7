// A device's files, reached from outside.
//
// Every path is resolved with the device's root as its root (openat2, RESOLVE_IN_ROOT), so an
// absolute symbolic link stays inside: a test must not write to the machine's /run because the
// device's /var/run leads there.
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/text.h"
#include "util/owner.h"

namespace tov_test {

namespace fs = std::filesystem;

[[noreturn]] static void fail(const std::string &what, const std::string &path) {
  throw std::runtime_error("device: " + what + " " + path + ": " + strerror(errno));
}

static std::string leaf(const std::string &inside) {
  return fs::path(inside).filename().string();
}

static std::string fd_path(const tov_fd_t &directory, const std::string &name) {
  return "/proc/self/fd/" + std::to_string(directory.n) + "/" + name;
}

tov_fd_t Device::open_inside(const std::string &inside, int flags, mode_t mode) const {
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.mode = mode;
  how.resolve = RESOLVE_IN_ROOT;
  return tov_fd_t(
      static_cast<int>(syscall(SYS_openat2, root_.n, inside.c_str(), &how, sizeof how)));
}

tov_fd_t Device::open_parent(const std::string &inside) const {
  return open_inside(fs::path(inside).parent_path().string(), O_PATH | O_DIRECTORY);
}

std::string Device::path(const std::string &inside) const {
  return "/proc/" + std::to_string(keeper_pid_) + "/root" + inside;
}

std::string Device::read(const std::string &inside) const {
  std::string text;
  const tov_fd_t file = open_inside(inside, O_RDONLY | O_NONBLOCK);
  if (file.n < 0) return text;
  char part[8192];
  ssize_t got;
  while ((got = ::read(file.n, part, sizeof part)) > 0)
    text.append(part, static_cast<size_t>(got));
  return text;
}

std::vector<std::string> Device::lines(const std::string &inside) const {
  std::vector<std::string> all = split_lines(read(inside));
  for (std::string &line : all)
    if (line.ends_with('\r')) line.pop_back();
  return all;
}

static void write_all(const tov_fd_t &file, const std::string &text, const std::string &inside) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t put = ::write(file.n, text.data() + done, text.size() - done);
    if (put < 0) fail("write", inside);
    done += static_cast<size_t>(put);
  }
}

void Device::write(const std::string &inside, const std::string &text, mode_t mode) {
  mkdir(fs::path(inside).parent_path().string());
  const tov_fd_t file = open_inside(inside, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (file.n < 0) fail("create", inside);
  fchmod(file.n, mode);  // the test's umask does not count
  write_all(file, text, inside);
}

void Device::append(const std::string &inside, const std::string &text) {
  const tov_fd_t file = open_inside(inside, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (file.n < 0) fail("open", inside);
  write_all(file, text, inside);
}

std::optional<struct stat> Device::status(const std::string &inside) const {
  struct stat found {};
  const tov_fd_t parent = open_parent(inside);
  const std::string name = leaf(inside);
  if (parent.n < 0) return std::nullopt;
  if (fstatat(parent.n, name.c_str(), &found, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) < 0)
    return std::nullopt;
  return found;
}

mode_t Device::mode(const std::string &inside) const {
  const auto found = status(inside);
  return found ? found->st_mode & 07777 : 0;
}

bool Device::exists(const std::string &inside) const {
  return status(inside).has_value();
}

bool Device::remove(const std::string &inside) {
  const tov_fd_t parent = open_parent(inside);
  if (parent.n < 0 || leaf(inside).empty()) return false;
  return fs::remove_all(fd_path(parent, leaf(inside))) > 0;
}

void Device::mkdir(const std::string &inside, mode_t mode) {
  if (open_inside(inside, O_PATH | O_DIRECTORY).n >= 0) return;
  mkdir(fs::path(inside).parent_path().string());
  const tov_fd_t parent = open_parent(inside);
  const std::string name = leaf(inside);
  if (mkdirat(parent.n, name.c_str(), mode) < 0 && errno != EEXIST) fail("mkdir", inside);
  if (fchmodat(parent.n, name.c_str(), mode, 0) < 0) fail("chmod", inside);
}

void Device::symlink(const std::string &target, const std::string &inside) {
  mkdir(fs::path(inside).parent_path().string());
  const tov_fd_t parent = open_parent(inside);
  if (symlinkat(target.c_str(), parent.n, leaf(inside).c_str()) < 0) fail("symlink", inside);
}

std::vector<std::string> Device::list(const std::string &inside) const {
  std::vector<std::string> names;
  tov_fd_t opened = open_inside(inside, O_RDONLY | O_DIRECTORY);
  if (opened.n < 0) return names;
  const tov_dir_t dir(fdopendir(tov_fd_take(opened)));
  while (const dirent *entry = readdir(dir.get()))
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  std::sort(names.begin(), names.end());
  return names;
}

std::string Device::register_path(int vsd, pid_t pid, const std::string &command) {
  const std::string program = command.substr(0, command.find(' '));
  return "/tmp/vsd/" + std::to_string(vsd) + "/tov/db/" + program.substr(program.rfind('/') + 1) +
         "." + std::to_string(pid);
}

std::string Device::register_file(int vsd, pid_t pid, int action, const std::string &command) {
  std::string file = register_path(vsd, pid, command);
  write(file, std::to_string(pid) + "\n" + std::to_string(action) + "\n" + command, 0755);
  return file;
}

}  // namespace tov_test
