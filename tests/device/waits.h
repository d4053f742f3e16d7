// What the stories of restarts that wait share: tasks that wait before they are started again, and
// what everybody else must get from the daemon meanwhile.
//
// A restart waits for the time that its program asked for, for its registration file, for forks
// that fail, or for the search for a listed program's process. Each wait is its record's own.
//
// Whoever waits is told from outside by what it caused: a diagnostic, a line, the script that runs
// in the program's place. Moments within a wait are fractions of it; each story proves with the
// waiting task's next birth that it was still waiting then.
#ifndef TOV_TEST_WAITS_H
#define TOV_TEST_WAITS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

namespace tov_test {

// What "at once" means on a busy machine. Every wait that is measured against it is much longer.
inline constexpr Millis PROMPT_MS{2'000};
// The least wait that has an early, a middle and a late moment, each at least PROMPT_MS before its
// end.
inline constexpr int LONG_WAIT_S = 6;

inline constexpr char FORK_FILE[] = "/tmp/tov/forkfile";
inline constexpr int ANY_NUMBER = -1;  // of processes

// The clock of a daemon whose own waits are to be long against PROMPT_MS in every build.
inline std::string unhurried_clock() {
  return patience() == 1 ? std::string() : "+0 x" + std::to_string(1.0 / patience());
}

// One by which the pause after a failed fork takes little more than a second of the test's.
inline std::string pause_clock() {
  return "+0 x" + std::to_string(4.0 / patience());
}

inline int64_t milliseconds_since(int64_t begin_ns) {
  return (monotonic_ns() - begin_ns) / 1'000'000;
}

// ---- requests ---------------------------------------------------------------------------------

inline std::string registration(const Task &task, int restart_time_s = 0, int vsd = 0) {
  tov_msg_xtach_t record{};
  record.pid = task.pid;
  record.vsd_id = vsd;
  record.restart_time = restart_time_s;
  snprintf(record.pathname, sizeof record.pathname, "%s", task.command.c_str());
  return packet(TOV_RESTART, bytes_of(record));
}

inline std::string withdrawal(pid_t pid) {
  return packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{TOV_CONS_DUMP_ALL, pid}));
}

// Sends a request and waits until it was carried out: requests are served in turn, so the second
// of two that follow is acknowledged after it. False when that takes longer than `limit`.
inline bool is_carried_out(const Device &device, const std::string &bytes,
                           Millis limit = STORY_LIMIT_MS) {
  static const std::string HARMLESS =
      packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{.event = 99, .pid = 0}));
  const int64_t end_ns = monotonic_ns() + limit.count() * patience() * 1'000'000;
  RawClient client;
  // The socket is there before the daemon listens on it.
  if (!wait_until([&] { return client.connect(device.path("/tmp/tov/.tov")) == 0; }, limit))
    return false;
  for (const std::string &each : {bytes, HARMLESS, HARMLESS}) {
    const Millis left(std::max<int64_t>(0, (end_ns - monotonic_ns()) / 1'000'000));
    if (!client.send(each) || client.answer(left) != RawClient::ACKNOWLEDGED) return false;
  }
  return true;
}

inline void need_carried_out(const Device &device, const std::string &bytes) {
  if (!is_carried_out(device, bytes))
    throw std::runtime_error("a request was not carried out\n" + device.dump());
}

// How the daemon notes that it has taken a registration in, or let it go. (One text ends with the
// other; the blank behind the stamp tells them apart.)
inline std::string entered(const Task &task, int vsd = 0) {
  return " register - process:" + task.command + " pid:" + std::to_string(task.pid) +
         ", vsd_id:" + std::to_string(vsd) + ", action:" + std::to_string(RESPAWN);
}
inline std::string withdrawn(const Task &task, pid_t pid, int vsd = 0) {
  return " unregister - process:" + task.command + " pid:" + std::to_string(pid) +
         ", vsd_id:" + std::to_string(vsd) + ", action:" + std::to_string(RESPAWN);
}

// Is a process registered? Asked by withdrawing it, which is told only if it was: the last question
// of a story.
inline bool was_registered(const Device &device, pid_t pid) {
  const std::string told = " pid:" + std::to_string(pid) + ",";
  const auto count = [&] {
    size_t lines = 0;
    for (const std::string &text : event_texts(device, REGISTER_LOG))
      if (text.starts_with("unregister - ") && text.find(told) != std::string::npos) lines++;
    return lines;
  };
  const size_t before = count();
  need_carried_out(device, withdrawal(pid));
  return count() > before;
}

// ---- tasks ------------------------------------------------------------------------------------

// A listed program that has no arguments, under a daemon that knows its list and has registered it.
inline Task start_listed(Device &device, const std::string &name,
                         const DaemonOptions &options = {}) {
  Task task = install_task(device, name, {});
  device.write("/etc/tov/proc/" + task.name, task.command + " TOV_RESTART");
  device.start_ready_daemon(options);
  device.spawn({task.program});
  next_birth(device, task);
  need_event(device, REGISTER_LOG, entered(task));
  return task;
}

// A task that is started again only so many seconds after its end. The daemon runs already.
inline Task start_delayed(Device &device, const std::string &prefix, int restart_time_s,
                          TaskOptions options = {}) {
  options.registered = false;
  Task task = start_task(device, prefix, options);
  need_carried_out(device, registration(task, restart_time_s, options.vsd));
  need_event(device, REGISTER_LOG, entered(task, options.vsd));
  return task;
}

// Waits until the rules have been asked about the end of a task's present process, which is said
// right before its restart begins to wait. Needs a daemon with diagnostics.
inline void need_answered(const Device &device, const Task &task, pid_t dead) {
  if (!device.wait_output("tov_proc_restart_delay " + task.command + "/" + std::to_string(dead) +
                          " receives event:0009"))
    throw std::runtime_error("the end of " + task.name + " is not answered\n" + device.dump());
}

// Lets a part of a wait of `wait_s` seconds pass that began at `begin_ns`.
//   is_over  an early end of the wait
inline void pass_part(int64_t begin_ns, double wait_s, double part,
                      const std::function<bool()> &is_over) {
  const auto moment_ns = begin_ns + static_cast<int64_t>(wait_s * part * 1e9);
  wait_until([&] { return monotonic_ns() >= moment_ns || is_over(); },
             Millis(static_cast<int64_t>(wait_s * 1e3)));
}

inline bool is_back(const Device &device, const Task &task) {
  return device.births(task.name).size() > task.births;
}

// ---- the others -------------------------------------------------------------------------------

// A program that has not been there yet is registered and withdrawn, both at once.
inline void expect_requests_are_served(Device &device, const std::string &prefix) {
  Task fresh = start_task(device, prefix, {.registered = false});
  const int64_t begin_ns = monotonic_ns();
  const bool entered = is_carried_out(device, registration(fresh), PROMPT_MS);
  const bool removed = is_carried_out(device, withdrawal(fresh.pid), PROMPT_MS);
  EXPECT_TRUE(entered) << "a registration waits";
  EXPECT_TRUE(removed) << "a withdrawal waits";
  if (!entered || !removed) return;
  EXPECT_EQ(device.count_events(REGISTER_LOG, withdrawn(fresh, fresh.pid)), 1U);
  EXPECT_LE(milliseconds_since(begin_ns), PROMPT_MS.count() * patience());
}

// A task that is killed comes back at once.
inline void expect_comes_back_at_once(Device &device, Task &other) {
  const int64_t begin_ns = monotonic_ns();
  kill_and_return(device, other);
  EXPECT_LE(milliseconds_since(begin_ns), PROMPT_MS.count() * patience()) << other.name;
}

// In the early, the middle and the late part of a wait that began at `begin_ns`: the other task is
// killed and comes back, a third one is registered and withdrawn. The other one's name tells the
// third ones apart.
inline void expect_others_go_on(Device &device, const Task &waiting, Task &other, int64_t begin_ns,
                                double wait_s) {
  const auto is_over = [&] { return is_back(device, waiting); };
  for (const char *phase : {"early", "middle", "late"}) {
    SCOPED_TRACE(phase);
    const double part = *phase == 'e' ? 0 : *phase == 'm' ? 1.0 / 3 : 0.55;
    pass_part(begin_ns, wait_s, part, is_over);
    EXPECT_FALSE(is_over()) << "it did not wait as long as it should";
    expect_comes_back_at_once(device, other);
    expect_requests_are_served(device, std::string(phase) + "_");
    EXPECT_FALSE(is_over()) << "all this came only after the wait";
    if (is_over()) return;
  }
}

}  // namespace tov_test

#endif  // TOV_TEST_WAITS_H
