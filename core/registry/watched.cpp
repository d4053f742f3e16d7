// Rows of watched threads: a record as its row, and which rows anybody can have written.
//
// Tested by: tests/unit/core/registry/watched_test.cpp, tests/device/watchdog_next_daemon_test.cpp
#include "core/registry/watched.h"

#include <utility>
#include <vector>

#include "core/registry/row_file.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "util/identity.h"

static constexpr char MAGIC[] = "TOVWATCH";
static constexpr char SUBJECT[] = "the watched threads";

static tov_row_file_t file TOV_GUARDED_BY(tov_alive_chains){TOV_WATCHED_NAME, MAGIC, SUBJECT};

static bool is_valid(const tov_watched_row_t &row) {
  return row.tid > 0 && row.owner > 0 && tov_identity_is_start(row.started) &&
         tov_identity_is_start(row.owner_started);
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
  return row;
}

void tov_watched_write(tov_pid_t *record) {
  const tov_watched_row_t row = row_of(*record);
  if (is_valid(row)) file.write(&record->row, row);
}

void tov_watched_free_row(int row) {
  file.free(row);
}

void tov_watched_free(tov_pid_t *record) {
  file.free(std::exchange(record->row, 0));
}

int tov_watched_read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                     std::vector<tov_watched_left_t> *left) {
  tov_row_file_t::left_t rows;
  const tov_row_file_t of_this_kind(TOV_WATCHED_NAME, MAGIC, SUBJECT);
  const int res = of_this_kind.read(fd, boot_id, &rows);
  *left = tov_rows_of<tov_watched_row_t>(rows, is_valid);
  return res;
}

std::vector<tov_watched_left_t> tov_watched_open(void) {
  return tov_rows_of<tov_watched_row_t>(file.open(), is_valid);
}

void tov_watched_close(void) {
  file.close();
}
