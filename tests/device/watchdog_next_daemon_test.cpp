// Threads that hang when the daemon ends: the next one finds them in their time, and accuses nobody
// else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr size_t LIFE = static_cast<size_t>(EVEN_TERMS.passes) * EVEN_TERMS.budget;

size_t passes_so_far(const Device &device) {
  return steps_of(watch_steps(device), Step::PASS).size();
}

// The pass, counted from 0 of the newest daemon, in which a thread is first asked to be killed for.
size_t asked_in_pass(const Device &device, size_t passes_before) {
  const auto asked =
      requests(need_steps(device, "a kill request of this daemon", [&](const Steps &s) {
        const Steps kills = steps_of(s, Step::KILL);
        return !kills.empty() && static_cast<size_t>(kills.back().pass) >= passes_before;
      }));
  for (const Request &one : asked)
    if (static_cast<size_t>(one.pass) >= passes_before)
      return static_cast<size_t>(one.pass) - passes_before;
  return 0;
}

}  // namespace

TEST(NextDaemon, FindsAHungThreadOfTheLastOneInItsTime) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "next_hung");
  const pid_t tid = enrol(device, task, 0);
  pass_minutes(device, 4);  // what is used up of the budget is not handed on
  for (int daemon = 0; daemon < 2; daemon++) {
    device.kill_daemon();
    const size_t before = passes_so_far(device);
    device.start_ready_daemon(watching(device));
    if (daemon == 0) {
      pass_minutes(device, 3);
      EXPECT_THAT(device.lines(WATCH_ASKED_FILE), IsEmpty());
      continue;
    }
    EXPECT_EQ(asked_in_pass(device, before), LIFE - 1) << "not a minute sooner or later";
  }
  EXPECT_THAT(need_asked(device, 1), Contains(asked_to_kill(task, 0, tid)));
  EXPECT_THAT(need_kill_lines(device, 1), Contains(killed_hung(task, 0, tid)));
}

TEST(NextDaemon, FindsAHungWorkerAfterAnEndInOrder) {
  Device device;
  install_patient_healer(device);
  DaemonOptions failing = watching(device);
  failing.env.emplace("LD_PRELOAD", device.binary_dir() + "/tests/programs/libfailing_reader.so");
  device.start_ready_daemon(failing);
  const Task task = start_watched(device, "next_worker", {"threads=1"});
  (void)enrol(device, task, 0);
  const pid_t tid = enrol(device, task, 1);
  say(device, task, 0, "live");
  pass_minutes(device, 1);
  // A thread of the daemon fails, and the daemon ends as a whole.
  device.write("/tmp/reader_fails", "");
  device.spawn({"/bin/true"});  // an event wakes it
  ASSERT_TRUE(device.wait_daemon(WATCH_LIMIT_MS));
  ASSERT_TRUE(device.remove("/tmp/reader_fails"));
  const size_t before = passes_so_far(device);
  device.start_ready_daemon(watching(device));
  EXPECT_EQ(asked_in_pass(device, before), LIFE - 1);
  EXPECT_THAT(need_asked(device, 1), ElementsAre(asked_to_kill(task, 1, tid)));
}

TEST(NextDaemon, AccusesNobodyElse) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task lives = start_watched(device, "next_lives");
  const Task left_before = start_watched(device, "next_left");
  const Task left_meanwhile = start_watched(device, "next_meanwhile");
  const Task ended = start_watched(device, "next_ended");
  for (const Task *task : {&lives, &left_before, &left_meanwhile, &ended})
    (void)enrol(device, *task, 0);
  say(device, lives, 0, "live");
  EXPECT_EQ(say(device, left_before, 0, "unregister"), 0);
  device.kill_daemon();
  EXPECT_EQ(say(device, left_meanwhile, 0, "unregister"), 0);
  device.kill(ended.pid, SIGKILL);
  device.start_ready_daemon(watching(device));
  const size_t before = passes_so_far(device);
  need_steps(device, "three lives", [&](const Steps &steps) {
    return steps_of(steps, Step::PASS).size() >= before + 3 * LIFE;
  });
  EXPECT_THAT(device.lines(WATCH_ASKED_FILE), IsEmpty());
  const Steps steps = watch_steps(device);
  const auto watched_by_it = [&](const Task &task) {
    const Steps seen = steps_of(steps, Step::SEEN, task.pid);
    return !seen.empty() && static_cast<size_t>(seen.back().pass) >= before;
  };
  EXPECT_TRUE(watched_by_it(lives));
  EXPECT_FALSE(watched_by_it(left_before));
  EXPECT_FALSE(watched_by_it(left_meanwhile));
  EXPECT_FALSE(watched_by_it(ended));
}

TEST(NextDaemon, BelievesNoDirectoryThatIsNotRoots) {
  Device device;
  install_patient_healer(device);
  device.start_ready_daemon(watching(device));
  const Task task = start_watched(device, "next_planted");
  (void)enrol(device, task, 0);
  device.kill_daemon();
  // The very rows of the last daemon, where another user could have written them.
  ASSERT_TRUE(device
                  .run({"/bin/sh", "-c",
                        "mv /run/tov /data/rows && chown -R 1000 /data/rows && "
                        "ln -s /data/rows /run/tov && chown -h 1000 /run/tov"})
                  .exited_with(0));
  device.start_ready_daemon(watching(device));
  const size_t before = passes_so_far(device);
  need_steps(device, "a life", [&](const Steps &steps) {
    return steps_of(steps, Step::PASS).size() >= before + LIFE + 2;
  });
  EXPECT_THAT(device.lines(WATCH_ASKED_FILE), IsEmpty());
  EXPECT_THAT(event_texts(device, ERROR_LOG), Contains(HasSubstr("the next daemon will not know")));
}
