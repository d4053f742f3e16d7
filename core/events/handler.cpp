// Which executed programs are registered, which exits go on to the decision, and the thread's
// pace. While any virtual device is being deleted an exit only drops its record.
#include "core/events/handler.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>

#include "client/tov_xtach.h"
#include "core/events/listed.h"
#include "core/events/tov_fifo.h"
#include "core/policy/exit.h"
#include "core/policy/inherit.h"
#include "core/policy/late.h"
#include "core/policy/look.h"
#include "core/policy/mass.h"
#include "core/policy/search.h"
#include "core/policy/waits.h"
#include "core/registry/deadlines.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "core/run/flags.h"
#include "core/run/loss.h"
#include "core/run/thread.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "proc/tov_proc.h"
#include "util/clock.h"
#include "util/identity.h"
#include "util/kernel_time.h"
#include "util/list_file.h"
#include "util/priority.h"
#include "util/procfs.h"
#include "util/tov_sys.h"
#include "util/tov_utils.h"
#include "vsd/entry.h"
#include "vsd/member.h"

static constexpr char thread_name[] = "tov_cnmsg_handle";

enum {
  EXE_PATH_SIZE = 1024,
  TYPE_SIZE = 128,
  IDLE_WAIT_MS = 2000,
};

namespace {

enum result_e {
  RESULT_NAME = -1,
  RESULT_PRIORITY = -2,
};

}  // namespace

// ---- executions -----------------------------------------------------------------------------

// Returns whether the process is registered. If it is a listed one, what it has executed is noted:
// what it forks is known by that from now on. Its command line stays as it is listed, whatever it
// shows by now: by that it is started again.
static bool note_if_registered(pid_t pid) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_newest_of(held, pid);
  tov_identity_t now{};
  if (record == nullptr || tov_identity_take(pid, &now) < 0 ||
      tov_identity_differs(pid, record->identity, pid, now))
    return false;
  const bool has_ended = now.exe_ino == 0;  // shows nothing any more, and what was noted stands
  if (!has_ended && tov_proc_is_listed(*record))
    tov_record_identify(held, record, now, record->seen != 0);
  return true;
}

// Whether a record stands for the program, under this process or under another one.
static bool is_running(tov_pid_t *program) {
  const tov_chains_guard_t held(tov_chains);
  held.shows(tov_chains);
  if (tov_inherit_is_worker(held, *program)) return true;
  if (tov_proc_is_running(program) == nullptr) return false;
  TOV_DBG("%s--> %s is running\n", "tov_cn_msg_exec", program->process);
  tov_inherit_heard(held, tov_twin_of(*program), program->pid);
  return true;
}

static void note_execution(const tov_pid_t &program) {
  const tov_chains_guard_t held(tov_chains);
  tov_inherit_note_execution(held, program);
}

void tov_cn_msg_exec(int pid, int) {
  if (note_if_registered(pid)) return;
  char type[TYPE_SIZE];
  if (!tov_pid_in_tovdb(pid, TOV_THIRD_PART_LIST, type, sizeof type)) return;

  tov_pid_t program{};
  program.pid = pid;
  if (tov_read_cmdline(pid, program.process, sizeof program.process) < 0) {
    TOV_DBG("%s--> pid_to_proc error!\n", __func__);
    (void)tov_log_with_type(TOV_LOG_ERROR, "TOV fail to get cmdline,pid:%d\n", pid);
    return;
  }
  rtrim(program.process);  // as every record's: it is compared with theirs
  // Asked again with the arguments: a listed "/opt/x" does not speak for "/opt/x -d".
  if (!tov_proc_in_tovdb(TOV_THIRD_PART_LIST, program.process, type, sizeof type)) {
    TOV_DBG("%s is not in tovdb!\n", program.process);
    return;
  }
  program.vsd_id = tov_vsd_or_base(pid);
  (void)tov_identity_take(pid, &program.identity);
  // It has gone since: nothing would tell what it has made of itself. That is looked for.
  const bool has_gone = program.identity.started != 0 && program.identity.exe_ino == 0;
  if (has_gone || is_running(&program)) return;
  note_execution(program);
  if (tov_register_third_part(pid, type, program.process) != 0) {
    TOV_DBG_AND_LOG(TOV_LOG_ERROR, "%s--> reg_third_part_process_exit_action error!\n", __func__);
  }
}

// ---- exits ----------------------------------------------------------------------------------

// Returns false for a process without a record; else `exit_code` becomes that of the whole process.
static bool know_exit(int pid, int *exit_code) {
  const tov_chains_guard_t held(tov_chains);
  if (tov_record_newest_of(held, pid) == nullptr) return false;
  if (const tov_pid_t *record = tov_record_of_exit(held, pid))
    *exit_code = tov_late_code_of_all(*record, *exit_code);
  return true;
}

// While a device goes down its exits are wanted; so nothing is started or said.
static void drop_registration(int pid) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_newest_of(held, pid);
  // That may be of a process which has the id by now.
  if (record != nullptr && tov_record_life(*record) == TOV_LIFE_LIVES)
    record = tov_record_of_exit(held, pid);
  if (record != nullptr && tov_record_life(*record) != TOV_LIFE_LIVES)
    tov_record_forget(held, record);
}

void tov_cn_msg_exit(int pid, int exit_code) {
  // The end of every process of the machine comes here; one without a record costs one look-up.
  if (!know_exit(pid, &exit_code)) return;
  if (tov_vsd_any_is_being_deleted()) {
    drop_registration(pid);
    return;
  }
  tov_check_continuous_multiple_process_exit(pid, exit_code, &tov_chains);
  tov_handle_netlink_exit(pid, exit_code, 0);
}

void tov_cnmsg_dispatch(const tov_cnmsg_data_t *event) {
  if (tov_search_keeps(*event)) return;
  switch (event->what) {
    case TOV_EVENT_EXEC:
      tov_cn_msg_exec(event->process_pid, 0);
      break;
    case TOV_EVENT_EXIT:
      tov_cn_msg_exit(event->process_pid, static_cast<int>(event->exit_code));
      break;
    default:
      break;
  }
}

// ---- looks and walks ------------------------------------------------------------------------

namespace {

// The look, how far the ring has to be read before it begins, and the walk: behind each look, and
// soon after somebody was gone before it could be asked what he had executed, since he may have
// gone to the background.
class looking_s {
 public:
  int64_t go_on() {
    if (const tov_loss_t loss = tov_loss_take(); loss.reasons != 0) {
      look_.ask(loss);
      mark_ = __atomic_load_n(&tov_cnmsg_fifo.in, __ATOMIC_ACQUIRE);
    }
    const uint32_t read = __atomic_load_n(&tov_cnmsg_fifo.out, __ATOMIC_RELAXED);
    const int64_t look_us = look_.go_on(static_cast<int32_t>(read - mark_) >= 0);
    if (look_.has_ended()) begin_walk(0);
    if (!walks_ && walk_due_us_ <= tov_clock_us()) {
      walk_due_us_ = INT64_MAX;
      begin_walk(std::max<int64_t>(missed_at_us_ - SLACK_US, 0));
    }
    const tov_listed_walk_t::step_s step = walk_.go_on();
    if (step.found > 0) handle_found(step.found);
    if (walks_ && !step.goes_on) note_walk(walk_.is_blind());
    walks_ = step.goes_on;
    return walks_ ? 0 : std::min(look_us, walk_due_us_);
  }

  // Somebody who has just been executed is gone: what he has made of himself is to be found.
  void miss_execution() {
    if (walk_due_us_ != INT64_MAX) return;
    missed_at_us_ = tov_kernel_clock_us(CLOCK_BOOTTIME);
    walk_due_us_ = std::max(tov_clock_us() + SETTLES_US, walked_us_ + PAUSE_US);
  }

  // An execution was handled. Who shows none any more may have been gone before he was asked.
  void note_handled(pid_t pid) {
    char command[TOV_PROCESS_SIZE];
    const int error = -tov_read_cmdline(pid, command, sizeof command);
    if (error == ENOENT || error == ESRCH) miss_execution();
    if (tov_is_ignorance(error)) miss_anybody();
  }

  // Somebody could not be asked what he has executed, however old he is.
  void miss_anybody() {
    if (walk_due_us_ == INT64_MAX) walk_due_us_ = tov_clock_us() + blind_pause_us_;
    missed_at_us_ = 0;
  }

 private:
  enum {
    SETTLES_US = 100'000,  // who goes to the background forks more than once
    PAUSE_US = 1'000'000,  // between two walks: on some machines somebody is always gone
    BLIND_PAUSE_MAX_US = 60'000'000,
    SLACK_US = 3'000'000,  // of the times of processes, and of when an event is handled
  };

  // A walk has ended. What keeps it blind may last.
  void note_walk(bool is_blind) {
    if (is_blind) miss_anybody();
    const int64_t longer_us = std::min<int64_t>(blind_pause_us_ * 2, BLIND_PAUSE_MAX_US);
    blind_pause_us_ = is_blind ? longer_us : int64_t{PAUSE_US};
  }
  void begin_walk(int64_t born_us) {
    walks_ = true;
    walked_us_ = tov_clock_us();
    walk_.begin(born_us);
  }
  // Who has gone to the background meanwhile runs as another process.
  void handle_found(pid_t pid) {
    tov_cn_msg_exec(pid, 0);
    note_handled(pid);
  }

  tov_look_t look_;
  tov_listed_walk_t walk_;
  bool walks_ = false;
  int64_t walked_us_ = -PAUSE_US;  // when the last one began
  int64_t missed_at_us_ = 0;       // the kernel's time since boot
  int64_t walk_due_us_ = INT64_MAX;
  int64_t blind_pause_us_ = PAUSE_US;  // before the walk behind one that could not read everything
  uint32_t mark_ = 0;
};

}  // namespace

// ---- strangers ------------------------------------------------------------------------------

static bool is_known(pid_t pid) {
  const tov_chains_guard_t held(tov_chains);
  return tov_record_newest_of(held, pid) != nullptr || tov_record_of_child(held, pid) != nullptr;
}

namespace {

enum listed_e { LISTED, NOT_LISTED, UNKNOWN, GONE };

}  // namespace

static listed_e ask_list(pid_t pid) {
  char exe[EXE_PATH_SIZE], type[TYPE_SIZE];
  if (pid_to_proc(pid, exe, sizeof exe) == 0) return GONE;
  errno = 0;
  if (tov_proc_in_tovdb(TOV_THIRD_PART_LIST, exe, type, sizeof type) != 0) return LISTED;
  return tov_is_ignorance(errno) ? UNKNOWN : NOT_LISTED;
}

// The end of a thread that is not the last one of its process, whose first one has ended: only its
// code is kept.
static bool is_of_one_thread(const tov_cnmsg_data_t &event) {
  if (event.what != TOV_EVENT_EXIT) return false;
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_exit(held, event.process_pid);
  if (record == nullptr || !tov_record_is_ending(*record)) return false;
  if (tov_life_is_over(tov_record_life(*record))) return false;
  tov_record_wait_end(held, record, static_cast<int>(event.exit_code), record->start.end_force);
  return true;
}

// Whether there is something to do for an event. Most are of processes that nobody has registered.
static bool concerns_us(const tov_cnmsg_data_t &event, looking_s *looking) {
  if (is_of_one_thread(event)) return false;
  if (is_known(event.process_pid)) return true;
  if (event.what != TOV_EVENT_EXEC) return false;
  const listed_e listed = ask_list(event.process_pid);
  if (listed == GONE) looking->miss_execution();
  if (listed == UNKNOWN) looking->miss_anybody();
  return listed == LISTED;
}

// ---- the thread -----------------------------------------------------------------------------

namespace {

// Slots one millisecond apart; each takes one event that concerns us. A slot that was missed,
// because handling took longer, is not made up for.
class pace_s {
 public:
  void wait_for_slot() {
    const int64_t now = tov_clock_us();
    if (now < slot_) tov_sys_usleep(static_cast<useconds_t>(slot_ - now));
    slot_ = (now < slot_ ? slot_ : now) + SLOT_US;
  }

 private:
  enum { SLOT_US = 1000 };
  int64_t slot_ = 0;
};

}  // namespace

// Until the next deadline; bounded, so that `quit` is seen.
static int wait_ms_until(int64_t due_us) {
  const int64_t left_us = due_us - tov_clock_us();
  if (left_us <= 0) return 0;
  constexpr int64_t us_per_ms = 1000;
  return static_cast<int>(std::min<int64_t>((left_us - 1) / us_per_ms + 1, IDLE_WAIT_MS));
}

// A record that has waited takes a slot like an event; a portion of /proc takes none.
static int64_t go_on_with_waits(tov_waits_t *waits, pace_s *pace) {
  const tov_waits_t::step_s step = waits->go_on();
  if (step.handled) pace->wait_for_slot();
  for (const tov_cnmsg_data_t &event : step.heard)
    tov_cnmsg_dispatch(&event);
  return step.next_us;
}

// Takes an event out of the ring. A record that was stored in part is dropped here.
static void handle_event(pace_s *pace, looking_s *looking) {
  tov_cnmsg_data_t event;
  if (__kfifo_out(&tov_cnmsg_fifo, &event, sizeof event) != sizeof event) return;
  if (!concerns_us(event, looking)) return;
  pace->wait_for_slot();
  tov_cnmsg_dispatch(&event);
  if (event.what == TOV_EVENT_EXEC) looking->note_handled(event.process_pid);
}

static void handle_events() {
  pace_s pace;
  tov_waits_t waits;
  looking_s looking;
  while (!tov_flag_get(quit)) {
    const int64_t look_us = looking.go_on();
    const int64_t next_us = std::min(look_us, go_on_with_waits(&waits, &pace));
    if (tov_cnmsg_fifo_wait(wait_ms_until(next_us))) handle_event(&pace, &looking);
  }
}

void *tov_cnmsg_handle(void *) {
  tov_waits_leave_to_handler(true);
  int result = 0;
  errno = 0;
  if (tov_core_thread_name(thread_name) < 0) {
    result = RESULT_NAME;
  } else if (errno = tov_set_priority(TOV_RT_PRIORITY); errno != 0) {
    TOV_DBG("%s: set priority fail: %s\n", thread_name, strerror(errno));
    result = RESULT_PRIORITY;
  } else {
    handle_events();
  }
  tov_core_thread_end(thread_name, result, errno);
  tov_waits_leave_to_handler(false);
  return nullptr;
}
