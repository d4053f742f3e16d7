// Thread ids that change hands, and those that have no place in the shared area. Runs alone: the
// largest process id is the whole machine's.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::Each;
using testing::IsEmpty;

static constexpr pid_t FIRST_BEYOND = 163840;  // of the ids without a place in the shared area

// A daemon whose watchdog and everybody else say what they do.
static DaemonOptions talking(Device &device) {
  DaemonOptions options = watching(device);
  device.append("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_pub_dbg_level 0\n");
  return options;
}

// ---- an id that changes hands -------------------------------------------------------------------

// Ends a watched program and gives one of its thread ids to another program. The daemon stands
// still meanwhile, so it cannot find the id unused. Returns false when another process got the id.
static bool hand_over(Device &device, const Task &task, pid_t id,
                      const std::vector<std::string> &program) {
  device.kill(device.daemon_pid(), SIGSTOP);
  device.kill(task.pid, SIGKILL);
  bool done = device.wait(task.pid, WATCH_LIMIT_MS).has_value();
  try {
    device.spawn(program, {.id = id});
  } catch (const std::runtime_error &) {
    done = false;
  }
  device.kill(device.daemon_pid(), SIGCONT);
  return done;
}

// A device in which thread `index` of a watched program was watched and whose id then went to
// another program. The countdown is held back. Ids are given out in turn: only a machine full of
// processes makes it necessary to try again.
struct HandedOver {
  static constexpr int ATTEMPTS = 5;

  explicit HandedOver(int index, bool same_program = false) {
    install_patient_healer(device);
    device.write("/data/.kill_debug", "");
    device.start_ready_daemon(talking(device));
    for (int attempt = 0; attempt < ATTEMPTS; attempt++) {
      task = start_watched(device, "former" + std::to_string(attempt) + "_", {"threads=1"});
      enrol(device, task, 0);
      if (index > 0) enrol(device, task, index);
      tid = thread_of(device, task, index);
      need_step(device, "a period", Step::PERIOD, tid, [](const Step &) { return true; });
      heir = unique_name("heir" + std::to_string(attempt) + "_");
      const std::vector<std::string> program =
          same_program ? std::vector<std::string>{task.program, "threads=1"}
                       : std::vector<std::string>{device.install_program(heir)};
      if (hand_over(device, task, tid, program)) return;
    }
    throw std::runtime_error("the id was always taken");
  }

  Device device;
  Task task;
  std::string heir;
  pid_t tid = 0;
};

static void expect_forgotten(HandedOver &story, const std::string &reason) {
  Device &device = story.device;
  EXPECT_TRUE(device.wait_output(reason, WATCH_LIMIT_MS)) << reason << "\n" << device.dump();
  need_step(device, "the record dropped", Step::GONE, story.tid, [](const Step &) { return true; });
  device.remove("/data/.kill_debug");
  const size_t seen = steps_of(watch_steps(device), Step::SEEN, story.tid).size();
  const Steps later = pass_minutes(device, 2);
  EXPECT_EQ(steps_of(later, Step::SEEN, story.tid).size(), seen);
  EXPECT_THAT(steps_of(later, Step::KILL), IsEmpty());
  EXPECT_TRUE(device.lives(story.tid)) << "the new owner of the id";
  const std::string area = device.read("/dev/shm/UTILS-tov-shm-001");
  EXPECT_EQ(area.at(20513 + static_cast<size_t>(story.tid)), '\0');
}

TEST(ReusedId, OfAThreadByAProcessIsFoundByItsOwner) {
  HandedOver story(1);
  const std::string id = std::to_string(story.tid);
  expect_forgotten(story, "]tov_check_pid_exist: ppid info no match(reg:" +
                              std::to_string(story.task.pid) + ", now:" + id + ")\n");
}

TEST(ReusedId, OfAProcessByAnotherProgramIsFoundByItsCommandLine) {
  HandedOver story(0);
  expect_forgotten(story, "]tov_check_pid_exist: cmdline info no match(reg:" + story.task.command +
                              ", now:/opt/" + story.heir + "/" + story.heir + ")\n");
}

// Only their starts tell the two apart.
TEST(ReusedId, OfAProcessByAnotherInstanceOfItsProgramIsFoundByItsStart) {
  HandedOver story(0, true);
  expect_forgotten(story, "]pid is not exist(" + std::to_string(story.tid) + ", ret:-1)");
}

// ---- ids beyond the shared area -----------------------------------------------------------------

// Raises the largest process id of the machine and brings it back, whatever becomes of the test: a
// process of its own does that when its end of a pipe reads as ended.
class MoreIds {
 public:
  MoreIds() {
    const long before = value();
    if (before > FIRST_BEYOND + 1) return;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) throw std::runtime_error("no pipe");
    keeper_ = fork();
    if (keeper_ == 0) keep(ends[0], ends[1], before);
    close(ends[0]);
    end_ = ends[1];
    if (keeper_ < 0 || !set(4L * FIRST_BEYOND)) throw std::runtime_error("kernel.pid_max is fixed");
  }
  MoreIds(const MoreIds &) = delete;
  MoreIds &operator=(const MoreIds &) = delete;
  ~MoreIds() {
    if (end_ >= 0) close(end_);
    if (keeper_ > 0) waitpid(keeper_, nullptr, 0);
  }

 private:
  static constexpr char PATH[] = "/proc/sys/kernel/pid_max";

  static long value() { return atol(read_small_file(PATH).c_str()); }

  static bool set(long most) {
    const std::string text = std::to_string(most);
    const int fd = open(PATH, O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && write(fd, text.data(), text.size()) > 0;
    if (fd >= 0) close(fd);
    return done;
  }

  [[noreturn]] static void keep(int reader, int writer, long before) {
    char nothing;
    setsid();  // what ends the test's process group does not end this
    close(writer);
    (void)!read(reader, &nothing, 1);
    _exit(set(before) ? 0 : 1);
  }

  pid_t keeper_ = -1;
  int end_ = -1;
};

// Starts a watched program whose first thread has an id without a place in the shared area. The
// machine gives such ids out only while it is being started. An attempt fails when the id is in use
// or when another process has put the limit of ids back.
static Task start_beyond(Device &device, const std::string &prefix) {
  static constexpr int ATTEMPTS = 50;
  static constexpr pid_t STEP = 97;
  Task task;
  task.name = unique_name(prefix);
  task.program = task.command = device.install_program(task.name, "watched");
  task.shown = task.name;
  for (int attempt = 0; task.pid == 0; attempt++) {
    const MoreIds more;
    try {
      task.pid = device.spawn({task.program}, {.id = FIRST_BEYOND + attempt * STEP});
    } catch (const std::runtime_error &) {
      if (attempt == ATTEMPTS) throw;
    }
  }
  return task;
}

static size_t marks_in_area(const Device &device) {
  const std::string area = device.read("/dev/shm/UTILS-tov-shm-001");
  return area.size() - static_cast<size_t>(std::count(area.begin() + 32, area.end(), '\0')) - 32;
}

TEST(IdBeyondTheArea, IsWatchedByMessage) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(talking(device));
  const Task task = start_beyond(device, "beyond");
  ASSERT_GE(task.pid, FIRST_BEYOND);
  const pid_t tid = enrol(device, task, 0);
  EXPECT_EQ(tid, task.pid);
  const Steps counted = need_step(device, "a countdown", Step::PERIOD, tid,
                                  [](const Step &step) { return step.left < EVEN_TERMS.budget; });
  EXPECT_EQ(marks_in_area(device), 0U);

  // A sign of life gives it its whole budget back.
  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  const int missed_at = steps_of(counted, Step::PERIOD, tid).back().pass;
  need_step(device, "a budget restored", Step::SEEN, tid, [&](const Step &step) {
    return step.pass > missed_at && step.left == EVEN_TERMS.budget;
  });
  EXPECT_EQ(marks_in_area(device), 0U);

  // Silence ends as usual.
  need_steps(device, "a kill request",
             [](const Steps &all) { return !steps_of(all, Step::KILL).empty(); });
  EXPECT_THAT(need_kill_lines(device, 1), Each(killed_hung(task, 0, tid)));

  device.kill(task.pid, SIGKILL);
  need_step(device, "the record dropped", Step::GONE, tid, [](const Step &) { return true; });
  EXPECT_EQ(marks_in_area(device), 0U);
}

TEST(IdBeyondTheArea, IsTakenOverByANewDaemonAndBeginsAnewWithItsFirstSignOfLife) {
  Device device;
  install_patient_healer(device);
  const DaemonOptions options = talking(device);
  device.start_ready_daemon(options);
  const Task task = start_beyond(device, "beyond_new");
  const pid_t tid = enrol(device, task, 0);
  device.kill_daemon();
  const size_t seen_before = steps_of(watch_steps(device), Step::SEEN, tid).size();
  device.start_ready_daemon(options);
  const auto has_left = [&](const Steps &all, int budget) {
    const Steps seen = steps_of(all, Step::SEEN, tid);
    return seen.size() > seen_before && seen.back().left == budget;
  };
  const Steps steps = need_steps(
      device, "a miss", [&](const Steps &all) { return has_left(all, EVEN_TERMS.budget - 1); });
  const Step first = steps_of(steps, Step::SEEN, tid)[seen_before];
  EXPECT_EQ(first.pid, task.pid);
  EXPECT_EQ(first.period_s, EVEN_TERMS.period_s);
  EXPECT_EQ(first.left, EVEN_TERMS.budget);

  EXPECT_EQ(say(device, task, 0, "alive"), 0);
  need_steps(device, "a new record",
             [&](const Steps &all) { return has_left(all, EVEN_TERMS.budget); });
  EXPECT_EQ(device.count_events(ALIVE_LOG, " reg TOV thread-alive service."), 1U)
      << "only the registration is noted";

  // Nor is the end of such a registration noted.
  EXPECT_EQ(say(device, task, 0, "unregister"), 0);
  EXPECT_TRUE(device.wait_output("tov_dispatch_domain_msg type:5 err:0", WATCH_LIMIT_MS));
  const size_t seen = steps_of(pass_minutes(device, 0), Step::SEEN, tid).size();
  EXPECT_EQ(steps_of(pass_minutes(device, 2), Step::SEEN, tid).size(), seen);
  EXPECT_EQ(device.count_events(ALIVE_LOG, "unreg TOV"), 0U);
}
