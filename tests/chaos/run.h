// What one chaos run consists of.
#ifndef TOV_CHAOS_RUN_H
#define TOV_CHAOS_RUN_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "tests/chaos/fleet.h"
#include "tests/chaos/health.h"
#include "tests/support/device.h"

namespace tov_chaos {

struct Options {
  uint64_t seed = 1;
  int seconds = 600;  // of deeds
  size_t programs = 100;
  int daemon_life_s = 30;
  int speed = 20;  // seconds of the daemon's clock in one of ours
  int deeds_per_s = 20;
  int rounds = 3;           // of the judge's proofs
  int limit_s = 300;        // for everything to settle
  std::string broken = {};  // behaviour of the daemon to break, see programs/broken_daemon.c
};

// One daemon of the run.
struct Life {
  pid_t pid;
  Usage begin;
  Usage end;  // when it is killed
};

struct Run {
  explicit Run(const Options &chosen)
      : options(chosen), chance(chosen.seed), fleet(device, chosen.programs) {}

  Options options;
  Chance chance;
  Device device;
  Fleet fleet;
  // The daemon lost a place that it needs: it may be late until its successor comes.
  bool blind = false;
  std::map<std::string, int> counts;  // deeds done, and what else is worth telling
  std::vector<Life> lives;

  int64_t begin_ns = now_ns();

  // Since the run began.
  int seconds() const { return static_cast<int>((now_ns() - begin_ns) / 1'000'000'000); }

  tov_test::DaemonOptions daemon_options() const {
    tov_test::DaemonOptions daemon;
    daemon.faketime = "+0 x" + std::to_string(options.speed);
    daemon.limits = {{RLIMIT_CORE, 0, 0}};
    if (!options.broken.empty())
      daemon.env = {{"BREAK", options.broken},
                    {"LD_PRELOAD", device.binary_dir() + "/tests/programs/libbroken_daemon.so"}};
    return daemon;
  }
};

}  // namespace tov_chaos

#endif  // TOV_CHAOS_RUN_H
