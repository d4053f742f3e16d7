// Tested by: tests/module/proc/claim_test.cpp, tests/module/core/policy/rebuild_test.cpp
#include "proc/claim.h"

#include <ctype.h>
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <string_view>

#include "client/tov_pidfile.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/clock.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"

enum { FILE_NAME_SIZE = 256 };

#define CHILD_PREFIX TOV_DB_INTERIM_PREFIX "child."

// The daemon's id is part of the name, so that the next one cannot mistake a claim for its own.
static void name_claim(const tov_pid_t &record, tov_claim_t *claim) {
  (void)snprintf(claim->path, sizeof claim->path,
                 TOV_VSD_DB_DIR_FMT "/" TOV_DB_INTERIM_PREFIX "%d.%u", record.vsd_id,
                 tov_sys_getpid(), claim->number);
}

// The next daemon may have the same id and meet a child of this one: its numbers begin elsewhere.
static unsigned int next_number(unsigned int last) {
  const unsigned int next = last == 0 ? static_cast<unsigned int>(tov_clock_us()) : last + 1;
  return next != 0 ? next : 1;
}

static void name_file(const tov_pid_t &record, char (&file)[FILE_NAME_SIZE]) {
  tov_get_db_file_name(record.vsd_id, record.pid, record.process, file, sizeof file);
}

tov_claim_t tov_claim_take(const tov_chains_guard_t &held, const tov_pid_t &record, bool stays) {
  static unsigned int last_number TOV_GUARDED_BY(tov_chains) = 0;
  held.shows(tov_chains);
  if (!tov_record_owns_file(held, record)) return {};
  tov_claim_t claim;
  claim.number = last_number = next_number(last_number);
  name_claim(record, &claim);
  if (stays)
    (void)snprintf(claim.used, sizeof claim.used, TOV_VSD_DB_DIR_FMT "/" CHILD_PREFIX,
                   record.vsd_id);
  char file[FILE_NAME_SIZE];
  name_file(record, file);
  const int result = stays ? tov_sys_link(file, claim.path) : tov_sys_rename(file, claim.path);
  if (result == 0) return claim;
  if (errno != ENOENT) TOV_DBG("%s: %s: %s\n", __func__, file, strerror(errno));
  return {};
}

void tov_claim_give_back(const tov_pid_t &record, const tov_claim_t &claim, bool stays) {
  if (claim.number == 0) return;
  char file[FILE_NAME_SIZE];
  name_file(record, file);
  if ((stays ? tov_sys_unlink(claim.path) : tov_sys_rename(claim.path, file)) < 0)
    TOV_DBG("%s: %s: %s\n", __func__, file, strerror(errno));
}

// Returns false where the child's name cannot be had.
static bool rename_to_child(const tov_claim_t &claim) {
  char path[sizeof claim.used] = {}, room[TOV_DIGITS_SIZE];
  const size_t length = tov_append(path, 0, sizeof path - 1, claim.used);
  (void)tov_append(path, length, sizeof path - 1, tov_digits(tov_sys_getpid(), room));
  return tov_sys_rename(claim.path, path) == 0;
}

// What cannot be removed for another reason than that it is gone says nothing about the claim.
bool tov_claim_use(const tov_claim_t &claim) {
  if (claim.number == 0) return true;
  if (claim.used[0] != '\0' && rename_to_child(claim)) return true;
  return tov_sys_unlink(claim.path) == 0 || errno != ENOENT;
}

void tov_claim_drop(const tov_pid_t &record, pid_t child) {
  if (child > 0) tov_claim_end_child(record.vsd_id, child);
  if (record.claim == 0) return;
  tov_claim_t claim;
  claim.number = record.claim;
  name_claim(record, &claim);
  (void)tov_sys_unlink(claim.path);
}

void tov_claim_end_child(int vsd_id, pid_t child) {
  char path[FILE_NAME_SIZE];
  (void)snprintf(path, sizeof path, TOV_VSD_DB_DIR_FMT "/" CHILD_PREFIX "%d", vsd_id, child);
  (void)tov_sys_unlink(path);
}

bool tov_claim_is_name(const char *name) {
  const std::string_view text(name);
  if (text.starts_with(TOV_DB_KEPT_PREFIX)) return true;
  constexpr std::string_view prefix(TOV_DB_INTERIM_PREFIX);
  return text.starts_with(prefix) && text.size() > prefix.size() &&
         isdigit(static_cast<unsigned char>(text[prefix.size()])) != 0;
}

bool tov_claim_is_used(const char *name) {
  return std::string_view(name).starts_with(CHILD_PREFIX);
}

pid_t tov_claim_child_of(const char *name) {
  return tov_claim_is_used(name) ? tov_atoi(name + strlen(CHILD_PREFIX)) : 0;
}

// Not rename(2) alone, which does nothing when both names are of one file; where no second name can
// be had there is only one.
bool tov_claim_settle(const char *path, const tov_pid_t &record) {
  char file[FILE_NAME_SIZE];
  name_file(record, file);
  const bool linked = tov_sys_link(path, file) == 0;
  if (!linked && errno != EEXIST) return tov_sys_rename(path, file) == 0 || errno != ENOENT;
  if (tov_sys_unlink(path) == 0) return true;
  if (errno != ENOENT) return true;  // it stays, and so the child has not used it
  if (linked) (void)tov_sys_unlink(file);
  return false;
}
