// Rows of supervised processes: a record as its row, and which rows anybody can have written.
//
// Tested by: tests/unit/core/registry/supervised_test.cpp, tests/device/known_again_test.cpp
#include "core/registry/supervised.h"

#include <stdint.h>
#include <string.h>

#include <utility>
#include <vector>

#include "client/tov_pidfile.h"
#include "core/registry/row_file.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "util/identity.h"

enum { FILE_NAME_SIZE = 256 };

static constexpr char MAGIC[] = "TOVSUPER";
static constexpr char SUBJECT[] = "the supervised processes";

static tov_row_file_t file TOV_GUARDED_BY(tov_chains){TOV_SUPERVISED_NAME, MAGIC, SUBJECT};

static bool is_valid(const tov_supervised_row_t &row) {
  return row.pid > 0 && tov_identity_is_start(row.started);
}

uint64_t tov_supervised_file(const tov_pid_t &record) {
  char name[FILE_NAME_SIZE];
  tov_get_db_file_name(record.vsd_id, record.pid, record.process, name, sizeof name);
  return tov_row_hash(name, strlen(name));
}

static tov_supervised_row_t row_of(const tov_pid_t &record) {
  tov_supervised_row_t row{};
  row.pid = record.pid;
  row.vsd_id = record.vsd_id;
  row.started = record.identity.started;
  row.stack = record.identity.stack;
  row.exe_dev = record.identity.exe_dev;
  row.exe_ino = record.identity.exe_ino;
  row.session = static_cast<uint32_t>(record.identity.session);
  row.file = tov_supervised_file(record);
  row.was_seen = record.seen != 0 ? 1 : 0;
  return row;
}

void tov_supervised_write(tov_pid_t *record) {
  if (!file.is_open()) return;
  const tov_supervised_row_t row = row_of(*record);
  if (!is_valid(row)) return tov_supervised_free(record);
  file.write(&record->row, row);
}

void tov_supervised_free_row(int row) {
  file.free(row);
}

void tov_supervised_free(tov_pid_t *record) {
  file.free(std::exchange(record->row, 0));
}

int tov_supervised_read(int fd, const char (&boot_id)[TOV_BOOT_ID_SIZE],
                        std::vector<tov_supervised_left_t> *left) {
  tov_row_file_t::left_t rows;
  const tov_row_file_t of_this_kind(TOV_SUPERVISED_NAME, MAGIC, SUBJECT);
  const int res = of_this_kind.read(fd, boot_id, &rows);
  *left = tov_rows_of<tov_supervised_row_t>(rows, is_valid);
  return res;
}

std::vector<tov_supervised_left_t> tov_supervised_open(void) {
  return tov_rows_of<tov_supervised_row_t>(file.open(), is_valid);
}

void tov_supervised_close(void) {
  file.close();
}
