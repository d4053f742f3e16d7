// The request handlers: what they put into the registries and the event logs.
#include "client/requests/tov_msg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/tov_pidfile.h"
#include "core/policy/exit.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

using namespace std::chrono_literals;
using tov_test::Child;
using tov_test::cmdline_of;

namespace {

constexpr char DB_DIR[] = "/tmp/vsd/0/tov/db";

using Lines = std::vector<std::string>;

// Fills a text field of a record.
template <size_t SIZE>
void set_text(char (&field)[SIZE], const char *text) {
  snprintf(field, SIZE, "%s", text);
}

class TovMsg : public tov_test::World {
 protected:
  static tov_msg_xtach_t payload_of(pid_t pid) {
    tov_msg_xtach_t payload{};
    payload.pid = pid;
    payload.vsd_id = 3;
    payload.restart_time = 9;
    set_text(payload.pathname, "/client/own reading");
    set_text(payload.grp, "test-1");
    return payload;
  }
  static tov_msg_xtach_t thread_payload(pid_t tid, pid_t ppid) {
    tov_msg_xtach_t payload{};
    payload.pid = tid;
    payload.ppid = ppid;
    payload.m_n_counter = 5;
    payload.m_n_cur_counter = 4;
    payload.m_n_notify_time = 120;
    payload.m_n_cur_notify_time = 60;
    return payload;
  }
  // Puts a record straight into a registry.
  static void insert(tov_chains_t &chains, pid_t pid, const char *process, const char *path = "",
                     pid_t ppid = 0) {
    tov_pid_t *record = add(pid, process, RESPAWN, 0, chains);
    record->ppid = ppid;
    set_text(record->pathname, path);
  }
};

// ---- registering a process ---------------------------------------------------------------------

TEST_F(TovMsg, RestartRequestFillsARecord) {
  const Child process;
  auto payload = payload_of(process.pid());
  ASSERT_EQ(tov_process_restart(&payload), 0);

  const tov_pid_t record = record_of(tov_chains, process.pid());
  EXPECT_EQ(record.pid, process.pid());
  EXPECT_EQ(record.vsd_id, 3);
  EXPECT_EQ(record.restart_time, 9);
  EXPECT_EQ(record.action, RESPAWN);
  EXPECT_EQ(record.alarm_wait_flag, 0);
  EXPECT_EQ(std::string(record.process), cmdline_of(process.pid()));
  EXPECT_STREQ(record.pathname, "");
  EXPECT_EQ(record.ppid, 0);
  EXPECT_EQ(record.flags, 0);
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_EQ(events(TOV_LOG_REG_RESTART),
            Lines{"register - process:/client/own reading pid:" + std::to_string(process.pid()) +
                  ", vsd_id:3, action:2"});
}

TEST_F(TovMsg, ScriptRequestKeepsItsScript) {
  const Child process;
  auto payload = payload_of(process.pid());
  char script[] = "/etc/cmdmap/demo";
  ASSERT_EQ(tov_process_shell_restart(&payload, script), 0);
  const tov_pid_t record = record_of(tov_chains, process.pid());
  EXPECT_EQ(record.action, SHELL_RESTART);
  EXPECT_STREQ(record.pathname, script);
  EXPECT_EQ(record.restart_time, 9);
  EXPECT_EQ(record.vsd_id, 3);
  EXPECT_EQ(std::string(record.process), cmdline_of(process.pid()));
  EXPECT_EQ(events(TOV_LOG_REG_RESTART),
            Lines{"register - process:/client/own reading pid:" + std::to_string(process.pid()) +
                  ", vsd_id:3, action:3"});
}

TEST_F(TovMsg, RegisteredProcessStaysAsItIs) {
  const Child process;
  auto payload = payload_of(process.pid());
  ASSERT_EQ(tov_process_restart(&payload), 0);
  payload.vsd_id = 7;
  payload.restart_time = 1;
  char script[] = "/etc/cmdmap/demo";
  EXPECT_EQ(tov_process_shell_restart(&payload, script), 0);
  EXPECT_EQ(tov_process_restart(&payload), 0);

  const tov_pid_t record = record_of(tov_chains, process.pid());
  EXPECT_EQ(record.action, RESPAWN);
  EXPECT_EQ(record.vsd_id, 3);
  EXPECT_EQ(record.restart_time, 9);
  EXPECT_STREQ(record.pathname, "");
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_EQ(events(TOV_LOG_REG_RESTART).size(), 1u) << "a repetition is not logged";
}

TEST_F(TovMsg, BlanksAtTheEndOfTheCommandLineAreRemoved) {
  const Child process({"/bin/sh", "-c", "kill -STOP $$; :", "word", " \t"});
  ASSERT_TRUE(cmdline_of(process.pid()).ends_with("word  \t")) << cmdline_of(process.pid());
  auto payload = payload_of(process.pid());
  ASSERT_EQ(tov_process_restart(&payload), 0);
  EXPECT_TRUE(std::string(record_of(tov_chains, process.pid()).process).ends_with(" word"));
}

TEST_F(TovMsg, UnterminatedTextsEndAtTheirFields) {
  const Child process;
  auto payload = payload_of(process.pid());
  memset(payload.pathname, 'p', sizeof payload.pathname);
  memset(payload.grp, 'g', sizeof payload.grp);
  char script[512];
  memset(script, 's', sizeof script);
  ASSERT_EQ(tov_process_shell_restart(&payload, script), 0);
  EXPECT_EQ(std::string(record_of(tov_chains, process.pid()).pathname), std::string(255, 's'));
  const Lines lines = events(TOV_LOG_REG_RESTART);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].find('g'), 2u) << "nothing of the label";
}

TEST_F(TovMsg, PercentSignsOfAClientAreNoFormat) {
  const Child process;
  auto payload = payload_of(process.pid());
  set_text(payload.pathname, "/opt/f%n%s%s%s");
  ASSERT_EQ(tov_process_restart(&payload), 0);
  EXPECT_NE(events(TOV_LOG_REG_RESTART)[0].find("process:/opt/f%n%s%s%s pid:"), std::string::npos);
}

TEST_F(TovMsg, ProcessThatIsGoneIsRefusedAndTold) {
  Child process;
  process.end();
  const std::string pid = std::to_string(process.pid());
  auto payload = payload_of(process.pid());
  payload.ppid = 12;
  char script[] = "x";
  const std::string printed = diagnostics([&] {
    EXPECT_EQ(tov_process_restart(&payload), -1);
    EXPECT_EQ(tov_process_shell_restart(&payload, script), -1);
    EXPECT_EQ(tov_notifier_start(&payload), -1);
    EXPECT_EQ(tov_notifier_reset(&payload), -1);
  });
  const std::string rest = ": fail to get pid " + pid + "'s cmdline, ppid = 12";
  EXPECT_NE(printed.find("]tov_process_restart" + rest + "\n"), std::string::npos);
  EXPECT_EQ(events(TOV_LOG_ERROR),
            (Lines{"tov_process_restart" + rest, "tov_process_shell_restart" + rest,
                   "tov_notifier_start" + rest, "tov_notifier_reset" + rest}));
  EXPECT_EQ(count(tov_chains), 0);
  EXPECT_EQ(count(tov_alive_chains), 0);
}

TEST_F(TovMsg, ProcessesZeroAndBelowAreRefused) {
  for (const pid_t pid : {0, -1, INT32_MIN}) {
    auto payload = payload_of(pid);
    EXPECT_EQ(tov_process_restart(&payload), -1);
    EXPECT_EQ(tov_notifier_start(&payload), -1);
  }
  EXPECT_EQ(count(tov_chains) + count(tov_alive_chains), 0);
}

// ---- files of registrations that the daemon makes itself ----------------------------------------

// What the daemon does as the client of a third-part program, up to its request.
class TovMsgOwnFile : public TovMsg {
 protected:
  TovMsgOwnFile() : descriptors_(tov_test::open_descriptors()) {}

  static tov_msg_xtach_t write_own_file(pid_t pid, const char *cmdline) {
    tov_msg_xtach_t payload{};
    payload.pid = pid;
    set_text(payload.pathname, cmdline);
    EXPECT_EQ(tov_mk_pidfile(&payload, TOV_RESTART), 0);
    return payload;
  }
  static std::string file_of(pid_t pid, const char *name) {
    return std::string(DB_DIR) + "/" + name + "." + std::to_string(pid);
  }
  size_t new_descriptors() const { return tov_test::open_descriptors() - descriptors_; }

 private:
  size_t descriptors_;
};

// It ended between its start and the daemon's request: its exit was told when it had no record.
TEST_F(TovMsgOwnFile, OfAProgramThatIsGoneLeadsToItsRestart) {
  const tov_test::Program program("brief");
  Child process;
  process.end();
  auto payload = write_own_file(process.pid(), program.path.c_str());
  ASSERT_EQ(new_descriptors(), 1u);
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_NE(find(program.birth().pid), nullptr);
  EXPECT_NE(access(file_of(process.pid(), program.name.c_str()).c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 0u);
}

// Like one that is about to end: it shows nothing of itself any more, and is no zombie yet.
TEST_F(TovMsgOwnFile, OfAProgramThatShowsNothingAnyMoreEntersItUntilItsEnd) {
  const tov_test::Program program("goner");
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);  // of this thread alone: the other one keeps the process
  }
  ASSERT_TRUE(tov_test::wait_until([=] { return tov_test::process_state(pid) == 'Z'; },
                                   tov_test::PATIENT_MS));
  auto payload = write_own_file(pid, program.path.c_str());
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_EQ(count(tov_chains), 1);
  const tov_pid_t *record = find(pid);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->process, program.path);
  EXPECT_TRUE(program.births().empty()) << "it has not ended";
  tov_test::end_child(pid);
  tov_handle_netlink_exit(pid, 0, 0);
  EXPECT_NE(find(program.birth().pid), nullptr);
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_EQ(new_descriptors(), 0u);
}

TEST_F(TovMsgOwnFile, OfAProgramThatWasGoneLongAgoIsRemovedAndClosed) {
  Child process;
  process.end();
  auto payload = write_own_file(process.pid(), "/opt/brief -x");
  const std::string file = file_of(process.pid(), "brief");
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const timespec written[] = {{now.tv_sec - 361, now.tv_nsec}, {now.tv_sec - 361, now.tv_nsec}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), written, 0), 0);
  EXPECT_EQ(tov_process_restart(&payload), -1);
  EXPECT_EQ(count(tov_chains), 0);
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 0u);
}

TEST_F(TovMsgOwnFile, OfAProcessThatIsRegisteredUnderAnotherNameIsRemovedAndClosed) {
  const Child process;
  insert(tov_chains, process.pid(), "/opt/front");
  auto front = write_own_file(process.pid(), "/opt/front");
  auto payload = write_own_file(process.pid(), "/opt/other");
  ASSERT_EQ(new_descriptors(), 2u);
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_NE(access(file_of(process.pid(), "other").c_str(), F_OK), 0);
  EXPECT_EQ(access(file_of(process.pid(), "front").c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 1u);

  EXPECT_EQ(tov_process_restart(&front), 0) << "registered already: the file is the record's";
  EXPECT_EQ(access(file_of(process.pid(), "front").c_str(), F_OK), 0);
  tov_process_dump_all_msg(process.pid());
  EXPECT_EQ(new_descriptors(), 0u);
}

TEST_F(TovMsgOwnFile, OfARegistrationThatSucceededStays) {
  const Child process;
  auto payload = write_own_file(process.pid(), cmdline_of(process.pid()).c_str());
  const std::string file = file_of(process.pid(), "module_client_requests_tov_msg");
  EXPECT_EQ(tov_process_restart(&payload), 0);
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 1u);
  tov_process_dump_all_msg(process.pid());
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 0u);
}

TEST_F(TovMsgOwnFile, OfADeadProcessThatIsStillRegisteredStays) {
  // A stranger may ask again for a program whose restart is under way.
  Child process;
  process.end();
  auto payload = write_own_file(process.pid(), "/opt/dying -x");
  insert(tov_chains, process.pid(), "/opt/dying -x");
  EXPECT_EQ(tov_process_restart(&payload), 0) << "registered already";
  EXPECT_EQ(access(file_of(process.pid(), "dying").c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 1u);
  tov_process_dump_all_msg(process.pid());
  EXPECT_EQ(new_descriptors(), 0u);
}

TEST_F(TovMsgOwnFile, FileOfAnotherProcessIsLeftAlone) {
  Child process;
  process.end();
  const std::string file = file_of(process.pid(), "brief");
  tov_test::write_file(file, "a client's");
  auto payload = payload_of(process.pid());
  payload.vsd_id = 0;
  set_text(payload.pathname, "/opt/brief");
  EXPECT_EQ(tov_process_restart(&payload), -1);
  EXPECT_EQ(access(file.c_str(), F_OK), 0);

  // Also where it took the place of the daemon's.
  payload = write_own_file(process.pid(), "/opt/brief");
  ASSERT_EQ(rename(file.c_str(), (file + ".old").c_str()), 0);
  tov_test::write_file(file, "a client's");
  EXPECT_EQ(tov_process_restart(&payload), -1);
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(new_descriptors(), 0u);
  unlink(file.c_str());
  unlink((file + ".old").c_str());
}

// ---- watching a thread -------------------------------------------------------------------------

TEST_F(TovMsg, ThreadStartFillsARecordAndASlot) {
  const Child process;
  auto payload = thread_payload(process.pid(), 77);
  ASSERT_EQ(tov_notifier_start(&payload), 0);
  const tov_pid_t record = record_of(tov_alive_chains, process.pid());
  EXPECT_EQ(record.pid, process.pid());
  EXPECT_EQ(record.ppid, 77);
  EXPECT_EQ(record.m_n_counter, 5u);
  EXPECT_EQ(record.m_n_cur_counter, 4u);
  EXPECT_EQ(record.m_n_notify_time, 120u);
  EXPECT_EQ(record.m_n_cur_notify_time, 60u);
  EXPECT_EQ(record.m_n_laster_alive_seq, 1u);
  EXPECT_EQ(record.action, 0);
  EXPECT_EQ(record.vsd_id, 0);
  EXPECT_EQ(std::string(record.process), cmdline_of(process.pid()));
  EXPECT_TRUE(tov_sys_isreg_alive_info(process.pid()));
  EXPECT_EQ(count(tov_chains), 0);
  EXPECT_EQ(events(TOV_LOG_REG_ALIVE),
            Lines{"Thread " + cmdline_of(process.pid()) + "/" + std::to_string(process.pid()) +
                  " (pid 77) reg TOV thread-alive service."});
}

TEST_F(TovMsg, KnownThreadKeepsItsRecordAndBeginsItsSlotAnew) {
  const Child process;
  auto payload = thread_payload(process.pid(), 77);
  ASSERT_EQ(tov_notifier_start(&payload), 0);
  tov_sys_update_alive_seq(process.pid());
  tov_sys_update_alive_seq(process.pid());

  payload = thread_payload(process.pid(), 88);
  payload.m_n_cur_counter = 1;
  ASSERT_EQ(tov_notifier_start(&payload), 0);
  const tov_pid_t record = record_of(tov_alive_chains, process.pid());
  EXPECT_EQ(record.ppid, 77);
  EXPECT_EQ(record.m_n_cur_counter, 4u);
  EXPECT_EQ(record.m_n_laster_alive_seq, 1u);
  EXPECT_EQ(tov_sys_get_alive_seq(process.pid()), 1);
  EXPECT_EQ(count(tov_alive_chains), 1);
  const Lines lines = events(TOV_LOG_REG_ALIVE);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[1].find("(pid 77)"), std::string::npos) << "the record's owner is named";
}

TEST_F(TovMsg, ResetRefreshesTheFourFieldsOfAKnownThreadSilently) {
  const Child process;
  auto payload = thread_payload(process.pid(), 77);
  ASSERT_EQ(tov_notifier_start(&payload), 0);
  payload.ppid = 99;
  payload.m_n_counter = 50;
  payload.m_n_cur_counter = 40;
  payload.m_n_notify_time = 180;
  payload.m_n_cur_notify_time = 0;
  ASSERT_EQ(tov_notifier_reset(&payload), 0);
  const tov_pid_t record = record_of(tov_alive_chains, process.pid());
  EXPECT_EQ(record.m_n_counter, 50u);
  EXPECT_EQ(record.m_n_cur_counter, 40u);
  EXPECT_EQ(record.m_n_notify_time, 180u);
  EXPECT_EQ(record.m_n_cur_notify_time, 0u);
  EXPECT_EQ(record.ppid, 77);
  EXPECT_EQ(events(TOV_LOG_REG_ALIVE).size(), 1u);
}

TEST_F(TovMsg, ResetMakesALostRecordAgain) {
  const Child process;
  auto payload = thread_payload(process.pid(), 77);
  ASSERT_EQ(tov_notifier_reset(&payload), 0);
  EXPECT_EQ(record_of(tov_alive_chains, process.pid()).ppid, 77);
  EXPECT_TRUE(tov_sys_isreg_alive_info(process.pid()));
  EXPECT_TRUE(events(TOV_LOG_REG_ALIVE).empty());
}

// ---- removing ------------------------------------------------------------------------------

TEST_F(TovMsg, RemovalTakesEveryRegistrationOfTheProcessAndItsFile) {
  insert(tov_chains, 812, "/usr/sbin/foo -d");
  insert(tov_chains, 812, "/usr/sbin/bar");
  insert(tov_chains, 813, "/usr/sbin/other");
  tov_test::write_file("/tmp/vsd/0/tov/db/foo.812", "x");
  tov_test::write_file("/tmp/vsd/0/tov/db/other.813", "x");
  tov_msg_cons_t payload = {.event = TOV_CONS_DUMP_ALL, .pid = 812};
  EXPECT_EQ(tov_process_cons_msg(&payload), 0);
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_EQ(record_of(tov_chains, 812).pid, 0);
  EXPECT_NE(access("/tmp/vsd/0/tov/db/foo.812", F_OK), 0);
  EXPECT_EQ(access("/tmp/vsd/0/tov/db/other.813", F_OK), 0);
  EXPECT_EQ(events(TOV_LOG_REG_RESTART),
            (Lines{"unregister - process:/usr/sbin/bar pid:812, vsd_id:0, action:2",
                   "unregister - process:/usr/sbin/foo -d pid:812, vsd_id:0, action:2"}));
}

TEST_F(TovMsg, RemovalOfAnUnknownProcessChangesNothing) {
  insert(tov_chains, 813, "/usr/sbin/other");
  tov_process_dump_all_msg(812);
  EXPECT_EQ(count(tov_chains), 1);
  EXPECT_TRUE(events(TOV_LOG_REG_RESTART).empty());
}

TEST_F(TovMsg, EndOfAWatchFreesTheSlot) {
  const Child process;
  auto payload = thread_payload(process.pid(), 77);
  ASSERT_EQ(tov_notifier_start(&payload), 0);
  tov_msg_cons_t request = {.event = TOV_UNREG_THREAD_NOTIFY, .pid = process.pid()};
  EXPECT_EQ(tov_process_cons_msg(&request), 0);
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_FALSE(tov_sys_isreg_alive_info(process.pid()));
  EXPECT_EQ(tov_sys_get_alive_seq(process.pid()), 0);
  const Lines lines = events(TOV_LOG_REG_ALIVE);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "Thread " + cmdline_of(process.pid()) + "/" + std::to_string(process.pid()) +
                          " (pid 77) unreg TOV thread-alive service.");
}

TEST_F(TovMsg, ThreadBeyondTheSharedAreaIsRemovedWithoutALine) {
  insert(tov_alive_chains, TOV_ALIVE_ID_COUNT, "/opt/far", "", 5);
  insert(tov_alive_chains, TOV_ALIVE_ID_COUNT - 1, "/opt/near", "", 5);
  tov_notifier_stop(TOV_ALIVE_ID_COUNT);
  EXPECT_EQ(count(tov_alive_chains), 1);
  EXPECT_TRUE(events(TOV_LOG_REG_ALIVE).empty());
  tov_notifier_stop(TOV_ALIVE_ID_COUNT - 1);
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_EQ(events(TOV_LOG_REG_ALIVE).size(), 1u);
}

TEST_F(TovMsg, NegativeThreadTouchesNoSlot) {
  insert(tov_alive_chains, -8, "/opt/odd");
  tov_notifier_stop(-8);
  EXPECT_EQ(count(tov_alive_chains), 0);
}

TEST_F(TovMsg, UnknownControlEventIsIgnored) {
  insert(tov_chains, 812, "/usr/sbin/foo");
  insert(tov_alive_chains, 812, "/usr/sbin/foo");
  for (const int event : {2, -1, INT32_MAX}) {
    tov_msg_cons_t payload = {.event = event, .pid = 812};
    EXPECT_EQ(tov_process_cons_msg(&payload), 0);
  }
  EXPECT_EQ(count(tov_chains) + count(tov_alive_chains), 2);
}

// ---- short payloads ----------------------------------------------------------------------------

TEST_F(TovMsg, RecordsMustHaveComeWhole) {
  for (const int type : {TOV_RESTART, TOV_SHELL_RESTART, TOV_MSG_ACK, TOV_RESET}) {
    EXPECT_EQ(tov_msg_check_payload(type, 320), 0);
    EXPECT_EQ(tov_msg_check_payload(type, 5000), 0);
    EXPECT_EQ(tov_msg_check_payload(type, 319), -1);
    EXPECT_EQ(tov_msg_check_payload(type, 0), -1);
    EXPECT_EQ(tov_msg_check_payload(type, -1), -1);
  }
  EXPECT_EQ(tov_msg_check_payload(TOV_MSG_CONS, 8), 0);
  EXPECT_EQ(tov_msg_check_payload(TOV_MSG_CONS, 7), -1);
  EXPECT_EQ(tov_msg_check_payload(99, 0), 0);
}

}  // namespace
