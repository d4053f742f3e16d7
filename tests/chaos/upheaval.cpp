// Second copies: the daemon removes the registration file of a dead process only after it has
// started the successor. Killed between the two it leaves a file that names a dead process beside
// a living successor, and its own successor starts the program again. The same happens when an
// operator started a program whose earlier registration still lay there. Both instances are then
// registered; the first of them that ends is not started again.
#include "tests/chaos/upheaval.h"

#include <signal.h>
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
#include "tests/chaos/run.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr int STARTED_S = 10;  // by the daemon's clock
static constexpr Millis QUIET_LIMIT_MS{60'000};
static constexpr Millis COPIES_LIMIT_MS{10'000};
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
    if (std::find(stock.living.begin(), stock.living.end(), file.pid) != stock.living.end())
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
    program.may_double = coming > 1;
    if (coming > 1) {
      run.counts[program.doubled != 0 ? "doubled still" : "two registrations left"]++;
    }
    program.uncertain = false;
    program.fresh = false;
    program.tainted = false;
    program.doubled = 0;
    program.delayed = false;
    program.spans = program.cancelling;
    program.withdrawn = false;
    program.death = {};
    program.copies.clear();
    run.fleet.note(program, "stock: " + std::to_string(stock.living.size()) + " living, " +
                                std::to_string(stock.dead_files) + " dead files" +
                                (stock.living_has_file ? ", living registered" : "") +
                                (stock.asks_still ? ", living asks" : ""));
  }
}

// That a program has executed another one is known to a daemon that saw it before, and to no other:
// what runs in the place of one that has not come back by now is ended.
static void end_unsettled_strangers(Run &run) {
  std::erase_if(run.fleet.strangers, [&](const Stranger &stranger) {
    const auto &all = run.fleet.programs;
    const bool unsettled = std::any_of(all.begin(), all.end(),
                                       [&](const Program &one) { return one.pid == stranger.pid; });
    if (unsettled) run.device.kill(stranger.pid, SIGKILL);
    return unsettled;
  });
}

void kill_daemon(Run &run) {
  end_unsettled_strangers(run);
  run.blind = false;
  if (const auto status = run.device.wait_daemon(Millis(0)))
    throw std::runtime_error("the daemon ended by itself, status " + std::to_string(*status));
  let_fork(run);
  run.lives.back().end = usage_of(run.device.daemon_pid());
  run.device.kill_daemon();
  run.counts["daemon killed"]++;
  for (Program &program : run.fleet.programs)
    run.fleet.loop(program, false);
  run.fleet.wake(true);
  std::this_thread::sleep_for(LAST_FAILURE_MS);
  if (!tov_test::wait_until([&] { return restless(run).empty(); }, QUIET_LIMIT_MS))
    throw std::runtime_error("without a daemon the programs do not come to rest:" + restless(run));
  std::this_thread::sleep_for(LAST_WORDS_MS);
  run.fleet.read_reports();
  take_stock(run);
}

// Ends all instances but the newest.
static void end_second_copies(Run &run, Program &program) {
  std::vector<pid_t> pids;
  const bool both = tov_test::wait_until(
      [&] {
        run.fleet.read_reports();
        pids = Fleet::instances(program, run.fleet.processes());
        return pids.size() > 1 && std::all_of(pids.begin(), pids.end(), [&](pid_t pid) {
                 return program.registered.contains(pid);
               });
      },
      COPIES_LIMIT_MS);
  if (!both) return;
  run.counts["second copy ended"]++;
  for (const pid_t pid : pids) {
    if (pid == program.pid) continue;
    run.device.kill(pid, SIGKILL);
    run.fleet.note(program, "second copy " + std::to_string(pid) + " ended");
  }
}

void start_daemon(Run &run) {
  run.device.start_daemon(run.daemon_options());
  if (!run.device.wait_daemon_ready(READY_LIMIT_MS))
    throw std::runtime_error("the daemon does not come up");
  for (Program &program : run.fleet.programs)
    if (program.may_double) end_second_copies(run, program);
  run.lives.push_back({run.device.daemon_pid(), usage_of(run.device.daemon_pid()), {}});
  run.disturb(now_ns() + run.real_ns(STARTED_S));
}

}  // namespace tov_chaos
