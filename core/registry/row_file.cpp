// Opened once, read when it is opened and never again, then written row by row. Which rows are
// free is known here alone, in a bitmap.
//
// Tested by: tests/unit/core/registry/watched_test.cpp,
// tests/unit/core/registry/supervised_test.cpp
#include "core/registry/row_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_log.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/root_dir.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

static constexpr char BOOT_ID_FILE[] = "/proc/sys/kernel/random/boot_id";

enum {
  ROOT = 0,
  MODE_FILE = 0600,
  ROWS_AT_ONCE = 64,
  NAME_SIZE = 64,
};
static constexpr off_t HEADER_BYTES = sizeof(tov_row_file_header_s);
static constexpr off_t ROW_BYTES = sizeof(tov_row_t);
static constexpr off_t MOST_BYTES = HEADER_BYTES + TOV_ROWS * ROW_BYTES;

namespace {

// What stands in the file's place.
enum found_e {
  FITS,
  TO_BEGIN,  // empty, or another boot's
  WRONG,
};

}  // namespace

// A file that is being opened.
struct tov_row_file_s::opening_s {
  int dir;
  char boot_id[TOV_BOOT_ID_SIZE];
  tov_fd_t fd;
  found_e found;
  left_t left;
};

// ---- what cannot be done --------------------------------------------------------------------

void tov_row_file_s::tell_unknown(const char *what, int error) const {
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          TOV_ROOT_RUN_DIR "/%s: %s: %s, the next daemon will not know %s.\n",
                          name_, what, strerror(error), subject_);
}

// A row that cannot be freed says what is no longer true: nothing of the file may be believed.
void tov_row_file_s::give_up(int error) {
  tell_unknown("cannot be written", error);
  const tov_fd_t dir(tov_open_root_dir(TOV_ROOT_RUN_DIR));
  const bool gone = dir.n >= 0 && tov_sys_unlinkat(dir.n, name_) == 0;
  if (!gone) (void)tov_sys_ftruncate(fd_, 0);
  close();
}

// ---- rows -----------------------------------------------------------------------------------

uint64_t tov_row_hash(const void *bytes, size_t size) {
  static constexpr uint64_t FNV_BEGIN = 0xcbf29ce484222325U;
  static constexpr uint64_t FNV_PRIME = 0x100000001b3U;
  const unsigned char *byte = static_cast<const unsigned char *>(bytes);
  uint64_t hash = FNV_BEGIN;
  for (size_t i = 0; i < size; i++)
    hash = (hash ^ byte[i]) * FNV_PRIME;
  return hash;
}

// Zeroes have another check than 0.
static uint64_t check_of(const tov_row_t &row) {
  return tov_row_hash(row.content, sizeof row.content);
}

static off_t offset_of(int number) {
  return HEADER_BYTES + (number - 1) * ROW_BYTES;
}

// Returns 0 when all rows are taken.
int tov_row_file_s::free_row() const {
  for (size_t word = 0; word < std::size(taken_); word++) {
    if (taken_[word] != UINT64_MAX)
      return static_cast<int>(word) * BITS + __builtin_ctzll(~taken_[word]) + 1;
  }
  return 0;
}

// Returns 0 or -errno.
int tov_row_file_s::put(int number, const tov_row_t &row) const {
  const ssize_t count = tov_sys_pwrite(fd_, &row, sizeof row, offset_of(number));
  if (count < 0) return -errno;
  return count == ROW_BYTES ? 0 : -ENOSPC;
}

void tov_row_file_s::put_at(int *number, tov_row_t row) {
  if (fd_ < 0) return;
  row.check = check_of(row);
  const int at = *number != 0 ? *number : free_row();
  if (at == 0) {
    if (!std::exchange(told_full_, true)) tell_unknown("too many", ENOSPC);
    return;
  }
  if (const int res = put(at, row); res < 0) {
    // A row that was there stays as it was; another one stays free.
    tell_unknown("cannot be written", -res);
    return;
  }
  word_of(at) |= bit_of(at);
  *number = at;
}

void tov_row_file_s::free(int number) {
  if (fd_ < 0 || number == 0) return;
  if (const int res = put(number, {}); res < 0) {
    give_up(-res);
    return;
  }
  word_of(number) &= ~bit_of(number);
}

// ---- the file -------------------------------------------------------------------------------

// Returns 0 or -errno.
static int read_boot_id(char (&id)[TOV_BOOT_ID_SIZE]) {
  if (tov_read_to_buf(BOOT_ID_FILE, id, sizeof id) < 0) return -errno;
  return strlen(id) == sizeof id - 1 ? 0 : -EINVAL;
}

tov_row_file_header_s tov_row_file_s::header_of(const char (&boot_id)[TOV_BOOT_ID_SIZE]) const {
  tov_row_file_header_s header{};
  memcpy(header.magic, magic_, sizeof header.magic);
  header.version = TOV_ROW_FILE_VERSION;
  header.row_size = sizeof(tov_row_t);
  memcpy(header.boot_id, boot_id, sizeof header.boot_id);
  return header;
}

// Reads the rows that are whole. Returns 0 or -errno.
static int read_rows(int fd, tov_row_file_t::left_t *left) {
  std::array<tov_row_t, ROWS_AT_ONCE> rows;
  for (int first = 1; first <= TOV_ROWS; first += ROWS_AT_ONCE) {
    const ssize_t count = tov_sys_pread(fd, rows.data(), sizeof rows, offset_of(first));
    if (count < 0) return -errno;
    const size_t whole = static_cast<size_t>(count) / sizeof rows[0];
    for (size_t i = 0; i < whole; i++) {
      if (rows[i].check == check_of(rows[i]))
        left->push_back({first + static_cast<int>(i), rows[i]});
    }
    if (whole < rows.size()) break;
  }
  return 0;
}

int tov_row_file_s::read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE], left_t *left) const {
  const tov_row_file_header_s wanted = header_of(boot_id);
  tov_row_file_header_s header{};
  const ssize_t count = tov_sys_pread(fd, &header, sizeof header, 0);
  if (count < 0) return -errno;
  static constexpr size_t OURS = offsetof(tov_row_file_header_s, boot_id);
  if (count != HEADER_BYTES || memcmp(&header, &wanted, OURS) != 0) return -EILSEQ;
  if (memcmp(header.boot_id, wanted.boot_id, sizeof header.boot_id) != 0) return -ESTALE;
  return read_rows(fd, left);
}

// Judges an open file, and reads it if it fits. Returns found_e or -errno.
int tov_row_file_s::judge(int fd, opening_s *opening) const {
  struct stat status;
  if (tov_sys_fstat(fd, &status) < 0) return -errno;
  const bool others_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (!S_ISREG(status.st_mode) || status.st_uid != ROOT || others_write || status.st_nlink != 1 ||
      status.st_size > MOST_BYTES)
    return WRONG;
  if (status.st_size == 0) return TO_BEGIN;
  switch (const int res = read(fd, opening->boot_id, &opening->left)) {
    case -EILSEQ:
      return WRONG;
    case -ESTALE:
      return TO_BEGIN;
    default:
      return res == 0 ? FITS : res;
  }
}

// Opens a file in its directory, making it if need be. Returns a descriptor or -errno.
static int open_in(int dir, const char *name) {
  return tov_fd_above_streams(tov_open_or_make([dir, name](int more_flags) {
    return tov_sys_openat(
        dir, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | more_flags, MODE_FILE);
  }));
}

// Whether an error of open(2) says that something else than a file stands there.
static bool is_no_file(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == ENODEV;
}

// Opens and judges what stands there; what cannot be opened as a file is WRONG. Returns 0 or
// -errno.
int tov_row_file_s::look(opening_s *opening) const {
  opening->found = WRONG;
  opening->fd.reset();
  const int opened = open_in(opening->dir, name_);
  if (opened < 0) return is_no_file(-opened) ? 0 : opened;
  opening->fd = tov_fd_t(opened);
  const int judged = judge(opened, opening);
  if (judged < 0) return judged;
  opening->found = static_cast<found_e>(judged);
  return 0;
}

// Opens the file that is to be used; what stands in its place and is none is moved aside.
int tov_row_file_s::open_usable(opening_s *opening) const {
  int res = look(opening);
  if (res < 0 || opening->found != WRONG) return res;
  char aside[NAME_SIZE];
  (void)snprintf(aside, sizeof aside, "%s.wrong", name_);
  if (tov_sys_renameat(opening->dir, name_, aside) < 0) return -errno;
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          TOV_ROOT_RUN_DIR
                          "/%s: not left by a daemon of this kind, moved to %s. "
                          "What the last daemon said of %s is not known.\n",
                          name_, aside, subject_);
  res = look(opening);
  return res == 0 && opening->found == WRONG ? -EEXIST : res;
}

// Returns 0 or -errno.
int tov_row_file_s::begin_anew(const opening_s &opening) const {
  if (tov_sys_ftruncate(opening.fd.n, 0) < 0) return -errno;
  const tov_row_file_header_s header = header_of(opening.boot_id);
  const ssize_t count = tov_sys_pwrite(opening.fd.n, &header, sizeof header, 0);
  if (count < 0) return -errno;
  return count == HEADER_BYTES ? 0 : -ENOSPC;
}

// Returns 0 or -errno.
int tov_row_file_s::open_file(opening_s *opening) const {
  int res = read_boot_id(opening->boot_id);
  if (res == 0) res = open_usable(opening);
  if (res < 0 || opening->found == FITS) return res;
  return begin_anew(*opening);
}

tov_row_file_t::left_t tov_row_file_s::open() {
  close();
  const tov_fd_t dir(tov_open_root_dir(TOV_ROOT_RUN_DIR));
  opening_s opening{.dir = dir.n, .boot_id = {}, .fd = tov_fd_t(), .found = WRONG, .left = {}};
  const int res = dir.n < 0 ? dir.n : open_file(&opening);
  if (res < 0) {
    tell_unknown("cannot be used", -res);
    // Rows that this daemon does not maintain must not reach the one after it.
    if (dir.n >= 0) (void)tov_sys_unlinkat(dir.n, name_);
    return {};
  }
  for (const tov_row_left_s<tov_row_t> &left : opening.left)
    word_of(left.number) |= bit_of(left.number);
  fd_ = tov_fd_take(opening.fd);
  return std::move(opening.left);
}

void tov_row_file_s::close() {
  if (fd_ >= 0) (void)tov_sys_close(std::exchange(fd_, -1));
  memset(taken_, 0, sizeof taken_);
  told_full_ = false;
}
