// The watch over threads on a fast clock: silent threads are counted down and reported at the right
// minute.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- a thread that hangs ----------------------------------------------------------------------

struct Case {
  const char *label;
  std::vector<std::string> words;
  Terms terms;
  std::vector<int> countdown;  // the budget at the end of each period
  std::vector<int> warned;     // misses at each warning
};

static void PrintTo(const Case &row, std::ostream *out) {
  *out << row.label;
}

class HungThread : public testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(Terms, HungThread,
                         testing::Values(Case{"Even", {}, EVEN_TERMS, {4, 3, 2, 1, 0}, {3, 4, 5}},
                                         Case{"Odd", {"odd"}, ODD_TERMS, {3, 2, 1, 0}, {3, 4}}),
                         [](const auto &row) { return std::string(row.param.label); });

TEST_P(HungThread, IsReportedWhenItsBudgetIsSpentAndEachMinuteFromThenOn) {
  const Terms &terms = GetParam().terms;
  const size_t life = static_cast<size_t>(terms.passes) * static_cast<size_t>(terms.budget);
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "hung", GetParam().words);
  const int64_t begin_ns = monotonic_ns();
  const pid_t tid = enrol(device, task, 0);
  EXPECT_EQ(tid, task.pid);

  const auto asked = need_requests(device, 3);
  EXPECT_GE((monotonic_ns() - begin_ns) / 1'000'000,
            (int64_t{terms.period_s} * terms.budget - 60) * 1000 / WATCH_SPEED);
  const Steps steps = watch_steps(device);
  const Steps seen = steps_of(steps, Step::SEEN, tid);
  ASSERT_GE(seen.size(), life);
  EXPECT_EQ(seen[0].pid, task.pid);
  EXPECT_EQ(seen[0].period_s, terms.period_s);
  EXPECT_EQ(seen[0].budget, terms.budget);
  EXPECT_EQ(seen[0].left, terms.budget);
  EXPECT_EQ(seen[0].silent_s, 0);
  EXPECT_EQ(seen[1].silent_s, 60);
  EXPECT_EQ(asked[0].pass, seen[life - 1].pass) << "not a minute sooner or later";
  EXPECT_EQ(asked[1].pass, asked[0].pass + 1);
  EXPECT_EQ(asked[2].pass, asked[0].pass + 2);

  std::vector<int> left = budgets(steps_of(steps, Step::PERIOD, tid));
  left.resize(GetParam().countdown.size());
  EXPECT_EQ(left, GetParam().countdown);
  std::vector<int> missed;
  for (const Step &step : steps_of(steps, Step::WARNING, tid)) {
    missed.push_back(step.missed);
    EXPECT_EQ(step.pid, task.pid);
    EXPECT_EQ(step.budget, terms.budget);
  }
  EXPECT_EQ(missed, GetParam().warned);

  EXPECT_THAT(need_kill_lines(device, 3), Each(killed_hung(task, 0, tid)));
  EXPECT_THAT(need_asked(device, 3), Each(asked_to_kill(task, 0, tid)));
  EXPECT_TRUE(device.lives(task.pid));
}

TEST(HungThread, TakesItsProcessWithIt) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "taken", {"threads=2"});
  const pid_t first = enrol(device, task, 0);
  const pid_t last = enrol(device, task, 2);
  const auto status = device.wait(task.pid, WATCH_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT);
  EXPECT_THAT(need_kill_lines(device, 1),
              Contains(AnyOf(killed_hung(task, 0, first), killed_hung(task, 2, last))));
  need_steps(device, "both records dropped", [&](const Steps &steps) {
    return !steps_of(steps, Step::GONE, first).empty() &&
           !steps_of(steps, Step::GONE, last).empty();
  });
}

// It is asked for again and again, as long as it stays.
TEST(HungThread, OfAProcessThatIgnoresAbortsIsReportedOnAndOn) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "deaf");
  const pid_t tid = enrol(device, task, 0, "register+");
  const int spent = need_requests(device, 3)[0].pass;
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_THAT(need_kill_lines(device, 3), Each(killed_hung(task, 0, tid)));
  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  need_step(device, "a budget restored", Step::SEEN, tid,
            [&](const Step &step) { return step.pass > spent && step.left == EVEN_TERMS.budget; });
}

// ---- a thread that comes back -------------------------------------------------------------------

// Lets a silent thread give a sign of life one period before it would be reported. Returns whether
// it was in time: the moment is short, and the machine may be busy.
static bool comes_back_in_time() {
  static constexpr int SPEED = 150;
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device, SPEED));
  const Task task = start_watched(device, "spared");
  const pid_t tid = enrol(device, task, 0);
  need_step(device, "the last period", Step::PERIOD, tid,
            [](const Step &step) { return step.left == 1; });
  EXPECT_EQ(say(device, task, 0, "alive"), 0);

  // Silent from here on: it is reported once, now or after a whole countdown.
  const std::vector<Request> asked = need_requests(device, 1);
  const Steps steps = watch_steps(device);
  Steps periods = steps_of(steps, Step::PERIOD, tid);
  periods.erase(std::remove_if(periods.begin(), periods.end(),
                               [&](const Step &step) { return step.pass > asked[0].pass; }),
                periods.end());
  if (periods.size() == 5) return false;
  EXPECT_THAT(budgets(periods), ElementsAre(4, 3, 2, 1, 4, 3, 2, 1, 0));
  // The pass that saw the sign of life began the count anew.
  const Steps seen = steps_of(steps, Step::SEEN, tid);
  const auto restored = std::find_if(seen.begin() + 8, seen.end(), [](const Step &step) {
    return step.left == EVEN_TERMS.budget;
  });
  EXPECT_NE(restored, seen.end());
  if (restored == seen.end()) return true;
  EXPECT_EQ(restored->silent_s, 0);
  EXPECT_EQ(asked[0].pass - restored->pass, 9) << "ten minutes after the sign of life was seen";
  EXPECT_THAT(need_kill_lines(device, 1), Each(killed_hung(task, 0, tid)));
  return true;
}

TEST(SilentThread, ThatComesBackOnePeriodBeforeTheEndIsSpared) {
  static constexpr int ATTEMPTS = 4;
  int attempt = 0;
  while (attempt < ATTEMPTS && !comes_back_in_time())
    attempt++;
  EXPECT_LT(attempt, ATTEMPTS) << "it was never spared";
}

TEST(SilentThread, OfAStoppedProcessGoesOnWhereItWas) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "stopped");
  const pid_t tid = enrol(device, task, 0);
  say(device, task, 0, "live");
  device.kill(task.pid, SIGSTOP);
  need_requests(device, 2);
  // A stopped process takes the signal only when it goes on: it is asked for each minute.
  EXPECT_TRUE(device.lives(task.pid));
  device.kill(task.pid, SIGCONT);
  const auto status = device.wait(task.pid, WATCH_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT);
  need_step(device, "the record dropped", Step::GONE, tid, [](const Step &) { return true; });
  EXPECT_THAT(need_kill_lines(device, 2), Each(killed_hung(task, 0, tid)));
}

TEST(SilentThread, OfAProcessThatWasStoppedForAWhileIsRestored) {
  static constexpr int SPEED = 60;
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device, SPEED));
  const Task task = start_watched(device, "paused");
  const pid_t tid = enrol(device, task, 0);
  say(device, task, 0, "live");
  device.kill(task.pid, SIGSTOP);
  const Steps before = need_step(device, "a period missed", Step::PERIOD, tid,
                                 [](const Step &step) { return step.left <= 4; });
  device.kill(task.pid, SIGCONT);
  const int missed_at = steps_of(before, Step::PERIOD, tid).back().pass;
  need_step(device, "a budget restored", Step::SEEN, tid, [&](const Step &step) {
    return step.pass > missed_at && step.left == EVEN_TERMS.budget;
  });
  EXPECT_THAT(device.event_log(KILL_LOG), IsEmpty());
}

// ---- two of them ------------------------------------------------------------------------------

TEST(SpentThreads, AreReportedOneAMinute) {
  static constexpr int MINUTES = 3;
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task one = start_watched(device, "first");
  const Task two = start_watched(device, "second");
  const pid_t tid_one = enrol(device, one, 0);
  const pid_t tid_two = enrol(device, two, 0);
  const auto spent_passes = [](const Steps &steps, pid_t tid) {
    std::vector<int> passes;
    for (const Step &step : steps_of(steps, Step::SEEN, tid))
      if (step.left == 0) passes.push_back(step.pass);
    return passes;
  };
  const Steps steps = need_steps(device, "two spent budgets", [&](const Steps &all) {
    return spent_passes(all, tid_one).size() > MINUTES &&
           spent_passes(all, tid_two).size() > MINUTES;
  });

  // Once both are spent, it is the same one each minute: the first that the scan meets.
  const int both = std::max(spent_passes(steps, tid_one)[0], spent_passes(steps, tid_two)[0]);
  const Steps seen = steps_of(steps, Step::SEEN);
  const pid_t first = std::find_if(seen.begin(), seen.end(), [&](const Step &step) {
                        return step.pass == both;
                      })->tid;
  std::map<int, std::vector<pid_t>> by_pass;
  for (const Request &request : requests(steps))
    by_pass[request.pass].push_back(request.tid);
  for (int pass = both; pass < both + MINUTES; pass++)
    EXPECT_THAT(by_pass[pass], ElementsAre(first)) << pass;

  // The other's turn comes when it has gone.
  const Task &gone = first == tid_one ? one : two;
  const Task &next = first == tid_one ? two : one;
  const pid_t next_tid = first == tid_one ? tid_two : tid_one;
  device.kill(gone.pid, SIGKILL);
  ASSERT_TRUE(device.wait(gone.pid, WATCH_LIMIT_MS));
  need_steps(device, "the other's request", [&](const Steps &all) {
    const std::vector<Request> asked = requests(all);
    return asked.back().tid == next_tid;
  });
  EXPECT_TRUE(
      wait_until([&] { return device.count_events(KILL_LOG, killed_hung(next, 0, next_tid)) > 0; },
                 WATCH_LIMIT_MS));
  EXPECT_TRUE(wait_until(
      [&] {
        const auto lines = device.lines(WATCH_ASKED_FILE);
        return std::count(lines.begin(), lines.end(), asked_to_kill(next, 0, next_tid)) > 0;
      },
      WATCH_LIMIT_MS));
}

// The usual way: the first one's process is ended, so the second is reported a minute later.
TEST(SpentThreads, OfTwoProcessesAreEndedOneAfterTheOther) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task one = start_watched(device, "doomed");
  const Task two = start_watched(device, "doomed_too");
  const pid_t tid_one = enrol(device, one, 0);
  const pid_t tid_two = enrol(device, two, 0);
  ASSERT_TRUE(device.wait(one.pid, WATCH_LIMIT_MS));
  ASSERT_TRUE(device.wait(two.pid, WATCH_LIMIT_MS));
  const std::vector<std::string> lines = need_kill_lines(device, 2);
  EXPECT_THAT(lines, Contains(killed_hung(one, 0, tid_one)));
  EXPECT_THAT(lines, Contains(killed_hung(two, 0, tid_two)));
  const std::vector<Request> asked = need_requests(device, 2);
  std::vector<int> passes;
  passes.reserve(asked.size());
  for (const Request &request : asked)
    passes.push_back(request.pass);
  EXPECT_EQ(std::adjacent_find(passes.begin(), passes.end()), passes.end()) << "two in one minute";
}
