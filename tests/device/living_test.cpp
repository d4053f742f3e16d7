// A program that lives is never started a second time, whatever becomes of its file, of its command
// line or of the daemon's means to look at it.
//
// On a fast clock. The watchdog's passes, one a minute of the daemon's, are the tests' clock: the
// sweep looks at every program once a minute, too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

constexpr size_t SWEEPS = 3;  // one more than it takes to find a dead program

// How often a watched program was started.
size_t starts(const Device &device, const Task &task) {
  const auto reports = told(device, task);
  return static_cast<size_t>(std::count_if(reports.begin(), reports.end(), [](const Told &one) {
    return one.index == 0 && one.word == "ready";
  }));
}

// ---- start scripts ----------------------------------------------------------------------------

// The script runs until it is told to become the program.
std::string patient_script(const Task &task) {
  return "echo $$ >> /data/ran." + task.name + "\nuntil rm /data/go." + task.name +
         " 2>/dev/null; do sleep 0.05; done\nexec " + task.program + "\n";
}

size_t runs(const Device &device, const Task &task) {
  return device.lines("/data/ran." + task.name).size();
}

}  // namespace

TEST(StartScript, ThatNeedsSeveralMinutesIsNotRunAgainWhileItRuns) {
  Device device;
  Task task = start_task(device, "patient", {.action = SHELL_RESTART});
  device.install_start_script(task.name, patient_script(task));
  device.start_ready_daemon(watching(device));
  for (size_t life = 1; life <= 2; life++) {
    device.kill(task.pid, SIGKILL);
    ASSERT_TRUE(wait_until([&] { return runs(device, task) == life; }, WATCH_LIMIT_MS));
    pass_minutes(device, SWEEPS + 1);
    EXPECT_EQ(runs(device, task), life);
    device.write("/data/go." + task.name, "");
    const Birth birth = next_birth(device, task);
    EXPECT_THAT(device.lines("/data/ran." + task.name).back(), std::to_string(birth.pid))
        << "the script itself became the program";
    pass_minutes(device, 1);
  }
  EXPECT_EQ(device.births(task.name).size(), 3U);
  EXPECT_EQ(device.count_events(RESTART_LOG, "exit code lost"), 0U);
}

// ---- programs that no longer look as they were registered ---------------------------------------

namespace {

struct Change {
  const char *label;
  int vsd;  // of the record
  void (*make)(Device &device, const Task &task);
};

void PrintTo(const Change &row, std::ostream *out) {
  *out << row.label;
}

// As every upgrade does it: another file takes the name, and the running one has none.
void replace_binary(Device &device, const Task &task) {
  const std::string old = device.path(task.program);
  device.write(task.program + ".new", device.read(task.program), 0755);
  if (rename(device.path(task.program + ".new").c_str(), old.c_str()) != 0)
    throw std::runtime_error("cannot rename to " + old);
}

void rewrite_title(Device &device, const Task &task) {
  if (say(device, task, 0, "title") != 0) throw std::runtime_error("no new title");
}

void leave(Device &, const Task &) {}

const Change changes[] = {
    {"WhoseBinaryIsReplaced", 0, replace_binary},
    {"WhoseTitleIsRewritten", 0, rewrite_title},
    {"WhoseRecordNamesAnotherDevice", 5, leave},
};

class ChangedProgram : public testing::TestWithParam<Change> {};

}  // namespace

TEST_P(ChangedProgram, IsReportedNeverDoubledAndStaysWatched) {
  Device device;
  install_patient_healer(device);
  const Task task = start_watched(device, "changed", {"with", "arguments"});
  device.register_file(GetParam().vsd, task.pid, RESPAWN, task.command);
  device.start_ready_daemon(watching(device));
  const pid_t tid = enrol(device, task, 0);
  pass_minutes(device, 1);  // it has been seen as it was registered
  GetParam().make(device, task);
  const std::string line = not_running(task, task.pid, GetParam().vsd);
  need_event(device, RESTART_LOG, line, SWEEPS, WATCH_LIMIT_MS);

  // It has been silent all the time.
  EXPECT_THAT(need_kill_lines(device, 1), Contains(killed_hung(task, 0, tid)));
  EXPECT_THAT(need_asked(device, 1), Contains(asked_to_kill(task, 0, tid)));
  EXPECT_TRUE(device.lives(task.pid));
  EXPECT_EQ(starts(device, task), 1U);
  EXPECT_EQ(device.count_events(RESTART_LOG, exit_lost(task, task.pid, GetParam().vsd)), 0U);

  device.kill(task.pid, SIGKILL);
  EXPECT_TRUE(wait_until([&] { return starts(device, task) == 2; }, WATCH_LIMIT_MS))
      << "it is not supervised\n"
      << device.dump();
  pass_minutes(device, SWEEPS);
  EXPECT_EQ(starts(device, task), 2U);
}

// The next daemon knows of it only what stands in its file.
TEST_P(ChangedProgram, IsKeptByTheNextDaemon) {
  Device device;
  const Task task = start_watched(device, "kept", {"with", "arguments"});
  device.register_file(GetParam().vsd, task.pid, RESPAWN, task.command);
  device.start_ready_daemon(watching(device));
  device.kill_daemon();
  GetParam().make(device, task);
  device.start_ready_daemon(watching(device));
  pass_minutes(device, SWEEPS);
  EXPECT_EQ(starts(device, task), 1U);
  EXPECT_TRUE(device.lives(task.pid));

  device.kill(task.pid, SIGKILL);
  EXPECT_TRUE(wait_until([&] { return starts(device, task) == 2; }, WATCH_LIMIT_MS))
      << "it is not supervised\n"
      << device.dump();
  pass_minutes(device, SWEEPS);
  EXPECT_EQ(starts(device, task), 2U);
}

INSTANTIATE_TEST_SUITE_P(Changes, ChangedProgram, testing::ValuesIn(changes),
                         [](const auto &row) { return std::string(row.param.label); });

// ---- a daemon that sees nothing
// -------------------------------------------------------------------

namespace {

// Takes all free descriptors from a running process, and gives them back. Those that it has stay: a
// limit below their count would also forbid to wait for them.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(pid_t pid) : pid_(pid) {
    rlimit full{};
    if (prlimit(pid, RLIMIT_NOFILE, nullptr, &before_) == 0)
      full = {first_free(), before_.rlim_max};
    if (full.rlim_max == 0 || prlimit(pid, RLIMIT_NOFILE, &full, nullptr) < 0)
      throw std::runtime_error("no limit");
  }
  DescriptorLimit(const DescriptorLimit &) = delete;
  DescriptorLimit &operator=(const DescriptorLimit &) = delete;
  ~DescriptorLimit() { lift(); }

  void lift() { (void)prlimit(pid_, RLIMIT_NOFILE, &before_, nullptr); }

 private:
  // What is open for a moment leaves its number free again.
  rlim_t first_free() const {
    static constexpr int LOOKS = 100;
    rlim_t first = before_.rlim_cur;
    for (int look = 0; look < LOOKS; look++) {
      rlim_t number = 0;
      while (std::filesystem::is_symlink("/proc/" + std::to_string(pid_) + "/fd/" +
                                         std::to_string(number)))
        number++;
      first = std::min(first, number);
    }
    return first;
  }

  pid_t pid_;
  rlimit before_{};
};

}  // namespace

TEST(WantOfDescriptors, StartsNothingTwiceAndOnlyTheDeadWhenItIsOver) {
  Device device;
  Task dies = start_task(device, "unseen_dead");
  const Task lives = start_task(device, "unseen_alive");
  const Task locked =
      start_task(device, "unseen_locked", {.words = {"lock=2"}, .registered = false});
  const Task watched = start_watched(device, "unseen_watched");
  device.register_file(0, watched.pid, RESPAWN, watched.command);
  const pid_t daemon = device.start_ready_daemon(watching(device));
  const pid_t tid = enrol(device, watched, 0);
  say(device, watched, 0, "live");
  pass_minutes(device, 1);
  // One exit before: a sanitizer needs a descriptor when it meets a class for the first time.
  device.kill(dies.pid, SIGKILL);
  next_birth(device, dies);

  DescriptorLimit limit(daemon);
  pass_minutes(device, 1);
  device.kill(dies.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return !device.lives(dies.pid); }, WATCH_LIMIT_MS));
  pass_minutes(device, SWEEPS);
  EXPECT_EQ(device.births(lives.name).size(), 1U);
  EXPECT_EQ(device.births(locked.name).size(), 1U);
  EXPECT_EQ(starts(device, watched), 1U);

  limit.lift();
  (void)wait_until([&] { return device.births(dies.name).size() > 2; }, WATCH_LIMIT_MS);
  const Steps later = pass_minutes(device, SWEEPS);
  EXPECT_EQ(device.births(dies.name).size(), 3U) << device.dump();
  EXPECT_EQ(device.births(lives.name).size(), 1U);
  EXPECT_EQ(device.births(locked.name).size(), 1U);
  EXPECT_EQ(starts(device, watched), 1U);
  EXPECT_EQ(steps_of(later, Step::GONE).size(), 0U);
  EXPECT_EQ(steps_of(later, Step::SEEN, tid).back().pass, later.back().pass)
      << "its thread is watched still";
}
