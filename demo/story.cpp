// The scenes in their order, and the table of outcomes at the end. A restart is compared with a
// bare fork and exec, measured on the same machine.
#include "demo/story.h"

#include <signal.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "demo/stage.h"
#include "tests/support/children.h"
#include "tests/support/processes.h"

namespace tov_demo {

using tov_test::Millis;
using tov_test::monotonic_ns;

static constexpr Millis READING_PAUSE_MS{1200};  // between scenes, for the person who watches
static constexpr int FLOOR_ROUNDS = 20;
static constexpr double NS_PER_MS = 1e6;

static constexpr char IN_C[] = "supervised_c";
static constexpr char BY_SCRIPT[] = "supervised_cpp";
static constexpr char THREADED[] = "watched_worker";
static constexpr char SCRIPT[] = "/etc/cmdmap/supervised_cpp";  // the daemon adds ".sh"

// ---- scenes ---------------------------------------------------------------------------------

static void start_everything(Stage &stage) {
  stage.start_daemon();
}

static void programs_register(Stage &stage) {
  stage.device().install_start_script(
      BY_SCRIPT, std::string("exec /usr/local/bin/") + BY_SCRIPT + " " + SCRIPT + "\n");
  stage.start_program(IN_C);
  stage.start_program(BY_SCRIPT, {SCRIPT});
  stage.start_program(THREADED);
}

static void plain_kill(Stage &stage) {
  stage.end_and_see_back(stage.program(IN_C), SIGKILL);
}

static void crash(Stage &stage) {
  stage.end_and_see_back(stage.program(THREADED), SIGSEGV, "with a watched thread");
}

static void start_script(Stage &stage) {
  stage.end_and_see_back(stage.program(BY_SCRIPT), SIGKILL, "by its start script");
}

static void all_at_once(Stage &stage) {
  stage.end_all_and_see_back(SIGKILL);
}

static void daemon_dies(Stage &stage) {
  Program &lost = stage.program(THREADED);
  stage.kill_daemon();
  const int64_t ended_ns = stage.end(lost, SIGKILL);
  stage.narrator().rest(Millis(300));
  stage.start_daemon();
  stage.see_back(lost, ended_ns, "SIGKILL", "while tov was dead");
  stage.end_and_see_back(stage.program(IN_C), SIGABRT, "known to the new tov");
}

static void dies_again_and_again(Stage &stage) {
  stage.narrator().act(
      "echo 2 > /debug_time (the self-check comes after 2 s instead of 5 minutes)");
  stage.device().write("/debug_time", "2\n");
  stage.end_until_suspended(stage.program(IN_C));
}

static void deliberate_ends(Stage &stage) {
  stage.end_and_see_away(stage.program(IN_C), SIGTERM, "it withdrew its registration");
  stage.end_and_see_away(stage.program(BY_SCRIPT), SIGTERM, "taken as a deliberate stop");
}

namespace {

struct Scene {
  const char *title;
  const char *explanation;
  void (*play)(Stage &stage);
};

}  // namespace

static constexpr Scene opening[] = {
    {"The daemon starts", "It listens on its socket and to the kernel's process events.",
     start_everything},
    {"Three programs start and register themselves",
     "One call of libtov each; their sources are in examples/.", programs_register},
};

static constexpr Scene scenes[] = {
    {"A program is killed", "The daemon hears of it from the kernel and executes it again.",
     plain_kill},
    {"A program with a watched thread crashes", "The thread is watched again in the new process.",
     crash},
    {"A program that has a start script is killed",
     "The script is run with the argument \"start\" and starts the program.", start_script},
    {"All are killed in the same instant", "They come back one after the other.", all_at_once},
    {"The daemon itself is killed, and a program dies while it is away",
     "The next daemon reads the registration files: it restarts what died, and keeps what lives.",
     daemon_dies},
    {"A program dies again and again",
     "The fifth death within two minutes suspends it until a self-check.", dies_again_and_again},
    {"Programs are asked to end", "A deliberate end is no failure; nothing is started again.",
     deliberate_ends},
};

// ---- the end --------------------------------------------------------------------------------

// What a restart costs at least: a fork and an exec, median of some.
static double bare_restart_ms() {
  std::vector<double> times;
  for (int i = 0; i < FLOOR_ROUNDS; i++) {
    const int64_t begin_ns = monotonic_ns();
    const pid_t child = tov_test::fork_child();
    if (child == 0) {
      execl("/bin/true", "true", nullptr);
      _exit(1);
    }
    tov_test::bury_child(child);
    times.push_back(static_cast<double>(monotonic_ns() - begin_ns) / NS_PER_MS);
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

static void print_row(const Outcome &outcome) {
  char process[32];
  char back[32] = "-";
  if (outcome.after > 0)
    snprintf(process, sizeof process, "%d -> %d", outcome.before, outcome.after);
  else
    snprintf(process, sizeof process, "%d", outcome.before);
  if (outcome.back_ms >= 0) snprintf(back, sizeof back, "%.1f ms", outcome.back_ms);
  const std::string remark = outcome.remark + (outcome.as_expected ? "" : "  NOT AS EXPECTED");
  printf("  %-15s  %-15s  %-18s  %10s%s%s\n", outcome.program.c_str(), outcome.ended_by.c_str(),
         process, back, remark.empty() ? "" : "  ", remark.c_str());
}

static bool summarise(Stage &stage) {
  Narrator &narrator = stage.narrator();
  narrator.scene("What became of them");
  printf("  %-15s  %-15s  %-18s  %10s\n", "program", "ended by", "process", "back after");
  bool good = true;
  int back = 0;
  int should_be_back = 0;
  for (const Outcome &outcome : stage.outcomes()) {
    print_row(outcome);
    good = good && outcome.as_expected;
    back += outcome.after > 0 ? 1 : 0;
    should_be_back += outcome.after > 0 || !outcome.as_expected ? 1 : 0;
  }
  printf(
      "\nA bare fork and exec takes %.1f ms here. The daemon first looks three times, 10 ms "
      "apart, whether\nthe process is really dead, so that no second copy is ever started.\n",
      bare_restart_ms());
  printf("%s%d of %d restarts done; %s.%s\n", narrator.bold(), back, should_be_back,
         good ? "everything came back that should" : "NOT everything went as it should",
         narrator.normal());
  return good;
}

static void play_all(Stage &stage, const Scene *begin, const Scene *end, int number) {
  for (const Scene *scene = begin; scene != end; scene++) {
    stage.narrator().scene(std::to_string(number++) + ". " + scene->title, scene->explanation);
    scene->play(stage);
    stage.narrator().rest(READING_PAUSE_MS);
  }
}

void open_scene(Stage &stage) {
  play_all(stage, std::begin(opening), std::end(opening), 1);
}

bool play(Stage &stage) {
  play_all(stage, std::begin(scenes), std::end(scenes), 1 + static_cast<int>(std::size(opening)));
  return summarise(stage);
}

}  // namespace tov_demo
