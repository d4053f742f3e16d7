// The readers of /proc, each beside the bare system calls that no reader can do without.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "util/identity.h"
#include "util/priority.h"
#include "util/tov_utils.h"

static constexpr int DEAD_ITERATIONS = 50;

static std::string proc_file(const char *name) {
  return "/proc/" + std::to_string(getpid()) + "/" + name;
}

static void read_bare(const std::string &path) {
  char buffer[4096];
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  benchmark::DoNotOptimize(read(fd, buffer, sizeof buffer));
  close(fd);
}

static void command_line(benchmark::State &state) {
  char buffer[4096];
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(pid_to_cmdline(getpid(), buffer, sizeof buffer));
}
BENCHMARK(command_line);

static void floor_of_command_line(benchmark::State &state) {
  const std::string exe = proc_file("exe");
  const std::string cmdline = proc_file("cmdline");
  char buffer[4096];
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(readlink(exe.c_str(), buffer, sizeof buffer));
    read_bare(cmdline);
  }
}
BENCHMARK(floor_of_command_line);

static void process_life_of_the_living(benchmark::State &state) {
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(process_life(getpid()));
}
BENCHMARK(process_life_of_the_living);

static void floor_of_process_life(benchmark::State &state) {
  const std::string stat = proc_file("stat");
  for ([[maybe_unused]] auto _ : state)
    read_bare(stat);
}
BENCHMARK(floor_of_process_life);

// At the priority of the event handler, whose timers have no slack. Its floor is the three pauses
// of 10 ms that it is made of.
static void process_life_of_the_dead(benchmark::State &state) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  if (tov_set_priority(TOV_RT_PRIORITY) != 0) state.SetLabel("without real-time priority");
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(process_life(child));
  tov_reset_priority();
}
BENCHMARK(process_life_of_the_dead)
    ->Iterations(DEAD_ITERATIONS)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// What the daemon asks: a process without an entry in /proc costs no pause.
static void certain_death(benchmark::State &state) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(tov_identity_life(child, {}));
}
BENCHMARK(certain_death);

static void process_of_a_thread(benchmark::State &state) {
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(tov_get_ppid_form_pid(getpid()));
}
BENCHMARK(process_of_a_thread);

static void floor_of_process_of_a_thread(benchmark::State &state) {
  const std::string status = proc_file("status");
  for ([[maybe_unused]] auto _ : state)
    read_bare(status);
}
BENCHMARK(floor_of_process_of_a_thread);
