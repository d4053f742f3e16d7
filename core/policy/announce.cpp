// The tables of texts, and one procedure that fills a text in: each row names the values that its
// format takes. The journal uses two files in turn.
#include "core/policy/announce.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iterator>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/ha_notice.h"
#include "log/plain_files.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"

int tov_log_cnt = 0;

// ---- texts and the values they take ---------------------------------------------------------

namespace {

enum values_e {
  NAME_PID_CODE,
  NAME_PID,
  COUNT_NAME_NEW,
  NEW,
  NAME_COUNT_NAME_NEW,
};

struct text_s {
  values_e values;
  const char *format;
};

}  // namespace

enum { TEXT_SIZE = TOV_PROCESS_SIZE * 2 + 256 };  // two names and the words around them

static void fill_in(char *out, size_t size, const text_s &text, const tov_restart_news_t &news) {
  const char *format = text.format;
  switch (text.values) {
    case NAME_PID_CODE:
      (void)snprintf(out, size, format, news.name, news.pid, news.exit_code);
      break;
    case NAME_PID:
      (void)snprintf(out, size, format, news.name, news.pid);
      break;
    case COUNT_NAME_NEW:
      (void)snprintf(out, size, format, news.count, news.name, news.new_pid);
      break;
    case NEW:
      (void)snprintf(out, size, format, news.new_pid);
      break;
    case NAME_COUNT_NAME_NEW:
      (void)snprintf(out, size, format, news.name, news.count, news.name, news.new_pid);
      break;
  }
}

// ---- announcements --------------------------------------------------------------------------

namespace {

struct announcement_s {
  const char *mnemonic;
  text_s notice;
  text_s event;
};

}  // namespace

// Rows by way of the restart: [0] executed again, [1] by script.
static constexpr announcement_s self_check_before[] = {
    {"HA_SELF_CHECK",
     {NAME_PID_CODE, "Task: %s/%d receives event:%04x and self-checking ...\n"},
     {NAME_PID_CODE,
      "%%HA-5-HA_SELF_CHECK: Task: %s/%d receives event:%04x and self-checking ...\n"}},
    {"HA_SCRIPT_SELF_CHECK",
     {NAME_PID_CODE, "Task: %s/%d receives event:%04x and self-checking ...\n"},
     {NAME_PID_CODE,
      "%%HA-5-HA_SCRIPT_SELF_CHECK: Task: %s/%d receives event:%04x and self-checking ...\n"}},
};

static constexpr announcement_s self_check_after[] = {
    {"HA_SELF_CHECK_INFO",
     {COUNT_NAME_NEW, "Self-checking OK: %d times and new id %s/%d.\n"},
     {COUNT_NAME_NEW, "%%HA-5-HA_SELF_CHECK_INFO Self-checking OK: %d times and new id %s/%d.\n"}},
    {"HA_SCRIPT_SELF_CHECK_INFO",
     {COUNT_NAME_NEW, "Self-checking OK: %d times and new id %s/%d.\n"},
     {COUNT_NAME_NEW,
      "%%HA-5-HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: %d times and new id %s/%d.\n"}},
};

// A clean exit is no fault, so nothing is checked: the job is begun anew, either way alike.
static constexpr announcement_s re_init_before = {
    "HA_RE_INIT",
    {NAME_PID, "Job %s/%d will be re-initialized ...\n"},
    {NAME_PID, "%%HA-5-HA_RE_INIT: Job %s/%d will be re-initialized ...\n"}};

static constexpr announcement_s re_init_after = {
    "HA_RE_INIT_INFO",
    {NEW, "Re-initialized OK: new job id: %d.\n"},
    {COUNT_NAME_NEW, "%%HA-5-HA_RE_INIT_INFO Re-initialized OK: %d times and new id %s/%d.\n"}};

static void announce(const announcement_s &row, const tov_restart_news_t &news) {
  char text[TEXT_SIZE];
  fill_in(text, sizeof text, row.notice, news);
  tov_ha_notice(row.mnemonic, "%s", text);
  TOV_DBG("%s %s", row.mnemonic, text);
  fill_in(text, sizeof text, row.event, news);
  (void)tov_log_with_type(TOV_LOG_RESTART, "%s", text);
}

void tov_announce_before(const tov_restart_news_t &news) {
  announce(news.exit_code == 0 ? re_init_before : self_check_before[news.by_script], news);
}

void tov_announce_after(const tov_restart_news_t &news) {
  announce(news.exit_code == 0 ? re_init_after : self_check_after[news.by_script], news);
}

void tov_announce_self_check_ok(const tov_restart_news_t &news) {
  announce(self_check_after[news.by_script], news);
}

// ---- restart journal ------------------------------------------------------------------------

enum { JOURNAL_RESTARTS_PER_FILE = 5 };

namespace {

struct journal_file_s {
  const char *path;
  text_s before[2];  // [0] executed again, [1] by script
  text_s after[2];
  const char *other;          // begun anew when this file is full
  const char *remove_failed;  // diagnostic
};

}  // namespace

static constexpr text_s script_before = {
    NAME_PID_CODE,
    "%%HA-5-HA_SCRIPT_RESTART: Process:[%s/%d] receives internal event:[0x%04x] and restarts.\n"};
static constexpr text_s script_after = {
    NAME_COUNT_NAME_NEW,
    "%%HA-5-HA_SCRIPT_RESTART_INFO: Process:[%s] restarts [%d] times and new process is "
    "[%s/%d].\n"};

// The brackets change sides between the two files; readers of the journal tell them apart by it.
static constexpr journal_file_s journal_files[] = {
    {TOV_JOURNAL_1,
     {{NAME_PID_CODE,
       "%%HA-5-HA_RESTART: Process:[%s/%d] receives internal event:[0x%04x] and restarts.\n"},
      script_before},
     {{NAME_COUNT_NAME_NEW,
       "%%HA-5-HA_RESTART_INFO: Process:%s restarts %d times and new process is %s/%d.\n"},
      script_after},
     TOV_JOURNAL_2,
     "%s: remove tov_log2 fail: %s\n"},
    {TOV_JOURNAL_2,
     {{NAME_PID_CODE,
       "%%HA-5-HA_RESTART: Process:%s/%d receives internal event: %04x and restarts.\n"},
      script_before},
     {{NAME_COUNT_NAME_NEW,
       "%%HA-5-HA_RESTART_INFO: Process:[%s] restarts [%d] times and new process is [%s/%d].\n"},
      script_after},
     TOV_JOURNAL_1,
     "%s: remove tov_log1 fail: %s\n"},
};

enum { JOURNAL_RESTARTS = JOURNAL_RESTARTS_PER_FILE * static_cast<int>(std::size(journal_files)) };

// The file that a slot belongs to, or null when the journal is silent about it.
static const journal_file_s *journal_file(int slot) {
  if (slot < 1 || slot > JOURNAL_RESTARTS) return nullptr;
  return &journal_files[(slot - 1) / JOURNAL_RESTARTS_PER_FILE];
}

static int append(const journal_file_s &file, const text_s &text, const tov_restart_news_t &news) {
  if (tov_openlog(file.path) < 0) {
    TOV_DBG("fail to openlog: %s\n", strerror(errno));
    return -1;
  }
  char line[TEXT_SIZE];
  fill_in(line, sizeof line, text, news);
  tov_log("%s", line);
  tov_closelog();
  return 0;
}

int tov_journal_before(const tov_restart_news_t &news) {
  const int slot = ++tov_log_cnt;
  const journal_file_s *file = journal_file(slot);
  if (file != nullptr && append(*file, file->before[news.by_script], news) < 0) return -1;
  return slot;
}

int tov_journal_after(const tov_restart_news_t &news, int slot) {
  const journal_file_s *file = journal_file(slot);
  if (file == nullptr) return 0;
  if (append(*file, file->after[news.by_script], news) < 0) return -1;

  // Only here: a fifth or tenth restart that failed leaves the journal as it is.
  if (slot % JOURNAL_RESTARTS_PER_FILE != 0) return 0;
  if (unlink(file->other) < 0) TOV_DBG(file->remove_failed, __func__, strerror(errno));
  if (slot == JOURNAL_RESTARTS) tov_log_cnt = 0;
  return 0;
}
