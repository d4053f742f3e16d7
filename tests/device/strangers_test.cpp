// Programs that nobody has registered or listed, under a daemon that listens: they concern it no
// more, and those that an operator lists from then on are registered from their next execution.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>

#include <string>
#include <thread>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

namespace {

class Strangers : public testing::Test {
 protected:
  // Lists a program under the running daemon and executes it in the same breath.
  void list_and_start(Task &task, const std::string &how_to_list) {
    device.spawn({"sh", "-c", how_to_list + " && exec " + task.command});
    next_birth(device, task);
  }
  static std::string line(const Task &task) { return "echo '" + task.command + " TOV_RESTART'"; }

  void need_registered(const Task &task) {
    need_event(device, REGISTER_LOG,
               "register - process:" + task.command + " pid:" + std::to_string(task.pid) + ",");
  }
  void expect_back(Task &task) {
    device.kill(task.pid, SIGKILL);
    next_birth(device, task);
    need_event(device, RESTART_LOG, self_check_ok(task, 1, task.pid));
  }

  Device device;
};

const std::string LIST = TOV_THIRD_PART_LIST;
constexpr Millis PAUSE_MS{20};

}  // namespace

TEST_F(Strangers, ProgramThatIsListedRightBeforeItsExecutionIsRegistered) {
  static constexpr int MANY = 20;
  device.start_ready_daemon();
  for (int i = 0; i < MANY; i++) {
    SCOPED_TRACE(i);
    Task task = install_task(device, "just_listed" + std::to_string(i) + "_", {});
    // The list begins and ends to name something, by turns.
    if (i % 3 == 0) device.write(LIST, "");
    list_and_start(task, line(task) + (i % 2 == 0 ? " >> " : " > ") + LIST);
    need_registered(task);
    if (i == MANY - 1) expect_back(task);
  }
}

TEST_F(Strangers, ProgramThatIsListedInTheMiddleOfAStormIsRegistered) {
  static constexpr int MANY = 20;
  device.start_ready_daemon();
  const pid_t storm = device.spawn({"sh", "-c", "while :; do /bin/true & /bin/true; done"});
  for (int i = 0; i < MANY; i++) {
    SCOPED_TRACE(i);
    Task task = install_task(device, "storm_listed" + std::to_string(i) + "_", {});
    device.write(LIST, "");
    std::this_thread::sleep_for(PAUSE_MS);
    list_and_start(task, line(task) + " > " + LIST);
    need_registered(task);
  }
  device.kill(storm, SIGKILL);
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty()) << "nothing is taken for lost";
}

TEST_F(Strangers, EveryWayToChangeTheListIsSeen) {
  device.start_ready_daemon();
  const std::vector<std::string> ways = {
      "rm -f " + LIST + "; ",
      "mv /etc/tov /etc/tov.old; mkdir /etc/tov; ",
      "rm -r /etc/tov; mkdir /etc/tov; ",
      "mkdir -p /data/list; rm -r /etc/tov; ln -s /data/list /etc/tov; ",
      "rm /etc/tov; mkdir /etc/tov; mount -t tmpfs none /etc/tov; ",
      "umount /etc/tov; ",
      ": > /etc/real; rm -f " + LIST + "; ln -s /etc/real " + LIST + "; ",
  };
  for (size_t i = 0; i < ways.size(); i++) {
    SCOPED_TRACE(ways[i]);
    Task task = install_task(device, "listed_so" + std::to_string(i) + "_", {});
    list_and_start(task, ways[i] + line(task) + " > " + LIST);
    need_registered(task);
  }
}

// What the list does not name any more is no concern, also of a program that runs.
TEST_F(Strangers, ProgramOfAnEmptiedListIsNotRegistered) {
  device.start_ready_daemon();
  Task listed = install_task(device, "listed_then_", {});
  list_and_start(listed, line(listed) + " > " + LIST);
  need_registered(listed);
  Task task = install_task(device, "not_listed_", {});
  list_and_start(task, line(task) + " > " + LIST + " && : > " + LIST);
  Task witness = install_task(device, "listed_again_", {});
  list_and_start(witness, line(witness) + " > " + LIST);
  need_registered(witness);
  EXPECT_EQ(device.count_events(REGISTER_LOG, task.command), 0U);
}

// A child may be gone before its parent knows its id.
TEST_F(Strangers, ChildThatEndsAtOnceIsMissed) {
  Task task = start_task(device, "fails_at_once_", {.words = {}});
  device.start_ready_daemon();
  device.remove(task.program);
  device.write(task.program, "#!/nowhere\n", 0755);
  device.kill(task.pid, SIGKILL);
  // Four starts, the fifth death suspends: each end was heard.
  need_event(device, RESTART_LOG, "self-checking ...", 5);
}
