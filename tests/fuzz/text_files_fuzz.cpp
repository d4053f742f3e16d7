// The readers of small text files against arbitrary bytes: lists of third-part programs, switches
// of diagnostics, pairs of numbers, /proc/PID/smaps, clients' lists, and the line reader below most
// of them. Their answers are held against plain ones made with fgets(3).
//
// An input is: a byte that chooses the reader, a byte for its sizes, a line with the word that is
// looked for, and behind it the file.
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <string>

#include "core/run/settings.h"
#include "include/tov_registry.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"
#include "tests/fuzz/require.h"
#include "util/lines.h"
#include "util/list_file.h"
#include "util/tov_utils.h"
#include "vsd/accounting.h"

namespace {

// A file of this run's own, in memory, where the switches of diagnostics are looked for.
struct scratch_s {
  std::string root;
  std::string path;

  scratch_s() {
    char name[] = "/dev/shm/tov_fuzz.XXXXXX";
    require(mkdtemp(name) != nullptr);
    root = name;
    require(mkdir((root + "/qx_utils").c_str(), 0700) == 0);
    path = root + "/qx_utils/qx_utils_dbg_cfg.txt";
    require(setenv("DATA_QXOS_DIR", name, 1) == 0);
  }
  ~scratch_s() {
    unlink(path.c_str());
    rmdir((root + "/qx_utils").c_str());
    rmdir(root.c_str());
  }
  void write(const std::string &text) const {
    const tov_fd_t fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(fd.n >= 0 &&
            ::write(fd.n, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  }
};

// What a reader is given.
struct input_s {
  const char *path;
  uint8_t size;
  std::string word;
};

// Calls `take(line)` for each piece that fgets(3) makes with room for `limit` bytes, until it
// returns false.
void plain_lines(const char *path, size_t limit, const std::function<bool(const char *)> &take) {
  const tov_file_t file(fopen(path, "re"));
  require(file != nullptr);
  std::string piece(limit + 1, '\0');
  while (fgets(piece.data(), static_cast<int>(piece.size()), file.get()) != nullptr)
    if (!take(piece.data())) return;
}

// ---- lines --------------------------------------------------------------------------------------

void try_lines(const input_s &input) {
  static constexpr size_t limits[] = {1, 2, 3, 16, 127, 254, 1023, 4095, 4096};
  const size_t limit = limits[input.size % std::size(limits)];
  const tov_fd_t fd(open(input.path, O_RDONLY | O_CLOEXEC));
  tov_lines_s lines(fd.n, limit);
  plain_lines(input.path, limit, [&](const char *wanted) {
    const char *piece = lines.next();
    require(piece != nullptr && strcmp(piece, wanted) == 0);
    return true;
  });
  require(lines.next() == nullptr);
}

// ---- lists of third-part programs -----------------------------------------------------------

void try_list(const input_s &input) {
  char out[256];
  memset(out, 'x', sizeof out);
  const int size = 1 + input.size;
  const int found = tov_proc_in_tovdb(input.path, input.word.c_str(), out, size);
  require(found == 0 || found == 1);
  require(memchr(out, '\0', static_cast<size_t>(size)) != nullptr);

  std::string type;
  bool listed = false;
  plain_lines(input.path, 1023, [&](const char *line) {
    if (input.word.empty() || strstr(line, input.word.c_str()) == nullptr) return true;
    const char *blank = strrchr(line, ' ');
    listed = blank != nullptr;
    if (listed) type = blank + 1;
    return false;  // the first hit decides
  });
  require(found == (listed ? 1 : 0));
  require(out == type.substr(0, static_cast<size_t>(size) - 1));
}

// ---- switches of diagnostics ------------------------------------------------------------------

void try_switches(const input_s &input) {
  tov_dbg_t levels[TOV_MODULE_END];
  tov_dbg_t wanted[TOV_MODULE_END];
  for (int module = 0; module < TOV_MODULE_END; module++)
    levels[module] = wanted[module] = 4000 + module;
  plain_lines(input.path, 127, [&](const char *line) {
    for (int module = 0; module < TOV_MODULE_END; module++) {
      const size_t length = strlen(tov_dbg_lvl_str_pre[module]);
      if (strncmp(line, tov_dbg_lvl_str_pre[module], length) != 0) continue;
      char *end = nullptr;
      const long level = strtol(line + length, &end, 10);
      if (end == line + length) continue;
      wanted[module] = static_cast<int>(level < INT_MIN   ? INT_MIN
                                        : level > INT_MAX ? INT_MAX
                                                          : level);
    }
    return true;
  });
  require(_tov_parse_dbg_file(levels) == 0);
  require(memcmp(levels, wanted, sizeof levels) == 0);
}

// ---- numbers ------------------------------------------------------------------------------------

void try_numbers(const input_s &input) {
  char text[256];
  const int room = 1 + input.size;
  memset(text, 'x', sizeof text);
  const int length = tov_read_to_buf(input.path, text, room);
  require(length >= 0 && length < room && text[length] == '\0');

  int first = 11;
  int second = 22;
  const int both = tov_get_config_value(input.path, &first, &second);
  int value = 33;
  const int one = tov_get_file_config(input.path, &value);
  require((both == 0 || both == -1) && (one == 0 || one == -1));
  if (both == 0) require(one == 0 && value == first);
  if (one != 0) require(value == 33 && first == 11 && second == 22);
}

// ---- sums of memory -----------------------------------------------------------------------------

void try_smaps(const input_s &input) {
  uint64_t sums[TOV_VSD_RSS_NUM] = {};
  std::string path = input.path;
  const int vsd = input.size % TOV_VSD_RSS_NUM;
  require(get_vsd_mem(path.data(), vsd, sums) == 0);

  uint64_t sum = 0;
  bool library = false;
  plain_lines(input.path, 1023, [&](const char *line) {
    if (strstr(line, "/lib") != nullptr) {
      library = true;
    } else if (const char *rss = strstr(line, "Rss"); rss != nullptr) {
      if (!library) sum += strtoull(rss[3] == '\0' ? rss + 3 : rss + 4, nullptr, 10);
      library = false;
    }
    return true;
  });
  for (int i = 0; i < TOV_VSD_RSS_NUM; i++)
    require(sums[i] == (i == vsd ? sum : 0));
}

// ---- clients' lists -----------------------------------------------------------------------------

void try_lookups(const input_s &input) {
  static constexpr size_t WORD_LENGTH = 15;  // of a key and of a value
  bool stands = false;
  bool known = false;
  std::string value;
  plain_lines(input.path, 1023, [&](const char *piece) {
    std::string line = piece;
    if (!line.empty()) line.pop_back();
    stands = stands || line == input.word;
    const size_t blank = line.find(' ');
    if (known || blank == std::string::npos) return true;
    known = line.substr(0, blank < WORD_LENGTH ? blank : WORD_LENGTH) == input.word;
    if (known) value = line.substr(blank + 1, WORD_LENGTH);
    return true;
  });
  require(string_exist_in_file(input.word.c_str(), input.path) == (stands ? 1 : 0));
  require(get_pid_notify_counter(input.word.c_str(), input.path) == tov_atoi(value.c_str()));
}

constexpr void (*readers[])(const input_s &) = {try_lines,   try_list,  try_switches,
                                                try_numbers, try_smaps, try_lookups};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const scratch_s scratch;
  if (size < 2) return 0;
  const std::string text(reinterpret_cast<const char *>(data) + 2, size - 2);
  const size_t line_end = text.find('\n');
  scratch.write(line_end == std::string::npos ? "" : text.substr(line_end + 1));
  // A word ends at a NUL, as every text that the readers are given.
  const std::string word = text.substr(0, line_end).c_str();
  readers[data[0] % std::size(readers)]({scratch.path.c_str(), data[1], word});
  return 0;
}
