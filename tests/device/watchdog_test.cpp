// The watch over threads on a fast clock: silent threads are counted down and reported at the right
// minute, everybody else is left alone, and what holds the countdown back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostream>

#include "tests/device/watched.h"
#include "tests/device/worker.h"
#include "util/owner.h"

using namespace tov_test;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// A request: the pass in which it was made, and the thread that it was made for.
struct Request {
  int pass;
  pid_t tid;
};

static std::vector<Request> requests(const Steps &steps) {
  std::vector<Request> all;
  pid_t tid = 0;
  for (const Step &step : steps) {
    if (step.kind == Step::SEEN) tid = step.tid;
    if (step.kind == Step::KILL) all.push_back({step.pass, tid});
  }
  return all;
}

static std::vector<Request> need_requests(const Device &device, size_t count) {
  return requests(need_steps(device, "kill requests", [&](const Steps &steps) {
    return steps_of(steps, Step::KILL).size() >= count;
  }));
}

static std::vector<int> budgets(const Steps &steps) {
  std::vector<int> left;
  for (const Step &step : steps)
    left.push_back(step.left);
  return left;
}

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

// ---- what holds the countdown back --------------------------------------------------------------

// Changes the system semaphore as another program of the device does.
static void set_semaphore(Device &device, int value) {
  const int status = device.call_inside([value] {
    const int id = semget(ftok("/tmp/.tov_semphore_path", 1), 1, 0);
    return id >= 0 && semctl(id, 0, SETVAL, value) == 0 ? 0 : 1;
  });
  if (status != 0) throw std::runtime_error("the semaphore cannot be set");
}

struct Hold {
  const char *label;
  void (*raise)(Device &device);
  void (*lower)(Device &device);
  int semaphore;  // as the watchdog sees it while it holds
};

static void PrintTo(const Hold &row, std::ostream *out) {
  *out << row.label;
}

static const Hold holds[] = {
    {"Flag", [](Device &device) { device.write("/data/.kill_debug", ""); },
     [](Device &device) { device.remove("/data/.kill_debug"); }, 0},
    {"Semaphore", [](Device &device) { set_semaphore(device, 2); },
     [](Device &device) { set_semaphore(device, 0); }, 2},
};

class HoldBack : public testing::TestWithParam<Hold> {};

INSTANTIATE_TEST_SUITE_P(Kinds, HoldBack, testing::ValuesIn(holds),
                         [](const auto &row) { return std::string(row.param.label); });

TEST_P(HoldBack, StopsTheCountdownButNotASpentBudget) {
  static constexpr size_t HELD_PERIODS = 3;
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  GetParam().raise(device);
  const Task task = start_watched(device, "held");
  const pid_t tid = enrol(device, task, 0);
  const Steps held = need_steps(device, "periods", [&](const Steps &steps) {
    return steps_of(steps, Step::PERIOD, tid).size() >= HELD_PERIODS;
  });
  EXPECT_THAT(budgets(steps_of(held, Step::PERIOD, tid)), Each(EVEN_TERMS.budget));
  EXPECT_EQ(steps_of(held, Step::PERIOD, tid)[0].silent_s, 0) << "periods go on";
  EXPECT_EQ(steps_of(held, Step::PASS).back().semaphore, GetParam().semaphore);
  EXPECT_THAT(steps_of(held, Step::KILL), IsEmpty());

  GetParam().lower(device);
  need_requests(device, 1);
  EXPECT_THAT(budgets(steps_of(watch_steps(device), Step::PERIOD, tid)), Contains(1));

  GetParam().raise(device);
  const size_t so_far = requests(pass_minutes(device, 1)).size();
  need_requests(device, so_far + 2);
  EXPECT_THAT(need_kill_lines(device, so_far + 2), Each(killed_hung(task, 0, tid)));
}

static constexpr char AREA[] = "/dev/shm/UTILS-tov-shm-001";

// A thread's bit and byte in the shared area.
static std::pair<int, int> slot(const Device &device, pid_t tid) {
  static constexpr size_t MAP = 32, SEQ = 20513;
  const std::string area = device.read(AREA);
  const auto id = static_cast<size_t>(tid);
  return {(static_cast<unsigned char>(area.at(MAP + id / 8)) >> (id % 8)) & 1,
          static_cast<unsigned char>(area.at(SEQ + id))};
}

// ---- who is not watched -------------------------------------------------------------------------

TEST(WatchedThread, ThatEndsIsForgotten) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "shrinking", {"threads=1"});
  const pid_t main_tid = enrol(device, task, 0);
  const pid_t tid = enrol(device, task, 1);
  EXPECT_EQ(slot(device, tid), std::make_pair(1, 1));
  device.write("/data/do." + task.name + ".1", "end\n");
  need_step(device, "the record dropped", Step::GONE, tid, [](const Step &) { return true; });
  EXPECT_TRUE(
      wait_until([&] { return slot(device, tid) == std::make_pair(0, 0); }, WATCH_LIMIT_MS));
  EXPECT_EQ(slot(device, main_tid).first, 1);

  const Steps later = pass_minutes(device, 1);
  EXPECT_EQ(steps_of(later, Step::GONE, tid).size(), 1U);
  EXPECT_EQ(steps_of(later, Step::SEEN, tid).back().pass, steps_of(later, Step::GONE, tid)[0].pass);
  EXPECT_GT(steps_of(later, Step::SEEN, main_tid).back().pass,
            steps_of(later, Step::GONE, tid)[0].pass);
}

TEST(WatchedThread, ThatWithdrawsIsForgotten) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "withdrawn");
  const pid_t tid = enrol(device, task, 0);
  need_step(device, "a look", Step::SEEN, tid, [](const Step &) { return true; });
  EXPECT_EQ(say(device, task, 0, "unregister"), 0);
  need_event(device, ALIVE_LOG,
             "Thread " + task.command + "/" + std::to_string(tid) + " (pid " +
                 std::to_string(task.pid) + ") unreg TOV thread-alive service.");
  const int passes = steps_of(pass_minutes(device, 0), Step::PASS).back().pass;
  const Steps later = pass_minutes(device, 2);
  EXPECT_LE(steps_of(later, Step::SEEN, tid).back().pass, passes);
  EXPECT_THAT(steps_of(later, Step::GONE), IsEmpty());
}

TEST(WatchedThread, OfAnOwnerWhoIsNotRegisteredIsNeverCountedDown) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "ownerless", {"threads=1"});
  const pid_t tid = enrol(device, task, 1);
  const Steps alone = need_steps(device, "periods", [&](const Steps &steps) {
    return steps_of(steps, Step::PERIOD, tid).size() >= 3;
  });
  EXPECT_THAT(budgets(steps_of(alone, Step::PERIOD, tid)), Each(EVEN_TERMS.budget));

  // Its owner registers - the first thread stands for the process - and withdraws again.
  enrol(device, task, 0);
  need_step(device, "a countdown", Step::PERIOD, tid,
            [](const Step &step) { return step.left < EVEN_TERMS.budget; });
  EXPECT_EQ(say(device, task, 0, "unregister"), 0);
  need_event(device, ALIVE_LOG, "unreg TOV thread-alive service.", 1, WATCH_LIMIT_MS);
  const size_t held_from = steps_of(pass_minutes(device, 0), Step::PERIOD, tid).size();
  const Steps later = need_steps(device, "later periods", [&](const Steps &steps) {
    return steps_of(steps, Step::PERIOD, tid).size() >= held_from + 2;
  });
  const std::vector<int> left = budgets(steps_of(later, Step::PERIOD, tid));
  EXPECT_EQ(left[held_from + 1], left[held_from - 1]);
}

// ---- an area that somebody damages
// ----------------------------------------------------------------

static constexpr off_t AREA_BYTES = 188416;

static off_t area_length(const Device &device) {
  const auto found = device.status(AREA);
  return found ? found->st_size : -1;
}

TEST(DamagedArea, ThatWasCutIsMadeWholeAndTheThreadRegistersAfresh) {
  Device device;
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "cut");
  const pid_t tid = enrol(device, task, 0);
  ASSERT_EQ(truncate(device.path(AREA).c_str(), 0), 0);
  EXPECT_TRUE(wait_until([&] { return area_length(device) == AREA_BYTES; }, WATCH_LIMIT_MS))
      << "by the daemon's next look at the thread";
  EXPECT_EQ(slot(device, tid).first, 0);

  // This time the thread itself is the first to look.
  ASSERT_EQ(truncate(device.path(AREA).c_str(), 0), 0);
  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  need_event(device, ALIVE_LOG, "Thread " + task.command + "/" + std::to_string(tid), 2,
             WATCH_LIMIT_MS);
  EXPECT_TRUE(wait_until([&] { return slot(device, tid).first == 1; }, WATCH_LIMIT_MS));
  EXPECT_EQ(area_length(device), AREA_BYTES);
  pass_minutes(device, 1);
  EXPECT_TRUE(device.lives(device.daemon_pid()));
  EXPECT_TRUE(device.lives(task.pid));
}

// Its content is believed, for what it says of the thread: one sign of life.
TEST(DamagedArea, ThatWasOverwrittenHidesNoHungThreadForLong) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "overwritten");
  const pid_t tid = enrol(device, task, 0);
  const Steps before = need_step(device, "a countdown", Step::PERIOD, tid,
                                 [](const Step &step) { return step.left < EVEN_TERMS.budget; });
  const std::string dirt(static_cast<size_t>(AREA_BYTES), '\xff');
  const tov_fd_t area(open(device.path(AREA).c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(write(area.n, dirt.data(), dirt.size()), static_cast<ssize_t>(dirt.size()));
  const int missed_at = steps_of(before, Step::PERIOD, tid).back().pass;
  need_step(device, "a budget restored", Step::SEEN, tid, [&](const Step &step) {
    return step.pass > missed_at && step.left == EVEN_TERMS.budget;
  });
  need_requests(device, 1);
  EXPECT_THAT(need_kill_lines(device, 1), Each(killed_hung(task, 0, tid)));
}

// ---- a daemon that is started again -------------------------------------------------------------

TEST(NewDaemon, BeginsTheCountAnewWhenTheThreadIsHeardOf) {
  Device device;
  install_patient_healer(device);
  const DaemonOptions options = watching(device);
  device.start_ready_daemon(options);
  const Task task = start_watched(device, "outliving");
  const pid_t tid = enrol(device, task, 0);
  need_step(device, "a countdown", Step::PERIOD, tid,
            [](const Step &step) { return step.left <= 3; });
  device.kill_daemon();
  const size_t seen_before = steps_of(watch_steps(device), Step::SEEN, tid).size();
  const size_t asked_before = requests(watch_steps(device)).size();
  device.start_ready_daemon(options);

  // Nobody tells it of threads that say nothing.
  const Steps silent = pass_minutes(device, 2);
  EXPECT_EQ(steps_of(silent, Step::SEEN, tid).size(), seen_before);

  // Its mark has gone from the shared area, so the next sign of life is a registration.
  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  need_event(device, ALIVE_LOG, "Thread " + task.command + "/" + std::to_string(tid), 2,
             WATCH_LIMIT_MS);
  const std::vector<Request> asked = need_requests(device, asked_before + 1);
  const Steps seen = steps_of(watch_steps(device), Step::SEEN, tid);
  ASSERT_GE(seen.size(), seen_before + 10);
  EXPECT_EQ(seen[seen_before].left, EVEN_TERMS.budget);
  EXPECT_EQ(seen[seen_before].silent_s, 0);
  EXPECT_EQ(asked[asked_before].pass, seen[seen_before + 9].pass);
  EXPECT_THAT(need_kill_lines(device, 1), Each(killed_hung(task, 0, tid)));
}

TEST(NewDaemon, KeepsTheSemaphoreThatOthersHaveRaised) {
  Device device;
  const DaemonOptions options = watching(device);
  device.append("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
  device.start_ready_daemon(options);
  set_semaphore(device, 3);
  device.kill_daemon();
  device.start_ready_daemon(options);
  EXPECT_TRUE(device.wait_output("]System tov semaphore already inited."));
  EXPECT_EQ(steps_of(pass_minutes(device, 1), Step::PASS).back().semaphore, 3);

  // Once it has been found, the file that leads to it is no longer needed.
  ASSERT_TRUE(device.remove("/tmp/.tov_semphore_path"));
  EXPECT_EQ(steps_of(pass_minutes(device, 1), Step::PASS).back().semaphore, 3);
}

// ---- what is printed ----------------------------------------------------------------------------

struct Switches {
  const char *label;
  const char *file;
  bool pub;
  bool alive;
};

static void PrintTo(const Switches &row, std::ostream *out) {
  *out << row.label;
}

class WatchdogSwitch : public testing::TestWithParam<Switches> {};

INSTANTIATE_TEST_SUITE_P(
    Switches, WatchdogSwitch,
    testing::Values(Switches{"None", "", false, false},
                    Switches{"Pub", "g_tov_pub_dbg_level 3\n", true, false},
                    Switches{"Alive", "g_tov_alive_dbg_level 3\n", false, true},
                    Switches{"Both", "g_tov_alive_dbg_level 0\ng_tov_pub_dbg_level 0\n", true,
                             true}),
    [](const auto &row) { return std::string(row.param.label); });

TEST_P(WatchdogSwitch, DecidesWhatTheWatchdogSays) {
  Device device;
  DaemonOptions options = watching(device);
  device.write("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", GetParam().file);
  device.start_ready_daemon(options);
  const Task task = start_watched(device, "talked_about");
  const pid_t tid = enrol(device, task, 0);
  ASSERT_TRUE(device.wait(task.pid, WATCH_LIMIT_MS));
  need_kill_lines(device, 1);
  // The end of its record ends the story: by then every kind of line has been due.
  ASSERT_TRUE(wait_until([&] { return slot(device, tid).first == 0; }, WATCH_LIMIT_MS));

  const auto prints = [&](const std::string &text) { return device.wait_output(text); };
  const auto silent = [&](const std::string &text) {
    return device.daemon_output().find(text) == std::string::npos;
  };
  const std::string about =
      "pid (" + std::to_string(tid) + ") ppid (" + std::to_string(task.pid) + ")";
  const std::string lines[] = {
      "]" + about,
      "]Decrease " + about + " ntfy_time (120) ntfy_cnt (5) cur_cnt (4) cur_ntfy_time (0)",
      "]Process pid(" + std::to_string(task.pid) + ") tid(" + std::to_string(tid) +
          ") not notify reset for 3 times, It will be killed after 5 times!!!",
      "]ntfy_cnt(5), send SIGABRT to ppid (" + std::to_string(task.pid) + ")",
      "]pid is not exist(" + std::to_string(tid) + ", ret:-1)",
      "]sem_cnt = 0"};
  for (const std::string &line : lines)
    EXPECT_TRUE(GetParam().alive ? prints(line) : silent(line)) << line;
  const char heading[] = "register hang in tov:";
  if (GetParam().pub) {
    EXPECT_TRUE(device.wait_notice(heading));
  } else {
    EXPECT_EQ(device.count_notices(heading), 0U);
  }
}

// ---- dumps ----------------------------------------------------------------------------------

// One restart registration, one watched thread and nothing deferred, as a dump has them.
static std::vector<std::string> expected_dump(const Task &registered, const Task &task) {
  const auto record = [](const Task &one, int action) {
    char text[512];
    snprintf(text, sizeof text, "pid: %-6d, vsd: 0 , regact: %d, pname: %s, ", one.pid, action,
             one.command.c_str());
    return std::string(text);
  };
  return {"register restart in tov:", "node num:1", record(registered, RESPAWN),
          "register hang in tov:",    "node num:1", record(task, 0),
          "delay restart in tov:",    "node num:0"};
}

static bool follow(const std::vector<std::string> &lines, const std::vector<std::string> &wanted) {
  return std::search(lines.begin(), lines.end(), wanted.begin(), wanted.end()) != lines.end();
}

static DaemonOptions dumping(Device &device) {
  return {.env = with_diagnostics(device), .faketime = "+0 x" + std::to_string(WATCH_SPEED)};
}

TEST(Dump, OfTheRegistriesGoesToTheSystemLogEachMinute) {
  Device device;
  device.start_ready_daemon(dumping(device));
  const Task registered = start_worker(device, "dumped");
  const Task task = start_watched(device, "dumped_watched");
  enrol(device, task, 0);
  const std::vector<std::string> wanted = expected_dump(registered, task);
  const auto dumped = [&] {
    std::vector<std::string> lines;
    for (const std::string &text : notice_texts(device))
      if (!text.empty()) lines.push_back(text);
    return follow(lines, wanted);
  };
  EXPECT_TRUE(wait_until(dumped, WATCH_LIMIT_MS)) << testing::PrintToString(wanted);
  const auto heading = device.wait_notice("register restart in tov:");
  ASSERT_TRUE(heading);
  EXPECT_TRUE(heading->text.starts_with("<30>"))
      << "informational, from a daemon: " << heading->text;
  EXPECT_THAT(device.daemon_output(), Not(HasSubstr("register hang in tov:")));
}

TEST(Dump, GoesToTheConsoleWhereAnOperatorWantsItThere) {
  Device device;
  device.write("/tov_dump_msg_console", "");
  device.start_ready_daemon(dumping(device));
  const Task registered = start_worker(device, "shown");
  const Task task = start_watched(device, "shown_watched");
  enrol(device, task, 0);
  // Standard output is everybody's: diagnostics of other threads may stand between two lines.
  const std::vector<std::string> wanted = expected_dump(registered, task);
  const auto dumped = [&] {
    std::vector<std::string> lines;
    std::istringstream output(device.daemon_output());
    for (std::string line; std::getline(output, line);)
      if (!line.starts_with("[TOV:")) lines.push_back(line);
    return follow(lines, wanted);
  };
  EXPECT_TRUE(wait_until(dumped, WATCH_LIMIT_MS)) << testing::PrintToString(wanted);
  EXPECT_EQ(device.count_notices("register hang in tov:"), 0U);

  // The file is looked for each minute.
  device.remove("/tov_dump_msg_console");
  EXPECT_TRUE(device.wait_notice("register hang in tov:", WATCH_LIMIT_MS));
}
