// Figures for every run. On failure, evidence about single programs goes to the verdict and all
// else to a file.
#include "tests/chaos/report.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <ios>
#include <sstream>
#include <string>
#include <vector>

#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"
#include "tests/support/processes.h"

namespace tov_chaos {

static constexpr size_t LINES_MAX = 30;
static constexpr const char *EVENT_LOGS[] = {"tov_restart_process.log", "tov_run_event.log",
                                             "tov_error_event.log", "user_register_restart.log"};

// ---- figures --------------------------------------------------------------------------------

static void print_usage(const Run &run) {
  if (run.lives.empty()) return;
  // Programs that are only found in files have no connection yet: compare ends with ends.
  const auto print = [](const char *which, const Life &life) {
    printf("  the %s daemon: %s, at its end %s\n", which, life.begin.text().c_str(),
           life.end.text().c_str());
  };
  print("first", run.lives.front());
  print("last ", run.lives.back());
  Usage most;
  for (const Life &life : run.lives) {
    most.descriptors = std::max(most.descriptors, life.end.descriptors);
    most.resident_kib = std::max(most.resident_kib, life.end.resident_kib);
  }
  printf("  the most of all : %s (%zu daemons)\n", most.text().c_str(), run.lives.size());
}

static void print_returns(std::vector<int64_t> late_ns) {
  if (late_ns.empty()) return;
  std::sort(late_ns.begin(), late_ns.end());
  const auto ms = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
  printf("  back after delays : median %.0f ms, at the latest %.0f ms (%zu)\n",
         ms(late_ns[late_ns.size() / 2]), ms(late_ns.back()), late_ns.size());
}

void print_summary(const Run &run) {
  size_t births = 0;
  for (const Program &program : run.fleet.programs)
    births += program.births;
  const Device &device = run.device;
  printf("  starts of programs: %zu\n", births);
  printf("  restarts announced: %zu\n",
         device.count_notices("_CHECK_INFO") + device.count_notices("RE_INIT_INFO"));
  printf("  suspensions       : %zu\n", device.count_notices("had checked more than 5 times"));
  print_returns(run.late_ns);
  print_usage(run);
  for (const auto &[what, count] : run.counts)
    printf("  %6d %s\n", count, what.c_str());
}

// ---- a failure ------------------------------------------------------------------------------

static void add_last(std::ostringstream &text, const char *from,
                     const std::vector<std::string> &lines) {
  const size_t skipped = lines.size() > LINES_MAX ? lines.size() - LINES_MAX : 0;
  for (size_t i = skipped; i < lines.size(); i++)
    text << "    " << from << ": " << lines[i] << "\n";
}

std::string evidence_of(Run &run, const Program &program) {
  std::ostringstream text;
  for (const std::string &line : program.history)
    text << "    " << line << "\n";
  for (const auto &process : run.fleet.processes())
    if (process.command.find(program.name) != std::string::npos)
      text << "    process " << process.pid << ": " << process.command << " ("
           << tov_test::status_field(process.pid, "State") << ")\n";
  for (const RegistrationFile &file : run.fleet.registration_files())
    if (file.command.find(program.name) != std::string::npos)
      text << "    file " << file.path << " of " << file.pid << "\n";
  for (const char *log : EVENT_LOGS) {
    std::vector<std::string> lines;
    for (const std::string &line : run.device.event_log(log))
      if (line.find(program.name) != std::string::npos) lines.push_back(line);
    add_last(text, log, lines);
  }
  return text.str();
}

std::string write_failure(const Run &run, const std::string &wrong) {
  std::string name = "chaos." + std::to_string(run.options.seed);
  if (!run.options.broken.empty()) name += "." + run.options.broken;
  name += ".failure";
  std::ofstream file(name, std::ios::trunc);
  file << wrong;
  for (const Program &program : run.fleet.programs) {
    file << program.command << (program.should_run ? " should run" : " should not run")
         << (program.supervised ? ", supervised\n" : "\n");
    for (const std::string &line : program.history)
      file << "    " << line << "\n";
  }
  file << run.device.dump();
  return name;
}

}  // namespace tov_chaos
