// What a child was heard to do during the search for it is kept with its record, and told when the
// search has ended: the process that was found may be another one.
//
// Tested by: tests/unit/core/policy/search_test.cpp, tests/unit/core/policy/revive_listed_test.cpp,
// tests/unit/core/policy/revive_blind_test.cpp, tests/unit/core/policy/succession_start_test.cpp,
// tests/unit/core/policy/succession_signs_test.cpp
#include "core/policy/search.h"

#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <vector>

#include "core/policy/inherit.h"
#include "core/policy/revive.h"
#include "core/policy/succession.h"
#include "core/registry/deadlines.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/ends.h"
#include "include/tov_registry.h"
#include "proc/claim.h"
#include "proc/find.h"
#include "proc/tov_proc.h"
#include "util/clock.h"
#include "util/identity.h"

enum {
  LOOKS_MAX = 10,            // after the end of a listed program, of which none could be finished
  BLIND_PAUSE_US = 1000000,  // before the next scan, where nothing could be read
};

// Who was executed beside the record, if he lives.
static tov_successor_t living_heir(const tov_chains_guard_t &held, const tov_pid_t &record) {
  if (!tov_inherit_heir_lives(held, record)) return {};
  return {record.heir, tov_identity_of_start(record.heir_started), TOV_SIGN_TEXT};
}

// ---- what was looked for ------------------------------------------------------------------------

// A scan that something else's end spoiled has not said that the program does not run, and a second
// copy of it would be started; but on a machine where something always ends it says no more. One
// that could not read says nothing, however often.
void tov_search_look_ended(const tov_chains_guard_t &held, tov_pid_t *record, int result,
                           const tov_successor_t &seen) {
  tov_start_t *start = tov_record_start(held, record);
  // Who was executed behind the scan, or shows another text by now, was heard.
  const tov_successor_t found = seen.pid != 0 ? seen : living_heir(held, *record);
  if (found.pid == 0 && tov_scan_is_blind(result))
    return tov_record_wait(held, record, TOV_WAIT_LOOK, tov_clock_us() + BLIND_PAUSE_US);
  start->scans++;
  if (found.pid > 0 || result >= 0 || start->scans >= LOOKS_MAX) {
    start->looked = found.pid > 0 ? TOV_LOOKED_RUNS : TOV_LOOKED_RUNS_NOT;
    start->runs_as = found.pid;
    start->runs = found.identity;
    const bool is_own_heir = found.pid == record->heir && record->heir_forked != 0;
    start->runs_on = found.sign == TOV_SIGN_KIN || is_own_heir ? 1 : 0;
    start->scans = 0;
  }
  tov_record_wait(held, record, TOV_WAIT_LOOK, tov_clock_us());
}

// ---- what was searched for ----------------------------------------------------------------------

static bool has_ended(pid_t pid, uint64_t started) {
  return tov_life_is_over(tov_identity_life(pid, tov_identity_of_start(started)));
}

// What was heard of the child before its record had its id.
static void tell_heard(const tov_start_t &start, pid_t pid, std::vector<tov_cnmsg_data_t> *heard) {
  if (pid != start.forked) return;
  if (start.child_executed != 0) heard->push_back({TOV_EVENT_EXEC, pid, 0});
  if (start.child_ended != 0)
    heard->push_back({TOV_EVENT_EXIT, pid, static_cast<uint32_t>(start.child_code)});
}

// The child failed, and nothing runs in its place: that is the exit of what was started. One that
// ended with 0 has done its part of the start.
static bool has_failed(const tov_start_t &start, pid_t found) {
  return found == 0 && start.child_ended != 0 && start.child_code != 0;
}

// The last daemon's child may have ended before this one listened.
static bool came_to_nothing(const tov_start_t &start, pid_t found) {
  return found == 0 && start.followed != 0 &&
         (start.child_ended != 0 || has_ended(start.forked, start.forked_started));
}

// What has become of what the child has executed.
static tov_life_e life_of_child(const tov_start_t &start) {
  const bool has_executed = start.executed.exe_ino != 0;
  return has_executed ? tov_identity_life(start.forked, start.executed) : TOV_LIFE_ENDED;
}

// The search has ended. What the child used stays until the record has its process.
static void conclude(const tov_chains_guard_t &held, tov_pid_t *record,
                     const tov_successor_t &successor, std::vector<tov_cnmsg_data_t> *heard) {
  const tov_start_t start = record->start;
  const pid_t found = successor.pid;
  const bool failed = has_failed(start, found);
  const bool lives_as_other = found == 0 && life_of_child(start) == TOV_LIFE_LIVES;
  tov_proc_tell_found(*record, start.forked, found);
  tell_heard(start, failed ? start.forked : found, heard);
  if (failed) {
    tov_record_end_wait(held, record);
    tov_record_pass_on(held, record, start.forked);
    // Its id may be another process's by now. By what it executed its workers are known.
    const bool is_known = start.executed.exe_ino != 0;
    tov_record_identify(held, record,
                        is_known ? start.executed : tov_identity_of_start(start.forked_started),
                        false);
  } else {
    tov_revive_finish(held, record, found, successor.identity);
    // It is no process of the program. But when that is missed, it is not started beside it.
    if (lives_as_other) tov_record_inherit(held, record, start.forked, start.forked_started, false);
  }
  tov_claim_drop(*record, start.forked);
  if (record->pid != start.forked)
    tov_inherit_drop_member(record->vsd_id, start.forked,
                            tov_identity_of_start(start.forked_started));
  if (!failed && came_to_nothing(start, found)) tov_revive(held, record, TOV_REVIVE_AT_REBUILD);
}

// Of a child that has failed it is known after one more scan whether it has left something behind.
static int64_t search_pause_us(const tov_start_t &start, int result) {
  const bool is_last = result >= 0 && has_failed(start, 0);
  return is_last ? 0 : start.scans * int64_t{TOV_SEARCH_PAUSE_US};
}

// Who shows nothing: one that was executed beside the record, or the child, if it lives in its
// threads alone. Started once more it would run twice.
static tov_successor_t last_resort(const tov_chains_guard_t &held, const tov_pid_t &record) {
  const tov_successor_t heir = living_heir(held, record);
  if (heir.pid != 0 || life_of_child(record.start) != TOV_LIFE_THREADS) return heir;
  return {record.start.forked, record.start.executed, TOV_SIGN_CHILD};
}

// What was found, if nobody has taken it and it has not ended while the rest was looked at: then it
// may have gone to the background.
static tov_successor_t still_running(const tov_chains_guard_t &held, const tov_successor_t &found) {
  const bool counts = found.pid > 0 && tov_inherit_is_free(held, found.pid) &&
                      !tov_life_is_over(tov_identity_life(found.pid, found.identity));
  return counts ? found : tov_successor_t{};
}

void tov_search_ended(const tov_chains_guard_t &held, tov_pid_t *record, int result,
                      const tov_succession_t &succession, std::vector<tov_cnmsg_data_t> *heard) {
  const tov_successor_t found = still_running(held, succession.found());
  if (found.pid == 0 && tov_revive_is_in_vain(*record)) return tov_revive_give_up(held, record);
  if (found.pid == 0 && tov_scan_is_blind(result))
    return tov_record_wait(held, record, TOV_WAIT_SEARCH, tov_clock_us() + BLIND_PAUSE_US);
  tov_start_t *start = tov_record_start(held, record);
  const bool is_last =
      start->scans >= TOV_SEARCH_RETRIES || (result >= 0 && succession.child_had_failed());
  if (found.pid > 0) return conclude(held, record, found, heard);
  if (is_last) return conclude(held, record, last_resort(held, *record), heard);
  start->scans++;
  tov_record_wait(held, record, TOV_WAIT_SEARCH, tov_clock_us() + search_pause_us(*start, result));
}

// ---- who speaks up during a search --------------------------------------------------------------

bool tov_search_keeps(const tov_cnmsg_data_t &event) {
  if (event.what != TOV_EVENT_EXEC && event.what != TOV_EVENT_EXIT) return false;
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_child(held, event.process_pid);
  if (record == nullptr) return false;
  tov_start_t *start = tov_record_start(held, record);
  if (start->child_ended != 0) return false;  // a stranger that was given the child's id
  // The end of its first thread may not be its own: then the others' are to be heard.
  if (event.what == TOV_EVENT_EXIT) tov_ends_await(start->forked);
  const tov_life_e life =
      tov_identity_life(start->forked, tov_identity_of_start(start->forked_started));
  if (event.what == TOV_EVENT_EXEC && life == TOV_LIFE_REUSED) return false;  // its end was lost
  if (event.what == TOV_EVENT_EXIT && life == TOV_LIFE_THREADS) return true;
  if (event.what == TOV_EVENT_EXEC) {
    start->child_executed = 1;
    tov_revive_note_executed(held, record);
  } else {
    start->child_ended = 1;
    start->child_code = static_cast<int>(event.exit_code);
    // Not in the first pause, which lets the child become what it is to be, nor during a scan.
    const bool pauses = start->scans > 1 && start->due_us != INT64_MAX;
    if (pauses && has_failed(*start, 0))
      tov_record_wait(held, record, TOV_WAIT_SEARCH, tov_clock_us());
  }
  return true;
}

static bool searches_for(const tov_pid_t &record, int vsd_id, const char *process) {
  if (record.start.wait != TOV_WAIT_SEARCH || record.vsd_id != vsd_id) return false;
  char command[TOV_PROCESS_SIZE];
  tov_proc_search_key(record, command);
  return strcmp(command, process) == 0 || strcmp(record.process, process) == 0;
}

// The child itself is asked for first: its command line may not be what is searched for, yet.
static tov_pid_t *searching_for(const tov_chains_guard_t &held, pid_t pid, int vsd_id,
                                const char *process) {
  held.shows(tov_chains);
  if (tov_pid_t *record = tov_record_of_child(held, pid))
    return record->start.child_ended == 0 ? record : nullptr;
  for (tov_pid_t &record : tov_chain_records(&tov_chains)) {
    if (searches_for(record, vsd_id, process)) return &record;
  }
  return nullptr;
}

tov_pid_t *tov_search_registers(const tov_chains_guard_t &held, pid_t pid, int vsd_id,
                                const char *process) {
  tov_pid_t *record = searching_for(held, pid, vsd_id, process);
  if (record == nullptr) return nullptr;
  const pid_t forked = record->start.forked;
  tov_proc_tell_found(*record, forked, pid);
  tov_identity_t identity{};
  (void)tov_identity_take(pid, &identity);
  const tov_identity_t childs = tov_identity_of_start(record->start.forked_started);
  tov_revive_finish(held, record, pid, identity);
  tov_claim_drop(*record, forked);
  if (pid != forked) tov_inherit_drop_member(record->vsd_id, forked, childs);
  return record;
}
