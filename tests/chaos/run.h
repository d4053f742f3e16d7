// What one chaos run consists of.
#ifndef TOV_CHAOS_RUN_H
#define TOV_CHAOS_RUN_H

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
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
  int delay_s = 8;          // the longest restart delay, by the daemon's clock
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
      : options(chosen), chance(chosen.seed), fleet(device, chosen.programs, chosen.delay_s) {}

  Options options;
  Chance chance;
  Device device;
  Fleet fleet;
  // The daemon lost a place that it needs: it may be late until its successor comes.
  bool blind = false;
  // While forks of the daemon fail: when that ends. 0: they do not.
  int64_t forks_end_ns = 0;
  // Until then nobody has to be back in time: something happened to the daemon or to its files.
  int64_t disturbed_ns = 0;
  // How much later than their delays programs came back, while nothing happened to the daemon.
  std::vector<int64_t> late_ns = {};
  std::map<std::string, int> counts;  // deeds done, and what else is worth telling
  std::vector<Life> lives;

  int64_t begin_ns = now_ns();

  void disturb(int64_t until_ns) { disturbed_ns = std::max(disturbed_ns, until_ns); }
  // So many seconds of the daemon's clock in ours.
  int64_t real_ns(int daemon_seconds) const {
    return int64_t{daemon_seconds} * 1'000'000'000 / options.speed;
  }
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
