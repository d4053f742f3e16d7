// The chaos tool: a hundred supervised programs of all kinds, and everything happens to them at
// once. At the end every program that should run runs exactly once, every one that should not does
// not, and the daemon has no zombie and has not grown.
//
//   build/release/tests/chaos/chaos                       ten minutes, and some to settle
//   build/release/tests/chaos/chaos --seed 7 --seconds 60 another story, a shorter one
//   ctest --test-dir build/release -R chaos               the short form, and the judge's own tests
//
//   --seed N         the source of all chance (1); the machine's timing is the other one
//   --seconds N      of disturbance (600)
//   --programs N     (100), of the kinds in kinds.cpp
//   --daemon-life N  seconds after which the daemon is killed and started again (30)
//   --speed N        seconds of the daemon's clock in one of ours (20), so that suspensions and
//                    sweeps fit in
//   --rate N         deeds a second (20)
//   --rounds N       proofs at the end: everybody is killed and must come back (3)
//   --delays N       longest restart delay that a program asks for, by the daemon's clock (8)
//   --limit N        seconds that everything may take to settle (300; more on slow builds)
//   --break WHAT     break one behaviour of the daemon, to see that the judge says so
//                    (support/programs/broken_daemon.c)
//
// Random deeds (deeds.cpp) are done to programs, files and the daemon; now and then the daemon is
// killed and started again, once or several times in a row (upheaval.cpp), or its forks fail. A
// model (fleet.h) keeps what "should" means, by the rules: signal 15 and a cancelled registration
// are deliberate, a registration whose file is gone dies with the daemon, a failing program is
// suspended and comes back. Then everything settles and is judged (judge.cpp). At no moment may a
// program run twice, or return before the delay that it asked for or long after it, or return when
// it was withdrawn meanwhile (returns.cpp). The model counts tasks, not their copies: of copies
// that end in the same moment the daemon brings one back.
//
// A failure prints what it knows of each wrong program (report.cpp) and writes everything else to
// chaos.SEED.failure in the working directory.
//
// Needs root. Exit status: 0, 1 for a verdict against the daemon, 2 when the run could not be made.
#include <getopt.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>

#include "tests/chaos/deeds.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/judge.h"
#include "tests/chaos/muster.h"
#include "tests/chaos/report.h"
#include "tests/chaos/returns.h"
#include "tests/chaos/run.h"
#include "tests/chaos/upheaval.h"

using namespace tov_chaos;

static constexpr int64_t SECOND_NS = 1'000'000'000;
static constexpr int PROGRESS_S = 10;
// A daemon that lost a place cannot register a process; soon no program is left to do a deed to.
static constexpr int BLIND_LIFE_S = 5;

enum { EXIT_RIGHT = 0, EXIT_WRONG = 1, EXIT_UNABLE = 2 };

// Reads the options; false, with a word about it, when they cannot be understood.
static bool read_options(int argc, char **argv, Options *options) {
  static const struct option known[] = {{"seed", required_argument, nullptr, 's'},
                                        {"seconds", required_argument, nullptr, 't'},
                                        {"programs", required_argument, nullptr, 'p'},
                                        {"daemon-life", required_argument, nullptr, 'd'},
                                        {"speed", required_argument, nullptr, 'x'},
                                        {"rate", required_argument, nullptr, 'r'},
                                        {"rounds", required_argument, nullptr, 'n'},
                                        {"limit", required_argument, nullptr, 'l'},
                                        {"delays", required_argument, nullptr, 'y'},
                                        {"break", required_argument, nullptr, 'b'},
                                        {nullptr, 0, nullptr, 0}};
  int option;
  while ((option = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    if (option == '?') return false;
    const int number = atoi(optarg);
    if (number <= 0 && option != 's' && option != 'b') return false;
    switch (option) {
      case 's':
        options->seed = strtoull(optarg, nullptr, 10);
        break;
      case 't':
        options->seconds = number;
        break;
      case 'p':
        options->programs = static_cast<size_t>(number);
        break;
      case 'd':
        options->daemon_life_s = number;
        break;
      case 'x':
        options->speed = number;
        break;
      case 'r':
        options->deeds_per_s = number;
        break;
      case 'n':
        options->rounds = number;
        break;
      case 'l':
        options->limit_s = number;
        break;
      case 'y':
        options->delay_s = number;
        break;
      case 'b':
        options->broken = optarg;
        break;
      default:
        return false;
    }
  }
  return optind == argc;
}

static void prepare(Run &run) {
  run.device.write("/debug_time", "60");
  run.fleet.install();
  start_daemon(run);  // makes the directories
  muster(run, [](const Program &) { return true; });
}

// Returns what went wrong meanwhile.
static std::string disturb(Run &run) {
  const int64_t begin = now_ns();
  int64_t daemon_dies = begin + run.options.daemon_life_s * SECOND_NS;
  int64_t look = begin + SECOND_NS;
  int64_t progress = begin + PROGRESS_S * SECOND_NS;
  const auto pause = std::chrono::microseconds(1'000'000 / run.options.deeds_per_s);
  while (now_ns() - begin < run.options.seconds * SECOND_NS) {
    carry_on(run);
    if (std::string wrong = find_second_copies(run); !wrong.empty()) return wrong;
    if (run.blind) daemon_dies = std::min(daemon_dies, now_ns() + BLIND_LIFE_S * SECOND_NS);
    if (now_ns() >= daemon_dies) {
      if (std::string wrong = find_wrong_returns(run); !wrong.empty()) return wrong;
      kill_daemon(run);
      for (int more = run.chance.between(0, 2); more > 0; more--)
        cut_daemon_short(run);
      start_daemon(run);
      daemon_dies = now_ns() + run.options.daemon_life_s * SECOND_NS;
    } else {
      do_deed(run);
    }
    if (now_ns() >= look) {
      if (std::string wrong = find_overdue(run) + find_wrong_returns(run); !wrong.empty())
        return wrong;
      look += SECOND_NS;
    }
    if (now_ns() >= progress) {
      printf("  %3d s, %d killed\n", run.seconds(), run.counts["killed"]);
      fflush(stdout);
      progress += PROGRESS_S * SECOND_NS;
    }
    std::this_thread::sleep_for(pause);
  }
  return {};
}

static int run_chaos(const Options &options) {
  Run run(options);
  printf("chaos with seed %llu: %zu programs, %d s, a daemon every %d s\n",
         static_cast<unsigned long long>(options.seed), options.programs, options.seconds,
         options.daemon_life_s);
  fflush(stdout);
  std::string wrong;
  try {
    prepare(run);
    wrong = disturb(run);
    if (wrong.empty()) wrong = judge(run);
  } catch (const std::exception &failure) {
    wrong = std::string(failure.what()) + "\n";
  }
  print_summary(run);
  if (wrong.empty()) {
    printf("all is as it should be\n");
    return EXIT_RIGHT;
  }
  const std::string file = write_failure(run, wrong);
  printf("WRONG with seed %llu; all that is known is in %s:\n%s",
         static_cast<unsigned long long>(options.seed), file.c_str(), wrong.c_str());
  return EXIT_WRONG;
}

int main(int argc, char **argv) {
  Options options;
  if (!read_options(argc, argv, &options)) {
    fprintf(stderr,
            "usage: %s [--seed N] [--seconds N] [--programs N] [--daemon-life SECONDS]\n"
            "       [--speed N] [--rate N] [--rounds N] [--limit SECONDS] [--delays N]\n"
            "       [--break WHAT]\n",
            argv[0]);
    return EXIT_UNABLE;
  }
  try {
    return run_chaos(options);
  } catch (const std::exception &failure) {
    fprintf(stderr, "chaos: %s\n", failure.what());
    return EXIT_UNABLE;
  }
}
