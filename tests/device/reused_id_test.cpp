// The id of a dead program is given to another one. Whatever becomes of the new one is its own
// affair, and the dead one is brought back all the same.
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "include/tov_wire.h"
#include "tests/device/lock_holder.h"
#include "tests/device/story.h"
#include "tests/device/worker.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;

namespace {

constexpr int64_t AT_ONCE_NS = 1'000'000'000;  // the sweep needs a minute
constexpr int64_t TICKS_NS = 30'000'000;       // three of those in which starts are told

// A worker gets this id and registers itself under it.
Task start_heir(Device &device, const std::string &prefix, pid_t id) {
  Task heir = install_worker(device, prefix, {"exec"});
  device.spawn({heir.program, "exec"}, {.id = id});
  next_worker(device, heir);
  EXPECT_EQ(heir.pid, id);
  need_event(device, REGISTER_LOG, registered(heir, RESPAWN));
  return heir;
}

// The new owner of the id dies and is brought back, itself and nobody else.
void expect_heir_returns(Device &device, Task &heir, const Task &old) {
  const size_t births = device.births(old.name).size();
  const pid_t id = heir.pid;
  device.kill(id, SIGKILL);
  next_worker(device, heir);
  need_event(device, RESTART_LOG, self_checking(heir, id, 9));
  need_event(device, RESTART_LOG, self_check_ok(heir, 1, heir.pid));
  EXPECT_NE(heir.pid, id);
  EXPECT_EQ(device.births(old.name).size(), births) << "nobody asked for the other one";
  EXPECT_TRUE(device.lives(heir.pid));
}

// A program that nobody has registered gets this id.
std::string start_stranger(Device &device, const std::string &prefix, pid_t id) {
  std::string name = unique_name(prefix);
  device.spawn({device.install_program(name)}, {.id = id});
  const auto birth = device.wait_birth(name);
  EXPECT_TRUE(birth && birth->pid == id);
  return name;
}

void expect_untouched(const Device &device, const std::string &stranger, pid_t id) {
  EXPECT_TRUE(device.lives(id)) << "the stranger is left alone";
  EXPECT_EQ(device.births(stranger).size(), 1U);
}

}  // namespace

TEST(ReusedId, OfASuspendedProgramBelongsToWhoRegistersUnderIt) {
  Device device;
  device.write("/debug_time", "120");
  Task old = start_task(device, "id_suspended");
  device.start_ready_daemon({.faketime = "+0 x30"});
  kill_until_suspended(device, old, suspended(old, 2));
  const size_t births = device.births(old.name).size();
  Task heir = start_heir(device, "heir_suspended", old.pid);
  expect_heir_returns(device, heir, old);
  // Its time comes as if nothing had happened.
  const Birth birth = next_birth(device, old);
  need_event(device, RESTART_LOG, "new id " + named(old, birth.pid));
  kill_and_return(device, old);
  EXPECT_EQ(device.births(old.name).size(), births + 2);
  EXPECT_TRUE(device.lives(heir.pid));
}

TEST(ReusedId, OfADeferredProgramBelongsToWhoRegistersUnderIt) {
  Device device;
  Task old = start_task(device, "id_deferred");
  LockHolder holder(device, old.file);
  device.start_ready_daemon({.env = with_diagnostics(device)});
  const pid_t dead = old.pid;
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait_output("be lock file " + old.file + ", "));
  ASSERT_TRUE(device.wait(dead, STORY_LIMIT_MS));
  Task heir = start_heir(device, "heir_deferred", dead);
  expect_heir_returns(device, heir, old);
  EXPECT_TRUE(device.exists(old.file));

  holder.end();
  const Birth birth = next_birth(device, old);
  need_event(device, RESTART_LOG, self_checking(old, dead, 9));
  need_event(device, RESTART_LOG, self_check_ok(old, 1, birth.pid));
  EXPECT_EQ(device.births(old.name).size(), 2U);
  EXPECT_TRUE(device.lives(heir.pid));
}

// The restart could not be made and is left to the sweep, which finds a stranger under the id.
TEST(ReusedId, OfAProgramThatIsLeftToTheSweepHidesNoDeath) {
  Device device;
  device.write("/etc/debug_log", "");
  device.mkdir("/tmp/tov/tov.log1");  // in the place of a file that a restart needs
  Task old = start_task(device, "id_held");
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = "+0 x60"});
  const pid_t dead = old.pid;
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait_output("fail to openlog: Is a directory"));
  ASSERT_TRUE(device.wait(dead, STORY_LIMIT_MS));
  const std::string stranger = start_stranger(device, "stranger_held", dead);
  device.remove("/etc/debug_log");
  const Birth birth = next_birth(device, old);
  EXPECT_NE(birth.pid, dead);
  need_event(device, RESTART_LOG, exit_lost(old, dead));
  kill_and_return(device, old);
  EXPECT_EQ(device.births(old.name).size(), 3U);
  expect_untouched(device, stranger, dead);
}

// The daemon hears of the death when the stranger has the id already.
TEST(ReusedId, GivenOutBeforeTheDeathIsHeardHidesNoDeath) {
  Device device;
  Task old = start_task(device, "id_unheard");
  const pid_t daemon = device.start_ready_daemon();
  const pid_t dead = old.pid;
  device.kill(daemon, SIGSTOP);
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait(dead, STORY_LIMIT_MS));
  const std::string stranger = start_stranger(device, "stranger_unheard", dead);
  const int64_t heard_ns = monotonic_ns();
  device.kill(daemon, SIGCONT);
  const Birth birth = next_birth(device, old);
  EXPECT_LT(birth.main_ns - heard_ns, AT_ONCE_NS * patience());
  need_event(device, RESTART_LOG, self_check_ok(old, 1, birth.pid));
  expect_untouched(device, stranger, dead);
}

// That it is not the registered process is known by its age: it is younger than the file, by more
// than the kernel's ticks of 10 ms leave uncertain.
TEST(ReusedId, GivenOutWhileNoDaemonRunsHidesNoDeath) {
  Device device;
  Task old = start_task(device, "id_meanwhile");
  const int64_t written_ns = monotonic_ns();
  device.start_ready_daemon();
  device.kill_daemon();
  const pid_t dead = old.pid;
  device.kill(dead, SIGKILL);
  ASSERT_TRUE(device.wait(dead, STORY_LIMIT_MS));
  ASSERT_TRUE(wait_until([&] { return monotonic_ns() > written_ns + TICKS_NS; }, STORY_LIMIT_MS));
  const std::string stranger = start_stranger(device, "stranger_meanwhile", dead);
  device.start_ready_daemon();
  const int64_t ready_ns = monotonic_ns();
  const Birth birth = next_birth(device, old);
  EXPECT_LT(birth.main_ns - ready_ns, AT_ONCE_NS * patience());
  need_event(device, RUN_LOG, spawned(old, birth.pid));
  kill_and_return(device, old);
  EXPECT_EQ(device.births(old.name).size(), 3U);
  expect_untouched(device, stranger, dead);
}
