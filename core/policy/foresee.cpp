// The rules' questions are answered from the values that were handed in. Of the acts only the last
// is kept: it is the outcome. For a restart the burst is counted as if the program were started.
#include "core/policy/foresee.h"

#include <algorithm>

#include "core/policy/rules.h"
#include "core/registry/record.h"
#include "include/tov_registry.h"

namespace {

class forecast_s final : public tov_exit_case_t {
 public:
  forecast_s(const tov_pid_t &record, const tov_situation_t &situation, const tov_ending_t &ending,
             tov_foreseen_t *foreseen)
      : record_(record), situation_(situation), ending_(ending), foreseen_(foreseen) {}

  bool lives() override { return !ending_.lost && situation_.lives; }
  bool uncertain() override { return !ending_.lost && situation_.uncertain; }
  tov_twin_e twin() override { return situation_.twin; }
  bool suspended() override { return tov_record_is_suspended(record_); }
  bool stopped() override { return tov_exit_is_stop(ending_.exit_code); }
  bool locked() override { return ending_.force != 1 && situation_.locked; }
  bool restarted() override { return tov_record_is_restarted(record_); }
  bool unknown_whether_it_runs() override { return false; }  // it is said what it would show
  bool runs_again() override { return situation_.runs_again; }
  void act(tov_exit_act_e act) override { foreseen_->act = act; }  // the last one stays
  void heard(const tov_exit_rule_t &rule, bool applies) override {
    foreseen_->steps[foreseen_->steps_num++] = {&rule, applies};
  }

 private:
  const tov_pid_t &record_;
  const tov_situation_t &situation_;
  const tov_ending_t &ending_;
  tov_foreseen_t *foreseen_;
};

}  // namespace

tov_foreseen_t tov_foresee_exit(const tov_pid_t &record, const tov_situation_t &situation,
                                const tov_ending_t &ending) {
  tov_foreseen_t foreseen{};
  forecast_s forecast(record, situation, ending, &foreseen);
  (void)tov_exit_decide(forecast);
  if (foreseen.act != TOV_EXIT_RESTART) return foreseen;

  foreseen.count = tov_burst_after_start(record, true, situation.now).count;
  foreseen.suspended = tov_burst_is_over(foreseen.count) && !situation.dev_mon;
  foreseen.wait_s = std::max(record.restart_time, 0);
  foreseen.silent = situation.dev_mon;
  return foreseen;
}
