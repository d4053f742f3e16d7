// Diagnostics on standard output and the debug file that switches them.
//
// A line is formatted into one buffer and handed over in one call, so lines of several threads do
// not mix. The buffer is larger than the longest text that stands in a message (a command line of
// 4095 bytes), because a cut line loses exactly the end that one wants to see.
//
// Threads: any. The debug file is read once at start, by the watcher when the data directory is
// mounted, and by the client calls that say so; the switches are stored as relaxed atomics.
#include "log/tov_dbg.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_utils.h"

static constexpr size_t LINE_SIZE = 8192;
static constexpr size_t DBG_PATH_SIZE = 256;
static constexpr int DBG_PIECE_SIZE = 128;

tov_dbg_t g_tov_dbg_level[TOV_MODULE_END] = {TOV_DBG_END, TOV_DBG_END, TOV_DBG_END};

const char *const tov_dbg_lvl_str_pre[TOV_MODULE_END + 1] = {
    "g_tov_pub_dbg_level",
    "g_tov_alive_dbg_level",
    "g_tov_lib_dbg_level",
    "invlaid",
};

// ---- printing -------------------------------------------------------------------------------

void tov_dbg_print(const char *file, int line, const char *format, ...) {
  const tov_errno_keeper_s keep;
  char text[LINE_SIZE];
  size_t length = tov_printed(snprintf(text, sizeof text, "[TOV:%s:%d]", file, line), sizeof text);

  va_list arguments;
  va_start(arguments, format);
  const size_t room = sizeof text - length;
  length += tov_printed(vsnprintf(text + length, room, format, arguments), room);
  va_end(arguments);
  (void)fwrite(text, 1, length, stdout);  // a diagnostic that has no reader is lost
}

namespace {

// A text that grows within a fixed buffer, without the formatting functions: those are not
// async-signal-safe.
struct raw_text_s {
  char bytes[LINE_SIZE];
  size_t length = 0;

  void add(const char *text) { length = tov_append(bytes, length, sizeof bytes, text); }

  void add_number(int number) {
    char room[TOV_DIGITS_SIZE];
    add(tov_digits(number, room));
  }
};

}  // namespace

void tov_dbg_print_raw(const char *file, int line, const char *const *texts) {
  const tov_errno_keeper_s keep;
  raw_text_s out;
  out.add("[TOV:");
  out.add(file);
  out.add(":");
  out.add_number(line);
  out.add("]");
  for (; *texts != nullptr; texts++)
    out.add(*texts);
  (void)safe_write(STDOUT_FILENO, out.bytes, out.length);
}

// ---- debug file -----------------------------------------------------------------------------

// Takes one line: a key word, blanks, a number. A key word followed by anything else leaves its
// switch as it was.
static void take_switch(const char *line, tov_dbg_t *levels) {
  for (int module = 0; module < TOV_MODULE_END; module++) {
    const size_t length = strlen(tov_dbg_lvl_str_pre[module]);
    if (strncmp(line, tov_dbg_lvl_str_pre[module], length) != 0) continue;
    int level = 0;
    if (tov_parse_int(line + length, &level))
      __atomic_store_n(&levels[module], level, __ATOMIC_RELAXED);
    return;
  }
}

int _tov_parse_dbg_file(tov_dbg_t *levels) {
  char path[DBG_PATH_SIZE];
  if (ras_make_vsd_data_qxos_path(TOV_DEBUG_CFG_SUFFIX, path, sizeof path) == nullptr) return -1;

  // Every user may write the data directory.
  const tov_file_t file = tov_fopen_regular(path, O_RDONLY, "r");
  if (file == nullptr) return -1;

  char piece[DBG_PIECE_SIZE];
  while (fgets(piece, sizeof piece, file.get()) != nullptr)
    take_switch(piece, levels);
  return 0;
}

int tov_parse_dbg_file(void) {
  (void)_tov_parse_dbg_file(g_tov_dbg_level);  // without a file we stay quiet
  return 0;
}

int tov_is_open_pub_dbg(void) {
  return tov_dbg_is_open(TOV_MODULE_PUB);
}

// ---- paths ----------------------------------------------------------------------------------

// Printed always, also while diagnostics are off: without its data directory a device is not set
// up, and the switches cannot be read either.
#define RAS_PRINT(format, ...) \
  printf("[RAS]<%s, %s, %d>:" format, __FILE_NAME__, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

char *ras_make_vsd_path(const char *prefix, const char *suffix, char *path, int len) {
  const size_t prefix_length = strlen(prefix);
  const size_t suffix_length = strlen(suffix);
  if (len < 0 || prefix_length + suffix_length + 1 > static_cast<size_t>(len)) {
    RAS_PRINT("not enough path memory(prefix:%s, suffix:%s, len:%d)!\n", prefix, suffix, len);
    return nullptr;
  }
  memcpy(path, prefix, prefix_length);
  memcpy(path + prefix_length, suffix, suffix_length + 1);
  path[len - 1] = '\0';
  return path;
}

char *ras_make_vsd_data_qxos_path(const char *suffix, char *path, int len) {
  if (suffix == nullptr || path == nullptr || len <= 1) {
    RAS_PRINT("argument err(suffix:%p, path:%p, len:%d)!\r\n", static_cast<const void *>(suffix),
              static_cast<const void *>(path), len);
    return nullptr;
  }
  const char *data_dir = getenv("DATA_QXOS_DIR");
  if (data_dir == nullptr) {
    RAS_PRINT("get DATA_QXOS_DIR fail!\r\n");
    return nullptr;
  }
  return ras_make_vsd_path(data_dir, suffix, path, len);
}
