// Programs in C that use the client library, beside the running daemon: what each call makes of
// them, and what the daemon says about it.
#include "tests/device/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

static std::vector<std::string> register_lines(const Device &device) {
  return event_texts(device, REGISTER_LOG);
}

// Ends a client whose end is to be followed by nothing, and waits until the daemon has dealt with
// it: the bystander is killed later, and exits are handled in their order.
static void end_for_good(Device &device, const Task &task, Task &bystander) {
  device.kill(task.pid, SIGKILL);
  ASSERT_TRUE(device.wait(task.pid, CLIENT_LIMIT_MS));
  kill_and_come_back(device, bystander);
}

// ---- registering ------------------------------------------------------------------------------

TEST(Client, ThatIsKilledComesBackAndRegistersAgain) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "cclient", {"exec"});
  need_report(device, task, "did exec 0");
  need_registered(device, task, RESPAWN);
  const std::string first = registered(task, RESPAWN);
  for (int life = 0; life < 2; life++) {
    need_locked_file(device, task);
    EXPECT_EQ(device.read(task.file), std::to_string(task.pid) + "\n2\n" + task.command);
    const std::string old_file = task.file;
    kill_and_come_back(device, task);
    need_report(device, task, "did exec 0");
    EXPECT_TRUE(wait_until([&] { return !device.exists(old_file); }, CLIENT_LIMIT_MS));
  }
  need_locked_file(device, task);

  // The daemon keeps the record over a restart, so that registering again adds nothing to it.
  order(device, task, "cancel", 0);
  need_unregistered(device, task, RESPAWN);
  EXPECT_THAT(register_lines(device), ElementsAre(first, unregistered(task, RESPAWN)));
}

TEST(Client, ThatNamesAScriptIsStartedByIt) {
  Device device;
  device.start_ready_daemon();
  const std::string script = unique_name("loader");
  const std::vector<std::string> words = {"path=/opt/any/" + script};
  Task task = install_client(device, "scripted", words);
  device.install_start_script(script, "echo \"$0 $1\" >> /data/ran\nexec " + task.command + "\n");
  start_client(device, task, words);
  need_report(device, task, "did " + words[0] + " 0");
  need_registered(device, task, SHELL_RESTART);
  need_locked_file(device, task);
  EXPECT_EQ(device.read(task.file), std::to_string(task.pid) + "\n3\n" + task.command);

  device.kill(task.pid, SIGKILL);
  next_life(device, task);
  need_event(
      device, RESTART_LOG,
      "HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + named(task, task.pid), 1,
      CLIENT_LIMIT_MS);
  need_report(device, task, "did " + words[0] + " 0");
  need_locked_file(device, task);
  EXPECT_THAT(device.lines("/data/ran"), ElementsAre("/etc/cmdmap/" + script + ".sh start"));
}

TEST(Client, MayNameItsActionAsText) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "texted", {"text=tov_restart"});
  need_report(device, task, "did text=tov_restart -1");
  EXPECT_FALSE(device.exists(task.file));
  order(device, task, "text=TOV_SHELL_RESTARTING", 0);
  need_registered(device, task, SHELL_RESTART);
  order(device, task, "cancel", 0);
  need_unregistered(device, task, SHELL_RESTART);
  order(device, task, "text=TOV_RESTART, please", 0);
  need_registered(device, task, RESPAWN);
  need_locked_file(device, task);
}

TEST(Client, ThatRegistersTwiceKeepsItsFirstActionAtTheDaemon) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "twice", {"exec", "script"});
  need_report(device, task, "did script 0");
  need_locked_file(device, task);
  EXPECT_EQ(device.read(task.file), std::to_string(task.pid) + "\n3\n" + task.command)
      << "the file has the newer action";
  EXPECT_THAT(device.list("/tmp/vsd/0/tov/db"), SizeIs(1));
  order(device, task, "cancel", 0);
  need_unregistered(device, task, RESPAWN);
  EXPECT_THAT(register_lines(device),
              ElementsAre(registered(task, RESPAWN), unregistered(task, RESPAWN)));
}

TEST(Client, NegativeProcessIsRefusedInTheErrorLog) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "negative", {"negative", "negative-path", "exec"});
  need_report(device, task, "did negative 0");
  need_report(device, task, "did negative-path 0");
  need_registered(device, task, RESPAWN);
  need_event(device, ERROR_LOG, "tov_process_shell_restart: fail");
  EXPECT_THAT(event_texts(device, ERROR_LOG),
              ElementsAre("tov_process_restart: fail to get pid 0's cmdline, ppid = 0",
                          "tov_process_shell_restart: fail to get pid 0's cmdline, ppid = 0"));
  EXPECT_THAT(register_lines(device), ElementsAre(registered(task, RESPAWN)));
}

// ---- waiting before a restart -----------------------------------------------------------------

static std::string registered_by_time(const Task &task) {
  return "register - process: pid:" + std::to_string(task.pid) + ", vsd_id:0, action:2";
}

TEST(ClientTimeSet, HoldsTheRestartBack) {
  static constexpr int64_t WAIT_NS = 3'000'000'000;
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "waits", {"wait=3"});
  need_report(device, task, "did wait=3 0");
  need_event(device, REGISTER_LOG, registered_by_time(task));
  EXPECT_FALSE(device.exists(task.file)) << "it leaves nothing for a restart of the daemon";
  const int64_t killed = monotonic_ns();
  device.kill(task.pid, SIGKILL);
  next_life(device, task);
  EXPECT_GE(monotonic_ns() - killed, WAIT_NS);
  need_report(device, task, "did wait=3 0");
}

TEST(ClientTimeSet, BeforeARegistrationDecidesAndAfterItHasNoEffect) {
  static constexpr int64_t WAIT_NS = 2'000'000'000;
  Device device;
  device.start_ready_daemon();
  Task before = start_client(device, "before", {"wait=2", "exec"});
  need_report(device, before, "did exec 0");
  need_event(device, REGISTER_LOG, registered_by_time(before));
  need_locked_file(device, before);
  Task after = start_client(device, "after", {"exec", "wait=3600"});
  need_report(device, after, "did wait=3600 0");
  need_registered(device, after, RESPAWN);

  kill_and_come_back(device, after);
  const int64_t killed = monotonic_ns();
  device.kill(before.pid, SIGKILL);
  next_life(device, before);
  EXPECT_GE(monotonic_ns() - killed, WAIT_NS);
}

// ---- withdrawing ------------------------------------------------------------------------------

TEST(ClientCancel, RemovesRecordAndFile) {
  Device device;
  device.start_ready_daemon();
  Task bystander = start_client(device, "stays", {"exec"});
  need_report(device, bystander, "did exec 0");
  Task task = start_client(device, "leaves", {"exec"});
  need_report(device, task, "did exec 0");
  need_locked_file(device, task);
  order(device, task, "cancel", 0);
  need_unregistered(device, task, RESPAWN);
  EXPECT_FALSE(device.exists(task.file));
  end_for_good(device, task, bystander);
  EXPECT_THAT(client_lives(device, task), ElementsAre(task.pid));
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U);
}

TEST(ClientCancel, LeavesRoomForANewRegistration) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "returns", {"exec", "cancel", "exec"});
  need_registered(device, task, RESPAWN, 2);
  need_locked_file(device, task);
  kill_and_come_back(device, task);
}

// ---- threads ----------------------------------------------------------------------------------

TEST(ClientThread, IsRegisteredKeptAliveAndUnregistered) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "watched", {"watch"});
  need_report(device, task, "did watch 0");
  need_event(device, ALIVE_LOG, thread_registered(task));
  order(device, task, "alive", 0);
  order(device, task, "leave", 0);
  need_event(device, ALIVE_LOG, thread_registered(task, "unreg"));
  const auto lines = event_texts(device, ALIVE_LOG);
  // A sign of life that overtakes the registration registers once more.
  EXPECT_EQ(lines.back(), thread_registered(task, "unreg"));
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 2U);
  EXPECT_THAT(register_lines(device), IsEmpty()) << "to be watched is not to be restarted";
}

// The ids of the threads of a client that have a line with this verb.
static std::set<pid_t> threads_that(const Device &device, const Task &task,
                                    const std::string &verb) {
  const std::string front = "Thread " + task.command + "/";
  std::set<pid_t> tids;
  for (const std::string &line : event_texts(device, ALIVE_LOG)) {
    if (!line.starts_with(front)) continue;
    const pid_t tid = std::stoi(line.substr(front.size()));
    if (line == thread_registered(task, verb, tid)) tids.insert(tid);
  }
  return tids;
}

TEST(ClientThread, ManyUseTheLibraryAtOnce) {
  static constexpr size_t THREADS = 16;
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "many", {"threads=16"});
  need_report(device, task, "did threads=16 0");
  need_registered(device, task, RESPAWN);
  EXPECT_TRUE(wait_until([&] { return threads_that(device, task, "unreg").size() >= THREADS; },
                         CLIENT_LIMIT_MS));
  EXPECT_EQ(threads_that(device, task, "reg"), threads_that(device, task, "unreg"));
  EXPECT_EQ(threads_that(device, task, "reg").size(), THREADS);
  EXPECT_THAT(register_lines(device), ElementsAre(registered(task, RESPAWN)));
  kill_and_come_back(device, task);
}

// ---- forks ------------------------------------------------------------------------------------

TEST(ClientFork, ChildRegistersForItself) {
  Device device;
  device.start_ready_daemon();
  Task parent = start_client(device, "forks", {"exec"});
  need_report(device, parent, "did exec 0");
  order(device, parent, "fork", 0);
  Task child = parent;
  next_life(device, child);
  need_report(device, child, "did exec 0");
  need_registered(device, child, RESPAWN);
  need_locked_file(device, parent);
  need_locked_file(device, child);

  order(device, child, "cancel", 0);
  need_unregistered(device, child, RESPAWN);
  EXPECT_FALSE(device.exists(child.file));
  EXPECT_EQ(lock_holder(device, parent.file), parent.pid) << "the child's end of it is its own";
  order(device, parent, "cancel", 0);
  need_unregistered(device, parent, RESPAWN);
  EXPECT_THAT(register_lines(device),
              ElementsAre(registered(parent, RESPAWN), registered(child, RESPAWN),
                          unregistered(child, RESPAWN), unregistered(parent, RESPAWN)));
}
