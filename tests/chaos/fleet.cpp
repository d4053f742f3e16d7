// Keeps the model up to date: each start and each deed is noted, and the programs' own reports say
// which process was born, is registered or has cancelled. A process is known by its command line.
#include "tests/chaos/fleet.h"

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/chaos/kinds.h"
#include "tests/chaos/requests.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr int VSDS = 16;
static constexpr gid_t VSD_GROUP = 3000;
static constexpr gid_t VSD_GROUP_STEP = 100;
static constexpr Millis STEADY_AFTER_MS{300};
// A registration is acknowledged before it is carried out, which may have to wait for a restart.
static constexpr Millis STEADY_AFTER_START_MS{1'500};
static constexpr Millis LISTED_WITHIN_MS{3'000};
static constexpr size_t HISTORY = 40;
// Two executables of the same content. All programs are links to one of them, so that a hundred
// cost no memory.
static constexpr char FIRST_BUILD[] = "/opt/first_build/first_build";
static constexpr char SECOND_BUILD[] = "/opt/second_build/second_build";
static constexpr char CHILD[] = ".claim.child.";

int64_t now_ns() {
  return tov_test::monotonic_ns();
}

static int64_t ns(Millis length) {
  return std::chrono::nanoseconds(length).count() * tov_test::patience();
}

// ---- installation ---------------------------------------------------------------------------

static Program make_program(const Kind &kind, int number, int delay_s) {
  char digits[8];
  snprintf(digits, sizeof digits, "%03d", number);
  Program program;
  program.kind = &kind;
  // No name may be a part of another: the daemon's lists are searched for substrings.
  program.name = tov_test::unique_name(std::string("ch_") + kind.label + "_" + digits + "_");
  program.path = "/opt/" + program.name + "/" + program.name;
  program.command = program.path;
  for (const std::string &word : kind.words)
    program.command += " " + word + (word.ends_with("/") ? program.name : "");
  if (kind.delays) {
    program.delay_s = 1 + number % delay_s;
    program.command += " delay=" + std::to_string(program.delay_s);
  }
  program.start_command = kind.starter.empty() ? program.command : program.path;
  for (const std::string &word : kind.starter)
    program.start_command += " " + word;
  return program;
}

Fleet::Fleet(Device &device, size_t size, int delay_s) : device_(device) {
  int number = 0;
  for (size_t round = 0; programs.size() < size; round++)
    for (const Kind &kind : all_kinds())
      if (static_cast<int>(round) < kind.share && programs.size() < size)
        programs.push_back(make_program(kind, number++, delay_s));
}

static void link_program(Device &device, const Program &program) {
  device.mkdir("/opt/" + program.name);
  if (link(device.path(FIRST_BUILD).c_str(), device.path(program.path).c_str()) < 0)
    throw std::runtime_error("link " + program.path + ": " + strerror(errno));
}

void Fleet::install() {
  device_.install_program("first_build", "worker");
  device_.install_program("second_build", "worker");
  for (const Program &program : programs) {
    const Kind &kind = *program.kind;
    link_program(device_, program);
    if (kind.by_script)
      device_.install_start_script(program.name, "exec " + program.start_command + "\n");
    if (kind.by == By::LIST)
      device_.write("/etc/tov/proc/" + program.name,
                    program.command + (kind.by_script ? " TOV_SHELL_RESTART" : " TOV_RESTART"));
    if (kind.vsd > 0) device_.mkdir("/data/var/run/vsd/" + std::to_string(kind.vsd), 0777);
  }
}

// ---- life -----------------------------------------------------------------------------------

void Fleet::start(Program &program) {
  std::istringstream text(program.start_command);
  std::vector<std::string> argv;
  for (std::string word; text >> word;)
    argv.push_back(word);
  tov_test::SpawnOptions options;
  options.limits = {{RLIMIT_CORE, 0, 0}};
  if (program.kind->vsd > 0)
    options.groups = {{VSD_GROUP + VSD_GROUP_STEP * static_cast<gid_t>(program.kind->vsd)}};
  const pid_t child = device_.spawn(argv, options);
  children_.push_back(child);
  program.should_run = true;
  program.fresh = true;
  program.condemned = 0;
  program.proven = false;
  program.withdrawn = false;
  program.changed_ns = now_ns();
  note(program, "started as " + std::to_string(child));
}

void Fleet::take_birth(Program &program, pid_t pid, int64_t born_ns, uint64_t started) {
  static constexpr size_t BIRTHS = 8;
  program.births++;
  program.births_ns.push_back(born_ns);
  if (program.births_ns.size() > BIRTHS) program.births_ns.pop_front();
  program.born.insert(pid);
  program.registered.erase(pid);
  program.pid = pid;
  program.living[pid] = started;
  Death &death = program.death;
  if (death.pid != 0 && death.returned_ns == 0 && born_ns > death.killed_ns)
    death.returned_ns = born_ns;
}

// `rest` begins with the process id.
void Fleet::take_report(Program &program, const std::string &what, const std::string &rest) {
  std::istringstream text(rest);
  pid_t pid = 0;
  text >> pid;
  note(program, what + " " + std::to_string(pid));
  program.changed_ns = now_ns();
  program.proven = false;
  if (what == "birth") {
    int64_t born_ns = 0;
    uint64_t started = 0;
    text >> born_ns >> started;
    take_birth(program, pid, born_ns, started);
  }
  if (what == "registered") {
    program.registered.insert(pid);
    if (program.kind->by == By::LIBRARY) program.supervised = true;
    // A process that the daemon started is registered already, with or without its delay.
    if (program.fresh) program.delayed = program.kind->delays;
  }
  if (what == "anew") {
    program.cancelling = false;
    program.supervised = true;
    // Its file may have been written for the last daemon. The next one registered it from that,
    // without the delay, and what is registered already is not changed.
    program.delayed = !program.spans;
    program.spans = false;
  }
  if (what == "cancelled") {
    program.cancelling = false;
    program.supervised = false;
  }
  if (what == "titled") program.titled = pid;
  if (what == "leaderless") program.leaderless = pid;
}

// Only whole lines: the rest comes with the next call.
void Fleet::read_reports(Program &program) {
  const std::string text = device_.read("/data/worker." + program.name);
  size_t end;
  while ((end = text.find('\n', program.reports_read)) != std::string::npos) {
    const std::string line = text.substr(program.reports_read, end - program.reports_read);
    program.reports_read = end + 1;
    const size_t blank = line.find(' ');
    take_report(program, line.substr(0, blank), line.substr(blank + 1));
  }
}

void Fleet::read_reports() {
  std::erase_if(children_, [&](pid_t child) { return device_.wait(child, Millis(0)).has_value(); });
  for (Program &program : programs) {
    read_reports(program);
    if (program.kind->by != By::LIST || !program.fresh || program.supervised) continue;
    // The daemon's own registration of it shows in the file.
    if (program.pid != 0 && device_.exists(registration_path(program, program.pid))) {
      program.supervised = true;
      program.proven = false;
      program.changed_ns = now_ns();
      note(program, "is registered");
    } else if (now_ns() - program.changed_ns > ns(LISTED_WITHIN_MS)) {
      program.uncertain = true;
    }
  }
}

void Fleet::prove_requests() {
  if (!requests_are_done(device_)) return;
  for (Program &program : programs)
    program.proven = true;
}

bool Fleet::steady(const Program &program) const {
  const bool busy = program.looping || program.uncertain || program.cancelling ||
                    program.doubled != 0 || program.wake_ns != 0;
  if (busy || !program.should_run || program.pid == 0 || program.condemned == program.pid)
    return false;
  if (!program.registered.contains(program.pid)) return false;
  if (program.fresh && program.kind->by == By::LIST && !program.supervised) return false;
  const Millis margin = program.fresh ? STEADY_AFTER_START_MS : STEADY_AFTER_MS;
  if (now_ns() - program.changed_ns < ns(margin)) return false;
  return is_itself(program);
}

// What a process shows as its command line when it has rewritten that.
static bool is_title(const Program &program, const std::string &shown) {
  return shown.starts_with(program.name + ": on");
}

bool Fleet::is_itself(const Program &program) const {
  if (!device_.lives(program.pid)) return false;
  const std::string shown = tov_test::command_line(program.pid);
  return shown == program.command || (program.titled == program.pid && is_title(program, shown)) ||
         (program.leaderless == program.pid && shown.empty());
}

std::vector<Device::Process> Fleet::processes() const {
  std::vector<Device::Process> all = device_.processes();
  for (Device::Process &process : all)
    for (const Program &program : programs)
      if ((process.pid == program.titled && is_title(program, process.command)) ||
          (process.pid == program.leaderless && process.command.empty()))
        process.command = program.command;
  return all;
}

std::vector<pid_t> Fleet::side_by_side(Program &program) {
  std::vector<pid_t> pids;
  std::erase_if(program.living, [](const auto &one) {
    return tov_test::start_of(one.first) != one.second || !tov_test::process_lives(one.first);
  });
  for (const auto &[pid, started] : program.living)
    pids.push_back(pid);
  return pids;
}

bool Fleet::become_stranger(Program &program) {
  static constexpr Millis LIMIT_MS{5'000};
  const pid_t pid = program.pid;
  const std::string other = program.path + " idle";
  device_.write("/data/become." + program.name, "");
  if (!tov_test::wait_until([&] { return tov_test::command_line(pid) == other; }, LIMIT_MS)) {
    device_.remove("/data/become." + program.name);
    if (tov_test::command_line(pid) != other) return false;
  }
  program.condemned = pid;
  program.changed_ns = now_ns();
  program.living.erase(pid);
  strangers.push_back({pid, other});
  note(program, "became a stranger");
  return true;
}

bool Fleet::lives(const Stranger &stranger) const {
  return device_.lives(stranger.pid) && tov_test::command_line(stranger.pid) == stranger.command;
}

bool Fleet::give_id(const Program &program, pid_t id) {
  static constexpr Millis FREE_WITHIN_MS{500};
  tov_test::SpawnOptions options;
  options.id = id;
  pid_t child = 0;
  (void)tov_test::wait_until(
      [&] {
        try {
          child = device_.spawn({program.path, "idle"}, options);
        } catch (const std::exception &) {  // still a zombie, or somebody else's already
        }
        return child != 0;
      },
      FREE_WITHIN_MS);
  if (child == 0) return false;
  children_.push_back(child);
  strangers.push_back({child, program.path + " idle"});
  return true;
}

void Fleet::upgrade(const Program &program) {
  const std::string path = device_.path(program.path), aside = path + ".new";
  struct stat now {
  }, first{};
  if (stat(path.c_str(), &now) < 0 || stat(device_.path(FIRST_BUILD).c_str(), &first) < 0)
    throw std::runtime_error("stat " + path + ": " + strerror(errno));
  const char *build = now.st_ino == first.st_ino ? SECOND_BUILD : FIRST_BUILD;
  if (link(device_.path(build).c_str(), aside.c_str()) < 0 ||
      rename(aside.c_str(), path.c_str()) < 0)
    throw std::runtime_error("upgrade " + path + ": " + strerror(errno));
}

// It has done so when it reports it.
void Fleet::rewrite_title(Program &program) {
  device_.write("/data/title." + program.name, "");
  note(program, "is to rewrite its title");
}

void Fleet::end_first_thread(Program &program) {
  device_.write("/data/leader." + program.name, "");
  note(program, "is to go on without its first thread");
}

void Fleet::loop(Program &program, bool on) {
  if (program.looping == on) return;
  program.looping = on;
  program.tainted = true;
  program.changed_ns = now_ns();
  note(program, on ? "begins to loop" : "stops looping");
  if (on)
    device_.write("/data/loop." + program.name, "");
  else
    device_.remove("/data/loop." + program.name);
}

void Fleet::register_anew(Program &program) {
  device_.write("/data/anew." + program.name, "");
  program.cancelling = true;
  note(program, "is to register anew");
}

void Fleet::pause(Program &program, Millis length) {
  device_.kill(program.pid, SIGSTOP);
  program.wake_ns = now_ns() + ns(length);
  note(program, "paused");
}

void Fleet::wake(bool all) {
  for (Program &program : programs) {
    if (program.wake_ns == 0 || (!all && program.wake_ns > now_ns())) continue;
    program.wake_ns = 0;
    if (device_.lives(program.pid)) device_.kill(program.pid, SIGCONT);
    note(program, "woken");
  }
}

// ---- what is there --------------------------------------------------------------------------

std::vector<pid_t> Fleet::instances(const Program &program,
                                    const std::vector<Device::Process> &processes) {
  std::vector<pid_t> pids;
  for (const auto &process : processes)
    if (process.command == program.command) pids.push_back(process.pid);
  return pids;
}

std::string Fleet::registration_path(const Program &program, pid_t pid) const {
  return Device::register_path(program.kind->vsd, pid, program.command);
}

std::vector<RegistrationFile> Fleet::registration_files() const {
  std::vector<RegistrationFile> files;
  for (int vsd = 0; vsd < VSDS; vsd++) {
    const std::string directory = "/tmp/vsd/" + std::to_string(vsd) + "/tov/db";
    for (const std::string &name : device_.list(directory)) {
      RegistrationFile file{vsd, directory, 0, {}, 0};
      if (name.starts_with(CHILD)) file.child = atoi(name.c_str() + strlen(CHILD));
      file.path.append("/").append(name);
      std::istringstream text(device_.read(file.path));
      int action = 0;
      if (text >> file.pid >> action && text.get() == '\n' && std::getline(text, file.command))
        files.push_back(std::move(file));
    }
  }
  return files;
}

void Fleet::note(Program &program, const std::string &text) const {
  char stamp[32];
  snprintf(stamp, sizeof stamp, "%10.3f ", static_cast<double>(now_ns()) / 1e9);
  program.history.push_back(stamp + text);
  if (program.history.size() > HISTORY) program.history.pop_front();
}

}  // namespace tov_chaos
