// What the stories of listed services share: programs that behave as real daemons do
// (programs/service.cpp), listed by their command lines.
//
// A service is a task whose births are those of its masters: what stays, and not what ends on the
// way into the background, nor a worker.
#ifndef TOV_TEST_SERVICE_H
#define TOV_TEST_SERVICE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/types.h>

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

namespace tov_test {

inline constexpr Millis RETURN_LIMIT_MS{2'000};  // in which a killed service is back
inline constexpr Millis SETTLE_MS{400};          // in which a second one would show

// ---- how services behave ----------------------------------------------------------------------

struct Manner {
  const char *label;
  std::vector<std::string> words;
};

// Names the case; without it the test's name would show its bytes.
inline void PrintTo(const Manner &manner, std::ostream *out) {
  *out << manner.label;
}

// What is asked about its command line has to be asked before that has changed.
inline std::string long_enough() {
  return "slow=" + std::to_string(50 * patience());
}

inline std::vector<Manner> all_manners() {
  const std::string slow = long_enough();
  return {
      {"Front", {"front", "-x", "file"}},
      {"Background", {"background", "-x", "file"}},
      {"TwiceForked", {"background=2", "-x", "file"}},
      {"SlowBackground", {"background", "slow=200"}},
      {"TitledFront", {"front", "title=master", slow}},
      {"TitledBackground", {"background", "title=master", slow}},
      {"FrontWithWorkers", {"front", "workers=2"}},
      {"BackgroundWithWorkers", {"background", "workers=2"}},
      {"TitledWithWorkers", {"background", "workers=2", "title=master", slow}},
      {"WithFollowingWorkers", {"background", "workers=2", "workers-follow"}},
      {"Anew", {"front", "again", slow}},
      {"AnewWithAWord", {"front", "again=anew", slow}},
      {"AnewInTheBackground", {"background", "again", slow}},
      {"AnewWithAWordInTheBackground", {"background", "again=anew", slow}},
  };
}

inline std::vector<Manner> manners_of(const std::vector<std::string> &labels) {
  std::vector<Manner> chosen;
  for (const Manner &manner : all_manners())
    for (const std::string &label : labels)
      if (manner.label == label) chosen.push_back(manner);
  return chosen;
}

// For INSTANTIATE_TEST_SUITE_P.
inline std::string label_of(const testing::TestParamInfo<Manner> &row) {
  return row.param.label;
}

// ---- a service --------------------------------------------------------------------------------

inline void list_service(Device &device, const Task &task) {
  device.write("/etc/tov/proc/" + task.name, task.command + " TOV_RESTART");
}

// Installs a service under a name of its own and lists it. The daemon reads the lists when it
// starts.
inline Task install_service(Device &device, const std::string &prefix,
                            const std::vector<std::string> &words) {
  Task task = install_task(device, prefix, words, "service");
  list_service(device, task);
  return task;
}

// One more service of the same program, which other words tell apart.
inline Task install_another(Device &device, const Task &first, const std::string &suffix,
                            const std::vector<std::string> &words) {
  Task task = first;
  task.name += suffix;
  task.command = task.program + " as=" + task.name;
  for (const std::string &word : words)
    task.command += " " + word;
  task.shown = shown_name(task.command);
  list_service(device, task);
  return task;
}

inline std::vector<std::string> words_of(const Task &task) {
  std::istringstream text(task.command);
  std::vector<std::string> words;
  for (std::string word; text >> word;)
    words.push_back(word);
  return words;
}

// Waits until the daemon supervises the latest process.
inline void need_known(const Device &device, const Task &task, int vsd = 0) {
  const std::string started = "[" + task.program + "] new pid: " + std::to_string(task.pid);
  const auto is_told = [&] {
    for (const std::string &text : event_texts(device, RUN_LOG))
      if (text.ends_with(started)) return true;
    return device.count_events(REGISTER_LOG, entered(task, vsd)) > 0;
  };
  if (!wait_until(is_told, STORY_LIMIT_MS))
    throw std::runtime_error(task.command + "/" + std::to_string(task.pid) +
                             " is not supervised\n" + device.dump());
}

// As an operator or a script of the system does. The daemon runs.
inline void start_by_hand(Device &device, Task &task) {
  device.spawn(words_of(task));
  next_birth(device, task);
  need_event(device, REGISTER_LOG, entered(task));
}

// ---- how many there are -----------------------------------------------------------------------

inline std::vector<pid_t> living(const Device &device, const Task &task) {
  std::vector<pid_t> pids;
  for (const Birth &birth : device.births(task.name))
    if (device.lives(birth.pid)) pids.push_back(birth.pid);
  return pids;
}

// The latest one known lives, and no other one is there or comes for a while.
inline void expect_alone(const Device &device, const Task &task) {
  const auto differs = [&] {
    return device.births(task.name).size() != task.births ||
           living(device, task) != std::vector<pid_t>{task.pid};
  };
  EXPECT_FALSE(wait_until(differs, SETTLE_MS))
      << task.command << ": " << task.births << " were expected, the last one as " << task.pid
      << "; born " << device.births(task.name).size() << ", living "
      << testing::PrintToString(living(device, task));
}

// The daemon starts it soon, as it is listed, and supervises it.
inline void expect_start(Device &device, Task &task, Millis limit = RETURN_LIMIT_MS) {
  const Birth birth = next_birth(device, task, limit);
  EXPECT_TRUE((birth.argv + " ").starts_with(task.command + " ")) << "started as " << birth.argv;
  need_known(device, task);
}

// Killed, it is back soon, once.
inline void expect_back(Device &device, Task &task) {
  device.kill(task.pid, SIGKILL);
  expect_start(device, task);
  expect_alone(device, task);
}

}  // namespace tov_test

#endif  // TOV_TEST_SERVICE_H
