// Requests to the shipped daemon, byte by byte: what each of them enters into the registries, what
// the event logs and the diagnostics say about it, and the dumps of the registries.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/raw_clients.h"
#include "tests/device/story.h"
#include "tests/support/birth.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

using namespace tov_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char FAST[] = "+0 x20";
constexpr pid_t NOBODY = 5'000'000;  // the kernel gives out no such id

// A victim that is not registered.
Task start_unregistered(Device &device, const std::string &prefix) {
  return start_task(device, prefix, {.registered = false});
}

tov_msg_xtach_t process_record(pid_t pid, int vsd_id = 0, int restart_time = 0) {
  tov_msg_xtach_t record{};
  record.pid = pid;
  record.vsd_id = vsd_id;
  record.restart_time = restart_time;
  snprintf(record.pathname, sizeof record.pathname, "/client/own reading");
  return record;
}

tov_msg_xtach_t thread_record(pid_t tid, pid_t pid) {
  tov_msg_xtach_t record{};
  record.pid = tid;
  record.ppid = pid;
  record.m_n_counter = 500;
  record.m_n_cur_counter = 400;
  record.m_n_notify_time = 120;
  record.m_n_cur_notify_time = 0;
  return record;
}

std::string control(int event, pid_t pid) {
  return packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{event, pid}));
}

std::string register_line(pid_t pid, int vsd_id, int action) {
  return "register - process:/client/own reading pid:" + std::to_string(pid) +
         ", vsd_id:" + std::to_string(vsd_id) + ", action:" + std::to_string(action);
}

std::string unregister_line(const Task &task, int vsd_id, int action) {
  return "unregister - process:" + task.command + " pid:" + std::to_string(task.pid) +
         ", vsd_id:" + std::to_string(vsd_id) + ", action:" + std::to_string(action);
}

std::string thread_line(const Task &task, pid_t ppid, const char *what) {
  return "Thread " + task.command + "/" + std::to_string(task.pid) + " (pid " +
         std::to_string(ppid) + ") " + what + " TOV thread-alive service.";
}

std::string result_line(int type, int err) {
  return "]tov_dispatch_domain_msg type:" + std::to_string(type) + " err:" + std::to_string(err) +
         "\n";
}

class Request : public RawClients {
 protected:
  // All on one connection, so that each is done before the next one is looked at.
  void start_with_diagnostics(DaemonOptions options = {}) {
    options.env = with_diagnostics(device);
    device.append("/data/.qxos/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_tov_alive_dbg_level 0\n");
    start(options);
    client_ = connected();
  }
  void request(const std::string &bytes) {
    ASSERT_TRUE(client_->send(bytes));
    ASSERT_EQ(client_->answer(patient_limit()), RawClient::ACKNOWLEDGED);
  }
  // A sign of life is never answered.
  void request_unanswered(const std::string &bytes) { ASSERT_TRUE(client_->send(bytes)); }
  // Returns when everything asked so far has been carried out: requests are served in turn, and
  // the second of two is acknowledged after the first was done.
  void settle() {
    request(harmless());
    request(harmless());
  }
  size_t count_output(const std::string &text) const {
    const std::string output = device.daemon_output();
    size_t count = 0;
    for (size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1))
      count++;
    return count;
  }

  std::unique_ptr<RawClient> client_;
};

// ---- registering a process ----------------------------------------------------------------------

TEST_F(Request, RestartIsEnteredWithTheClientsReadingInItsLine) {
  start_with_diagnostics();
  const Task task = start_unregistered(device, "asked");
  request(packet(TOV_RESTART, bytes_of(process_record(task.pid, 7))));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG), ElementsAre(register_line(task.pid, 7, RESPAWN)));
  EXPECT_EQ(count_output(result_line(TOV_RESTART, 0)), 1U);
  EXPECT_THAT(event_texts(device, ERROR_LOG), IsEmpty());
}

TEST_F(Request, SecondRegistrationChangesNothing) {
  start_with_diagnostics();
  const Task task = start_unregistered(device, "asked_twice");
  request(packet(TOV_RESTART, bytes_of(process_record(task.pid))));
  request(packet(TOV_SHELL_RESTART, bytes_of(process_record(task.pid, 3)), "/etc/cmdmap/other"));
  request(packet(TOV_RESTART, bytes_of(process_record(task.pid, 4))));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG), ElementsAre(register_line(task.pid, 0, RESPAWN)));
  EXPECT_EQ(count_output(result_line(TOV_RESTART, 0)), 2U);
  EXPECT_EQ(count_output(result_line(TOV_SHELL_RESTART, 0)), 1U);
  // What is removed is what was entered first.
  request(control(TOV_CONS_DUMP_ALL, task.pid));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG),
              ElementsAre(register_line(task.pid, 0, RESPAWN), unregister_line(task, 0, RESPAWN)));
}

TEST_F(Request, RegisteredProgramIsBroughtBackByItsCommandLine) {
  start_with_diagnostics();
  Task task = start_unregistered(device, "brought_back");
  request(packet(TOV_RESTART, bytes_of(process_record(task.pid))));
  settle();
  kill_and_return(device, task);
}

TEST_F(Request, ScriptIsRunAfterTheTimeThatTheRequestAskedFor) {
  static constexpr int WAIT_S = 2;
  start_with_diagnostics();
  Task task = start_unregistered(device, "by_script");
  const std::string script_name = unique_name("chosen");
  device.install_start_script(
      script_name, "echo \"$@\" > /data/script.words\nexec " + task.program + " scripted\n");
  request(packet(TOV_SHELL_RESTART, bytes_of(process_record(task.pid, 0, WAIT_S)),
                 "/opt/anywhere/" + script_name));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG),
              ElementsAre(register_line(task.pid, 0, SHELL_RESTART)));
  const int64_t killed_ns = monotonic_ns();
  device.kill(task.pid, SIGKILL);
  const Birth birth = next_birth(device, task, CLIENT_LIMIT_MS);
  EXPECT_GE(birth.main_ns - killed_ns, WAIT_S * 1'000'000'000LL - 50'000'000);
  EXPECT_EQ(birth.argv, task.program + " scripted");
  EXPECT_EQ(device.read("/data/script.words"), "start\n");
}

// ---- processes and threads that are gone --------------------------------------------------------

TEST_F(Request, WhoIsGoneIsRefusedAndToldUnderTheHandlersName) {
  start_with_diagnostics();
  static constexpr struct {
    int type;
    const char *handler;
  } handlers[] = {
      {TOV_RESTART, "tov_process_restart"},
      {TOV_SHELL_RESTART, "tov_process_shell_restart"},
      {TOV_MSG_ACK, "tov_notifier_start"},
      {TOV_RESET, "tov_notifier_reset"},
  };
  std::vector<std::string> expected;
  for (const auto &row : handlers) {
    for (const pid_t pid : {NOBODY, 0, -1}) {
      auto record = process_record(pid);
      record.ppid = 77;
      const std::string bytes = packet(static_cast<uint32_t>(row.type), bytes_of(record));
      row.type == TOV_RESET ? request_unanswered(bytes) : request(bytes);
      expected.push_back(std::string(row.handler) + ": fail to get pid " + std::to_string(pid) +
                         "'s cmdline, ppid = 77");
    }
  }
  settle();
  EXPECT_EQ(event_texts(device, ERROR_LOG), expected);
  for (const std::string &line : expected)
    EXPECT_EQ(count_output("]" + line + "\n"), 1U) << line;
  for (const auto &row : handlers)
    EXPECT_EQ(count_output(result_line(row.type, -1)), 3U) << row.handler;
  EXPECT_THAT(event_texts(device, REGISTER_LOG), IsEmpty());
  EXPECT_THAT(event_texts(device, ALIVE_LOG), IsEmpty());
}

// ---- threads ------------------------------------------------------------------------------------

TEST_F(Request, ThreadIsEnteredAndRemovedWithALineEach) {
  start_with_diagnostics();
  const Task task = start_unregistered(device, "watched");
  const std::string begin = packet(TOV_MSG_ACK, bytes_of(thread_record(task.pid, task.pid)));
  request(begin);
  // A known one keeps its record, whose owner is named; its line comes again.
  request(packet(TOV_MSG_ACK, bytes_of(thread_record(task.pid, 77))));
  request_unanswered(packet(TOV_RESET, bytes_of(thread_record(task.pid, 78))));
  request(control(TOV_UNREG_THREAD_NOTIFY, task.pid));
  request(control(TOV_UNREG_THREAD_NOTIFY, task.pid));  // no record is left
  settle();
  EXPECT_THAT(event_texts(device, ALIVE_LOG),
              ElementsAre(thread_line(task, task.pid, "reg"), thread_line(task, task.pid, "reg"),
                          thread_line(task, task.pid, "unreg")));
  EXPECT_EQ(count_output(result_line(TOV_MSG_ACK, 0)), 2U);
  EXPECT_EQ(count_output(result_line(TOV_RESET, 0)), 1U);
  EXPECT_THAT(event_texts(device, ERROR_LOG), IsEmpty());
}

TEST_F(Request, SignOfLifeEntersALostThreadWithoutALine) {
  start_with_diagnostics();
  const Task task = start_unregistered(device, "lost");
  request_unanswered(packet(TOV_RESET, bytes_of(thread_record(task.pid, 78))));
  settle();
  EXPECT_THAT(event_texts(device, ALIVE_LOG), IsEmpty());
  request(control(TOV_UNREG_THREAD_NOTIFY, task.pid));
  settle();
  EXPECT_THAT(event_texts(device, ALIVE_LOG), ElementsAre(thread_line(task, 78, "unreg")));
}

// How the watchdog shows a record at the beginning of its look.
std::string watch_line(const Task &task, int period, int counter, int left, int passed) {
  const std::string pid = std::to_string(task.pid);
  return "]pid (" + pid + ") ppid (" + pid + ") ntfy_time (" + std::to_string(period) +
         ") ntfy_cnt (" + std::to_string(counter) + ") cur_cnt (" + std::to_string(left) +
         ") cur_ntfy_time (" + std::to_string(passed) + ")\n";
}

TEST_F(Request, RepeatedStartKeepsTheCountersAndASignOfLifeBringsNewOnes) {
  start_with_diagnostics({.faketime = FAST});
  const Task task = start_unregistered(device, "counted");
  auto record = thread_record(task.pid, task.pid);
  record.m_n_notify_time = 90;  // no multiple of the watchdog's pace: it is never counted down
  request(packet(TOV_MSG_ACK, bytes_of(record)));
  record.m_n_counter = 7;
  record.m_n_cur_counter = 6;
  record.m_n_notify_time = 30;
  request(packet(TOV_MSG_ACK, bytes_of(record)));
  settle();
  EXPECT_TRUE(device.wait_output(watch_line(task, 90, 500, 400, 0), CLIENT_LIMIT_MS));

  record.m_n_counter = 3000;
  record.m_n_cur_counter = 2000;
  record.m_n_notify_time = 150;
  record.m_n_cur_notify_time = 10;
  request_unanswered(packet(TOV_RESET, bytes_of(record)));
  EXPECT_TRUE(device.wait_output(watch_line(task, 150, 3000, 2000, 10), CLIENT_LIMIT_MS));
}

// ---- removal ------------------------------------------------------------------------------------

TEST_F(Request, CancelledProgramIsNotBroughtBackAndItsFileIsGone) {
  Task bystander = start_task(device, "stays");
  Task task = start_task(device, "cancelled");
  start_with_diagnostics();
  request(control(TOV_CONS_DUMP_ALL, task.pid));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG), ElementsAre(unregister_line(task, 0, RESPAWN)));
  EXPECT_FALSE(device.exists(task.file));
  EXPECT_TRUE(device.exists(bystander.file));

  device.kill(task.pid, SIGKILL);
  pass_events(device, bystander);
  EXPECT_EQ(device.births(task.name).size(), 1U);
  EXPECT_EQ(device.count_events(RESTART_LOG, task.name), 0U);
}

TEST_F(Request, RemovalOfUnknownIdsAndUnknownEventsChangeNothing) {
  Task task = start_task(device, "untouched");
  start_with_diagnostics();
  request(control(TOV_CONS_DUMP_ALL, NOBODY));
  request(control(TOV_CONS_DUMP_ALL, 0));
  request(control(TOV_CONS_DUMP_ALL, -1));
  request(control(TOV_UNREG_THREAD_NOTIFY, task.pid));
  request(control(TOV_UNREG_THREAD_NOTIFY, -1));
  for (const int event : {2, -1, INT32_MAX})
    request(control(event, task.pid));
  settle();
  EXPECT_THAT(event_texts(device, REGISTER_LOG), IsEmpty());
  EXPECT_THAT(event_texts(device, ALIVE_LOG), IsEmpty());
  EXPECT_THAT(event_texts(device, ERROR_LOG), IsEmpty());
  EXPECT_EQ(count_output(result_line(TOV_MSG_CONS, -1)), 0U);
  EXPECT_TRUE(device.exists(task.file));
  kill_and_return(device, task);
}

// ---- dumps --------------------------------------------------------------------------------------

std::string dump_line(pid_t pid, int action, const std::string &process, const std::string &path) {
  char text[512];
  snprintf(text, sizeof text, "pid: %-6d, vsd: %-2d, regact: %d, pname: %s, %s", pid, 0, action,
           process.c_str(), path.c_str());
  return text;
}

// Registrations by all ways and a deferred restart, then what a whole dump shows of them.
class Dump : public Request {
 protected:
  void fill_registries() {
    rebuilt_ = start_task(device, "dump_rebuilt");
    deferred_ = start_task(device, "dump_deferred");
    // Held by this process until its end; the file must not be opened here again.
    lock_ = tov_fd_t(open(device.path(deferred_.file).c_str(), O_RDWR | O_CLOEXEC));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(lock_.n, F_SETLK, &whole), 0);

    start_with_diagnostics({.faketime = FAST});
    scripted_ = start_unregistered(device, "dump_scripted");
    request(packet(TOV_SHELL_RESTART, bytes_of(process_record(scripted_.pid)), "/etc/cmdmap/x"));
    request(packet(TOV_MSG_ACK, bytes_of(thread_record(rebuilt_.pid, rebuilt_.pid))));
    settle();
    device.kill(deferred_.pid, SIGKILL);
  }
  // Each with what must follow it, as far as the daemon's own lines are concerned.
  std::vector<std::vector<std::string>> expected() const {
    // After a rebuild the path is the command line; the deferred one waits in both registries.
    return {
        {"register restart in tov:", "node num:3",
         dump_line(rebuilt_.pid, RESPAWN, rebuilt_.command, rebuilt_.command),
         dump_line(deferred_.pid, RESPAWN, deferred_.command, deferred_.command),
         dump_line(scripted_.pid, SHELL_RESTART, scripted_.command, "/etc/cmdmap/x")},
        {"register hang in tov:", "node num:1", dump_line(rebuilt_.pid, 0, rebuilt_.command, "")},
        {"delay restart in tov:", "node num:1",
         dump_line(deferred_.pid, RESPAWN, deferred_.command, deferred_.command)}};
  }
  // Is there a dump of all three, one behind the other, in which every record stands once?
  static bool holds_dump(const std::vector<std::string> &lines,
                         const std::vector<std::vector<std::string>> &wanted) {
    for (auto at = lines.begin(); at != lines.end(); ++at)
      if (is_dump(at, lines.end(), wanted)) return true;
    return false;
  }

 private:
  using Line = std::vector<std::string>::const_iterator;
  // The order of records depends on their ids.
  static bool is_dump(Line at, Line end, const std::vector<std::vector<std::string>> &wanted) {
    for (const auto &registry : wanted) {
      const auto size = static_cast<ptrdiff_t>(registry.size());
      if (end - at < size || *at != registry[0] || *(at + 1) != registry[1]) return false;
      if (!std::is_permutation(at + 2, at + size, registry.begin() + 2)) return false;
      at += size;
    }
    return true;
  }

  Task rebuilt_, deferred_, scripted_;
  tov_fd_t lock_;
};

TEST_F(Dump, GoesToTheConsoleWhileItsFlagFileIsThere) {
  device.write("/tov_dump_msg_console", "");
  fill_registries();
  const auto dumped = [&] {
    std::vector<std::string> lines;
    std::istringstream output(device.daemon_output());
    for (std::string line; std::getline(output, line);)
      if (!line.starts_with("[TOV:")) lines.push_back(line);
    return holds_dump(lines, expected());
  };
  EXPECT_TRUE(wait_until(dumped, CLIENT_LIMIT_MS));
  EXPECT_EQ(device.count_notices("node num:"), 0U);
}

TEST_F(Dump, GoesToTheSystemLogOtherwise) {
  fill_registries();
  const auto dumped = [&] { return holds_dump(notice_texts(device), expected()); };
  EXPECT_TRUE(wait_until(dumped, CLIENT_LIMIT_MS));
  EXPECT_THAT(device.daemon_output(), Not(HasSubstr("node num:")));
  const auto heading = device.wait_notice("register restart in tov:");
  ASSERT_TRUE(heading);
  EXPECT_THAT(heading->text, testing::StartsWith("<30>")) << "a daemon's, informational";
}

// Whether the shared area has a slot for the thread.
bool has_slot(const Device &device, pid_t tid) {
  static constexpr size_t BITMAP_OFFSET = 32;
  const std::string area = device.read("/dev/shm/UTILS-tov-shm-001");
  const size_t at = BITMAP_OFFSET + static_cast<size_t>(tid) / 8;
  return at < area.size() && (static_cast<unsigned char>(area[at]) >> (tid % 8) & 1) != 0;
}

TEST_F(Dump, IsNotMadeWhileDiagnosticsAreOff) {
  device.write("/tov_dump_msg_console", "");
  start({.faketime = FAST});
  client_ = connected();
  const Task task = start_unregistered(device, "quiet");
  // A thread of another process than it says: the watchdog's next look, which would begin with the
  // dumps, drops it.
  request(packet(TOV_MSG_ACK, bytes_of(thread_record(task.pid, 77))));
  settle();
  EXPECT_THAT(event_texts(device, ALIVE_LOG), ElementsAre(thread_line(task, 77, "reg")));
  EXPECT_TRUE(wait_until([&] { return !has_slot(device, task.pid); }, CLIENT_LIMIT_MS));
  EXPECT_THAT(device.daemon_output(), Not(HasSubstr("node num:")));
  EXPECT_EQ(device.count_notices("node num:"), 0U);
}

}  // namespace
