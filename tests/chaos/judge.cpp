#include "judge.h"

#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "deeds.h"
#include "upheaval.h"

namespace tov_chaos {

// By the daemon's clock. A self-check may be put off to a later one's deadline, and a death that
// nobody heard of is found by the second of two sweeps.
static constexpr int SELF_CHECK_S = 60;
static constexpr int TWO_SWEEPS_S = 125;
static constexpr int SETTLE_LIMIT_S = 2 * SELF_CHECK_S + 3 * TWO_SWEEPS_S;
static constexpr int OVERDUE_S = 300;

static constexpr Millis LOOK_MS{100};
static constexpr Millis ZOMBIE_LIMIT_MS{5'000};
static constexpr long GROWTH_KIB = 256;
static constexpr size_t GROWTH_DESCRIPTORS =
    8;  // clients come and go, a leak comes with each death
static constexpr char FORK_FILE[] = "/tmp/tov/forkfile";
static constexpr Millis END_LIMIT_MS{20'000};

static Millis real(const Run &run, int daemon_seconds) {
  return Millis(daemon_seconds * 1000 / run.options.speed);
}

// ---- who runs -----------------------------------------------------------------------------------

// Empty when the program runs as often as it should.
static std::string wrong_count(const Program &program,
                               const std::vector<Device::Process> &processes) {
  const auto pids = Fleet::instances(program, processes);
  const size_t expected = program.should_run ? 1 : 0;
  if (pids.size() == expected) return {};
  std::ostringstream text;
  text << program.command << " (" << program.kind->label << ") runs " << pids.size()
       << " times and should run " << expected << (program.supervised ? "" : ", unsupervised");
  for (const pid_t pid : pids)
    text << " " << pid;
  text << "\n";
  for (const std::string &line : program.history)
    text << "    " << line << "\n";
  return text.str();
}

static std::string wrong_programs(Run &run) {
  std::string wrong;
  const auto processes = run.fleet.processes();
  for (const Program &program : run.fleet.programs)
    wrong += wrong_count(program, processes);
  return wrong;
}

std::string find_overdue(Run &run) {
  if (run.blind) return {};
  const int64_t late_ns =
      std::chrono::nanoseconds(real(run, OVERDUE_S)).count() * tov_test::patience();
  std::string wrong;
  const auto processes = run.fleet.processes();
  for (const Program &program : run.fleet.programs) {
    const bool busy = program.looping || program.uncertain || program.doubled != 0 ||
                      program.may_double || program.cancelling || program.wake_ns != 0;
    if (!busy && now_ns() - program.changed_ns > late_ns) wrong += wrong_count(program, processes);
  }
  return wrong;
}

// Waits until all is as it should be, and then for as long as a late surprise could take.
static std::string settle(Run &run) {
  const int64_t begin = now_ns();
  const int64_t limit_ns =
      std::chrono::nanoseconds(real(run, SETTLE_LIMIT_S)).count() * tov_test::patience();
  const int64_t hold_ns = std::chrono::nanoseconds(real(run, TWO_SWEEPS_S)).count();
  int64_t right_since = 0;
  for (;;) {
    run.fleet.read_reports();
    if (const auto status = run.device.wait_daemon(Millis(0)))
      return "the daemon ended by itself, status " + std::to_string(*status) + "\n";
    const std::string wrong = wrong_programs(run);
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

struct Usage {
  size_t descriptors = 0;
  long resident_kib = 0;
};

static Usage usage_of(pid_t daemon) {
  Usage usage;
  const std::string fds = "/proc/" + std::to_string(daemon) + "/fd";
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(fds))
    usage.descriptors++;
  usage.resident_kib = atol(tov_test::status_field(daemon, "VmRSS").c_str());
  return usage;
}

static std::string zombies(pid_t daemon) {
  std::string found;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    const pid_t pid = atoi(entry.path().filename().c_str());
    if (pid > 0 && tov_test::process_state(pid) == 'Z' &&
        tov_test::status_field(pid, "PPid") == std::to_string(daemon))
      found += " " + std::to_string(pid);
  }
  return found;
}

static std::string wrong_daemon(Run &run, const Usage &before) {
  std::string wrong;
  const pid_t daemon = run.device.daemon_pid();
  if (!tov_test::wait_until([&] { return zombies(daemon).empty(); }, ZOMBIE_LIMIT_MS))
    wrong += "zombies of the daemon:" + zombies(daemon) + "\n";
  const Usage after = usage_of(daemon);
  std::ostringstream text;
  text << "the daemon had " << before.descriptors << " descriptors and " << before.resident_kib
       << " KiB, now " << after.descriptors << " and " << after.resident_kib << "\n";
  printf("  %s", text.str().c_str());
  // A sanitizer keeps what was freed.
  const bool grown =
      tov_test::patience() == 1 && after.resident_kib > before.resident_kib + GROWTH_KIB;
  if (after.descriptors > before.descriptors + GROWTH_DESCRIPTORS || grown) wrong += text.str();
  return wrong;
}

// ---- proofs -------------------------------------------------------------------------------------

static void end_all(Run &run, int signal) {
  const auto processes = run.fleet.processes();
  for (Program &program : run.fleet.programs)
    for (const pid_t pid : Fleet::instances(program, processes))
      end_instance(run, program, pid, signal);
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
  printf("  %s: %zu programs should run, %zu are supervised\n", what, running, supervised);
}

std::string judge(Run &run) {
  kill_daemon(run);
  start_daemon(run);
  say(run, "settling");
  std::string wrong = settle(run);
  Usage before;
  for (int round = 0; wrong.empty() && round < run.options.rounds; round++) {
    end_all(run, SIGKILL);
    say(run, "all killed");
    wrong = settle(run);
    // The first round shows what so many restarts at once need; then nothing may be added.
    if (wrong.empty() && round > 0) wrong = wrong_daemon(run, before);
    before = usage_of(run.device.daemon_pid());
  }
  if (!wrong.empty()) return wrong;
  wrong = wrong_daemon(run, before);
  end_all(run, SIGTERM);
  say(run, "all stopped");
  wrong += settle(run);
  wrong += wrong_files(run) + end_daemon(run);
  return wrong + run.device.sanitizer_reports();
}

}  // namespace tov_chaos
