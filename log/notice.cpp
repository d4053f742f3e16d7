// Notices to the platform's system log.
//
// The platform takes our text in the place of a format and expands it once more. Program names
// stand in these texts and a program may be called "f%n", so every "%" is doubled last of all,
// after the product words are out: doubling first would let the filter cut a pair apart.
//
// Threads: any; no state. Losses: text behind the 255th byte.
#include "log/notice.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "platform/tov_platform.h"

static constexpr size_t NOTICE_SIZE = 256;
static constexpr size_t TAIL_SIZE = 256;  // what is kept behind a removed word, NUL included
static constexpr int NOTICE_LEVEL = 5;
static constexpr int NOTICE_FLAG = 1;

const char *const g_tov_filt_manu[TOV_FILT_MANU_NUM] = {"qx-",   "qx_", "qxos",
                                                        "qxsys", "zq-", "zq_"};

// The length of the first product word that `str` begins with, 0 when it begins with none.
static size_t manu_word_at_front(const char *str) {
  for (const char *word : g_tov_filt_manu) {
    const size_t length = strlen(word);
    if (strncasecmp(str, word, length) == 0) return length;
  }
  return 0;
}

void tov_remove_manu_begin(char *str) {
  size_t length = manu_word_at_front(str);
  while (length > 0) {
    memmove(str, str + length, strlen(str + length) + 1);
    length = manu_word_at_front(str);
  }
}

// Cuts out the first product word, by the order of the table, that stands anywhere in `str`.
static bool remove_one_manu_word(char *str) {
  for (const char *word : g_tov_filt_manu) {
    char *found = strcasestr(str, word);
    if (found == nullptr) continue;
    const char *tail = found + strlen(word);
    const size_t kept = strnlen(tail, TAIL_SIZE - 1);
    memmove(found, tail, kept);
    found[kept] = '\0';
    return true;
  }
  return false;
}

void tov_remove_manu_include(char *str) {
  while (remove_one_manu_word(str)) {
  }
}

// Copies `text` with every "%" doubled; `out` is twice as large.
static void double_percents(const char (&text)[NOTICE_SIZE], char (&out)[2 * NOTICE_SIZE]) {
  char *to = out;
  for (const char *from = text; *from != '\0'; from++) {
    if (*from == '%') *to++ = '%';
    *to++ = *from;
  }
  *to = '\0';
}

int tov_printk_notice(const char *module, const char *mnemonic, const char *format, ...) {
  char text[NOTICE_SIZE];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length < 1) return -1;

  tov_remove_manu_begin(text);
  tov_remove_manu_include(text);
  char escaped[2 * NOTICE_SIZE];
  double_percents(text, escaped);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"  // the interface wants the text as the format
  (void)printk_syslog_ext(NOTICE_LEVEL, module, mnemonic, NOTICE_FLAG, escaped);
#pragma GCC diagnostic pop
  return 0;
}
