// A proof holds when all programs are as they should be for a while without a break. Until its
// limit a wrong state may still pass: restarts take their time.
#include "tests/chaos/judge.h"

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/chaos/deeds.h"
#include "tests/chaos/deeds_list.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/health.h"
#include "tests/chaos/muster.h"
#include "tests/chaos/report.h"
#include "tests/chaos/returns.h"
#include "tests/chaos/run.h"
#include "tests/chaos/upheaval.h"
#include "tests/support/processes.h"

namespace tov_chaos {

// By the daemon's clock. A death whose event was lost is found by the second of two sweeps.
static constexpr int TWO_SWEEPS_S = 125;
static constexpr int OVERDUE_S = 300;

static constexpr Millis LOOK_MS{100};
static constexpr Millis SHORT_HOLD_MS{1'000};
static constexpr Millis DELAYS_LIMIT_MS{2'000};
static constexpr Millis ZOMBIE_LIMIT_MS{5'000};
static constexpr Millis END_LIMIT_MS{60'000};
static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";

static Millis real(const Run &run, int daemon_seconds) {
  return Millis(daemon_seconds * 1000 / run.options.speed);
}

// In our own time, and wide: on a machine with thirty times its load a sweep lasts half a minute on
// the fast clock, and a listed program that was not up in time for the daemon's search, which the
// fast clock shortens to a quarter of a second, is found by the second one.
static Millis limit_of(const Run &run) {
  return Millis(run.options.limit_s * 1000);
}

static int64_t patient_ns(Millis length) {
  return std::chrono::nanoseconds(length).count() * tov_test::patience();
}

// ---- who runs -----------------------------------------------------------------------------------

// Empty when the program runs as often as it should.
static std::string wrong_count(Run &run, const Program &program,
                               const std::vector<Device::Process> &processes) {
  const auto pids = Fleet::instances(program, processes);
  const size_t expected = program.should_run ? 1 : 0;
  if (pids.size() == expected) return {};
  std::ostringstream text;
  text << program.command << " (" << program.kind->label << ") runs " << pids.size()
       << " times and should run " << expected << (program.supervised ? "" : ", unsupervised");
  for (const pid_t pid : pids)
    text << " " << pid;
  text << "\n" << evidence_of(run, program);
  return text.str();
}

static std::string wrong_programs(Run &run) {
  std::string wrong;
  const auto processes = run.fleet.processes();
  for (const Program &program : run.fleet.programs)
    wrong += wrong_count(run, program, processes);
  for (const Stranger &stranger : run.fleet.strangers)
    if (!run.fleet.lives(stranger))
      wrong += stranger.command + " " + std::to_string(stranger.pid) +
               " was nobody's business and is gone\n";
  return wrong;
}

std::string find_overdue(Run &run) {
  if (run.blind) return {};
  const int64_t late_ns = patient_ns(std::max(real(run, OVERDUE_S), limit_of(run)));
  std::string wrong;
  const auto processes = run.fleet.processes();
  for (const Program &program : run.fleet.programs) {
    const bool busy = program.looping || program.uncertain || program.doubled != 0 ||
                      program.cancelling || program.wake_ns != 0;
    if (!busy && now_ns() - program.changed_ns > late_ns)
      wrong += wrong_count(run, program, processes);
  }
  return wrong;
}

// Waits until all is as it should be, and then for as long as a surprise could take.
static std::string settle(Run &run, Millis hold) {
  const int64_t begin = now_ns();
  const int64_t limit_ns = patient_ns(limit_of(run));
  const int64_t hold_ns = std::chrono::nanoseconds(hold).count();
  int64_t right_since = 0;
  for (;;) {
    run.fleet.read_reports();
    if (const auto status = run.device.wait_daemon(Millis(0)))
      return "the daemon ended by itself, status " + std::to_string(*status) + "\n";
    for (Program &program : run.fleet.programs)
      if (program.doubled != 0) end_older_instance(run, program);
    if (std::string wrong = find_second_copies(run) + find_wrong_returns(run); !wrong.empty())
      return wrong;
    std::string wrong = wrong_programs(run);
    if (!wrong.empty())
      right_since = 0;
    else if (right_since == 0)
      right_since = now_ns();
    if (right_since != 0 && now_ns() - right_since > hold_ns) return {};
    if (right_since == 0 && now_ns() - begin > limit_ns) return wrong;
    std::this_thread::sleep_for(LOOK_MS);
  }
}

// ---- the daemon itself --------------------------------------------------------------------------

static std::string wrong_daemon(const Run &run, const Usage &before) {
  std::string wrong;
  const pid_t daemon = run.device.daemon_pid();
  if (!tov_test::wait_until([&] { return zombies_of(daemon).empty(); }, ZOMBIE_LIMIT_MS))
    wrong += "zombies of the daemon:" + zombies_of(daemon) + "\n";
  const Usage now = usage_of(daemon);
  if (has_grown(before, now))
    wrong += "the daemon has grown: " + before.text() + " before, " + now.text() + " now\n";
  return wrong;
}

// ---- proofs -------------------------------------------------------------------------------------

static void end_all(Run &run, int signal) {
  const auto processes = run.fleet.processes();
  for (Program &program : run.fleet.programs) {
    for (const pid_t pid : Fleet::instances(program, processes))
      end_instance(run, program, pid, signal);
  }
}

// Of the stopped nothing must be left that a later daemon would find.
static std::string wrong_files(Run &run) {
  std::string wrong;
  const auto files = run.fleet.registration_files();
  for (const Program &program : run.fleet.programs)
    for (const RegistrationFile &file : files)
      if (file.command == program.command && program.kind->comes_back)
        wrong += file.path + " is left of " + program.command + "\n";
  return wrong;
}

// Makes the daemon end of its own accord: where memory is accounted for, that is when it is told.
static std::string end_daemon(Run &run) {
  run.device.append(FORK_FILE, "aaaaaaa");
  const auto status = run.device.wait_daemon(END_LIMIT_MS);
  if (!status) return "the daemon does not end\n";
  return WIFEXITED(*status) && WEXITSTATUS(*status) == 1
             ? std::string()
             : "the daemon ended with status " + std::to_string(*status) + "\n";
}

static void say(const Run &run, const char *what) {
  size_t running = 0, supervised = 0;
  for (const Program &program : run.fleet.programs) {
    running += program.should_run;
    supervised += program.supervised;
  }
  printf("  %3d s, %s: %zu programs should run, %zu are supervised\n", run.seconds(), what, running,
         supervised);
  fflush(stdout);
}

std::string judge(Run &run) {
  kill_daemon(run);
  start_daemon(run);
  say(run, "settling");
  const Millis long_hold = real(run, TWO_SWEEPS_S);
  std::string wrong = settle(run, SHORT_HOLD_MS);
  if (!wrong.empty()) return wrong;
  muster_anew(run);
  (void)tov_test::wait_until(
      [&] {
        run.fleet.read_reports();
        return !renew_delays(run);
      },
      DELAYS_LIMIT_MS);
  say(run, "mustered anew");
  wrong = settle(run, SHORT_HOLD_MS);
  Usage before;
  for (int round = 0; wrong.empty() && round < run.options.rounds; round++) {
    end_all(run, SIGKILL);
    say(run, "all killed");
    // Only the last time so long that every death has been looked at twice: stopping a program
    // while a dead process of it is still registered would be a lost exit.
    wrong = settle(run, round + 1 == run.options.rounds ? long_hold : SHORT_HOLD_MS);
    // The first round shows what so many restarts at once need; then nothing may be added.
    const Usage now = usage_of(run.device.daemon_pid());
    if (wrong.empty()) wrong = wrong_daemon(run, round > 0 ? before : now);
    before = now;
  }
  run.lives.back().end = usage_of(run.device.daemon_pid());
  if (!wrong.empty()) return wrong;
  end_all(run, SIGTERM);
  say(run, "all stopped");
  wrong = settle(run, long_hold);
  wrong += wrong_files(run) + find_repeated_announcements(run) + end_daemon(run);
  return wrong + run.device.sanitizer_reports();
}

}  // namespace tov_chaos
