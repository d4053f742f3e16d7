// Answers and acts for an exit that has happened. The order of the questions is that of the rules;
// the rules on plain values, without effects, are in core/policy/foresee.cpp.
#include "core/policy/exit.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include "core/policy/defer.h"
#include "core/policy/inherit.h"
#include "core/policy/late.h"
#include "core/policy/revive.h"
#include "core/policy/rules.h"
#include "core/policy/waits.h"
#include "core/registry/deadlines.h"
#include "core/registry/query.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "proc/claim.h"
#include "proc/tov_proc.h"
#include "util/clock.h"
#include "util/entries.h"
#include "util/identity.h"
#include "util/owner.h"
#include "util/procfs.h"
#include "util/tov_utils.h"
#include "vsd/path.h"

namespace {

// Who says that the process has ended.
enum verdict_e {
  REPORTED,  // the kernel, or who waited for the lock: the process is asked for once more
  LOST,      // two sweeps that did not find it
  ACCEPTED,  // it was decided before: a restart goes on that had to wait
};

// One exit under decision. The answers are asked for when a rule wants them, since some take long,
// and kept, since some say something.
class exit_case_s final : public tov_exit_case_t {
 public:
  exit_case_s(const tov_chains_guard_t &held, tov_pid_t *record, verdict_e verdict,
              std::optional<int> exit_code, int force)
      : held_(held), record_(record), verdict_(verdict), exit_code_(exit_code), force_(force) {}

  bool lives() override { return life() == TOV_LIFE_LIVES; }
  bool uncertain() override { return life() == TOV_LIFE_THREADS || life() == TOV_LIFE_UNKNOWN; }
  tov_twin_e twin() override;
  bool suspended() override { return tov_record_is_suspended(*record_); }
  bool stopped() override {
    return verdict_ != ACCEPTED && tov_exit_is_stop(exit_code_.value_or(0));
  }
  // Asked until the restart begins: an exit that is handed back begins it anew.
  bool locked() override { return record_->start.waited == 0 && tov_defer_is_needed(*record_); }
  bool restarted() override { return tov_revive_is_wanted(*record_); }
  bool unknown_whether_it_runs() override;
  bool runs_again() override { return record_->start.looked == TOV_LOOKED_RUNS; }
  void act(tov_exit_act_e act) override;

 private:
  tov_life_e life();
  void ask_again();
  void drop();
  void note();
  void accept_stop();
  void hand_over();

  const tov_chains_guard_t &held_;
  tov_pid_t *record_;
  verdict_e verdict_;
  std::optional<int> exit_code_;
  int force_;
  std::optional<tov_life_e> life_;
  bool twin_asked_ = false;
  tov_twin_e twin_ = TOV_TWIN_NONE;
  tov_pid_t *other_ = nullptr;  // the twin's record
};

}  // namespace

static constexpr int64_t ASK_AGAIN_US = 1000000;  // what cannot be known about another process

static constexpr char function[] = "tov_handle_netlink_exit";  // as its messages name it

// ---- whether it has ended -------------------------------------------------------------------

// A verdict stands; a report is asked of the kernel, since a stranger may have the id, and since a
// process lives as long as one of its threads does.
tov_life_e exit_case_s::life() {
  if (!life_) life_ = verdict_ == REPORTED ? tov_record_life(*record_) : TOV_LIFE_ENDED;
  return *life_;
}

// Of a restart that goes on the same question is asked again.
void exit_case_s::ask_again() {
  if (verdict_ == ACCEPTED)
    return tov_record_wait(held_, record_, record_->start.wait, tov_clock_us() + ASK_AGAIN_US);
  if (!tov_record_is_starting(*record_)) tov_record_wait_end(held_, record_, exit_code_, force_);
}

void tov_exit_await(const tov_chains_guard_t &held, tov_pid_t *record) {
  if (tov_record_has_process(*record) && !tov_record_is_ending(*record))
    tov_record_wait_end(held, record, tov_late_code(*record), 0);
}

void tov_exit_ask_entered(const tov_chains_guard_t &held, tov_pid_t *record) {
  const tov_life_e life = tov_record_life(*record);
  if (life == TOV_LIFE_THREADS) return tov_exit_await(held, record);
  if (tov_life_is_over(life))
    tov_late_add(held, *record, TOV_LATE_ENTERED, tov_late_born_us(record->identity));
}

// ---- duplicates -----------------------------------------------------------------------------

tov_twin_e exit_case_s::twin() {
  if (std::exchange(twin_asked_, true)) return twin_;
  held_.shows(tov_chains);
  other_ = tov_proc_is_running(record_);
  if (other_ == nullptr) return twin_;
  if (other_ == record_) return twin_ = TOV_TWIN_IN_CHARGE;
  // One that searches has made its new process already; if that has ended, another one may run that
  // it has left behind.
  if (other_->start.forked > 0) return twin_ = TOV_TWIN_LIVES;
  if (tov_record_is_starting(*other_)) return twin_ = TOV_TWIN_DEAD;
  const tov_life_e life = tov_record_life(*other_);
  if (tov_life_is_over(life)) return twin_ = TOV_TWIN_DEAD;
  return twin_ = life == TOV_LIFE_UNKNOWN ? TOV_TWIN_UNKNOWN : TOV_TWIN_LIVES;
}

// An exit that was reported concerns every record of its process, a verdict its own record.
static void forget(const tov_chains_guard_t &held, tov_pid_t *record, verdict_e verdict) {
  if (verdict == REPORTED) {
    tov_record_forget_process(held, record);
  } else {
    tov_record_forget(held, record);
  }
}

void exit_case_s::drop() {
  if (twin_ == TOV_TWIN_IN_CHARGE) {
    TOV_DBG("%s--> del %d\n", function, record_->pid);
  } else {
    TOV_DBG("%s--> pid %d alive, del %d\n", function, other_->pid, record_->pid);
  }
  forget(held_, record_, verdict_);
}

void exit_case_s::note() {
  if (verdict_ == ACCEPTED) return;
  tov_claim_drop(*record_, record_->start.forked);
  if (tov_record_is_ending(*record_)) tov_record_end_wait(held_, record_);
  tov_del_threads_of(*record_);
  tov_record_ended(held_, record_, exit_code_, force_);
}

// ---- deliberate stops -----------------------------------------------------------------------

// Removes the files of `pid` from the member directory of a device. Directories - "db" always
// stands there - are passed over, and what goes meanwhile; any other entry that cannot be opened
// stops the removal.
static bool remove_member_files(int vsd_no, pid_t pid) {
  tov_entries_t files(tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no).text);
  if (!files) {
    TOV_DBG("%s: chdir fail: %s\n", function, strerror(errno));
    return false;
  }
  while (const char *name = files.next()) {
    const tov_fd_t fd(
        openat(files.fd(), name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.n < 0) {
      if (errno == EISDIR || errno == ENOENT) continue;
      return false;
    }
    if (tov_atoi(name) == pid) (void)unlinkat(files.fd(), name, 0);
  }
  return true;
}

static bool leads_session(pid_t pid) {
  tov_stat_t stat;
  return tov_read_stat(pid, &stat) == 0 && stat.session == pid;
}

// A stop by SIGTERM was asked for and is never answered by a restart. When the markers
// cannot be cleared the record stays, and the sweep will bring the process back.
void exit_case_s::accept_stop() {
  const int vsd_no = tov_revive_device(*record_);
  (void)tov_log_with_type(TOV_LOG_RUN_EVENT,
                          "Task:%s,pid:%d,vsd_no:%d,killed by signal 15 from others.\n",
                          record_->process, record_->pid, vsd_no);
  // Where another process may have the id by now, the file is that one's.
  const bool is_its_own = tov_record_life(*record_) == TOV_LIFE_ENDED;
  if (vsd_no > 0 && is_its_own && !remove_member_files(vsd_no, record_->pid)) return;
  // A worker is stopped with its program; a successor that it has forked leads its own session.
  const bool is_worker = record_->heir_forked != 0 && !leads_session(record_->heir);
  if (!is_worker && tov_inherit_heir(held_, record_)) return;
  TOV_DBG("%s: hlist_del\n", function);
  tov_record_forget(held_, record_);
}

// ---- programs that run again ----------------------------------------------------------------

// What was found may have ended since: it is looked for once more.
bool exit_case_s::unknown_whether_it_runs() {
  const tov_start_t &start = record_->start;
  if (start.looked == TOV_LOOKED_RUNS)
    return tov_record_newest_of(held_, start.runs_as) != nullptr ||
           tov_life_is_over(tov_identity_life(start.runs_as, start.runs));
  return start.looked == TOV_LOOKED_NOT_YET && tov_proc_is_listed(*record_);
}

// A third-part program that runs again is registered under its new process instead of being started
// once more.
void exit_case_s::hand_over() {
  const bool by_script = record_->action == SHELL_RESTART;
  TOV_DBG("%s--> tov_pid->action == %s, found child pid_get = %d\n", function,
          by_script ? "SHELL_RESTART" : "RESPAWN", record_->start.runs_as);
  tov_inherit_running(held_, record_);
}

// ---- the decision ---------------------------------------------------------------------------

void exit_case_s::act(tov_exit_act_e act) {
  switch (act) {
    case TOV_EXIT_LEAVE:
      if (tov_record_is_ending(*record_)) tov_record_end_wait(held_, record_);
      return;
    case TOV_EXIT_ASK_AGAIN:
      return ask_again();
    case TOV_EXIT_WAIT_FOR_ALARM:
    case TOV_EXIT_ACT_NUM:
      return;
    case TOV_EXIT_LEAVE_DEAD:
      return tov_record_end_wait(held_, record_);
    case TOV_EXIT_DROP:
      return drop();
    case TOV_EXIT_DROP_OTHER:
      return forget(held_, other_, verdict_);
    case TOV_EXIT_NOTE:
      return note();
    case TOV_EXIT_ACCEPT_STOP:
      return accept_stop();
    case TOV_EXIT_DEFER:
      return tov_revive_defer(held_, record_);
    case TOV_EXIT_LOOK:
      return tov_revive_look(held_, record_);
    case TOV_EXIT_HAND_OVER:
      return hand_over();
    case TOV_EXIT_RESTART:
      return tov_revive(held_, record_, TOV_REVIVE_AFTER_EXIT);
  }
}

static void decide_reported_exit(int pid, int exit_code, int force) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_exit(held, pid);
  if (record == nullptr) record = tov_record_deferred(held, pid);  // told about once more
  if (record == nullptr) return;
  exit_case_s asked(held, record, REPORTED, exit_code, force);
  (void)tov_exit_decide(asked);
}

void tov_handle_netlink_exit(int pid, int exit_code, int force) {
  decide_reported_exit(pid, exit_code, force);
  tov_waits_finish();
}

// The end of a process that was reported, and was not certain. If it is now, the event of the last
// thread's end may still be on its way, and its code with it.
static void decide_kept_exit(const tov_chains_guard_t &held, tov_pid_t *record) {
  const tov_start_t &start = record->start;
  const bool is_over = tov_life_is_over(tov_record_life(*record));
  if (is_over && start.end_seen == 0) return tov_record_end_seen(held, record);
  std::optional<int> exit_code = is_over ? tov_late_code(*record) : std::nullopt;
  if (!exit_code && start.end_known != 0) exit_code = start.end_code;
  exit_case_s asked(held, record, REPORTED, exit_code, start.end_force);
  (void)tov_exit_decide(asked);
}

void tov_exit_go_on(const tov_chains_guard_t &held, tov_pid_t *record) {
  if (tov_record_is_ending(*record)) return decide_kept_exit(held, record);
  if (tov_revive_is_in_vain(*record)) return tov_revive_give_up(held, record);
  exit_case_s asked(held, record, ACCEPTED, record->exit_signal, record->force_restart);
  (void)tov_exit_decide(asked);
}

static void decide_parked_exit(const tov_parked_exit_t &parked) {
  const tov_chains_guard_t held(tov_chains);
  tov_pid_t *record = tov_record_of_start(held, parked.number);
  if (record == nullptr || record->start.wait != TOV_WAIT_LOCK) return;
  tov_record_ended(held, record, parked.exit_code, parked.force);
  tov_exit_go_on(held, record);
}

void tov_hand_back_exit(const tov_parked_exit_t &parked) {
  if (parked.number == 0)
    return tov_handle_netlink_exit(parked.pid, parked.exit_code.value_or(0), parked.force);
  decide_parked_exit(parked);
}

void tov_decide_lost_exit(const tov_chains_guard_t &held, tov_pid_t *record,
                          std::optional<int> exit_code) {
  exit_case_s asked(held, record, LOST, exit_code, 0);
  (void)tov_exit_decide(asked);
}
