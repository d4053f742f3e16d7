// One daemon is not enough: programs that register by their file alone are found by the next one,
// and programs of the list are registered when they are executed under a daemon that has read it.
#include "tests/chaos/muster.h"

#include <signal.h>
#include <stddef.h>

#include <algorithm>
#include <functional>

#include "tests/chaos/deeds.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/kinds.h"
#include "tests/chaos/run.h"
#include "tests/chaos/upheaval.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr Millis REGISTERED_LIMIT_MS{30'000};
static constexpr Millis GONE_LIMIT_MS{10'000};
static constexpr size_t STAYS_AWAY_ONE_IN = 8;

static void start_those(Run &run, const std::function<bool(const Program &)> &fits) {
  for (Program &program : run.fleet.programs)
    if (!program.should_run && fits(program)) run.fleet.start(program);
}

// A listed program that has gone into the background before the daemon looked at it is known late,
// or under a title not at all; such a one is uncertain, and enough has been waited for it.
static void await_registrations(Run &run, By by) {
  const auto is_done = [by](const Program &program) {
    return program.kind->by != by || !program.should_run || program.supervised || program.uncertain;
  };
  const auto &programs = run.fleet.programs;
  (void)tov_test::wait_until(
      [&] {
        run.fleet.read_reports();
        return std::all_of(programs.begin(), programs.end(), is_done);
      },
      REGISTERED_LIMIT_MS);
}

void muster(Run &run, const std::function<bool(const Program &)> &chosen) {
  const auto is_listed = [](const Program &program) { return program.kind->by == By::LIST; };
  start_those(run, [&](const Program &program) { return !is_listed(program) && chosen(program); });
  await_registrations(run, By::LIBRARY);
  kill_daemon(run);
  start_daemon(run);
  start_those(run, [&](const Program &program) { return is_listed(program) && chosen(program); });
  await_registrations(run, By::LIST);
  const auto &programs = run.fleet.programs;
  if (std::none_of(programs.begin(), programs.end(),
                   [](const Program &program) { return program.uncertain; }))
    return;
  kill_daemon(run);  // takes stock: then it is known whom the daemon knows
  start_daemon(run);
}

void muster_anew(Run &run) {
  await_registrations(run, By::LIST);
  run.fleet.prove_requests();
  const auto processes = run.fleet.processes();
  for (Program &program : run.fleet.programs)
    if (program.should_run && !program.supervised)
      for (const pid_t pid : Fleet::instances(program, processes))
        end_instance(run, program, pid, SIGKILL);
  (void)tov_test::wait_until(
      [&] {
        const auto left = run.fleet.processes();
        return std::all_of(run.fleet.programs.begin(), run.fleet.programs.end(),
                           [&](const Program &program) {
                             return program.should_run || Fleet::instances(program, left).empty();
                           });
      },
      GONE_LIMIT_MS);
  muster(run, [&](const Program &) { return run.chance.below(STAYS_AWAY_ONE_IN) != 0; });
}

}  // namespace tov_chaos
