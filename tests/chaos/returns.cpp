// Only ends that we brought about, to programs to which nothing else was happening, are judged by
// the clock. A program that may be suspended returns when its suspension is over, and while
// something happens to the daemon everybody may be late, but nobody early.
#include "tests/chaos/returns.h"

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/chaos/fleet.h"
#include "tests/chaos/kinds.h"
#include "tests/chaos/report.h"
#include "tests/chaos/run.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

namespace tov_chaos {

// The machine is busy, and some programs hold the lock of their file for a while.
static constexpr int64_t LATE_NS = 4'000'000'000;
// Four restarts within two minutes are followed by a suspension; twice that is on the safe side.
static constexpr int BURST_S = 240;
static constexpr ptrdiff_t BURST_BIRTHS = 4;

static std::string about(Run &run, const Program &program, const std::string &what) {
  return program.command + " (" + program.kind->label + ") " + what + "\n" +
         evidence_of(run, program);
}

static std::string in_ms(int64_t ns) {
  return std::to_string(ns / 1'000'000) + " ms";
}

static bool may_be_suspended(const Run &run, const Program &program) {
  const int64_t since = program.death.killed_ns - run.real_ns(BURST_S);
  const auto &births = program.births_ns;
  return std::count_if(births.begin(), births.end(), [&](int64_t born) { return born > since; }) >=
         BURST_BIRTHS;
}

static std::string wrong_return(Run &run, Program &program) {
  const Death death = program.death;
  if (death.pid == 0) return {};
  const bool back = death.returned_ns != 0;
  const int64_t took_ns = (back ? death.returned_ns : now_ns()) - death.killed_ns;
  const int64_t delay_ns = run.real_ns(program.delay_s);
  if (back) program.death = {};
  if (back && death.delayed && took_ns < delay_ns)
    return about(run, program,
                 "is back after " + in_ms(took_ns) + ", before its delay of " + in_ms(delay_ns));
  if (death.killed_ns < run.disturbed_ns || may_be_suspended(run, program)) return {};
  if (took_ns > delay_ns + LATE_NS * tov_test::patience())
    return about(run, program,
                 (back ? "is back after " : "is not back after ") + in_ms(took_ns) +
                     ", its delay is " + in_ms(delay_ns));
  if (back) run.late_ns.push_back(took_ns - (death.delayed ? delay_ns : 0));
  return {};
}

std::string find_second_copies(Run &run) {
  std::string wrong;
  for (Program &program : run.fleet.programs) {
    if (program.living.size() < 2) continue;
    const auto pids = Fleet::side_by_side(program);
    if (program.doubled != 0 || pids.size() < 2) continue;
    std::string text = "runs " + std::to_string(pids.size()) + " times at once:";
    for (const pid_t pid : pids)
      text += " " + std::to_string(pid);
    wrong += about(run, program, text);
  }
  return wrong;
}

std::string find_wrong_returns(Run &run) {
  std::string wrong;
  run.fleet.read_reports();
  for (Program &program : run.fleet.programs)
    wrong += wrong_return(run, program);
  const auto processes = run.fleet.processes();
  for (Program &program : run.fleet.programs)
    if (program.withdrawn && !Fleet::instances(program, processes).empty())
      wrong += about(run, program, "was withdrawn while it was dead, and is back");
  return wrong;
}

// The "NAME/PID" whose end a line announces; empty: it announces none.
static std::string announced_end(const std::string &line) {
  static constexpr char BEFORE[] = "Task: ", BEHIND[] = " receives event:";
  const size_t begin = line.find(BEFORE);
  const size_t end = line.find(BEHIND);
  if (begin == std::string::npos || end == std::string::npos || end < begin) return {};
  return line.substr(begin + strlen(BEFORE), end - begin - strlen(BEFORE));
}

// Each daemon has a log file of its own, and one that was killed before it could do what it
// announced is followed by one that announces it again.
std::string find_repeated_announcements(const Run &run) {
  std::ostringstream wrong;
  for (const std::string &name : run.device.list(tov_test::EVENT_LOG_DIR)) {
    if (!name.starts_with(tov_test::RESTART_LOG)) continue;
    std::map<std::string, int> times;
    for (const std::string &line :
         run.device.lines(std::string(tov_test::EVENT_LOG_DIR) + "/" + name))
      if (const std::string end = announced_end(line); !end.empty()) times[end]++;
    for (const auto &[end, count] : times)
      if (count > 1) wrong << "the end of " << end << " is announced " << count << " times\n";
  }
  return wrong.str();
}

}  // namespace tov_chaos
