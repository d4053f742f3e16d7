// Every 10 ms the lines that are new in each source are collected, sorted by time and printed.
// Event logs carry the time of day; their stamps are converted to the monotonic clock, on which
// the other lines are dated.
#include "demo/narrator.h"

#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/collector.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

namespace tov_demo {

using tov_test::Millis;
using tov_test::monotonic_ns;

static constexpr Millis LOOK_PERIOD_MS{10};
static constexpr int64_t NS_PER_S = 1'000'000'000;
static constexpr int64_t NS_PER_MS = 1'000'000;
static constexpr int64_t NS_PER_US = 1'000;

static constexpr char DEMO[] = "demo";
static constexpr char NOTICE[] = "notice";
static constexpr char CONSOLE[] = "console";
static constexpr char REPEATED_NOTICE[] = "%HA-5-";

static constexpr struct {
  const char *file;   // how the names of the log's files begin
  const char *shown;  // in the column
} logs[] = {
    {"tov_run_event.log", "run_event"},        {"tov_restart_process.log", "restart"},
    {"tov_kill_process.log", "kill"},          {"tov_error_event.log", "error"},
    {"user_register_restart.log", "register"}, {"user_register_alive.log", "alive"},
};

static constexpr struct {
  const char *source;
  const char *code;
} colours[] = {
    {DEMO, "\033[1m"}, {NOTICE, "\033[33m"}, {"error", "\033[31m"}, {CONSOLE, "\033[35m"}};

static const char *colour_of(const std::string &source) {
  for (const auto &row : colours)
    if (source == row.source) return row.code;
  return "\033[36m";
}

static bool wants_colour() {
  const char *term = getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && getenv("NO_COLOR") == nullptr && term != nullptr &&
         strcmp(term, "dumb") != 0;
}

static int64_t wall_minus_monotonic() {
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  return int64_t{wall.tv_sec} * NS_PER_S + wall.tv_nsec - monotonic_ns();
}

Narrator::Narrator(const tov_test::Device &device)
    : device_(device),
      colour_(wants_colour()),
      begin_ns_(monotonic_ns()),
      wall_minus_monotonic_ns_(wall_minus_monotonic()) {}

// ---- printing -------------------------------------------------------------------------------

void Narrator::print(const Line &line) {
  const double seconds = static_cast<double>(line.time_ns - begin_ns_) / NS_PER_S;
  printf("%8.3f  %s%-9s%s  %s\n", std::max(seconds, 0.0), colour_ ? colour_of(line.source) : "",
         line.source.c_str(), normal(), line.text.c_str());
}

void Narrator::scene(const std::string &title, const std::string &explanation) {
  tell();
  printf("\n%s%s%s\n", bold(), title.c_str(), normal());
  if (!explanation.empty()) printf("   %s\n", explanation.c_str());
  fflush(stdout);
}

void Narrator::act(const std::string &text) {
  tell();
  print({monotonic_ns(), DEMO, text});
  fflush(stdout);
}

void Narrator::result(bool good, const std::string &text) {
  tell();
  const char *colour = !colour_ ? "" : good ? "\033[32m" : "\033[1;31m";
  printf("%8s  %s%-9s  %s%s\n", "", colour, good ? "  =>" : "  => !", text.c_str(), normal());
  fflush(stdout);
}

// ---- what the device says -------------------------------------------------------------------

// Behind priority, date and tag.
void Narrator::take_notices(std::vector<Line> &lines) {
  const auto all = device_.notices();
  for (; notices_told_ < all.size(); notices_told_++) {
    const tov_test::Notice &notice = all[notices_told_];
    const size_t begin = notice.text.find("]: ");
    lines.push_back({notice.time_ms * NS_PER_MS, NOTICE,
                     begin == std::string::npos ? notice.text : notice.text.substr(begin + 3)});
  }
}

// "2026-11-15 102541 004512 TEXT", local time.
void Narrator::take_events(std::vector<Line> &lines) {
  for (const auto &log : logs) {
    const auto all = device_.event_log(log.file);
    size_t &told = events_told_[log.file];
    for (; told < all.size(); told++) {
      struct tm local {};
      const char *behind = strptime(all[told].c_str(), "%Y-%m-%d %H%M%S ", &local);
      if (behind == nullptr) continue;
      local.tm_isdst = -1;
      char *text = nullptr;
      const long microseconds = strtol(behind, &text, 10);
      const int64_t wall_ns = int64_t{mktime(&local)} * NS_PER_S + microseconds * NS_PER_US;
      while (*text == ' ')
        text++;
      if (strncmp(text, REPEATED_NOTICE, strlen(REPEATED_NOTICE)) == 0) continue;
      lines.push_back({wall_ns - wall_minus_monotonic_ns_, log.shown, text});
    }
  }
}

void Narrator::take_console(std::vector<Line> &lines) {
  const std::string all = device_.console();
  for (size_t end; (end = all.find('\n', console_told_bytes_)) != std::string::npos;) {
    std::string text = all.substr(console_told_bytes_, end - console_told_bytes_);
    while (!text.empty() && text.back() == '\r')
      text.pop_back();
    if (!text.empty()) lines.push_back({monotonic_ns(), CONSOLE, text});
    console_told_bytes_ = end + 1;
  }
}

void Narrator::tell() {
  std::vector<Line> lines;
  take_notices(lines);
  take_events(lines);
  take_console(lines);
  std::stable_sort(lines.begin(), lines.end(),
                   [](const Line &a, const Line &b) { return a.time_ns < b.time_ns; });
  for (const Line &line : lines)
    print(line);
  fflush(stdout);
}

// ---- waiting --------------------------------------------------------------------------------

void Narrator::rest(Millis span) {
  look_until(monotonic_ns() + span.count() * NS_PER_MS, [] { return false; });
}

bool Narrator::wait(const std::function<bool()> &holds, Millis limit) {
  return look_until(monotonic_ns() + limit.count() * NS_PER_MS * tov_test::patience(), holds);
}

bool Narrator::look_until(int64_t end_ns, const std::function<bool()> &holds) {
  while (monotonic_ns() < end_ns) {
    tell();
    if (holds()) return true;
    usleep(static_cast<useconds_t>(LOOK_PERIOD_MS.count()) * 1000);
  }
  tell();
  return holds();
}

}  // namespace tov_demo
