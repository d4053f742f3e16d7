// The watch over threads on a fast clock: what holds the countdown back, who is not counted down,
// and what becomes of it when the area or the daemon is another one.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using namespace tov_test;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;

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

// ---- an area that another process damages ------------------------------------------------------

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

  // It knows the thread from the last one, and counts from the beginning.
  need_steps(device, "a miss", [&](const Steps &steps) {
    const Steps seen = steps_of(steps, Step::SEEN, tid);
    return seen.size() > seen_before && seen.back().left < EVEN_TERMS.budget;
  });
  EXPECT_EQ(steps_of(watch_steps(device), Step::SEEN, tid)[seen_before].left, EVEN_TERMS.budget);

  // Its mark has gone from the shared area, so the next sign of life is a registration, and that
  // another beginning.
  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  need_event(device, ALIVE_LOG, "Thread " + task.command + "/" + std::to_string(tid), 2,
             WATCH_LIMIT_MS);
  const std::vector<Request> asked = need_requests(device, asked_before + 1);
  Steps seen = steps_of(watch_steps(device), Step::SEEN, tid);
  std::erase_if(seen, [&](const Step &step) { return step.pass > asked[asked_before].pass; });
  ASSERT_GE(seen.size(), seen_before + 10);
  const Step &first = seen[seen.size() - 10];
  EXPECT_EQ(first.left, EVEN_TERMS.budget);
  EXPECT_EQ(first.silent_s, 0);
  EXPECT_LT(seen[seen.size() - 11].left, EVEN_TERMS.budget) << "before it was heard of";
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
