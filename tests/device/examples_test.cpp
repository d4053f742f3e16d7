// The example programs of the client library, as they are built and copied: each registers with the
// running daemon, is killed, and comes back. What they show beside that is tried as well.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/client.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;

// An example under a name of its own, with the library where a loader finds it.
static Task install_example(Device &device, const std::string &example,
                            const std::vector<std::string> &words) {
  const std::string built = device.binary_dir();
  device.write("/usr/lib/libtov.so.1", read_small_file(built + "/libtov.so.1"), 0755);
  Task task;
  task.name = unique_name(example);
  task.program = "/opt/" + task.name + "/" + task.name;
  device.write(task.program, read_small_file(built + "/examples/" + example), 0755);
  task.command = task.program;
  for (const std::string &word : words)
    task.command += " " + word;
  task.shown = shown_name(task.command);
  return task;
}

static void registered_as(Device &device, Task &task, pid_t pid, int action) {
  task.pid = pid;
  task.file = Device::register_path(0, pid, task.command);
  need_registered(device, task, action);
  need_locked_file(device, task);
}

static Task start_example(Device &device, const std::string &example,
                          const std::vector<std::string> &words = {}) {
  Task task = install_example(device, example, words);
  std::vector<std::string> argv = {task.program};
  argv.insert(argv.end(), words.begin(), words.end());
  registered_as(device, task, device.spawn(argv), RESPAWN);
  return task;
}

// Waits for the `nth` restart of an example; its new life then registers itself, which shows in its
// own registration file only: the record has come over.
static void need_return(const Device &device, Task &task, int nth, Millis limit = CLIENT_LIMIT_MS) {
  const std::string text =
      "Self-checking OK: " + std::to_string(nth) + " times and new id " + task.shown + "/";
  const auto line = device.wait_event(RESTART_LOG, text, limit);
  if (!line) throw std::runtime_error(task.name + " did not come back\n" + device.dump());
  const pid_t old = task.pid;
  task.pid = std::stoi(line->substr(line->find(text) + text.size()));
  ASSERT_NE(task.pid, old);
  task.file = Device::register_path(0, task.pid, task.command);
  need_locked_file(device, task);
}

static void kill_and_register(Device &device, Task &task, int nth) {
  device.kill(task.pid, SIGKILL);
  need_return(device, task, nth);
}

// ---- supervised_c -----------------------------------------------------------------------------

TEST(ExampleSupervisedC, IsKilledAndComesBack) {
  Device device;
  device.start_ready_daemon();
  Task task = start_example(device, "supervised_c");
  kill_and_register(device, task, 1);
  kill_and_register(device, task, 2);
}

TEST(ExampleSupervisedC, WithdrawsBeforeItEndsOnPurpose) {
  Device device;
  device.start_ready_daemon();
  Task task = start_example(device, "supervised_c");
  Task bystander = start_example(device, "supervised_cpp");
  device.kill(task.pid, SIGTERM);
  const auto status = device.wait(task.pid, CLIENT_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  need_unregistered(device, task, RESPAWN);
  EXPECT_FALSE(device.exists(task.file));
  kill_and_register(device, bystander, 1);  // exits are handled in their order
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U);
}

// ---- supervised_cpp ---------------------------------------------------------------------------

TEST(ExampleSupervisedCpp, IsKilledAndComesBack) {
  Device device;
  device.start_ready_daemon();
  Task task = start_example(device, "supervised_cpp");
  kill_and_register(device, task, 1);
}

TEST(ExampleSupervisedCpp, IsStartedByItsScript) {
  Device device;
  device.start_ready_daemon();
  const std::vector<std::string> words = {"/supervised"};
  Task task = install_example(device, "supervised_cpp", words);
  device.write("/etc/cmdmap/supervised.sh",
               "echo \"$0 $1\" >> /data/ran\nexec " + task.command + "\n");
  registered_as(device, task, device.spawn({task.program, words[0]}), SHELL_RESTART);
  kill_and_register(device, task, 1);
  EXPECT_THAT(device.lines("/data/ran"), ElementsAre("/etc/cmdmap/supervised.sh start"));
}

// ---- watched_worker ---------------------------------------------------------------------------

// The number of threads of the present life that have a registration line.
static size_t watched_threads(const Device &device, const Task &task) {
  const std::string front = "Thread " + task.command + "/";
  const std::string end = " (pid " + std::to_string(task.pid) + ") reg TOV thread-alive service.";
  std::set<std::string> lines;
  for (const std::string &line : event_texts(device, ALIVE_LOG))
    if (line.starts_with(front) && line.ends_with(end)) lines.insert(line);
  return lines.size();
}

static void need_both_watched(const Device &device, const Task &task) {
  EXPECT_TRUE(wait_until([&] { return watched_threads(device, task) == 2; }, CLIENT_LIMIT_MS))
      << device.dump();
}

TEST(ExampleWatchedWorker, IsKilledAndComesBackWatched) {
  Device device;
  device.start_ready_daemon();
  Task task = start_example(device, "watched_worker");
  need_both_watched(device, task);
  kill_and_register(device, task, 1);
  need_both_watched(device, task);
}

TEST(ExampleWatchedWorker, UnregistersBeforeItEndsOnPurpose) {
  Device device;
  device.start_ready_daemon();
  Task task = start_example(device, "watched_worker");
  need_both_watched(device, task);
  device.kill(task.pid, SIGTERM);
  const auto status = device.wait(task.pid, CLIENT_LIMIT_MS);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  need_event(device, ALIVE_LOG, " unreg TOV thread-alive service.", 2);
  need_unregistered(device, task, RESPAWN);
}

// On the fast clock some ten minutes are ten seconds. The first thread's sign of life comes once a
// second, a minute there, and twelve minutes of silence are what it may have, too.
TEST(ExampleWatchedWorker, ThatHangsIsEndedAndStartedAgain) {
  Device device;
  device.start_ready_daemon({.faketime = "+0 x60"});
  Task task = start_example(device, "watched_worker", {"hang"});
  need_both_watched(device, task);
  need_return(device, task, 1, Millis(60'000));
}
