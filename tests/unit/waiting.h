// The fixture of restarts that wait: a daemon whose event handler is the test.
#ifndef TOV_TEST_UNIT_WAITING_H
#define TOV_TEST_UNIT_WAITING_H

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <algorithm>
#include <string>
#include <vector>

#include "client/requests/tov_msg.h"
#include "core/policy/announce.h"
#include "core/policy/exit.h"
#include "core/policy/waits.h"
#include "core/registry/deadlines.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

namespace tov_test {

inline constexpr int64_t US_PER_MS = 1'000;
inline constexpr int64_t US_PER_S = 1'000'000;

// What a listed program leaves behind has that long to end, too, before the first look.
inline constexpr int64_t LOOK_PAUSE_US = 30 * US_PER_MS;

// How a listed program appears in the list and in its processes.
inline constexpr char LISTED[] = "/opt/daemon";

class Waiting : public Simulated {
 protected:
  Waiting() {
    // That forks fail is remembered by the moment; no test may begin before the last one's end.
    static int64_t uptime_s = 0;
    kernel().set_uptime(uptime_s += 1'000);
    kernel().make_dir("/tmp/tov");
    kernel().make_dir("/tmp/vsd/0/tov/db");
    tov_waits_leave_to_handler(true);
    count_journal_from(0);
  }
  ~Waiting() override { tov_waits_leave_to_handler(false); }

  static void count_journal_from(int restarts) {
    const tov_chains_guard_t held(tov_chains);
    tov_log_cnt = restarts;
  }
  static void keep_journal() { kernel().write_file(TOV_DEBUG_LOG_FILE, ""); }

  // A record whose process is not there.
  static tov_pid_t *task(const std::string &process, int restart_time = 0, int action = RESPAWN,
                         int vsd_id = 0) {
    static pid_t last_id = 1'000'000;
    tov_pid_t *record = add(++last_id, process, action, vsd_id);
    record->restart_time = restart_time;
    return record;
  }
  static tov_pid_t *listed(int restart_time = 0, int action = RESPAWN) {
    kernel().write_file(TOV_THIRD_PART_LIST, std::string(LISTED) + " TOV_RESTART\n");
    return task(LISTED, restart_time, action);
  }
  static tov_pid_t *task_of_device(int restart_time) {
    kernel().make_dir("/tmp/vsd/1/tov/db");
    tov_pid_t *record = task("/opt/a", restart_time, RESPAWN, 1);
    kernel().write_file(member_file(record->pid), "");
    return record;
  }

  static std::string member_file(pid_t pid) { return "/tmp/vsd/1/tov/" + std::to_string(pid); }
  // Its registration file, for a program in /opt.
  static std::string file_of(const tov_pid_t *record) {
    const std::string program = record->process;
    return "/tmp/vsd/" + std::to_string(record->vsd_id) + "/tov/db" +
           program.substr(program.rfind('/')) + "." + std::to_string(record->pid);
  }

  // Its exit is reported.
  static void die(const tov_pid_t *record, int exit_code = SIGKILL, int force = 0) {
    tov_handle_netlink_exit(record->pid, exit_code, force);
  }
  // A listed process asks to be registered.
  static void registers(pid_t pid, int vsd_id = 0) {
    tov_msg_xtach_t payload{};
    payload.pid = pid;
    payload.vsd_id = vsd_id;
    (void)snprintf(payload.pathname, sizeof payload.pathname, "%s", LISTED);
    EXPECT_EQ(tov_process_restart(&payload), 0);
  }
  // What is true of a record until it has ended.
  static bool waits_for(const tov_pid_t *record, int wait) { return record->start.wait == wait; }
  static bool is_registered(const tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    for (const tov_pid_t &other : tov_chain_records(&tov_chains))
      if (&other == record) return true;
    return false;
  }
  static int64_t next_due_us() {
    const tov_chains_guard_t held(tov_chains);
    return tov_record_next_due_us(held);
  }
  static void forget(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_forget(held, record);
  }

  tov_waits_t::step_s go_on() {
    tov_waits_t::step_s step = waits_.go_on();
    heard_.insert(heard_.end(), step.heard.begin(), step.heard.end());
    return step;
  }
  // The event handler at work for some time; it sleeps from deadline to deadline.
  void run(int64_t span_us) {
    enum { MANY = 10'000 };
    const int64_t end_us = kernel().now_us() + span_us;
    for (int steps = 0;; steps++) {
      ASSERT_LT(steps, MANY) << "the handler spins";
      const int64_t next_us = go_on().next_us;
      if (next_us > end_us) break;
      kernel().pass(std::max<int64_t>(next_us - kernel().now_us(), 0));
    }
    kernel().pass(std::max<int64_t>(end_us - kernel().now_us(), 0));
  }
  void run() { run(0); }  // for what need not be waited for
  void run_first_look() { run(LOOK_PAUSE_US); }

  static size_t forks() { return kernel().forks.size(); }
  static pid_t child() { return kernel().forks.at(forks() - 1); }
  static void fail_forks(int times) {
    for (int nth = 1; nth <= times; nth++)
      kernel().fail(CALL_FORK, nth, EAGAIN);
  }
  static std::string fork_file() {
    return kernel().exists(TOV_FORK_FILE) ? kernel().text_of(TOV_FORK_FILE) : "";
  }

  // What a restart's child executes.
  static void children_execute(const std::string &program) {
    kernel().child_becomes = [program](process_s &child) {
      child.session = child.pid;
      kernel().exec(child.pid, {program});
    };
  }
  // More processes than one portion of a scan reads.
  static void crowd() {
    enum { MORE_THAN_A_PORTION = 100 };
    for (int i = 0; i < MORE_THAN_A_PORTION; i++)
      (void)kernel().start({"/opt/crowd"});
  }
  // The next looks at /proc find that a process has just gone.
  static void spoil_scans(int times) {
    for (int nth = 1; nth <= times; nth++)
      kernel().fail(CALL_FSTATAT, nth, ENOENT);
  }

  tov_waits_t waits_;
  std::vector<tov_cnmsg_data_t> heard_;  // handed back by the steps
};

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_WAITING_H
