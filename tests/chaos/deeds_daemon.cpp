// Deeds to files and to the daemon.
#include <signal.h>

#include <exception>
#include <string>
#include <thread>

#include "tests/chaos/deeds.h"
#include "tests/chaos/deeds_list.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

static constexpr int daemon_signals[] = {SIGTERM, SIGHUP,  SIGUSR1, SIGUSR2, SIGALRM,
                                         SIGCHLD, SIGPIPE, SIGQUIT, SIGABRT};

// ---- deeds to files -----------------------------------------------------------------------------

// The daemon may put something back into a directory while it is removed.
static bool remove_path(Run &run, const std::string &path) {
  try {
    return run.device.remove(path);
  } catch (const std::exception &) {
    return true;
  }
}

// Of two instances side by side the daemon would know one alone, should it die then.
bool remove_registration(Run &run) {
  Program &program = run.chance.pick(run.fleet.programs);
  if (program.pid == 0 || program.doubled != 0) return false;
  const bool removed = remove_path(run, run.fleet.registration_path(program, program.pid));
  if (removed) run.fleet.note(program, "its file is removed");
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
// of what was registered is forgotten by then. The same place of a virtual device is only emptied:
// a member that registers while it is missing leaves no member file either.
static constexpr const char *daemon_places[] = {
    "/tmp/tov",      "/tmp/tov",      "/tmp/tov",      "/tmp/tov",          "/tmp/tov/.tov",
    "/tmp/tov/.tov", "/tmp/tov/.tov", "/tmp/tov/.tov", "/tmp/vsd/0/tov/db",
};
static constexpr char MEMBERS_FILES[] = "/tmp/vsd/9/tov/db";

bool remove_daemon_file(Run &run) {
  return remove_path(run, run.chance.pick(daemon_files));
}

bool remove_daemon_place(Run &run) {
  run.blind = true;
  return remove_path(run, run.chance.pick(daemon_places));
}

bool empty_member_place(Run &run) {
  bool removed = false;
  for (const std::string &name : run.device.list(MEMBERS_FILES))
    removed |= remove_path(run, std::string(MEMBERS_FILES) + "/" + name);
  return removed;
}

bool remove_client_socket(Run &run) {
  const Program &program = run.chance.pick(run.fleet.programs);
  return remove_path(run, "/tmp/tov/.socket." + std::to_string(program.pid));
}

bool turn_switch(Run &run) {
  static constexpr const char *texts[] = {"", "no tov single-process-ha auto-restart enable\n"};
  run.device.write("/data/.syshacfg", run.chance.pick(texts));
  return true;
}

// ---- deeds to the daemon ------------------------------------------------------------------------

// Shorter than the seven failures that end the daemon take: a try comes every five seconds.
bool fail_forks(Run &run) {
  static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";
  static constexpr int LEAST_S = 2, MOST_S = 12;
  // Until a fork has succeeded the failures of two phases would add up.
  if (run.forks_end_ns != 0 || !run.device.read(FORK_FILE).empty()) return false;
  if (!run.device.limit_processes(run.device.daemon_pid(), 1)) return false;
  run.forks_end_ns = now_ns() + run.real_ns(run.chance.between(LEAST_S, MOST_S));
  run.disturb(run.forks_end_ns);
  return true;
}

void let_fork(Run &run) {
  static constexpr int NO_LIMIT = -1;
  static constexpr int NEXT_TRY_S = 6;
  if (run.forks_end_ns == 0) return;
  run.forks_end_ns = 0;
  (void)run.device.limit_processes(run.device.daemon_pid(), NO_LIMIT);
  run.disturb(now_ns() + run.real_ns(NEXT_TRY_S));
}

bool signal_daemon(Run &run) {
  run.device.kill(run.device.daemon_pid(), run.chance.pick(daemon_signals));
  return true;
}

bool pause_daemon(Run &run) {
  run.device.kill(run.device.daemon_pid(), SIGSTOP);
  std::this_thread::sleep_for(Millis(run.chance.between(20, 400)));
  run.device.kill(run.device.daemon_pid(), SIGCONT);
  return true;
}

}  // namespace tov_chaos
