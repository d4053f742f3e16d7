// Lines of a small text file, cut as fgets(3) would cut them, read without stdio.
//
// Why not stdio: these files are read for every program that starts on the machine and for every
// process of /proc, and a stream would cost a heap buffer each time. The reader lives on the
// caller's stack.
//
// A line longer than the limit comes in several pieces, as from fgets(3) with a buffer of one byte
// more; what callers search for is searched in pieces, which is part of the files' agreed reading.
#ifndef TOV_UTIL_LINES_H
#define TOV_UTIL_LINES_H

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>

#include "util/tov_sys.h"

class tov_lines_s {
 public:
  // Reads from `fd`, borrowed, pieces of at most `limit` bytes (1 to MAX_LIMIT).
  tov_lines_s(int fd, size_t limit) : fd_(fd), limit_(limit) {}
  tov_lines_s(const tov_lines_s &) = delete;
  tov_lines_s &operator=(const tov_lines_s &) = delete;

  static constexpr size_t MAX_LIMIT = 4096;

  // The next piece, its line end included if it has one, terminated; valid until the next call.
  // Null at the end of the file; a failed read is an end, too.
  const char *next() {
    buf_[begin_] = cut_;  // the terminator of the last piece stood on the next one's first byte
    size_t length = piece_length();
    while (length == 0 && fill())
      length = piece_length();
    if (length == 0) length = end_ - begin_;  // the last line has no end
    if (length == 0) return nullptr;

    const char *piece = buf_ + begin_;
    begin_ += length;
    cut_ = buf_[begin_];
    buf_[begin_] = '\0';
    return piece;
  }

 private:
  // Bytes of the piece at begin_ if it is complete, otherwise 0.
  size_t piece_length() const {
    const size_t have = std::min(end_ - begin_, limit_);
    const void *line_end = have == 0 ? nullptr : memchr(buf_ + begin_, '\n', have);
    if (line_end != nullptr)
      return static_cast<size_t>(static_cast<const char *>(line_end) - (buf_ + begin_)) + 1;
    return have == limit_ ? have : 0;
  }

  // Moves what is left to the front and reads behind it. Returns whether something came.
  bool fill() {
    memmove(buf_, buf_ + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    ssize_t count = 0;
    do
      count = tov_sys_read(fd_, buf_ + end_, MAX_LIMIT - end_);
    while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    end_ += static_cast<size_t>(count);
    return true;
  }

  int fd_;
  size_t limit_;
  size_t begin_ = 0;  // of what was not delivered yet
  size_t end_ = 0;
  char cut_ = '\0';  // the byte under the terminator at begin_
  char buf_[MAX_LIMIT + 1] = {};
};

#endif  // TOV_UTIL_LINES_H
