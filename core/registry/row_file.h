// A file of rows in /run/tov: what one daemon tells the next, by its own word.
//
// The directory and its files are root's alone, so what stands there is to be believed, where every
// user may write the other places. A file outlives the daemon, not the machine: it lies in memory,
// is never synchronised, and carries the id of the boot it belongs to. Native byte order:
//   0    header: magic, version, size of a row, boot id
//   128  rows of 64 bytes; free is one whose check does not fit, as that of zeroes
// A row is written by one pwrite(2) that crosses no page: who is killed between two calls leaves
// whole rows, and what is torn all the same fails its check.
//
// What cannot be written or read is one line in the error log: the daemon goes on, and the next one
// does not know what the rows would have said. While a file is not open nothing is written.
//
// Threads: any, under the lock that guards the file object; a write into memory is some
// microseconds and waits for nobody. Losses: what is beyond TOV_ROWS.
#ifndef TOV_CORE_REGISTRY_ROW_FILE_H
#define TOV_CORE_REGISTRY_ROW_FILE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <bit>
#include <type_traits>
#include <vector>

enum {
  TOV_ROW_FILE_VERSION = 1,
  TOV_ROWS = 16384,       // 1 MiB
  TOV_BOOT_ID_SIZE = 37,  // terminator included
};

struct tov_row_file_header_s {
  char magic[8];
  uint32_t version;
  uint32_t row_size;
  char boot_id[TOV_BOOT_ID_SIZE];
  char unused[75];
};

// What all rows have in common. A row of a certain file is a type of the same size with the same
// last field.
struct tov_row_s {
  unsigned char content[56];
  uint64_t check;  // FNV-1a of the bytes before it
};
using tov_row_t = tov_row_s;

static_assert(sizeof(tov_row_file_header_s) == 128 && sizeof(tov_row_t) == 64);

// FNV-1a of 64 bits.
uint64_t tov_row_hash(const void *bytes, size_t size);

// A row that the last daemon left, as the type of its file.
template <typename Row>
struct tov_row_left_s {
  int number;  // from 1
  Row row;
};

class tov_row_file_s {
 public:
  using left_t = std::vector<tov_row_left_s<tov_row_t>>;

  // The texts are kept, not copied: literals.
  //   name     of the file
  //   magic    8 characters
  //   subject  what the rows are about, in the plural, for the lines of the error log
  constexpr tov_row_file_s(const char *name, const char *magic, const char *subject)
      : name_(name), magic_(magic), subject_(subject) {}

  // Opens the file for the daemon's life and returns what is left in it. What belongs to another
  // boot is thrown away; a file that no daemon can have left (another user's, a link, a strange
  // header) is moved aside to its name with ".wrong". At start-up, once. Writes the error line of
  // any failure; the result then is empty.
  left_t open();

  // Closes it. The rows stay.
  void close();

  bool is_open() const { return fd_ >= 0; }

  // Writes a row, whose check it fills in.
  //   number  where: 0 takes a free row and receives its number, or stays 0 after a failure
  template <typename Row>
  void write(int *number, const Row &row) {
    static_assert(sizeof(Row) == sizeof(tov_row_t) && std::is_trivially_copyable_v<Row> &&
                  offsetof(Row, check) == offsetof(tov_row_t, check));
    put_at(number, std::bit_cast<tov_row_t>(row));
  }

  // Frees a row; 0: nothing. What cannot be freed would be believed, so then the whole file is
  // given up.
  void free(int number);

  // Reads the whole rows of an open file, whoever owns it. What open() believes.
  //   left  receives them; untouched after a failure of the first two kinds
  // Returns 0; -EILSEQ: the header is not of this kind; -ESTALE: another boot's; another -errno.
  int read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE], left_t *left) const;

 private:
  static constexpr int BITS = 64;
  struct opening_s;

  void tell_unknown(const char *what, int error) const;
  void give_up(int error);
  uint64_t &word_of(int number) { return taken_[(number - 1) / BITS]; }
  static uint64_t bit_of(int number) { return uint64_t{1} << ((number - 1) % BITS); }
  int free_row() const;
  int put(int number, const tov_row_t &row) const;
  void put_at(int *number, tov_row_t row);
  tov_row_file_header_s header_of(const char (&boot_id)[TOV_BOOT_ID_SIZE]) const;
  int judge(int fd, opening_s *opening) const;
  int look(opening_s *opening) const;
  int open_usable(opening_s *opening) const;
  int open_file(opening_s *opening) const;
  int begin_anew(const opening_s &opening) const;

  // Plain values without a destructor: detached threads may still free rows while the process ends.
  const char *name_;
  const char *magic_;
  const char *subject_;
  int fd_ = -1;                           // -1: nothing is written
  uint64_t taken_[TOV_ROWS / BITS] = {};  // a bit a row
  bool told_full_ = false;
};
using tov_row_file_t = tov_row_file_s;

// The rows that their type's own rules allow.
template <typename Row>
std::vector<tov_row_left_s<Row>> tov_rows_of(const tov_row_file_t::left_t &left,
                                             bool (*is_valid)(const Row &)) {
  std::vector<tov_row_left_s<Row>> rows;
  for (const tov_row_left_s<tov_row_t> &one : left) {
    const Row row = std::bit_cast<Row>(one.row);
    if (is_valid(row)) rows.push_back({one.number, row});
  }
  return rows;
}

#endif  // TOV_CORE_REGISTRY_ROW_FILE_H
