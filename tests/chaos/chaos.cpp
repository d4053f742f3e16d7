// The chaos tool: a hundred supervised programs of all kinds, and everything happens to them at
// once. At the end every program that should run runs exactly once, and every one that should not
// does not.
//
//   chaos [--seed N] [--seconds N] [--programs N] [--daemon-life SECONDS] [--speed N] [--rate N]
//         [--rounds N] [--verbose]
//
// Random deeds (deeds.cpp) are done to programs, files and the daemon for so many seconds; now and
// then the daemon is killed and started again (upheaval.cpp). A model keeps what "should" means, by
// the rules: signal 15 and a cancelled registration are deliberate, a registration whose file is
// gone dies with the daemon, a failing program is suspended and comes back. Then everything settles
// and is judged (judge.cpp). The daemon's clock is fast, so that suspensions and sweeps fit in.
//
// Needs root and a machine that is otherwise quiet. Exit status: 0, 1 for a verdict against the
// daemon, 2 when the run could not be made.
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <thread>

#include "deeds.h"
#include "judge.h"
#include "run.h"
#include "upheaval.h"

using namespace tov_chaos;

static constexpr int64_t SECOND_NS = 1'000'000'000;
static constexpr int PROGRESS_S = 10;

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
                                        {"verbose", no_argument, nullptr, 'v'},
                                        {nullptr, 0, nullptr, 0}};
  int option;
  while ((option = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    const int number = optarg != nullptr ? atoi(optarg) : 1;
    if (option == '?' || (number <= 0 && option != 's')) return false;
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
      case 'v':
        options->verbose = true;
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
  // The first daemon makes the directories; the second one finds the programs that registered by
  // file alone, and the list of those that are registered when they start.
  start_daemon(run);
  for (Program &program : run.fleet.programs)
    if (program.kind->by != By::LIST) run.fleet.start(program);
  kill_daemon(run);
  start_daemon(run);
  for (Program &program : run.fleet.programs)
    if (program.kind->by == By::LIST) run.fleet.start(program);
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
    if (now_ns() >= daemon_dies) {
      kill_daemon(run);
      start_daemon(run);
      daemon_dies = now_ns() + run.options.daemon_life_s * SECOND_NS;
    } else {
      do_deed(run);
    }
    if (now_ns() >= look) {
      if (std::string wrong = find_overdue(run); !wrong.empty()) return wrong;
      look += SECOND_NS;
    }
    if (now_ns() >= progress) {
      printf("  %3d s, %d deaths\n", static_cast<int>((now_ns() - begin) / SECOND_NS),
             run.counts["killed"]);
      fflush(stdout);
      progress += PROGRESS_S * SECOND_NS;
    }
    std::this_thread::sleep_for(pause);
  }
  return {};
}

static int run_chaos(const Options &options) {
  Run run(options);
  printf("chaos with seed %llu\n", static_cast<unsigned long long>(options.seed));
  std::string wrong;
  try {
    prepare(run);
    wrong = disturb(run);
    if (wrong.empty()) wrong = judge(run);
  } catch (const std::exception &failure) {
    wrong = std::string(failure.what()) + "\n";
  }
  for (const auto &[what, count] : run.counts)
    printf("  %6d %s\n", count, what.c_str());
  if (wrong.empty()) {
    printf("all is as it should be\n");
    return EXIT_RIGHT;
  }
  printf("WRONG with seed %llu:\n%s", static_cast<unsigned long long>(options.seed), wrong.c_str());
  if (options.verbose) printf("%s", run.device.dump().c_str());
  return EXIT_WRONG;
}

int main(int argc, char **argv) {
  Options options;
  if (!read_options(argc, argv, &options)) {
    fprintf(stderr,
            "usage: %s [--seed N] [--seconds N] [--programs N] [--daemon-life SECONDS]\n"
            "       [--speed N] [--rate N] [--rounds N] [--verbose]\n",
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
