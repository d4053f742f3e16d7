// Where a registration file of a dead process lies beside a living instance, the daemon was about
// to hand the one over to the other: the next one has to find that out, and nobody ends a second
// copy for it. What is meant to run twice, because we started it so, stays that way until the older
// instance is ended.
#include "tests/chaos/upheaval.h"

#include <stddef.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/chaos/deeds.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/health.h"
#include "tests/chaos/kinds.h"
#include "tests/chaos/returns.h"
#include "tests/chaos/run.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr int STARTED_S = 10;  // by the daemon's clock
static constexpr Millis QUIET_LIMIT_MS{60'000};
static constexpr Millis DROPPED_LIMIT_MS{10'000};
static constexpr int EARLY_END_MS = 1'500;
static constexpr Millis LAST_WORDS_MS{100};
static constexpr Millis LAST_FAILURE_MS{80};
static constexpr Millis READY_LIMIT_MS{60'000};

// What has not yet become what it is to be, or has not told so; each behind a blank.
static std::string restless(Run &run) {
  std::string found;
  run.fleet.read_reports();
  const auto processes = run.fleet.processes();
  const std::string daemon = run.device.binary_dir() + "/tov";
  const auto &programs = run.fleet.programs;
  for (const auto &process : processes) {
    const auto is_being_launched = [&](const Program &program) {
      return program.start_command != program.command && process.command == program.start_command;
    };
    if (process.command == daemon || process.command.starts_with("/bin/sh /etc/cmdmap/") ||
        std::any_of(programs.begin(), programs.end(), is_being_launched))
      found += " " + std::to_string(process.pid);
  }
  for (const Program &program : programs)
    for (const pid_t pid : Fleet::instances(program, processes))
      if (!program.born.contains(pid) || pid == program.condemned)
        found += " " + std::to_string(pid);
  return found;
}

struct Stock {
  std::vector<pid_t> living;
  size_t dead_files = 0;
  bool living_has_file = false;
  bool asks_still = false;  // a living instance whose registration call has not come back
};

static Stock count(const Program &program, const std::vector<Device::Process> &processes,
                   const std::vector<RegistrationFile> &files) {
  Stock stock;
  stock.living = Fleet::instances(program, processes);
  for (const RegistrationFile &file : files) {
    if (file.command != program.command) continue;
    const auto lives = [&](pid_t pid) {
      return std::find(stock.living.begin(), stock.living.end(), pid) != stock.living.end();
    };
    if (lives(file.pid) || lives(file.child))
      stock.living_has_file = true;
    else
      stock.dead_files++;
  }
  for (const pid_t pid : stock.living)
    if (program.kind->by == By::LIBRARY && !program.registered.contains(pid))
      stock.asks_still = true;
  return stock;
}

static void take_stock(Run &run) {
  const auto processes = run.fleet.processes();
  const auto files = run.fleet.registration_files();
  for (Program &program : run.fleet.programs) {
    const Stock stock = count(program, processes, files);
    const size_t coming = stock.living.size() + stock.dead_files;
    program.should_run = coming > 0;
    program.supervised = stock.living_has_file || stock.dead_files > 0 || stock.asks_still;
    if (stock.living.size() < 2) program.doubled = 0;
    if (program.doubled != 0) run.counts["doubled still"]++;
    if (stock.living.size() == 1 && stock.dead_files > 0) run.counts["between two files"]++;
    program.uncertain = false;
    // A listed program that no file names is registered by the next daemon as it runs.
    program.fresh = program.kind->by == By::LIST && !stock.living.empty() && !program.supervised;
    if (program.fresh) program.changed_ns = now_ns();
    program.tainted = false;
    program.delayed = false;
    program.spans = program.cancelling;
    program.withdrawn = false;
    program.death = {};
    run.fleet.note(program, "stock: " + std::to_string(stock.living.size()) + " living, " +
                                std::to_string(stock.dead_files) + " dead files" +
                                (stock.living_has_file ? ", living registered" : "") +
                                (stock.asks_still ? ", living asks" : ""));
  }
}

// The older one of two instances that were meant, once it has ended: until the daemon has forgotten
// it there is a registration of a dead process, which its successor would start.
static void await_dropped(Run &run) {
  for (Program &program : run.fleet.programs) {
    if (program.dropped == 0) continue;
    const std::string file = run.fleet.registration_path(program, program.dropped);
    if (!tov_test::wait_until([&] { return !run.device.exists(file); }, DROPPED_LIMIT_MS))
      run.fleet.note(program, file + " is left");
    program.dropped = 0;
  }
}

static void come_to_rest(Run &run) {
  if (!tov_test::wait_until([&] { return restless(run).empty(); }, QUIET_LIMIT_MS))
    throw std::runtime_error("without a daemon the programs do not come to rest:" + restless(run));
  std::this_thread::sleep_for(LAST_WORDS_MS);
  run.fleet.read_reports();
  if (std::string wrong = find_second_copies(run); !wrong.empty()) throw std::runtime_error(wrong);
  take_stock(run);
}

void kill_daemon(Run &run) {
  run.blind = false;
  if (const auto status = run.device.wait_daemon(Millis(0)))
    throw std::runtime_error("the daemon ended by itself, status " + std::to_string(*status));
  let_fork(run);
  await_dropped(run);
  run.lives.back().end = usage_of(run.device.daemon_pid());
  run.device.kill_daemon();
  run.counts["daemon killed"]++;
  for (Program &program : run.fleet.programs)
    run.fleet.loop(program, false);
  run.fleet.wake(true);
  std::this_thread::sleep_for(LAST_FAILURE_MS);
  come_to_rest(run);
}

void cut_daemon_short(Run &run) {
  run.device.start_daemon(run.daemon_options());
  if (const auto status = run.device.wait_daemon(Millis(run.chance.between(0, EARLY_END_MS))))
    throw std::runtime_error("the daemon ended by itself, status " + std::to_string(*status));
  run.device.kill_daemon();
  run.counts["daemon killed at its start"]++;
  come_to_rest(run);
}

void start_daemon(Run &run) {
  run.device.start_daemon(run.daemon_options());
  if (!run.device.wait_daemon_ready(READY_LIMIT_MS))
    throw std::runtime_error("the daemon does not come up");
  run.lives.push_back({run.device.daemon_pid(), usage_of(run.device.daemon_pid()), {}});
  run.disturb(now_ns() + run.real_ns(STARTED_S));
}

}  // namespace tov_chaos
