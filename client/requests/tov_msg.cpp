// The daemon's request handlers.
//
// The command line in a record is read by the daemon itself; the client's own reading is only
// quoted in the event log.
//
// Threads: the server's. Locks: one registry at a time. Event lines are written after the lock is
// released, but for removals, whose record is gone afterwards; the log writer takes no registry
// lock and does not wait.
#include "client/requests/tov_msg.h"

#include <errno.h>
#include <linux/stat.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#include <string>
#include <utility>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/tov_pidfile.h"
#include "core/policy/exit.h"
#include "core/policy/inherit.h"
#include "core/policy/late.h"
#include "core/policy/revive.h"
#include "core/policy/search.h"
#include "core/policy/waits.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/registry/watched.h"
#include "core/run/ends.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

enum { FILE_NAME_SIZE = 256 };

static constexpr int64_t LONGEST_REQUEST_US = 360'000'000;  // of a client that keeps on asking
static constexpr int64_t US_PER_S = 1'000'000;

// Copies a text field that may lack its terminator; `to` is zeroed and as long as the field.
template <size_t SIZE>
static void copy_field(char (&to)[SIZE], const char *from) {
  memcpy(to, from, strnlen(from, SIZE - 1));
}

// Reads the command line of the process or thread that a request is about into a new record's
// `process`, and whose it is. Returns false when it has none, or has gone.
static bool reads_process(const tov_msg_xtach_t *payload, char (&process)[TOV_PROCESS_SIZE],
                          tov_identity_t *identity) {
  (void)tov_identity_take(payload->pid, identity);
  const tov_identity_t before = *identity;
  process[0] = '\0';
  const int error = -tov_read_cmdline(payload->pid, process, sizeof process);
  // Again, for it may have executed another program in between.
  (void)tov_identity_take(payload->pid, identity);
  const bool is_other = tov_identity_differs(payload->pid, before, payload->pid, *identity);
  // What could not be read for another reason is missing, which is better than no registration.
  const bool has_gone = error == ENOENT || error == ESRCH;
  if (process[0] == '\0' || has_gone || is_other) return false;
  rtrim(process);
  return true;
}

// Tells under the handler's name that the process of a request has gone. Returns its result.
static int tell_gone(const char *handler, const tov_msg_xtach_t *payload) {
  TOV_DBG("%s: fail to get pid %d's cmdline, ppid = %d\n", handler, payload->pid, payload->ppid);
  tov_log_with_type(TOV_LOG_ERROR, "%s: fail to get pid %d's cmdline, ppid = %d\n", handler,
                    payload->pid, payload->ppid);
  return -1;
}

// The same as reads_process(), and told. Returns 0 or -1.
static int read_process(const char *handler, const tov_msg_xtach_t *payload,
                        char (&process)[TOV_PROCESS_SIZE], tov_identity_t *identity) {
  return reads_process(payload, process, identity) ? 0 : tell_gone(handler, payload);
}

// ---- exit actions -----------------------------------------------------------------------------

static void fill(tov_pid_t *record, const tov_msg_xtach_t *payload, int action, const char *script,
                 const char *process) {
  record->pid = payload->pid;
  record->vsd_id = payload->vsd_id;
  record->restart_time = payload->restart_time;
  record->action = action;
  copy_field(record->process, process);
  if (script != nullptr) copy_field(record->pathname, script);
}

// A record of the registry stands for the process from now on.
//   process  its command line
static void stand_for(const tov_chains_guard_t &held, tov_pid_t *record, const char *process,
                      const tov_identity_t &identity) {
  tov_record_identify(held, record, tov_inherit_more_of(held, record->pid, identity),
                      strcmp(record->process, process) == 0);
  tov_exit_ask_entered(held, record);
}

// The record of a process, or null. One of a process that had the id before is another's.
static tov_pid_t *record_of(const tov_chains_guard_t &held, pid_t pid,
                            const tov_identity_t &identity) {
  tov_pid_t *record = tov_record_newest_of(held, pid);
  const bool is_its_own =
      record != nullptr && !tov_identity_differs(record->pid, record->identity, pid, identity);
  return is_its_own ? record : nullptr;
}

// What the daemon has started registers when it has become what it is to be: that is known from now
// on, without waiting for a sweep.
static void see(const tov_chains_guard_t &held, tov_pid_t *record, const char *process,
                const tov_identity_t &identity) {
  if (record->seen == 0 && strcmp(record->process, process) == 0)
    tov_record_identify(held, record, identity, true);
}

// Returns false when the process is registered already.
static bool insert_process(const tov_msg_xtach_t *payload, int action, const char *script,
                           const char *process, const tov_identity_t &identity) {
  const tov_chains_guard_t hold(tov_chains);
  if (tov_pid_t *found = tov_search_registers(hold, payload->pid, payload->vsd_id, process)) {
    stand_for(hold, found, process, identity);
    return false;
  }
  if (tov_pid_t *known = record_of(hold, payload->pid, identity)) {
    see(hold, known, process, identity);
    return false;
  }
  tov_pid_t *record = tov_chain_new_record();
  fill(record, payload, action, script, process);
  tov_chain_insert(&tov_chains, record);
  stand_for(hold, record, process, identity);
  return true;
}

// Whether a record is registered under the file name of `wanted`.
static bool has_record_of_file(const tov_pid_t &wanted) TOV_REQUIRES(tov_chains) {
  char name[FILE_NAME_SIZE];
  tov_get_db_file_name(wanted.vsd_id, wanted.pid, wanted.process, name, sizeof name);
  for (const tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(wanted.pid))) {
    char other[FILE_NAME_SIZE];
    tov_get_db_file_name(record.vsd_id, record.pid, record.process, other, sizeof other);
    if (strcmp(name, other) == 0) return true;
  }
  return false;
}

// Removes the registration file of a request that the daemon itself made for a third-part program,
// if no record came of it: the program was gone, or is registered under another name. No later
// step would remove that file or close it. A client's own file is the client's.
static void drop_vain_file(const tov_msg_xtach_t *payload) {
  tov_pid_t wanted{};
  wanted.pid = payload->pid;
  wanted.vsd_id = payload->vsd_id;
  memcpy(wanted.process, payload->pathname, strnlen(payload->pathname, TOV_PATHNAME_SIZE));
  if (!tov_db_is_own(wanted.vsd_id, wanted.pid, wanted.process)) return;
  const tov_chains_guard_t hold(tov_chains);
  if (!has_record_of_file(wanted)) (void)tov_db_destroy(&wanted);
}

// ---- processes that have gone -----------------------------------------------------------------

// What a request was to register says its file, which the process wrote first.
struct left_s {
  tov_pid_t record;    // as far as the file tells
  int64_t written_us;  // CLOCK_MONOTONIC
};

// Reads the file of a request whose process has gone. Returns false when there is none, or one that
// says something else.
static bool read_left(const tov_msg_xtach_t *payload, int action, left_s *left) {
  static constexpr left_s nothing{};
  *left = nothing;
  tov_pid_t *record = &left->record;
  record->pid = payload->pid;
  record->vsd_id = payload->vsd_id;
  memcpy(record->process, payload->pathname, strnlen(payload->pathname, TOV_PATHNAME_SIZE));
  char path[FILE_NAME_SIZE];
  tov_get_db_file_name(record->vsd_id, record->pid, record->process, path, sizeof path);
  const int64_t written_us = tov_file_time_us(path, STATX_MTIME);
  if (written_us == INT64_MAX) return false;
  // A time before the boot or after the present is no time, since the clock on the wall was set
  // meanwhile: then the request is taken to be nearly as old as one can be.
  const int64_t now_us = tov_kernel_clock_us(CLOCK_BOOTTIME);
  const bool is_plausible = written_us > 0 && written_us <= now_us;
  left->written_us = (is_plausible ? written_us : now_us - LONGEST_REQUEST_US + US_PER_S) +
                     tov_kernel_to_monotonic_us(CLOCK_BOOTTIME);
  // Not opened where it is the daemon's own, which would unlock it.
  if (tov_db_is_own(record->vsd_id, record->pid, record->process)) return true;
  tov_pid_t told{};
  if (tov_read_pidfile(path, &told) < 0 || told.pid != payload->pid || told.action != action)
    return false;
  (void)snprintf(record->process, sizeof record->process, "%s", told.pathname);
  rtrim(record->process);
  return true;
}

// Whether the process may have ended just now: its end was heard, or the file is no older than the
// longest time for which a client waits with its request.
static bool ended_just_now(const left_s &left) {
  if (tov_ends_code(left.record.pid, left.written_us)) return true;
  return tov_kernel_clock_us(CLOCK_MONOTONIC) - left.written_us <= LONGEST_REQUEST_US;
}

enum left_e { LEFT_ENTERED, LEFT_KNOWN, LEFT_REFUSED };

// A process that has ended before its request was carried out, or that is about to end and shows
// nothing any more, is entered from its file, and what follows its end is done. A file that is
// older is of another time: nobody would ever remove it, and the next daemon would start what it
// names.
//   identity  of one that is about to end: its end will be heard; else TOV_NEVER_STARTED
static left_e enter_left(const tov_msg_xtach_t *payload, int action, const char *script,
                         const tov_identity_t &identity) {
  left_s left;
  if (!read_left(payload, action, &left)) return LEFT_REFUSED;
  const tov_chains_guard_t hold(tov_chains);
  if (has_record_of_file(left.record)) return LEFT_KNOWN;
  if (!ended_just_now(left)) {
    (void)tov_db_destroy(&left.record);
    return LEFT_REFUSED;
  }
  tov_pid_t *record = tov_chain_new_record();
  fill(record, payload, action, script, left.record.process);
  tov_chain_insert(&tov_chains, record);
  tov_record_identify(hold, record, tov_inherit_more_of(hold, record->pid, identity), true);
  if (tov_identity_is_start(identity.started)) {
    tov_exit_ask_entered(hold, record);
  } else {
    tov_late_add(hold, *record, TOV_LATE_ENTERED, left.written_us);
  }
  return LEFT_ENTERED;
}

// ---- registrations ------------------------------------------------------------------------------

// A listed program stands under the command line with which it was executed, whatever title it has
// given itself since: by that it is started again.
static void take_noted_command(pid_t pid, const tov_identity_t &identity,
                               char (&process)[TOV_PROCESS_SIZE]) {
  const tov_chains_guard_t held(tov_chains);
  const std::string noted = tov_inherit_command_of(held, pid, identity);
  if (!noted.empty()) (void)snprintf(process, sizeof process, "%s", noted.c_str());
}

// Returns whether a record was made; `result` gets the request's result.
static bool makes_record(const char *handler, const tov_msg_xtach_t *payload, int action,
                         const char *script, int *result) {
  char process[TOV_PROCESS_SIZE];
  tov_identity_t identity{};
  *result = 0;
  if (reads_process(payload, process, &identity)) {
    take_noted_command(payload->pid, identity, process);
    return insert_process(payload, action, script, process, identity);
  }
  if (tov_life_is_over(tov_identity_life(payload->pid, identity)))
    identity = tov_identity_of_start(TOV_NEVER_STARTED);
  const bool is_left = identity.started != 0 && identity.exe_ino == 0;
  const left_e left = is_left ? enter_left(payload, action, script, identity) : LEFT_REFUSED;
  if (left == LEFT_REFUSED) *result = tell_gone(handler, payload);
  return left == LEFT_ENTERED;
}

// Registers a process with an exit action; `script` is null where there is none.
static int register_process(const char *handler, const tov_msg_xtach_t *payload, int action,
                            const char *script) {
  int result = 0;
  const bool inserted = makes_record(handler, payload, action, script, &result);
  drop_vain_file(payload);
  tov_waits_finish();
  if (!inserted) return result;
  tov_log_with_type(TOV_LOG_REG_RESTART, "register - process:%.*s pid:%d, vsd_id:%d, action:%d\r\n",
                    TOV_PATHNAME_SIZE - 1, payload->pathname, payload->pid, payload->vsd_id,
                    action);
  return 0;
}

int tov_process_restart(tov_msg_xtach_t *payload) {
  return register_process(__func__, payload, RESPAWN, nullptr);
}

int tov_process_shell_restart(tov_msg_xtach_t *payload, char *pathname) {
  return register_process(__func__, payload, SHELL_RESTART, pathname);
}

// Whether a withdrawal of `pid` means the record: that of the process, or of the child for which
// its restart still searches. A task whose process has ended is meant by the dead one's id, as long
// as that has not been given out again.
//   newest  record of a process with that id, or null
static bool is_meant(const tov_pid_t &record, pid_t pid, const tov_pid_t *newest) {
  const bool has_child = pid > 0 && record.start.forked == pid && record.start.child_ended == 0;
  if (has_child && tov_record_is_starting(record)) return true;
  if (record.pid != pid) return false;
  if (tov_record_has_process(record)) return tov_record_shares_process(record, *newest);
  return newest == nullptr && tov_record_life(record) != TOV_LIFE_REUSED;
}

static std::vector<tov_pid_t *> meant_by(const tov_chains_guard_t &held, pid_t pid) {
  held.shows(tov_chains);
  std::vector<tov_pid_t *> meant;
  const tov_pid_t *newest = tov_record_newest_of(held, pid);
  for (tov_pid_t &record : tov_chain_records(&tov_chains)) {
    if (is_meant(record, pid, newest)) meant.push_back(&record);
  }
  return meant;
}

void tov_process_dump_all_msg(pid_t pid) {
  const tov_chains_guard_t held(tov_chains);
  for (tov_pid_t *record : meant_by(held, pid)) {
    tov_log_with_type(TOV_LOG_REG_RESTART,
                      "unregister - process:%s pid:%d, vsd_id:%d, action:%d\r\n", record->process,
                      record->pid, record->vsd_id, record->action);
    tov_revive_give_up(held, record);  // the client has usually removed the file already
  }
}

// ---- watched threads ----------------------------------------------------------------------------

static void fill_periods(tov_pid_t *record, const tov_msg_xtach_t *payload) {
  record->m_n_counter = payload->m_n_counter;
  record->m_n_cur_counter = payload->m_n_cur_counter;
  record->m_n_notify_time = payload->m_n_notify_time;
  record->m_n_cur_notify_time = payload->m_n_cur_notify_time;
}

// Whether a request gives a known thread other terms. A thread without a slot sends its own with
// each sign of life.
static bool are_terms_new(const tov_pid_t &record, const tov_msg_xtach_t *payload) {
  return record.m_n_counter != payload->m_n_counter ||
         record.m_n_notify_time != payload->m_n_notify_time;
}

// Makes the record of a thread, and tells the next daemon.
static tov_pid_t *insert_thread(const tov_chains_guard_t &hold, const tov_msg_xtach_t *payload,
                                const char *process, const tov_identity_t &identity,
                                uint64_t owner_started) TOV_REQUIRES(tov_alive_chains) {
  tov_pid_t *record = tov_chain_new_record();
  record->pid = payload->pid;
  record->ppid = payload->ppid;
  record->owner_started = owner_started;
  tov_record_identify(hold, record, identity, true);
  copy_field(record->process, process);
  fill_periods(record, payload);
  tov_chain_insert(&tov_alive_chains, record);
  tov_watched_write(record);
  return record;
}

// Removes a record for good: its row first, so that dying here never leaves a watch that nobody
// wants.
static void forget_thread(tov_pid_t *record) TOV_REQUIRES(tov_alive_chains) {
  tov_watched_free(record);
  if (tov_alive_has_slot(record->pid)) (void)tov_sys_unreg_alive_info(record->pid);
  tov_chain_remove(&tov_alive_chains, record);
}

// Whether a known record is not of the thread that registers: it is of another one that had the id,
// or it was taken over from the last daemon, and the thread registers as with any new one.
static bool is_obsolete(const tov_pid_t &record, const tov_identity_t &identity) {
  return record.inherited != 0 ||
         tov_identity_differs(record.pid, record.identity, record.pid, identity);
}

// When a process started; 0: not known.
static uint64_t start_of(pid_t pid) {
  tov_stat_t stat;
  return pid > 0 && tov_read_stat(pid, &stat) == 0 ? stat.started : 0;
}

// Finds or makes the record of a thread and begins its slot of the shared area anew. The next
// daemon is told before the thread is.
//   refresh   give a known thread the payload's periods
//   identity  of the thread
//   process   in: the thread's command line; out: that of its record
//   ppid      out: the owner in its record
static void watch_thread(const tov_msg_xtach_t *payload, bool refresh,
                         const tov_identity_t &identity, char (&process)[TOV_PROCESS_SIZE],
                         pid_t *ppid) {
  const uint64_t owner_started = start_of(payload->ppid);
  const tov_chains_guard_t hold(tov_alive_chains);
  tov_pid_t *record = __tov_find_pid(&tov_alive_chains, payload->pid);
  if (record != nullptr && is_obsolete(*record, identity))
    forget_thread(std::exchange(record, nullptr));
  if (record == nullptr) {
    record = insert_thread(hold, payload, process, identity, owner_started);
  } else if (refresh) {
    const bool changed = are_terms_new(*record, payload);
    fill_periods(record, payload);
    if (changed) tov_watched_write(record);
  }
  if (tov_alive_has_slot(payload->pid)) {
    (void)tov_sys_reg_alive_info(payload->pid);  // fails for ids without a slot only
    record->m_n_laster_alive_seq = static_cast<unsigned int>(tov_sys_get_alive_seq(payload->pid));
  }
  memcpy(process, record->process, sizeof process);
  *ppid = record->ppid;
}

int tov_notifier_start(tov_msg_xtach_t *payload) {
  char process[TOV_PROCESS_SIZE];
  tov_identity_t identity{};
  if (read_process(__func__, payload, process, &identity) != 0) return -1;
  pid_t ppid = 0;
  watch_thread(payload, false, identity, process, &ppid);
  tov_log_with_type(TOV_LOG_REG_ALIVE, "Thread %s/%d (pid %d) reg TOV thread-alive service.\n",
                    process, payload->pid, ppid);
  return 0;
}

int tov_notifier_reset(tov_msg_xtach_t *payload) {
  char process[TOV_PROCESS_SIZE];
  tov_identity_t identity{};
  if (read_process(__func__, payload, process, &identity) != 0) return -1;
  pid_t ppid = 0;
  watch_thread(payload, true, identity, process, &ppid);
  return 0;
}

void tov_notifier_stop(pid_t pid) {
  const tov_chains_guard_t hold(tov_alive_chains);
  for (tov_pid_t &record : tov_chain_records(&tov_alive_chains)) {
    if (record.pid != pid) continue;
    if (tov_alive_has_slot(pid)) {
      tov_log_with_type(TOV_LOG_REG_ALIVE,
                        "Thread %s/%d (pid %d) unreg TOV thread-alive service.\n", record.process,
                        record.pid, record.ppid);
    }
    forget_thread(&record);
  }
}

// ---- control events -----------------------------------------------------------------------------

int tov_process_cons_msg(tov_msg_cons_t *payload) {
  switch (payload->event) {
    case TOV_CONS_DUMP_ALL:
      tov_process_dump_all_msg(payload->pid);
      break;
    case TOV_UNREG_THREAD_NOTIFY:
      tov_notifier_stop(payload->pid);
      break;
    default:
      break;
  }
  return 0;
}
