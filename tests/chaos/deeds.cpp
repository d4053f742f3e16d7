// The table of deeds with the weight of each, and the draw. What the deeds do is written in
// deeds_programs.cpp and deeds_daemon.cpp.
#include "tests/chaos/deeds.h"

#include "tests/chaos/deeds_list.h"
#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

static constexpr int DISTURBED_S = 10;       // by the daemon's clock
static constexpr int LOOP_ENDS_ONE_IN = 60;  // looks; there are some twenty a second

struct Deed {
  const char *label;
  int weight;
  bool (*act)(Run &run);
  bool disturbs = false;  // the daemon itself: who dies then may be back late
};

static constexpr Deed deeds[] = {
    {"killed", 120, kill_somebody},
    {"killed early", 16, kill_somebody_early},
    {"stopped by 15", 14, stop_somebody},
    {"cancelled", 6, cancel_somebody},
    {"withdrawn while dead", 5, withdraw_dead},
    {"made to loop", 8, loop_somebody},
    {"became another program", 4, replace_somebody},
    {"paused", 16, pause_somebody},
    {"started", 60, start_somebody},
    {"upgraded", 10, upgrade_somebody},
    {"titled", 8, title_somebody},
    {"lost its first thread", 8, behead_somebody},
    {"its id given to another", 8, reuse_id},
    {"doubled", 6, double_somebody},
    {"lost its file", 8, remove_registration},
    {"daemon file removed", 8, remove_daemon_file, true},
    {"daemon place removed", 1, remove_daemon_place, true},
    {"members' files removed", 1, empty_member_place, true},
    {"client socket removed", 3, remove_client_socket, true},
    {"switch turned", 3, turn_switch, true},
    {"forks failed", 4, fail_forks},
    {"daemon signalled", 4, signal_daemon, true},
    {"daemon paused", 3, pause_daemon, true},
};

void do_deed(Run &run) {
  int all = 0;
  for (const Deed &deed : deeds)
    all += deed.weight;
  int drawn = run.chance.between(0, all - 1);
  for (const Deed &deed : deeds) {
    drawn -= deed.weight;
    if (drawn >= 0) continue;
    if (deed.act(run)) {
      run.counts[deed.label]++;
      if (deed.disturbs) run.disturb(now_ns() + run.real_ns(DISTURBED_S));
    }
    return;
  }
}

void carry_on(Run &run) {
  run.fleet.read_reports();
  run.fleet.wake(false);
  if (run.forks_end_ns != 0 && now_ns() >= run.forks_end_ns) let_fork(run);
  renew_delays(run);
  for (Program &program : run.fleet.programs) {
    if (program.looping && run.chance.below(LOOP_ENDS_ONE_IN) == 0) run.fleet.loop(program, false);
    if (program.doubled != 0) end_older_instance(run, program);
  }
}

}  // namespace tov_chaos
