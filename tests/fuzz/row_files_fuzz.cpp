// The files of rows against arbitrary bytes: what is believed of them, and what then is asked of
// the kernel. Held against an own reading of the same bytes.
//
// An input is a byte of switches, and behind it the file: with 1 its header is put in front of it,
// with 2 each whole row gets a check that fits, with 4 each such row becomes this process's own. It
// is read as a file of watched threads, and with the other magic as one of supervised processes.
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/registry/row_file.h"
#include "core/registry/supervised.h"
#include "core/registry/watched.h"
#include "core/watch/takeover.h"
#include "include/tov_registry.h"
#include "tests/fuzz/require.h"
#include "util/identity.h"
#include "util/owner.h"

namespace {

constexpr char BOOT_ID[TOV_BOOT_ID_SIZE] = "6f1d4e1c-52a0-4d8e-9b0e-3f5c7a9b1d2e";
constexpr size_t HEADER = 128;
constexpr size_t ROW = 64;
enum switch_e { WITH_HEADER = 1, WITH_CHECKS = 2, OWN_THREAD = 4 };

constexpr char WATCHED[] = "TOVWATCH", SUPERVISED[] = "TOVSUPER";

std::string header(const char *magic) {
  std::string text = magic;
  for (const uint32_t number : {1U, 64U})
    text.append(reinterpret_cast<const char *>(&number), sizeof number);
  text += BOOT_ID;
  text.resize(HEADER);
  return text;
}

uint64_t check_of(const std::string &row) {
  uint64_t hash = 14695981039346656037U;
  for (size_t i = 0; i < ROW - sizeof hash; i++)
    hash = (hash ^ static_cast<uint8_t>(row[i])) * 1099511628211U;
  return hash;
}

template <typename Number>
Number at(const std::string &row, size_t offset) {
  Number number;
  memcpy(&number, row.data() + offset, sizeof number);
  return number;
}

std::string file_of(uint8_t switches, std::string bytes) {
  if ((switches & WITH_HEADER) != 0) bytes.insert(0, header(WATCHED));
  for (size_t begin = HEADER; begin + ROW <= bytes.size(); begin += ROW) {
    std::string row = bytes.substr(begin, ROW);
    if ((switches & OWN_THREAD) != 0) {
      tov_identity_t own{};
      require(tov_identity_take(getpid(), &own) == 0);
      const pid_t pid = getpid();
      const uint64_t facts[] = {own.started, own.started, own.stack, own.exe_dev, own.exe_ino};
      memcpy(row.data(), &pid, sizeof pid);
      memcpy(row.data() + sizeof pid, &pid, sizeof pid);
      memcpy(row.data() + 2 * sizeof pid, facts, sizeof facts);
    }
    const uint64_t check = check_of(row);
    if ((switches & WITH_CHECKS) != 0)
      memcpy(row.data() + ROW - sizeof check, &check, sizeof check);
    bytes.replace(begin, ROW, row);
  }
  return bytes;
}

bool is_start(const std::string &row, size_t offset) {
  return at<uint64_t>(row, offset) != 0 && ~at<uint64_t>(row, offset) != 0;
}

// The numbers of the rows that may be believed.
std::vector<int> believable(const std::string &bytes, const char *magic) {
  std::vector<int> rows;
  if (!bytes.starts_with(header(magic).substr(0, 53))) return rows;
  for (int row = 1; row <= TOV_ROWS; row++) {
    const size_t begin = HEADER + static_cast<size_t>(row - 1) * ROW;
    if (bytes.size() < begin + ROW) break;
    const std::string text = bytes.substr(begin, ROW);
    const bool of_thread = magic == WATCHED;
    const bool named = at<int32_t>(text, 0) > 0 && (!of_thread || at<int32_t>(text, 4) > 0);
    const bool started = is_start(text, 8) && (!of_thread || is_start(text, 16));
    if (named && started && at<uint64_t>(text, 56) == check_of(text)) rows.push_back(row);
  }
  return rows;
}

tov_fd_t file_with(const std::string &bytes) {
  tov_fd_t fd(memfd_create("rows", MFD_CLOEXEC));
  require(fd.n >= 0);
  require(write(fd.n, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  return fd;
}

void try_watched(const std::string &bytes, bool is_own) {
  const tov_fd_t fd = file_with(bytes);
  std::vector<tov_watched_left_t> left;
  const int res = tov_watched_read(fd.n, BOOT_ID, &left);
  std::vector<int> rows;
  for (const tov_watched_left_t &one : left) {
    rows.push_back(one.number);
    const bool gone = tov_watch_is_gone(one.row);
    if (is_own) require(!gone);
  }
  require(rows == believable(bytes, WATCHED));
  require(res == 0 || left.empty());
}

void try_supervised(std::string bytes) {
  if (bytes.starts_with(WATCHED)) bytes.replace(0, strlen(WATCHED), SUPERVISED);
  const tov_fd_t fd = file_with(bytes);
  std::vector<tov_supervised_left_t> left;
  const int res = tov_supervised_read(fd.n, BOOT_ID, &left);
  std::vector<int> rows;
  for (const tov_supervised_left_t &one : left)
    rows.push_back(one.number);
  require(rows == believable(bytes, SUPERVISED));
  require(res == 0 || left.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const std::string bytes =
      file_of(data[0], std::string(reinterpret_cast<const char *>(data) + 1, size - 1));
  try_watched(bytes, (data[0] & OWN_THREAD) != 0);
  try_supervised(bytes);
  return 0;
}
