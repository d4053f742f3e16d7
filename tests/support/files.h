// Small files: a scratch directory, whole-file reads and writes, open descriptors.
#ifndef TOV_TEST_FILES_H
#define TOV_TEST_FILES_H

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace tov_test {

// A directory that vanishes with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    char name[] = "/tmp/tov_unit.XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = name;
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

inline std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::string &path, const std::string &text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

// What was written to an open file, whatever its position.
inline std::string content_of(int fd) {
  std::string text;
  char part[8192];
  ssize_t got;
  while ((got = pread(fd, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
    text.append(part, static_cast<size_t>(got));
  return text;
}

// A link is followed.
inline bool exists(const std::string &path) {
  return access(path.c_str(), F_OK) == 0;
}

// A link itself counts, wherever it leads.
inline bool name_exists(const std::string &path) {
  struct stat found;
  return lstat(path.c_str(), &found) == 0;
}

// Removes a file or a whole directory, if it is there.
inline void clear_path(const std::string &path) {
  std::filesystem::remove_all(path);
}

// Turns a marker file or any other small file on for as long as it lives.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string path, const std::string &text = "") : path_(std::move(path)) {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    write_file(path_, text);
  }
  ~TemporaryFile() { clear_path(path_); }
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;
  bool exists() const { return tov_test::exists(path_); }

 private:
  std::string path_;
};

inline std::set<std::string> names_in(const std::string &directory) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

// Permission bits, or 0 when there is no such file. A link is followed.
inline unsigned mode_of(const std::string &path) {
  struct stat found;
  return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777u : 0u;
}

inline size_t open_descriptors() {
  return names_in("/proc/self/fd").size();
}

}  // namespace tov_test

#endif  // TOV_TEST_FILES_H
