// What one chaos run consists of.
#ifndef TOV_CHAOS_RUN_H
#define TOV_CHAOS_RUN_H

#include <map>
#include <string>

#include "device.h"
#include "fleet.h"

namespace tov_chaos {

struct Options {
  uint64_t seed = 1;
  int seconds = 30;  // of deeds
  size_t programs = 100;
  int daemon_life_s = 30;
  int speed = 20;  // seconds of the daemon's clock in one of ours
  int deeds_per_s = 20;
  int rounds = 3;  // of the judge's proofs
  bool verbose = false;
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

  tov_test::DaemonOptions daemon_options() const {
    return {.faketime = "+0 x" + std::to_string(options.speed), .limits = {{RLIMIT_CORE, 0, 0}}};
  }
};

}  // namespace tov_chaos

#endif  // TOV_CHAOS_RUN_H
