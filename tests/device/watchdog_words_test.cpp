// What the watch over threads says on a fast clock, and the dumps of the registries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/device/watched.h"
#include "tests/device/worker.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::HasSubstr;
using testing::Not;

// ---- what is printed ----------------------------------------------------------------------------

struct Switches {
  const char *label;
  const char *file;
  bool pub;
  bool alive;
};

static void PrintTo(const Switches &row, std::ostream *out) {
  *out << row.label;
}

class WatchdogSwitch : public testing::TestWithParam<Switches> {};

INSTANTIATE_TEST_SUITE_P(
    Switches, WatchdogSwitch,
    testing::Values(Switches{"None", "", false, false},
                    Switches{"Pub", "g_tov_pub_dbg_level 3\n", true, false},
                    Switches{"Alive", "g_tov_alive_dbg_level 3\n", false, true},
                    Switches{"Both", "g_tov_alive_dbg_level 0\ng_tov_pub_dbg_level 0\n", true,
                             true}),
    [](const auto &row) { return std::string(row.param.label); });

TEST_P(WatchdogSwitch, DecidesWhatTheWatchdogSays) {
  Device device;
  DaemonOptions options = watching(device);
  device.write("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", GetParam().file);
  device.start_ready_daemon(options);
  const Task task = start_watched(device, "talked_about");
  const pid_t tid = enrol(device, task, 0);
  ASSERT_TRUE(device.wait(task.pid, WATCH_LIMIT_MS));
  need_kill_lines(device, 1);
  // The end of its record ends the story: by then every kind of line has been due.
  ASSERT_TRUE(wait_until([&] { return slot(device, tid).first == 0; }, WATCH_LIMIT_MS));

  const auto prints = [&](const std::string &text) { return device.wait_output(text); };
  const auto silent = [&](const std::string &text) {
    return device.daemon_output().find(text) == std::string::npos;
  };
  const std::string about =
      "pid (" + std::to_string(tid) + ") ppid (" + std::to_string(task.pid) + ")";
  const std::string lines[] = {
      "]" + about,
      "]Decrease " + about + " ntfy_time (120) ntfy_cnt (5) cur_cnt (4) cur_ntfy_time (0)",
      "]Process pid(" + std::to_string(task.pid) + ") tid(" + std::to_string(tid) +
          ") not notify reset for 3 times, It will be killed after 5 times!!!",
      "]ntfy_cnt(5), send SIGABRT to ppid (" + std::to_string(task.pid) + ")",
      "]pid is not exist(" + std::to_string(tid) + ", ret:-1)",
      "]sem_cnt = 0"};
  for (const std::string &line : lines)
    EXPECT_TRUE(GetParam().alive ? prints(line) : silent(line)) << line;
  const char heading[] = "register hang in tov:";
  if (GetParam().pub) {
    EXPECT_TRUE(device.wait_notice(heading));
  } else {
    EXPECT_EQ(device.count_notices(heading), 0U);
  }
}

// ---- dumps -------------------------------------------------------------------------------------

// One restart registration, one watched thread and nothing deferred, as a dump has them.
static std::vector<std::string> expected_dump(const Task &registered, const Task &task) {
  const auto record = [](const Task &one, int action) {
    char text[512];
    snprintf(text, sizeof text, "pid: %-6d, vsd: 0 , regact: %d, pname: %s, ", one.pid, action,
             one.command.c_str());
    return std::string(text);
  };
  return {"register restart in tov:", "node num:1", record(registered, RESPAWN),
          "register hang in tov:",    "node num:1", record(task, 0),
          "delay restart in tov:",    "node num:0"};
}

static bool follow(const std::vector<std::string> &lines, const std::vector<std::string> &wanted) {
  return std::search(lines.begin(), lines.end(), wanted.begin(), wanted.end()) != lines.end();
}

static DaemonOptions dumping(Device &device) {
  return {.env = with_diagnostics(device), .faketime = "+0 x" + std::to_string(WATCH_SPEED)};
}

TEST(Dump, OfTheRegistriesGoesToTheSystemLogEachMinute) {
  Device device;
  device.start_ready_daemon(dumping(device));
  const Task registered = start_worker(device, "dumped");
  const Task task = start_watched(device, "dumped_watched");
  enrol(device, task, 0);
  const std::vector<std::string> wanted = expected_dump(registered, task);
  const auto dumped = [&] {
    std::vector<std::string> lines;
    for (const std::string &text : notice_texts(device))
      if (!text.empty()) lines.push_back(text);
    return follow(lines, wanted);
  };
  EXPECT_TRUE(wait_until(dumped, WATCH_LIMIT_MS)) << testing::PrintToString(wanted);
  const auto heading = device.wait_notice("register restart in tov:");
  ASSERT_TRUE(heading);
  EXPECT_TRUE(heading->text.starts_with("<30>"))
      << "informational, from a daemon: " << heading->text;
  EXPECT_THAT(device.daemon_output(), Not(HasSubstr("register hang in tov:")));
}

TEST(Dump, GoesToTheConsoleWhereAnOperatorWantsItThere) {
  Device device;
  device.write("/tov_dump_msg_console", "");
  device.start_ready_daemon(dumping(device));
  const Task registered = start_worker(device, "shown");
  const Task task = start_watched(device, "shown_watched");
  enrol(device, task, 0);
  // Standard output is everybody's: diagnostics of other threads may stand between two lines.
  const std::vector<std::string> wanted = expected_dump(registered, task);
  const auto dumped = [&] {
    std::vector<std::string> lines;
    std::istringstream output(device.daemon_output());
    for (std::string line; std::getline(output, line);)
      if (!line.starts_with("[TOV:")) lines.push_back(line);
    return follow(lines, wanted);
  };
  EXPECT_TRUE(wait_until(dumped, WATCH_LIMIT_MS)) << testing::PrintToString(wanted);
  EXPECT_EQ(device.count_notices("register hang in tov:"), 0U);

  // The file is looked for each minute.
  device.remove("/tov_dump_msg_console");
  EXPECT_TRUE(device.wait_notice("register hang in tov:", WATCH_LIMIT_MS));
}
