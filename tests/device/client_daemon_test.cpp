// Clients and the daemon's own comings and goings: a daemon that is down, one that is started
// again, and what it tells about its clients when asked to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/client.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"

using namespace tov_test;
using testing::HasSubstr;

// A device whose daemon was there and is gone: its directories are made, its socket refuses.
static void start_and_end_daemon(Device &device) {
  device.start_ready_daemon();
  ASSERT_TRUE(device.kill_daemon());
}

static bool has_reported(const Device &device, const Task &task, const std::string &part) {
  for (const std::string &line : client_reports(device, task))
    if (line.find(part) != std::string::npos) return true;
  return false;
}

// ---- a daemon that is down --------------------------------------------------------------------

TEST(ClientWithoutDaemon, IsRegisteredOnceTheDaemonComesUp) {
  Device device;
  start_and_end_daemon(device);
  Task task = start_client(device, "early", {"exec"});
  need_locked_file(device, task);
  need_report(device, task, "begins exec");
  EXPECT_FALSE(has_reported(device, task, "did exec"));
  device.start_ready_daemon();
  need_report(device, task, "did exec 0");
  kill_and_come_back(device, task);
}

// Nothing is there yet, not even the directory in which the client binds its end.
TEST(ClientWithoutDaemon, MayBeOlderThanTheFirstDaemon) {
  Device device;
  Task task = start_client(device, "oldest", {"exec"});
  need_report(device, task, "begins exec");
  EXPECT_FALSE(device.exists("/tmp/tov"));
  device.start_ready_daemon();
  need_report(device, task, "did exec 0");
  need_registered(device, task, RESPAWN);
  kill_and_come_back(device, task);
}

TEST(ClientWithoutDaemon, IsToldByTheCallsThatTryOnce) {
  Device device;
  start_and_end_daemon(device);
  Task task = start_client(device, "told", {"path=/opt/x", "wait=3"});
  need_report(device, task, "did path=/opt/x -1");
  need_report(device, task, "did wait=3 -1");
  EXPECT_FALSE(device.exists("/tmp/tov/.socket." + std::to_string(task.pid)));
}

TEST(ClientWithoutDaemon, HasItsThreadsRegisteredByTheirSignsOfLife) {
  Device device;
  start_and_end_daemon(device);
  Task task = start_client(device, "later", {"watch"});
  need_report(device, task, "did watch 0");
  device.start_ready_daemon();
  need_event(device, ALIVE_LOG, thread_registered(task), 1, CLIENT_LIMIT_MS);
}

// ---- a daemon that is started again -----------------------------------------------------------

TEST(ClientOfARestartedDaemon, StaysSupervisedAndWatched) {
  static constexpr int CLIENTS = 5;
  Device device;
  device.start_ready_daemon();
  std::vector<Task> clients;
  for (int i = 0; i < CLIENTS; i++) {
    clients.push_back(start_client(device, "living" + std::to_string(i) + "_", {"exec", "watch"}));
    need_report(device, clients.back(), "did watch 0");
    need_event(device, ALIVE_LOG, thread_registered(clients.back()));
    need_locked_file(device, clients.back());
  }
  ASSERT_TRUE(device.kill_daemon());
  std::vector<size_t> registrations;  // of each first thread, by the daemon that is gone
  registrations.reserve(clients.size());
  for (const Task &task : clients)
    registrations.push_back(device.count_events(ALIVE_LOG, thread_registered(task)));

  device.start_ready_daemon();
  for (int i = 0; i < CLIENTS; i++) {
    Task &task = clients[static_cast<size_t>(i)];
    need_event(device, ALIVE_LOG, thread_registered(task),
               registrations[static_cast<size_t>(i)] + 1, CLIENT_LIMIT_MS);
    kill_and_come_back(device, task);
    need_report(device, task, "did exec 0");
  }
}

TEST(ClientOfARestartedDaemon, MayRegisterAndCancelWithTheNewOne) {
  Device device;
  device.start_ready_daemon();
  Task task = start_client(device, "again", {"exec"});
  need_report(device, task, "did exec 0");
  ASSERT_TRUE(device.kill_daemon());
  device.start_ready_daemon();
  order(device, task, "cancel", 0);
  need_unregistered(device, task, RESPAWN);
  EXPECT_FALSE(device.exists(task.file));
  order(device, task, "exec", 0);
  need_registered(device, task, RESPAWN, 2);
  kill_and_come_back(device, task);
}

// ---- dumps ------------------------------------------------------------------------------------

// The watchdog writes its registries once a minute while diagnostics are on.
static constexpr char FAST[] = "+0 x60";

// A record as a dump shows it.
static std::string record_line(const Task &task, int action) {
  char line[512];
  snprintf(line, sizeof line, "pid: %-6d, vsd: 0 , regact: %d, pname: %s, ", task.pid, action,
           task.command.c_str());
  return line;
}

TEST(ClientDump, StandsInTheSystemLog) {
  Device device;
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = FAST});
  Task task = start_client(device, "syslogged", {"exec", "watch"});
  need_report(device, task, "did watch 0");
  for (const std::string &text :
       {std::string("register restart in tov:"), record_line(task, 2),
        std::string("register hang in tov:"), record_line(task, 0),
        std::string("delay restart in tov:"), std::string("node num:0"), std::string("node num:1")})
    EXPECT_TRUE(device.wait_notice(text, CLIENT_LIMIT_MS)) << text;
  const auto notice = device.wait_notice("register restart in tov:");
  ASSERT_TRUE(notice);
  EXPECT_THAT(notice->text, HasSubstr("<30>")) << "facility daemon, informational";
}

TEST(ClientDump, StandsOnTheConsoleWhenTheFlagFileExists) {
  Device device;
  device.write("/tov_dump_msg_console", "");
  device.start_ready_daemon({.env = with_diagnostics(device), .faketime = FAST});
  Task task = start_client(device, "consoled", {"exec", "watch"});
  need_report(device, task, "did watch 0");
  need_registered(device, task, RESPAWN);
  for (const std::string &text :
       {"register restart in tov:\nnode num:1\n" + record_line(task, 2) + "\n",
        "register hang in tov:\nnode num:1\n" + record_line(task, 0) + "\n",
        std::string("delay restart in tov:\nnode num:0\n")})
    EXPECT_TRUE(device.wait_output(text, CLIENT_LIMIT_MS)) << text << device.daemon_output();
  EXPECT_EQ(device.count_notices("register restart in tov:"), 0U);
}
