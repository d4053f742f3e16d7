#include "deeds.h"

#include <signal.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <thread>

namespace tov_chaos {

static constexpr size_t LOOPS_MAX = 6;
static constexpr int LOOP_ENDS_ONE_IN = 60;  // looks; there are some twenty a second

static constexpr int signals[] = {SIGKILL, SIGKILL, SIGKILL, SIGSEGV, SIGABRT, SIGHUP,
                                  SIGINT,  SIGQUIT, SIGUSR1, SIGUSR2, SIGBUS,  SIGFPE,
                                  SIGILL,  SIGALRM, SIGSYS,  SIGTRAP, SIGPIPE};
static constexpr int daemon_signals[] = {SIGTERM, SIGHUP,  SIGUSR1, SIGUSR2, SIGALRM,
                                         SIGCHLD, SIGPIPE, SIGQUIT, SIGABRT};

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

void end_instance(Run &run, Program &program, pid_t pid, int signal) {
  run.device.kill(pid, signal);
  run.fleet.note(program, "signal " + std::to_string(signal) + " to " + std::to_string(pid));
  program.condemned = pid;
  program.changed_ns = now_ns();
  if (signal == SIGTERM) program.supervised = false;
  // A program whose end is expected stays registered: a fresh daemon would start it.
  if (!program.supervised || !program.kind->comes_back) program.should_run = false;
}

static bool kill_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  end_instance(run, *program, program->pid, run.chance.pick(signals));
  return true;
}

static bool stop_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  end_instance(run, *program, program->pid, SIGTERM);
  return true;
}

static bool cancel_somebody(Run &run) {
  Program *program = pick_steady(
      run, [](const Program &one) { return one.supervised && one.kind->by == By::LIBRARY; });
  if (program == nullptr) return false;
  run.device.write("/data/cancel." + program->name, "");
  program->cancelling = true;
  run.fleet.note(*program, "is to cancel");
  return true;
}

static bool loop_somebody(Run &run) {
  const auto &all = run.fleet.programs;
  const auto looping =
      std::count_if(all.begin(), all.end(), [](const Program &one) { return one.looping; });
  if (looping >= static_cast<std::ptrdiff_t>(LOOPS_MAX)) return false;
  Program *program =
      pick_steady(run, [](const Program &one) { return one.supervised && one.kind->comes_back; });
  if (program == nullptr) return false;
  run.fleet.loop(*program, true);
  return true;
}

static bool pause_somebody(Run &run) {
  Program *program = pick_steady(run);
  if (program == nullptr) return false;
  run.fleet.pause(*program, Millis(run.chance.between(50, 2'000)));
  return true;
}

static bool start_somebody(Run &run) {
  static constexpr int64_t REST_NS = 1'500'000'000;
  const auto processes = run.fleet.processes();
  Program *program = pick(run, [&](const Program &one) {
    return !one.should_run && !one.supervised && !one.uncertain &&
           now_ns() - one.changed_ns > REST_NS && Fleet::instances(one, processes).empty();
  });
  if (program == nullptr) return false;
  run.fleet.start(*program);
  return true;
}

// A second instance; when both are registered the older one ends, and that one must stay away.
static bool double_somebody(Run &run) {
  Program *program = pick_steady(
      run, [](const Program &one) { return one.supervised && one.kind->by == By::LIBRARY; });
  if (program == nullptr) return false;
  const pid_t older = program->pid;
  run.fleet.start(*program);
  program->doubled = older;
  return true;
}

static void end_older_instance(Run &run, Program &program) {
  static constexpr int64_t REST_NS = 1'500'000'000;
  const bool both = program.pid != program.doubled && program.registered.contains(program.pid) &&
                    now_ns() - program.changed_ns > REST_NS * tov_test::patience();
  if (!both || !run.device.lives(program.doubled)) return;
  const pid_t younger = program.pid;
  end_instance(run, program, program.doubled, SIGKILL);
  program.condemned = 0;
  program.pid = younger;
  program.doubled = 0;
}

// ---- deeds to files -----------------------------------------------------------------------------

// The daemon may put something back into a directory while it is removed.
static bool remove(Run &run, const std::string &path) {
  try {
    return run.device.remove(path);
  } catch (const std::exception &) {
    return true;
  }
}

static bool remove_registration(Run &run) {
  Program *program = pick(run, [](const Program &one) { return one.pid != 0; });
  if (program == nullptr) return false;
  const bool removed = remove(run, run.fleet.registration_path(*program, program->pid));
  if (removed) run.fleet.note(*program, "its file is removed");
  return removed;
}

// Not among them: the member files of virtual devices. A process whose file is gone comes back
// outside its device, which the daemon then takes for another program.
static constexpr const char *daemon_files[] = {
    "/tmp/tov/forkfile",       "/tmp/tov/forkfile",
    "/tmp/tov/tov.pid",        "/data/.syshacfg",
    "/data/.syshacfg",         "/tmp/vsd/0/tov/cfg.txt",
    "/tmp/.tov_semphore_path", "/qxos/vsd/0/tov",
    "/qxos/vsd_common/tov",    "/etc/tov/third_part_proc.new",
    "/tmp/tov/tov.log1",       "/debug_time",
};
// Rarely: without them nothing can be registered until the next daemon, and without the last most
// of what was registered is forgotten by then.
static constexpr const char *daemon_places[] = {"/tmp/tov",          "/tmp/tov",
                                                "/tmp/tov/.tov",     "/tmp/tov/.tov",
                                                "/tmp/vsd/9/tov/db", "/tmp/vsd/0/tov/db"};

static bool remove_daemon_file(Run &run) {
  return remove(run, run.chance.pick(daemon_files));
}

static bool remove_daemon_place(Run &run) {
  run.blind = true;
  return remove(run, run.chance.pick(daemon_places));
}

static bool remove_client_socket(Run &run) {
  const Program &program = run.chance.pick(run.fleet.programs);
  return remove(run, "/tmp/tov/.socket." + std::to_string(program.pid));
}

static bool turn_switch(Run &run) {
  static constexpr const char *texts[] = {"", "no tov single-process-ha auto-restart enable\n"};
  run.device.write("/data/.syshacfg", run.chance.pick(texts));
  return true;
}

// ---- deeds to the daemon ------------------------------------------------------------------------

static bool signal_daemon(Run &run) {
  run.device.kill(run.device.daemon_pid(), run.chance.pick(daemon_signals));
  return true;
}

static bool pause_daemon(Run &run) {
  run.device.kill(run.device.daemon_pid(), SIGSTOP);
  std::this_thread::sleep_for(Millis(run.chance.between(20, 400)));
  run.device.kill(run.device.daemon_pid(), SIGCONT);
  return true;
}

// ---- the choice ---------------------------------------------------------------------------------

struct Deed {
  const char *label;
  int weight;
  bool (*act)(Run &run);
};

static constexpr Deed deeds[] = {
    {"killed", 120, kill_somebody},
    {"stopped by 15", 14, stop_somebody},
    {"cancelled", 6, cancel_somebody},
    {"made to loop", 8, loop_somebody},
    {"paused", 16, pause_somebody},
    {"started", 60, start_somebody},
    {"doubled", 6, double_somebody},
    {"lost its file", 8, remove_registration},
    {"daemon file removed", 8, remove_daemon_file},
    {"daemon place removed", 2, remove_daemon_place},
    {"client socket removed", 3, remove_client_socket},
    {"switch turned", 3, turn_switch},
    {"daemon signalled", 4, signal_daemon},
    {"daemon paused", 3, pause_daemon},
};

void do_deed(Run &run) {
  int all = 0;
  for (const Deed &deed : deeds)
    all += deed.weight;
  int drawn = run.chance.between(0, all - 1);
  for (const Deed &deed : deeds) {
    drawn -= deed.weight;
    if (drawn >= 0) continue;
    if (deed.act(run)) run.counts[deed.label]++;
    return;
  }
}

void carry_on(Run &run) {
  run.fleet.read_reports();
  run.fleet.wake(false);
  for (Program &program : run.fleet.programs) {
    if (program.looping && run.chance.below(LOOP_ENDS_ONE_IN) == 0) run.fleet.loop(program, false);
    if (program.doubled != 0) end_older_instance(run, program);
  }
}

}  // namespace tov_chaos
