// Programs that know nothing of the daemon are registered by the daemon itself, over its own
// socket, each time that they start. However often they die, it holds nothing more than before.
//
// TOV_TEST_LIVES asks for another number of lives, such as ten thousand.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/types.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

using namespace tov_test;

namespace {

constexpr Millis LIFE_LIMIT_MS{30'000};
constexpr char DB_DIR[] = "/tmp/vsd/0/tov/db";

int lives_asked(int usual) {
  const char *asked = getenv("TOV_TEST_LIVES");
  return asked != nullptr ? atoi(asked) : usual;
}

// As wait_until, without its pauses.
bool wait_at_once(const std::function<bool()> &holds, Millis limit) {
  const int64_t end_ns = monotonic_ns() + limit.count() * patience() * 1'000'000;
  while (!holds())
    if (monotonic_ns() > end_ns) return false;
  return true;
}

class ThirdPartLives : public testing::Test {
 protected:
  // Lists a victim, which is no client of the daemon. The daemon reads the lists when it starts.
  Task list_program(const std::string &prefix) {
    Task task;
    task.name = unique_name(prefix);
    task.program = device.install_program(task.name);
    task.command = task.program;
    task.shown = shown_name(task.command);
    device.write("/etc/tov/proc/" + task.name, task.command + " TOV_RESTART");
    return task;
  }
  void start() { daemon_ = device.start_ready_daemon(); }
  // Waits until the daemon has learnt of the program by its execution, and entered it.
  void need_registration(Task &task) {
    next_birth(device, task, LIFE_LIMIT_MS);
    need_event(device, REGISTER_LOG,
               "register - process:" + task.command + " pid:" + std::to_string(task.pid) + ",", 1,
               LIFE_LIMIT_MS);
    ASSERT_TRUE(device.exists(file(task)));
  }
  static std::string file(const Task &task) {
    return Device::register_path(0, task.pid, task.command);
  }
  // Descriptors of registration files in the daemon.
  size_t files_held() const { return descriptors_of(daemon_, "/tov/db/"); }
  size_t descriptors() const { return descriptors_of(daemon_); }
  long resident_kb() const { return static_cast<long>(tov_test::resident_kb(daemon_)); }

  void note_begin() {
    begin_descriptors_ = descriptors();
    begin_kb_ = resident_kb();
  }
  // Other threads of the daemon open this and that for a moment, but far less than lives.
  //   files  registration files; open is kept only that of who was registered by a request
  void expect_nothing_more(int lives, size_t files) {
    static constexpr size_t MOMENTARY = 6;
    EXPECT_TRUE(wait_until([&] { return files_held() == 0; }, LIFE_LIMIT_MS)) << files_held();
    EXPECT_TRUE(
        wait_until([&] { return descriptors() <= begin_descriptors_ + MOMENTARY; }, LIFE_LIMIT_MS))
        << descriptors() << " instead of " << begin_descriptors_;
    EXPECT_TRUE(wait_until([&] { return device.list(DB_DIR).size() == files; }, LIFE_LIMIT_MS));
#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
    // Starts and ends take their room in the ring of process events, which is touched page by page
    // until it has gone round once.
    static constexpr long RING_KB = 512, MORE_KB = 128;
    EXPECT_LE(resident_kb(), begin_kb_ + RING_KB + MORE_KB);
#endif
    std::cout << lives << " lives: descriptors " << begin_descriptors_ << " before, "
              << descriptors() << " after; resident " << begin_kb_ << " KiB before, "
              << resident_kb() << " KiB after\n";
  }
  // What has been waited for need not be read again and again.
  void shorten_logs(std::vector<Task> &tasks) {
    for (const std::string &name : device.list(EVENT_LOG_DIR))
      device.write(std::string(EVENT_LOG_DIR) + "/" + name, "");
    for (Task &task : tasks) {
      device.write("/data/victim." + task.name, "");
      task.births = 0;
    }
  }

  Device device;
  pid_t daemon_ = 0;
  size_t begin_descriptors_ = 0;
  long begin_kb_ = 0;
};

TEST_F(ThirdPartLives, OfAProgramThatIsBroughtBack) {
  static constexpr int WARM = 5;
  Task task = list_program("returning");
  start();
  device.spawn({task.program});
  need_registration(task);
  const int lives = std::min(lives_asked(25), 1'000);
  for (int life = 0; life < WARM + lives; life++) {
    if (life == WARM) note_begin();
    // Nothing is suspended while this marker is there; the restart takes it away.
    device.write("/etc/dev_mon", "");
    device.kill(task.pid, SIGKILL);
    next_birth(device, task, LIFE_LIMIT_MS);
    need_event(device, RUN_LOG, "[" + task.program + "] new pid: " + std::to_string(task.pid), 1,
               LIFE_LIMIT_MS);
    // The file goes over to the new process.
    ASSERT_TRUE(wait_until([&] { return device.exists(file(task)); }, LIFE_LIMIT_MS))
        << device.dump();
    // The marker goes last: one for the next life would be this one's.
    ASSERT_TRUE(wait_until([&] { return !device.exists("/etc/dev_mon"); }, LIFE_LIMIT_MS));
  }
  expect_nothing_more(lives, 1);
}

TEST_F(ThirdPartLives, OfProgramsThatAreStoppedAndStartedByHand) {
  static constexpr int PROGRAMS = 4;
  static constexpr int LOG_ROUNDS = 50;
  std::vector<Task> tasks;
  tasks.reserve(PROGRAMS);
  for (int i = 0; i < PROGRAMS; i++)
    tasks.push_back(list_program("by_hand" + std::to_string(i) + "_"));
  start();
  const int rounds = lives_asked(60) / PROGRAMS;
  for (int round = 0; round <= rounds; round++) {
    if (round == 1) note_begin();  // the first one warms up
    for (const Task &task : tasks)
      device.spawn({task.program});
    for (Task &task : tasks)
      need_registration(task);
    for (const Task &task : tasks)
      device.kill(task.pid, SIGTERM);  // a deliberate stop: the registration ends
    for (const Task &task : tasks)
      ASSERT_TRUE(wait_until([&] { return !device.exists(file(task)); }, LIFE_LIMIT_MS))
          << device.dump();
    if (round % LOG_ROUNDS == LOG_ROUNDS - 1) shorten_logs(tasks);
  }
  expect_nothing_more(rounds * PROGRAMS, 0);
}

// The id in "tov_process_restart: fail to get pid ID's cmdline, ppid = 0".
std::vector<pid_t> registered_in_vain(const Device &device) {
  static const std::string MARK = "tov_process_restart: fail to get pid ";
  std::vector<pid_t> pids;
  for (const std::string &line : event_texts(device, ERROR_LOG))
    if (line.starts_with(MARK)) pids.push_back(std::stoi(line.substr(MARK.size())));
  return pids;
}

// A program may be gone before the request that the daemon made for it is carried out. Silent
// clients give it the time: the server looks at all of them for each request.
TEST_F(ThirdPartLives, ThatEndBeforeTheyAreRegisteredLeaveNoFile) {
  static constexpr int SILENT = 600;
  Task bystander = start_task(device, "bystander");
  Task task = list_program("brief");
  start();
  std::vector<std::unique_ptr<RawClient>> silent;
  const auto connects = [&] {
    silent.push_back(std::make_unique<RawClient>());
    return silent.back()->connect(device.path("/tmp/tov/.tov")) == 0;
  };
  for (int i = 0; i < SILENT; i++)
    ASSERT_TRUE(wait_until(connects, LIFE_LIMIT_MS));  // at first it may not listen yet
  const int lives = lives_asked(30);
  for (int life = 0; life < lives; life++) {
    task.pid = device.spawn({task.program});
    ASSERT_TRUE(wait_at_once([&] { return device.exists(file(task)); }, LIFE_LIMIT_MS));
    device.kill(task.pid, SIGTERM);  // wherever the daemon is with it
    ASSERT_TRUE(device.wait(task.pid, LIFE_LIMIT_MS));
  }
  silent.clear();
  pass_events(device, bystander);
  const std::vector<pid_t> vain = registered_in_vain(device);
  std::cout << vain.size() << " of " << lives << " lives were registered in vain\n";
  for (const pid_t pid : vain) {
    const std::string path = Device::register_path(0, pid, task.command);
    EXPECT_TRUE(wait_until([&] { return !device.exists(path); }, LIFE_LIMIT_MS)) << path;
  }
  // One may have died while it was entered; then it has a record, whose file this is.
  for (const std::string &name : device.list(DB_DIR)) {
    const std::string line = " pid:" + name.substr(name.rfind('.') + 1) + ",";
    const auto has_record = [&] { return device.count_events(REGISTER_LOG, line) > 0; };
    const auto is_gone = [&] { return !device.exists(std::string(DB_DIR) + "/" + name); };
    EXPECT_TRUE(wait_until([&] { return has_record() || is_gone(); }, LIFE_LIMIT_MS)) << name;
  }
  const auto as_many_as_files = [&] { return files_held() == device.list(DB_DIR).size(); };
  EXPECT_TRUE(wait_until(as_many_as_files, LIFE_LIMIT_MS)) << files_held();
}

}  // namespace
