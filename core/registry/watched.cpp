// The file of the watched threads, opened once and written row by row.
//
// Which rows are free is known here alone, in a bitmap; the file is read when it is opened and
// never again. A row that cannot be freed would accuse a thread that nobody watches any more, so
// then the whole file is given up.
//
// State: plain numbers without a destructor, since detached threads may still release threads while
// the process ends.
//
// Tested by: tests/unit/core/registry/watched_test.cpp, tests/device/watchdog_next_daemon_test.cpp
#include "core/registry/watched.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <span>
#include <utility>
#include <vector>

#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_log.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/root_dir.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

static constexpr char PATH[] = TOV_ROOT_RUN_DIR "/" TOV_WATCHED_NAME;
static constexpr char WRONG_NAME[] = TOV_WATCHED_NAME ".wrong";
static constexpr char BOOT_ID_FILE[] = "/proc/sys/kernel/random/boot_id";

enum {
  ROOT = 0,
  MODE_FILE = 0600,
  ROWS_AT_ONCE = 64,
};
static constexpr int BITS = 64;
static constexpr off_t HEADER_BYTES = sizeof(tov_watched_header_s);
static constexpr off_t ROW_BYTES = sizeof(tov_watched_row_t);
static constexpr off_t MOST_BYTES = HEADER_BYTES + TOV_WATCHED_ROWS * ROW_BYTES;

static int file TOV_GUARDED_BY(tov_alive_chains) = -1;  // -1: nothing is written
static uint64_t taken[TOV_WATCHED_ROWS / BITS] TOV_GUARDED_BY(tov_alive_chains);  // a bit a row
static bool told_full TOV_GUARDED_BY(tov_alive_chains);

// ---- what cannot be done --------------------------------------------------------------------

static void tell_unknown(const char *subject, int error) {
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "%s: %s: %s, the next daemon will not know the watched threads.\n", PATH,
                          subject, strerror(error));
}

// A row that cannot be freed accuses its thread: nothing of the file may be believed any more.
static void give_up(int error) TOV_REQUIRES(tov_alive_chains) {
  tell_unknown("cannot be written", error);
  const tov_fd_t dir(tov_open_root_dir(TOV_ROOT_RUN_DIR));
  const bool gone = dir.n >= 0 && tov_sys_unlinkat(dir.n, TOV_WATCHED_NAME) == 0;
  if (!gone) (void)tov_sys_ftruncate(file, 0);
  tov_watched_close();
}

// ---- rows -----------------------------------------------------------------------------------

static uint64_t check_of(const tov_watched_row_t &row) {
  static constexpr uint64_t FNV_BEGIN = 0xcbf29ce484222325U;
  static constexpr uint64_t FNV_PRIME = 0x100000001b3U;
  std::array<unsigned char, offsetof(tov_watched_row_t, check)> bytes;
  memcpy(bytes.data(), &row, bytes.size());
  uint64_t hash = FNV_BEGIN;
  for (const unsigned char byte : bytes)
    hash = (hash ^ byte) * FNV_PRIME;
  return hash;
}

static bool is_start(uint64_t started) {
  return started != 0 && started != TOV_NEVER_STARTED;
}

// Zeroes have another check than 0.
static bool is_valid(const tov_watched_row_t &row) {
  return row.check == check_of(row) && row.tid > 0 && row.owner > 0 && is_start(row.started) &&
         is_start(row.owner_started);
}

static off_t offset_of(int row) {
  return HEADER_BYTES + (row - 1) * ROW_BYTES;
}

static uint64_t *word_of(int row) TOV_REQUIRES(tov_alive_chains) {
  return &taken[(row - 1) / BITS];
}

static uint64_t bit_of(int row) {
  return uint64_t{1} << ((row - 1) % BITS);
}

// Returns 0 when all rows are taken.
static int free_row() TOV_REQUIRES(tov_alive_chains) {
  for (size_t word = 0; word < std::size(taken); word++) {
    if (taken[word] != UINT64_MAX)
      return static_cast<int>(word) * BITS + __builtin_ctzll(~taken[word]) + 1;
  }
  return 0;
}

// Returns 0 or -errno.
static int put(int row, const tov_watched_row_t &content) TOV_REQUIRES(tov_alive_chains) {
  const ssize_t count = tov_sys_pwrite(file, &content, sizeof content, offset_of(row));
  if (count < 0) return -errno;
  return count == ROW_BYTES ? 0 : -ENOSPC;
}

// A record as its row.
static tov_watched_row_t row_of(const tov_pid_t &record) {
  tov_watched_row_t row{};
  row.tid = record.pid;
  row.owner = record.ppid;
  row.started = record.identity.started;
  row.owner_started = record.owner_started;
  row.stack = record.identity.stack;
  row.exe_dev = record.identity.exe_dev;
  row.exe_ino = record.identity.exe_ino;
  row.period_s = record.m_n_notify_time;
  row.budget = record.m_n_counter;
  row.check = check_of(row);
  return row;
}

void tov_watched_write(tov_pid_t *record) {
  const tov_watched_row_t content = row_of(*record);
  if (file < 0 || !is_valid(content)) return;
  const int row = record->row != 0 ? record->row : free_row();
  if (row == 0) {
    if (!std::exchange(told_full, true)) tell_unknown("too many", ENOSPC);
    return;
  }
  if (const int res = put(row, content); res < 0) {
    // A known thread keeps the terms that its row has; another one's row stays free.
    tell_unknown("cannot be written", -res);
    return;
  }
  *word_of(row) |= bit_of(row);
  record->row = row;
}

void tov_watched_free_row(int row) {
  if (file < 0) return;
  if (const int res = put(row, {}); res < 0) {
    give_up(-res);
    return;
  }
  *word_of(row) &= ~bit_of(row);
}

void tov_watched_free(tov_pid_t *record) {
  if (record->row != 0) tov_watched_free_row(std::exchange(record->row, 0));
}

// ---- the file -------------------------------------------------------------------------------

namespace {

// What stands in the file's place.
enum found_e {
  FITS,
  TO_BEGIN,  // empty, or another boot's
  WRONG,
};

}  // namespace

// Returns 0 or -errno.
static int read_boot_id(char (&id)[TOV_BOOT_ID_SIZE]) {
  if (tov_read_to_buf(BOOT_ID_FILE, id, sizeof id) < 0) return -errno;
  return strlen(id) == sizeof id - 1 ? 0 : -EINVAL;
}

static tov_watched_header_s header_of(const char (&boot_id)[TOV_BOOT_ID_SIZE]) {
  tov_watched_header_s header{};
  memcpy(header.magic, TOV_WATCHED_MAGIC, sizeof header.magic);
  header.version = TOV_WATCHED_VERSION;
  header.row_size = sizeof(tov_watched_row_t);
  memcpy(header.boot_id, boot_id, sizeof header.boot_id);
  return header;
}

// Reads the rows that are whole. Returns 0 or -errno.
static int read_rows(int fd, std::vector<tov_watched_left_t> *left) {
  std::array<tov_watched_row_t, ROWS_AT_ONCE> rows;
  for (int first = 1; first <= TOV_WATCHED_ROWS; first += ROWS_AT_ONCE) {
    const ssize_t count = tov_sys_pread(fd, rows.data(), sizeof rows, offset_of(first));
    if (count < 0) return -errno;
    const size_t whole = static_cast<size_t>(count) / sizeof rows[0];
    for (size_t i = 0; i < whole; i++) {
      if (is_valid(rows[i])) left->push_back({first + static_cast<int>(i), rows[i]});
    }
    if (whole < rows.size()) break;
  }
  return 0;
}

int tov_watched_read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                     std::vector<tov_watched_left_t> *left) {
  const tov_watched_header_s wanted = header_of(boot_id);
  tov_watched_header_s header{};
  const ssize_t count = tov_sys_pread(fd, &header, sizeof header, 0);
  if (count < 0) return -errno;
  static constexpr size_t OURS = offsetof(tov_watched_header_s, boot_id);
  if (count != HEADER_BYTES || memcmp(&header, &wanted, OURS) != 0) return -EILSEQ;
  if (memcmp(header.boot_id, wanted.boot_id, sizeof header.boot_id) != 0) return -ESTALE;
  return read_rows(fd, left);
}

// Judges an open file, and reads it if it fits. Returns found_e or -errno.
static int judge(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                 std::vector<tov_watched_left_t> *left) {
  struct stat status;
  if (tov_sys_fstat(fd, &status) < 0) return -errno;
  const bool others_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (!S_ISREG(status.st_mode) || status.st_uid != ROOT || others_write || status.st_nlink != 1 ||
      status.st_size > MOST_BYTES)
    return WRONG;
  if (status.st_size == 0) return TO_BEGIN;
  switch (const int res = tov_watched_read(fd, boot_id, left)) {
    case -EILSEQ:
      return WRONG;
    case -ESTALE:
      return TO_BEGIN;
    default:
      return res == 0 ? FITS : res;
  }
}

// Opens the file in its directory, making it if need be. Returns a descriptor or -errno.
static int open_in(int dir) {
  return tov_fd_above_streams(tov_open_or_make([dir](int more_flags) {
    return tov_sys_openat(dir, TOV_WATCHED_NAME,
                          O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | more_flags,
                          MODE_FILE);
  }));
}

// Whether an error of open(2) says that something else than a file stands there.
static bool is_no_file(int error) {
  return error == ELOOP || error == EISDIR || error == ENXIO || error == ENODEV;
}

namespace {

// A file that is being opened.
struct opening_s {
  int dir;
  char boot_id[TOV_BOOT_ID_SIZE];
  tov_fd_t fd;
  found_e found;
  std::vector<tov_watched_left_t> left;
};

}  // namespace

// Opens and judges what stands there; what cannot be opened as a file is WRONG. Returns 0 or
// -errno.
static int look(opening_s *opening) {
  opening->found = WRONG;
  opening->fd.reset();
  const int opened = open_in(opening->dir);
  if (opened < 0) return is_no_file(-opened) ? 0 : opened;
  opening->fd = tov_fd_t(opened);
  const int judged = judge(opened, opening->boot_id, &opening->left);
  if (judged < 0) return judged;
  opening->found = static_cast<found_e>(judged);
  return 0;
}

// Opens the file that is to be used; what stands in its place and is none is moved aside.
static int open_usable(opening_s *opening) {
  int res = look(opening);
  if (res < 0 || opening->found != WRONG) return res;
  if (tov_sys_renameat(opening->dir, TOV_WATCHED_NAME, WRONG_NAME) < 0) return -errno;
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "%s: not left by a daemon of this kind, moved to %s. The threads that "
                          "the last daemon watched are not known.\n",
                          PATH, WRONG_NAME);
  res = look(opening);
  return res == 0 && opening->found == WRONG ? -EEXIST : res;
}

// Returns 0 or -errno.
static int begin_anew(const opening_s &opening) {
  if (tov_sys_ftruncate(opening.fd.n, 0) < 0) return -errno;
  const tov_watched_header_s header = header_of(opening.boot_id);
  const ssize_t count = tov_sys_pwrite(opening.fd.n, &header, sizeof header, 0);
  if (count < 0) return -errno;
  return count == HEADER_BYTES ? 0 : -ENOSPC;
}

// Returns 0 or -errno.
static int open_file(opening_s *opening) {
  int res = read_boot_id(opening->boot_id);
  if (res == 0) res = open_usable(opening);
  if (res < 0 || opening->found == FITS) return res;
  return begin_anew(*opening);
}

std::vector<tov_watched_left_t> tov_watched_open(void) {
  tov_watched_close();
  const tov_fd_t dir(tov_open_root_dir(TOV_ROOT_RUN_DIR));
  opening_s opening{.dir = dir.n, .boot_id = {}, .fd = tov_fd_t(), .found = WRONG, .left = {}};
  const int res = dir.n < 0 ? dir.n : open_file(&opening);
  if (res < 0) {
    tell_unknown("cannot be used", -res);
    // Rows that this daemon does not maintain must not reach the one after it.
    if (dir.n >= 0) (void)tov_sys_unlinkat(dir.n, TOV_WATCHED_NAME);
    return {};
  }
  for (const tov_watched_left_t &left : opening.left)
    *word_of(left.row) |= bit_of(left.row);
  file = tov_fd_take(opening.fd);
  return std::move(opening.left);
}

void tov_watched_close(void) {
  if (file >= 0) (void)tov_sys_close(std::exchange(file, -1));
  memset(taken, 0, sizeof taken);
  told_full = false;
}
