// The simulated kernel: the tree of files, descriptors and record locks.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/sim/kernel.h"

namespace tov_test {

enum {
  // Far above what the test program has open itself: a call that bypasses the seam meets EBADF.
  FIRST_DESCRIPTOR = 1000,
  MAX_LINKS = 40,
};

// ---- the tree -------------------------------------------------------------------------------

inode_t kernel_s::make(const std::string &path, mode_t mode, const std::string &text) {
  return tree_[path] = std::make_shared<inode_s>(inode_s{mode, next_inode_++, text});
}

void kernel_s::make_dir(const std::string &path) {
  for (size_t at = 1; at != 0; at++) {
    at = path.find('/', at);
    const std::string part = path.substr(0, at);
    if (!part.empty() && part.back() != '/' && inode_at(part) == nullptr)
      make(part, S_IFDIR | 0777);
    if (at == std::string::npos) return;
  }
}

void kernel_s::write_file(const std::string &path, const std::string &text, mode_t mode) {
  make_dir(path.substr(0, path.rfind('/')));
  if (const inode_t inode = inode_at(path)) {
    inode->text = text;
  } else {
    make(path, S_IFREG | mode, text);
  }
}

void kernel_s::make_link(const std::string &path, const std::string &target) {
  make(path, S_IFLNK | 0777, target);
}

void kernel_s::make_fifo(const std::string &path) {
  make(path, S_IFIFO | 0644);
}

void kernel_s::make_device(const std::string &path) {
  make(path, S_IFCHR | 0600);
}

void kernel_s::rename(const std::string &from, const std::string &to) {
  if (tree_.contains(to)) rename_running(tree_[to], to + " (deleted)");
  rename_running(tree_.at(from), to);
  tree_[to] = tree_.at(from);
  tree_.erase(from);
}

// With everything below it.
void kernel_s::remove(const std::string &path) {
  std::erase_if(tree_, [&](const auto &entry) {
    return entry.first == path || entry.first.starts_with(path + "/");
  });
}

inode_t kernel_s::inode_at(const std::string &path) const {
  if (!proc_is_mounted && path.starts_with("/proc/")) return nullptr;
  if (inode_t inode = proc_inode(path)) return inode;
  const auto found = tree_.find(path == "/" ? "" : path);
  return found == tree_.end() ? nullptr : found->second;
}

kernel_s::found_s kernel_s::walk(std::string rest, bool follow_last) const {
  std::string at;
  if (rest.size() >= PATH_MAX) return {ENAMETOOLONG, "", nullptr};
  for (int links = 0;;) {
    rest.erase(0, std::min(rest.find_first_not_of('/'), rest.size()));
    if (rest.empty()) return {0, at.empty() ? "/" : at, inode_at(at)};
    const std::string name = rest.substr(0, rest.find('/'));
    if (name.size() > NAME_MAX) return {ENAMETOOLONG, "", nullptr};
    rest.erase(0, name.size());
    if (name == ".") continue;
    const bool last = rest.find_first_not_of('/') == std::string::npos;
    std::string next = at;
    next.append("/").append(name);
    const inode_t inode = inode_at(next);
    if (inode == nullptr) return {last ? 0 : ENOENT, next, nullptr};
    if (const inode_t executable = executable_behind(next); executable && last && follow_last)
      return {0, next, executable};
    if (S_ISLNK(inode->mode) && (!last || follow_last)) {
      if (++links > MAX_LINKS) return {ELOOP, "", nullptr};
      rest.insert(0, inode->text);
      if (inode->text.starts_with('/')) at.clear();
      continue;
    }
    if (!last && !S_ISDIR(inode->mode)) return {ENOTDIR, "", nullptr};
    at = std::move(next);
  }
}

// ---- descriptors ----------------------------------------------------------------------------

int kernel_s::install(open_file_s file, int lowest) {
  if (files_.size() >= descriptor_limit) return -EMFILE;
  int number = lowest;
  while (number < 3 && files_.contains(number))
    number++;
  if (number >= 3) number = std::max(number, static_cast<int>(FIRST_DESCRIPTOR));
  while (files_.contains(number))
    number++;
  files_[number] = std::move(file);
  return number;
}

open_file_s *kernel_s::file_of(int fd) {
  const auto found = files_.find(fd);
  return found == files_.end() ? nullptr : &found->second;
}

size_t kernel_s::inherited_descriptors() const {
  return static_cast<size_t>(std::count_if(files_.begin(), files_.end(), [](const auto &entry) {
    return (entry.second.flags & O_CLOEXEC) == 0;
  }));
}

void kernel_s::close_standard_streams() {
  for (int fd = 0; fd < 3; fd++)
    files_.erase(fd);
}

// Why a file that exists cannot be opened in this way, 0 when it can.
static int refusal(const inode_s &inode, int flags) {
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)) return EEXIST;
  if (S_ISLNK(inode.mode)) return ELOOP;
  if (S_ISDIR(inode.mode)) return writes || (flags & O_CREAT) != 0 ? EISDIR : 0;
  if ((flags & O_DIRECTORY) != 0) return ENOTDIR;
  if (!S_ISFIFO(inode.mode) || (flags & O_ACCMODE) == O_RDWR) return 0;
  if ((flags & O_NONBLOCK) == 0) throw stuck_s("open() of a FIFO that nobody else has open");
  return writes ? ENXIO : 0;
}

// The id whose file this is, 0 for any other file.
static pid_t owner_in_proc(const std::string &path) {
  return path.starts_with("/proc/") ? atoi(path.c_str() + strlen("/proc/")) : 0;
}

int kernel_s::open(const char *path, int flags, mode_t mode) {
  if (files_.size() >= descriptor_limit) return -EMFILE;  // before the path is asked
  const found_s found = walk(path, (flags & O_NOFOLLOW) == 0);
  if (found.error != 0) return -found.error;
  inode_t inode = found.inode;
  if (inode == nullptr) {
    if ((flags & O_CREAT) == 0 || found.path.starts_with("/proc/")) return -ENOENT;
    inode = make(found.path, S_IFREG | (mode & ~umask));
  } else if (const int error = refusal(*inode, flags); error != 0) {
    return -error;
  }
  if ((flags & O_TRUNC) != 0 && S_ISREG(inode->mode)) inode->text.clear();
  open_file_s file(inode, found.path, flags);
  if (const pid_t pid = owner_in_proc(found.path); has(pid)) {
    file.pid = pid;
    file.serial = process(pid).serial;
  }
  return install(std::move(file));
}

int kernel_s::close(int fd) {
  const auto found = files_.find(fd);
  if (found == files_.end()) {
    ADD_FAILURE() << "close(" << fd << "): no such descriptor";
    return -EBADF;
  }
  const inode_t inode = found->second.inode;
  files_.erase(found);
  if (inode != nullptr && inode->locked_by == SELF) inode->locked_by = 0;
  return 0;
}

int kernel_s::lock_holder(int fd, flock *lock) {
  const open_file_s *file = file_of(fd);
  if (file == nullptr || file->inode == nullptr) return -EBADF;
  if (lock->l_whence != SEEK_SET || lock->l_start != 0 || lock->l_len != 0) return -EINVAL;
  const pid_t holder = file->inode->locked_by;
  if (holder == 0 || holder == SELF) {  // one's own is in nobody's way
    lock->l_type = F_UNLCK;
  } else {
    lock->l_type = F_WRLCK;
    lock->l_pid = holder;
  }
  return 0;
}

int kernel_s::lock_descriptor(int fd, const flock &lock) {
  const open_file_s *file = file_of(fd);
  if (file == nullptr || file->inode == nullptr) return -EBADF;
  if (lock.l_whence != SEEK_SET || lock.l_start != 0 || lock.l_len != 0) return -EINVAL;
  pid_t &holder = file->inode->locked_by;
  if (lock.l_type == F_UNLCK) {
    if (holder == SELF) holder = 0;
    return 0;
  }
  if (lock.l_type != F_WRLCK) return -EINVAL;  // the product takes no read locks
  if ((file->flags & O_ACCMODE) == O_RDONLY) return -EBADF;
  if (holder != 0 && holder != SELF) return -EAGAIN;
  holder = SELF;
  return 0;
}

// ---- content --------------------------------------------------------------------------------

static ssize_t read_counter(open_file_s &file, void *buf, size_t size) {
  if (size < sizeof file.counter) return -EINVAL;
  if (file.counter == 0) return -EAGAIN;
  memcpy(buf, &file.counter, sizeof file.counter);
  file.counter = 0;
  return sizeof file.counter;
}

ssize_t kernel_s::read(int fd, void *buf, size_t size) {
  open_file_s *file = file_of(fd);
  if (file == nullptr || (file->flags & O_ACCMODE) == O_WRONLY) return -EBADF;
  if (file->inode == nullptr) return read_counter(*file, buf, size);
  if (S_ISDIR(file->inode->mode)) return -EISDIR;
  if (file->pid != 0) {
    if (!has(file->pid) || process(file->pid).serial != file->serial) return -ESRCH;
    // The text is that of the moment of its first reading.
    const inode_t now = file->offset == 0 ? proc_inode(file->path) : nullptr;
    if (now != nullptr) file->inode = now;
  }
  const std::string &text = file->inode->text;
  const size_t at = std::min(file->offset, text.size());
  const size_t count = std::min({size, text.size() - at, transfer_limit});
  memcpy(buf, text.data() + at, count);
  file->offset = at + count;
  return static_cast<ssize_t>(count);
}

ssize_t kernel_s::write(int fd, const void *buf, size_t size) {
  open_file_s *file = file_of(fd);
  if (file == nullptr || (file->inode != nullptr && (file->flags & O_ACCMODE) == O_RDONLY))
    return -EBADF;
  if (file->inode == nullptr) {
    uint64_t more = 0;
    memcpy(&more, buf, std::min(size, sizeof more));
    file->counter += more;
    return static_cast<ssize_t>(size);
  }
  const size_t count = std::min(size, transfer_limit);
  const std::string bytes(static_cast<const char *>(buf), count);
  if (S_ISCHR(file->inode->mode)) {
    console += bytes;
    return static_cast<ssize_t>(count);
  }
  std::string &text = file->inode->text;
  if ((file->flags & O_APPEND) != 0) file->offset = text.size();
  if (text.size() < file->offset + count) text.resize(file->offset + count);
  text.replace(file->offset, count, bytes);
  file->offset += count;
  return static_cast<ssize_t>(count);
}

// ---- names ----------------------------------------------------------------------------------

static void describe(const inode_s &inode, struct stat *status) {
  *status = {};
  status->st_dev = inode.device;
  status->st_ino = inode.number;
  status->st_mode = inode.mode;
  status->st_nlink = inode.links;
  status->st_uid = inode.owner;
  status->st_size = static_cast<off_t>(inode.text.size());
}

int kernel_s::stat_of(const std::string &path, bool follow, struct stat *status) const {
  const found_s found = walk(path, follow);
  if (found.error != 0) return -found.error;
  if (found.inode == nullptr) return -ENOENT;
  describe(*found.inode, status);
  return 0;
}

int kernel_s::stat_of_descriptor(int fd, struct stat *status) const {
  const auto found = files_.find(fd);
  if (found == files_.end()) return -EBADF;
  if (found->second.inode != nullptr) describe(*found->second.inode, status);
  return 0;
}

ssize_t kernel_s::readlink(const char *path, char *buf, size_t size) const {
  const found_s found = walk(path, false);
  if (found.error != 0) return -found.error;
  if (found.inode == nullptr) return -ENOENT;
  if (!S_ISLNK(found.inode->mode)) return -EINVAL;
  return static_cast<ssize_t>(found.inode->text.copy(buf, size));
}

int kernel_s::unlink(const char *path) {
  const found_s found = walk(path, false);
  if (found.error != 0) return -found.error;
  if (found.inode == nullptr) return -ENOENT;
  if (S_ISDIR(found.inode->mode)) return -EISDIR;
  found.inode->links--;
  tree_.erase(found.path);
  return 0;
}

int kernel_s::link(const char *from, const char *to, bool stays) {
  const found_s found = walk(from, false);
  if (found.error != 0) return -found.error;
  if (found.inode == nullptr) return -ENOENT;
  const found_s place = walk(to, false);
  if (place.error != 0) return -place.error;
  if (place.inode != nullptr && stays) return -EEXIST;
  if (place.inode == found.inode) return 0;  // two names of one file
  if (place.inode != nullptr) place.inode->links--;
  tree_[place.path] = found.inode;
  if (stays) found.inode->links++;
  if (!stays) tree_.erase(found.path);
  return 0;
}

int kernel_s::mkdir(const char *path, mode_t mode) {
  const found_s found = walk(path, false);
  if (found.error != 0) return -found.error;
  if (found.inode != nullptr) return -EEXIST;
  make(found.path, S_IFDIR | (mode & ~umask));
  return 0;
}

int kernel_s::rmdir(const char *path) {
  int error = 0;
  if (!names_in(path, &error).empty()) return -ENOTEMPTY;
  if (error == 0) tree_.erase(walk(path, false).path);
  return error;
}

std::vector<std::string> kernel_s::names_in(const char *path, int *error) const {
  const found_s found = walk(path, true);
  *error = -found.error;
  if (*error == 0 && found.inode == nullptr) *error = -ENOENT;
  if (*error == 0 && !S_ISDIR(found.inode->mode)) *error = -ENOTDIR;
  std::vector<std::string> names;
  if (*error != 0 || (found.path == "/proc" && !proc_is_mounted)) return names;
  const std::string prefix = found.path == "/" ? "/" : found.path + "/";
  for (const auto &[name, inode] : tree_)
    if (name.starts_with(prefix) && name.find('/', prefix.size()) == std::string::npos)
      names.push_back(name.substr(prefix.size()));
  if (found.path != "/proc") return names;
  for (const auto &[pid, process] : processes_)
    if (process.group == pid) names.push_back(std::to_string(pid));
  return names;
}

}  // namespace tov_test
