// Deeds to programs.
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/chaos/deeds.h"
#include "tests/chaos/deeds_list.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/kinds.h"
#include "tests/chaos/requests.h"
#include "tests/chaos/run.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr size_t LOOPS_MAX = 6;
static constexpr Millis DEAD_LIMIT_MS{1'000};

static constexpr int signals[] = {SIGKILL, SIGKILL, SIGKILL, SIGSEGV, SIGABRT, SIGHUP,
                                  SIGINT,  SIGQUIT, SIGUSR1, SIGUSR2, SIGBUS,  SIGFPE,
                                  SIGILL,  SIGALRM, SIGSYS,  SIGTRAP, SIGPIPE};

// ---- whom ---------------------------------------------------------------------------------------

using Test = std::function<bool(const Program &)>;

static Program *pick(Run &run, const Test &test) {
  std::vector<Program *> fitting;
  for (Program &program : run.fleet.programs)
    if (test(program)) fitting.push_back(&program);
  return fitting.empty() ? nullptr : run.chance.pick(fitting);
}

static Program *pick_steady(
    Run &run, const Test &test = [](const Program &) { return true; }) {
  // Whether it is steady is asked last: that looks at the process.
  return pick(run,
              [&](const Program &program) { return test(program) && run.fleet.steady(program); });
}

// ---- deeds to programs --------------------------------------------------------------------------

// Only what happens to it now decides when it comes back.
static bool is_plain(const Program &program) {
  return program.supervised && program.kind->comes_back && program.should_run &&
         !program.uncertain && !program.tainted && !program.looping && program.doubled == 0 &&
         program.wake_ns == 0;
}

void end_instance(Run &run, Program &program, pid_t pid, int signal) {
  const int64_t before_ns = now_ns();
  run.device.kill(pid, signal);
  run.fleet.note(program, "signal " + std::to_string(signal) + " to " + std::to_string(pid));
  program.condemned = pid;
  program.changed_ns = now_ns();
  program.death = {};
  if (signal != SIGTERM && is_plain(program)) program.death = {pid, before_ns, program.delayed, 0};
  if (signal == SIGTERM) program.supervised = false;
  // A program whose end is expected stays registered: a fresh daemon would start it.
  if (!program.supervised || !program.kind->comes_back) program.should_run = false;
}

// Whether the daemon has carried out all that the program asked for.
static bool is_proven(Run &run, Program &program) {
  if (!program.proven) run.fleet.prove_requests();
  return program.proven;
}

bool kill_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  // What becomes of the others depends on what the daemon knows of them.
  if ((program->fresh || !program->supervised) && !is_proven(run, *program)) return false;
  end_instance(run, *program, program->pid, run.chance.pick(signals));
  return true;
}

// Not long after its birth, perhaps before its registration: it comes back all the same, since the
// daemon knows whom it started.
bool kill_somebody_early(Run &run) {
  Program *program = pick(run, [&](const Program &one) {
    const bool known = one.supervised && !one.fresh && one.should_run && !one.uncertain;
    return known && one.kind->comes_back && one.doubled == 0 && one.wake_ns == 0 &&
           !one.cancelling && one.pid != 0 && one.condemned != one.pid && !run.fleet.steady(one);
  });
  if (program == nullptr || !run.device.lives(program->pid)) return false;
  program->tainted = true;
  end_instance(run, *program, program->pid, run.chance.pick(signals));
  return true;
}

bool stop_somebody(Run &run) {
  Program *program = pick_steady(run, [](const Program &one) { return !one.tainted; });
  if (program == nullptr || !is_proven(run, *program)) return false;
  end_instance(run, *program, program->pid, SIGTERM);
  return true;
}

static bool asked_by_itself(const Program &program) {
  return program.supervised && program.kind->by == By::LIBRARY && !program.tainted;
}

bool cancel_somebody(Run &run) {
  Program *program = pick_steady(run, asked_by_itself);
  if (program == nullptr || !is_proven(run, *program)) return false;
  run.device.write("/data/cancel." + program->name, "");
  program->cancelling = true;
  run.fleet.note(*program, "is to cancel");
  return true;
}

// The program ends, and its registration is withdrawn while the daemon waits with its restart. That
// must be in time, or else nobody knows until the next daemon what has become of it.
bool withdraw_dead(Run &run) {
  Program *program =
      pick_steady(run, [](const Program &one) { return asked_by_itself(one) && one.delayed; });
  if (program == nullptr || !is_proven(run, *program)) return false;
  const int64_t back_ns = now_ns() + run.real_ns(program->delay_s);
  const pid_t dead = program->pid;
  end_instance(run, *program, dead, SIGKILL);
  program->death = {};
  const bool lasts = tov_test::wait_until([&] { return !run.device.lives(dead); }, DEAD_LIMIT_MS);
  std::this_thread::sleep_for(std::chrono::nanoseconds(run.real_ns(program->delay_s) / 4));
  const bool in_time = lasts && withdraw(run.device, dead) && now_ns() < back_ns;
  run.fleet.note(*program, in_time ? "is withdrawn" : "is withdrawn too late");
  if (in_time) {
    program->should_run = program->supervised = false;
    program->withdrawn = true;
  } else {
    program->uncertain = true;
  }
  return in_time;
}

bool renew_delays(Run &run) {
  bool left = false;
  for (Program &program : run.fleet.programs) {
    // What registers anew is registered as what it shows, which is nothing without a first thread.
    const bool shows_itself = program.titled != program.pid && program.upgraded != program.pid &&
                              program.leaderless != program.pid;
    if (!program.kind->delays || program.delayed || program.tainted || !program.supervised ||
        !shows_itself)
      continue;
    left |= program.should_run;
    if (run.fleet.steady(program)) run.fleet.register_anew(program);
  }
  return left;
}

// Ends the oldest stranger where there are many.
static bool has_room_for_stranger(Run &run) {
  static constexpr size_t STRANGERS_MAX = 8;
  while (run.fleet.strangers.size() >= STRANGERS_MAX) {
    const Stranger &oldest = run.fleet.strangers.front();
    if (!run.fleet.lives(oldest)) return false;  // the judge will find that
    run.device.kill(oldest.pid, SIGKILL);
    run.fleet.strangers.erase(run.fleet.strangers.begin());
  }
  return true;
}

// Whether the daemon knows what the process is: it has said so itself, or a sweep has found it.
static bool is_seen(const Run &run, const Program &program) {
  static constexpr int TWO_SWEEPS_S = 120;
  return program.kind->by == By::LIBRARY ||
         now_ns() - program.changed_ns > run.real_ns(TWO_SWEEPS_S);
}

// The process lives on under its id and is another program: two sweeps later the program must be
// there again, and the other one must still live.
bool replace_somebody(Run &run) {
  const auto fits = [&run](const Program &one) {
    return one.supervised && one.kind->comes_back && one.kind->replaceable && !one.tainted &&
           is_seen(run, one);
  };
  Program *program = pick_steady(run, fits);
  if (program == nullptr || !is_proven(run, *program) || !has_room_for_stranger(run)) return false;
  return run.fleet.become_stranger(*program);
}

// Whoever has the id of a dead program is nobody's business, and the program comes back.
bool reuse_id(Run &run) {
  const auto fits = [](const Program &one) {
    return one.supervised && one.kind->comes_back && one.kind->replaceable;
  };
  Program *program = pick_steady(run, fits);
  if (program == nullptr || !is_proven(run, *program) || !has_room_for_stranger(run)) return false;
  const pid_t id = program->pid;
  end_instance(run, *program, id, SIGKILL);
  const bool given = run.fleet.give_id(*program, id);
  if (given) run.fleet.note(*program, "its id was given to another");
  return given;
}

bool upgrade_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  run.fleet.upgrade(*program);
  program->upgraded = program->pid;
  run.fleet.note(*program, "was upgraded");
  return true;
}

bool title_somebody(Run &run) {
  Program *program = pick_steady(run, [](const Program &one) { return one.titled != one.pid; });
  if (program == nullptr) return false;
  run.fleet.rewrite_title(*program);
  return true;
}

// A watched thread would be missed, and who is paused by signals has to have a first one.
bool behead_somebody(Run &run) {
  Program *program = pick_steady(
      run, [](const Program &one) { return one.kind->replaceable && one.leaderless != one.pid; });
  if (program == nullptr) return false;
  run.fleet.end_first_thread(*program);
  return true;
}

bool loop_somebody(Run &run) {
  const auto &all = run.fleet.programs;
  const auto looping =
      std::count_if(all.begin(), all.end(), [](const Program &one) { return one.looping; });
  if (looping >= static_cast<ptrdiff_t>(LOOPS_MAX)) return false;
  Program *program =
      pick_steady(run, [](const Program &one) { return one.supervised && one.kind->comes_back; });
  if (program == nullptr) return false;
  run.fleet.loop(*program, true);
  return true;
}

bool pause_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  run.fleet.pause(*program, Millis(run.chance.between(50, 2'000)));
  return true;
}

// Not while the daemon has yet to accept its last end: two registrations of one program, one of
// them of a dead process, are brought back by the next daemon as two.
bool start_somebody(Run &run) {
  static constexpr int64_t REST_NS = 1'500'000'000;
  const auto processes = run.fleet.processes();
  const auto is_registered = [&run](const Program &one) {
    return run.device.exists(run.fleet.registration_path(one, one.pid));
  };
  Program *program = pick(run, [&](const Program &one) {
    return !one.should_run && !one.supervised && !one.uncertain &&
           now_ns() - one.changed_ns > REST_NS * tov_test::patience() &&
           Fleet::instances(one, processes).empty() && !is_registered(one);
  });
  if (program == nullptr) return false;
  run.fleet.start(*program);
  return true;
}

// A second instance; when both are registered the older one ends, and that one must stay away.
bool double_somebody(Run &run) {
  Program *program = pick_steady(run, asked_by_itself);
  if (program == nullptr || !is_proven(run, *program)) return false;
  const pid_t older = program->pid;
  run.fleet.start(*program);
  program->doubled = older;
  return true;
}

void end_older_instance(Run &run, Program &program) {
  static constexpr int64_t REST_NS = 1'500'000'000;
  const bool both = program.pid != program.doubled && program.registered.contains(program.pid) &&
                    now_ns() - program.changed_ns > REST_NS * tov_test::patience();
  if (!both || !run.device.lives(program.doubled) || !is_proven(run, program)) return;
  const pid_t younger = program.pid;
  end_instance(run, program, program.doubled, SIGKILL);
  program.condemned = 0;
  program.pid = younger;
  program.dropped = program.doubled;
  program.living.erase(program.doubled);
  program.doubled = 0;
}

}  // namespace tov_chaos
