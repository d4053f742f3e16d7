// Ending programs, waiting for what follows and noting it. A restart is measured from the signal
// to the beginning of the new program's main, as that program itself reports it (stamp.c).
#include "demo/stage.h"

#include <signal.h>
#include <stdint.h>
#include <string.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/birth.h"
#include "tests/support/processes.h"

namespace tov_demo {

using tov_test::Millis;
using tov_test::monotonic_ns;

static constexpr Millis START_LIMIT_MS = tov_test::PATIENT_MS;
static constexpr Millis BACK_LIMIT_MS = tov_test::PATIENT_MS;
static constexpr Millis SELF_CHECK_LIMIT_MS{20'000};
static constexpr Millis AWAY_SPAN_MS{1'500};  // a restart would have come twenty times over
static constexpr Millis SETTLE_MS{60};        // the last lines about a restart
static constexpr int BURST_RESTARTS_MAX = 5;
static constexpr double NS_PER_MS = 1e6;
static constexpr char PROGRAM_DIR[] = "/usr/local/bin/";
static constexpr char REGISTER_LOG[] = "user_register_restart.log";

static std::string signal_name(int signal) {
  return std::string("SIG") + sigabbrev_np(signal);
}

static std::string ms_text(double ms) {
  char text[32];
  snprintf(text, sizeof text, "%.1f ms", ms);
  return text;
}

static std::string id(pid_t pid) {
  return std::to_string(pid);
}

Stage::Stage()
    // The client calls look for the device's debug file below this directory.
    : device_({.env = {{"DATA_QXOS_DIR", "/data/.qxos/vsd/0"}}}), narrator_(device_) {
  programs_.reserve(8);  // references to its elements are handed out
}

void Stage::start_daemon() {
  const int64_t begin_ns = monotonic_ns();
  narrator_.act("start tov");
  device_.start_ready_daemon();
  const double ms = static_cast<double>(monotonic_ns() - begin_ns) / NS_PER_MS;
  narrator_.rest(SETTLE_MS);
  narrator_.result(
      true, "tov is process " + id(device_.daemon_pid()) + ", listening after " + ms_text(ms));
}

void Stage::kill_daemon() {
  narrator_.act("kill -KILL " + id(device_.daemon_pid()) + " (tov)");
  device_.kill_daemon(SIGKILL);
}

Program &Stage::start_program(const std::string &name, const std::vector<std::string> &arguments) {
  const std::string path = PROGRAM_DIR + name;
  const auto copied = device_.run({"install", "-D", TOV_DEMO_PROGRAMS "/" + name, path});
  if (!copied.exited_with(0)) throw std::runtime_error("install " + name + ": " + copied.output);
  programs_.push_back({name, arguments});
  Program &started = programs_.back();
  std::vector<std::string> words = {path};
  std::string shown = "start " + name;
  for (const std::string &argument : arguments) {
    words.push_back(argument);
    shown += " " + argument;
  }
  narrator_.act(shown);
  started.pid = device_.spawn(words);
  const std::string registered = " pid:" + id(started.pid) + ",";
  const bool known = narrator_.wait(
      [&] { return device_.count_events(REGISTER_LOG, registered) > 0; }, START_LIMIT_MS);
  if (!known) throw std::runtime_error(name + " did not register\n" + device_.dump());
  started.starts = device_.births(name).size();
  return started;
}

Program &Stage::program(const std::string &name) {
  for (Program &one : programs_)
    if (one.name == name) return one;
  throw std::runtime_error("no program " + name);
}

int64_t Stage::end(Program &program, int signal) {
  narrator_.act("kill -" + std::string(sigabbrev_np(signal)) + " " + id(program.pid) + " (" +
                program.name + ")");
  const int64_t ended_ns = monotonic_ns();
  // One that did not come back before has no process; its id may be another process's by now.
  if (device_.lives(program.pid)) device_.kill(program.pid, signal);
  return ended_ns;
}

void Stage::see_back(Program &program, int64_t ended_ns, const std::string &how,
                     const std::string &remark) {
  const bool back = narrator_.wait(
      [&] { return device_.births(program.name).size() > program.starts; }, BACK_LIMIT_MS);
  narrator_.rest(SETTLE_MS);
  if (!back) {
    narrator_.result(false, program.name + " did not come back");
    outcomes_.push_back({program.name, how, program.pid, 0, -1, false, remark});
    return;
  }
  const tov_test::Birth birth = device_.births(program.name)[program.starts];
  const double ms = static_cast<double>(birth.main_ns - ended_ns) / NS_PER_MS;
  narrator_.result(true, program.name + " is back as process " + id(birth.pid) +
                             ": its main began " + ms_text(ms) + " after the end");
  outcomes_.push_back({program.name, how, program.pid, birth.pid, ms, true, remark});
  program.starts++;
  program.pid = birth.pid;
}

void Stage::end_and_see_back(Program &program, int signal, const std::string &remark) {
  see_back(program, end(program, signal), signal_name(signal), remark);
}

void Stage::end_all_and_see_back(int signal) {
  std::vector<int64_t> ended_ns;
  for (Program &one : programs_)
    ended_ns.push_back(end(one, signal));
  for (size_t i = 0; i < programs_.size(); i++)
    see_back(programs_[i], ended_ns[i], signal_name(signal), "all at once");
}

void Stage::end_and_see_away(Program &program, int signal, const std::string &remark) {
  end(program, signal);
  narrator_.wait([&] { return !tov_test::process_lives(program.pid); }, BACK_LIMIT_MS);
  narrator_.rest(AWAY_SPAN_MS);
  const bool away = device_.births(program.name).size() == program.starts;
  narrator_.result(away, program.name + (away ? " stays away" : " was started again"));
  outcomes_.push_back({program.name, signal_name(signal), program.pid, 0, -1, away, remark});
}

void Stage::end_until_suspended(Program &program) {
  const auto suspended = [&] { return device_.count_notices("Task: " + program.name + " had "); };
  const size_t before = suspended();
  int64_t ended_ns = 0;
  for (int i = 0; i < BURST_RESTARTS_MAX && suspended() == before; i++) {
    ended_ns = end(program, SIGKILL);
    const bool answered = narrator_.wait(
        [&] {
          return suspended() > before || device_.births(program.name).size() > program.starts;
        },
        BACK_LIMIT_MS);
    narrator_.rest(SETTLE_MS);
    if (!answered || suspended() > before) break;
    program.pid = device_.births(program.name)[program.starts].pid;
    program.starts++;
  }
  if (suspended() == before) {
    narrator_.result(false, program.name + " was not suspended");
    outcomes_.push_back({program.name, "kills in a row", program.pid, 0, -1, false, ""});
    return;
  }
  narrator_.result(true, program.name + " is suspended and waits for its self-check");
  narrator_.wait([&] { return device_.births(program.name).size() > program.starts; },
                 SELF_CHECK_LIMIT_MS);
  see_back(program, ended_ns, "kills in a row", "suspended, then self-check");
}

}  // namespace tov_demo
