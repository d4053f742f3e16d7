// The event handler: executions that register a program, exits, its pace, and how it ends.
#include "core/events/handler.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>

#include "core/events/tov_fifo.h"
#include "core/run/flags.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/fake_daemon.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/event_ring.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::exists;
using tov_test::FakeDaemon;
using tov_test::GONE;
using tov_test::Program;
using tov_test::TemporaryFile;
using tov_test::write_file;

static constexpr int KILLED = SIGKILL;
static constexpr int DUMPED = SIGSEGV | 0x80;

namespace {

class TovCnMsgExec : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    tov_test::clear_path("/tmp/tov/.tov");
  }
  static void list(const std::string &line) { write_file(TOV_THIRD_PART_LIST, line + "\n"); }

  // Whether the execution of `pid` leads to a registration; what was asked for is left in asked_.
  bool registers(pid_t pid) {
    FakeDaemon server;
    tov_cn_msg_exec(pid, 0);
    if (server.connections() == 0) return false;
    asked_ = server.only_request();
    return true;
  }

  tov_test::Request asked_;
};

class TovCnMsgExit : public tov_test::World {};

class TovCnmsgDispatch : public tov_test::World {};

class TovCnmsgHandle : public tov_test::World, protected tov_test::EventRing {
 protected:
  void TearDown() override {
    end_handler();
    World::TearDown();
  }

  void begin_handler() {
    handler_ = std::thread([] { tov_cnmsg_handle(nullptr); });
  }
  void end_handler() {
    tov_flag_set(quit, 1);
    if (!handler_.joinable()) return;
    put(0, GONE, 0);  // wakes it earlier than its own look at the flag
    handler_.join();
  }
  static bool is_empty_soon() {
    return tov_test::wait_until([] { return kfifo_is_empty(&tov_cnmsg_fifo); },
                                tov_test::PATIENT_MS);
  }

 private:
  std::thread handler_;
};

}  // namespace

// ---- executions -----------------------------------------------------------------------------

TEST_F(TovCnMsgExec, ListedProgramIsRegisteredWithTheTypeOfItsLine) {
  const Program program("listed");
  list(program.path + " TOV_RESTART");
  const pid_t pid = tov_test::start(program.path);
  ASSERT_TRUE(registers(pid));
  EXPECT_EQ(asked_.head().type, static_cast<uint32_t>(TOV_RESTART));
  const auto payload = asked_.payload<tov_msg_xtach_t>();
  EXPECT_EQ(payload.pid, pid);
  EXPECT_EQ(payload.vsd_id, 0);
  EXPECT_EQ(payload.pathname, program.path);
  // The file is written on the program's behalf.
  EXPECT_EQ(tov_test::read_file("/tmp/vsd/0/tov/db/" + program.name + "." + std::to_string(pid)),
            std::to_string(pid) + "\n2\n" + program.path);
}

TEST_F(TovCnMsgExec, ScriptTypeIsRegisteredAsOne) {
  const Program program("script");
  list(program.path + " -d TOV_SHELL_RESTART");
  ASSERT_TRUE(registers(tov_test::start(program.path + " -d")));
  EXPECT_EQ(asked_.head().type, static_cast<uint32_t>(TOV_SHELL_RESTART));
}

TEST_F(TovCnMsgExec, UnlistedProgramIsNotRegistered) {
  const Program program("unlisted");
  list("/opt/other TOV_RESTART");
  EXPECT_FALSE(registers(tov_test::start(program.path)));
  tov_test::clear_path(TOV_THIRD_PART_LIST);
  EXPECT_FALSE(registers(tov_test::start(program.path)));
}

TEST_F(TovCnMsgExec, ProcessThatIsGoneIsNotRegistered) {
  list("/opt/other TOV_RESTART");
  EXPECT_FALSE(registers(GONE));
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
}

TEST_F(TovCnMsgExec, ListedPathDoesNotSpeakForOtherArguments) {
  const Program program("arguments");
  list(program.path + " TOV_RESTART");
  const pid_t pid = tov_test::start(program.path + " -d");
  const std::string said = diagnostics([&] { EXPECT_FALSE(registers(pid)); });
  EXPECT_THAT(said, HasSubstr("]" + program.path + " -d is not in tovdb!\n"));
}

TEST_F(TovCnMsgExec, LineWithoutATypeRegistersNothing) {
  const Program program("typeless");
  list(program.path);
  EXPECT_FALSE(registers(tov_test::start(program.path)));
}

TEST_F(TovCnMsgExec, UnknownTypeIsToldAndLogged) {
  const Program program("unknown");
  list(program.path + " TOV_NOTHING");
  const pid_t pid = tov_test::start(program.path);
  const std::string said = diagnostics([&] { EXPECT_FALSE(registers(pid)); });
  EXPECT_THAT(said, HasSubstr("]tov_cn_msg_exec--> reg_third_part_process_exit_action error!\n"));
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("tov_cn_msg_exec--> reg_third_part_process_exit_action error!"));
}

TEST_F(TovCnMsgExec, OtherRegisteredInstanceOfTheDeviceIsEnough) {
  const Program program("second");
  list(program.path + " TOV_RESTART");
  add(GONE, program.path);
  const pid_t pid = tov_test::start(program.path);
  const std::string said = diagnostics([&] { EXPECT_FALSE(registers(pid)); });
  EXPECT_THAT(said, HasSubstr("]tov_cn_msg_exec--> " + program.path + " is running\n"));
}

TEST_F(TovCnMsgExec, InstanceOfAnotherDeviceIsNot) {
  const Program program("elsewhere");
  list(program.path + " TOV_RESTART");
  add(GONE, program.path, RESPAWN, 3);
  EXPECT_TRUE(registers(tov_test::start(program.path)));
}

// The server would change nothing, but the registration file would say what the program shows now.
TEST_F(TovCnMsgExec, ProcessThatHasARecordIsNotRegisteredAnew) {
  const Program program("itself");
  list(program.path + " TOV_RESTART\n" + program.path + " -d TOV_RESTART");
  const pid_t pid = tov_test::start(program.path);
  const tov_pid_t *record = add(pid, program.path + " -d");
  EXPECT_FALSE(registers(pid));
  EXPECT_EQ(record->process, program.path + " -d");
}

TEST_F(TovCnMsgExec, ProgramOfADeviceIsComparedWithinIt) {
  const Program program("inside");
  list(program.path + " TOV_RESTART");
  const pid_t pid = tov_test::start_program({program.path}, {{3200}});
  program.birth();
  add(GONE, program.path, RESPAWN, 0);
  EXPECT_TRUE(registers(pid));
  EXPECT_EQ(asked_.payload<tov_msg_xtach_t>().vsd_id, 2);
  add(GONE + 1, program.path, RESPAWN, 2);
  EXPECT_FALSE(registers(pid));
}

TEST_F(TovCnMsgExec, EmptyLastArgumentMakesNoOtherTask) {
  const Program program("blank");
  list(program.path + " -a TOV_RESTART");
  add(GONE, program.path + " -a");
  const pid_t pid = tov_test::start_program({program.path, "-a", ""});
  program.birth();
  EXPECT_FALSE(registers(pid));
}

// ---- exits ----------------------------------------------------------------------------------

TEST_F(TovCnMsgExit, MassRuleIsAskedBeforeTheDecision) {
  tov_pid_t *record = add(GONE, "/opt/a", NORMAL_EXIT);
  tov_cn_msg_exit(GONE, DUMPED);
  EXPECT_NE(record->ill_tm, 0);
  EXPECT_EQ(record->exit_signal, DUMPED);
}

TEST_F(TovCnMsgExit, UnregisteredProcessChangesNothing) {
  const TemporaryFile marker("/tmp/vsd/3/delete_vsd");
  tov_cn_msg_exit(GONE, KILLED);
  EXPECT_EQ(count(), 0);
}

TEST_F(TovCnMsgExit, NothingIsStartedWhileADeviceIsDeleted) {
  for (const char *path :
       {"/tmp/vsd/1/delete_vsd", "/tmp/vsd/15/delete_vsd", "/tmp/vsd/16/delete_vsd"}) {
    const Program program("deleted");
    const TemporaryFile marker(path);
    const std::string file = write_file_of(*add(GONE, program.path));
    tov_cn_msg_exit(GONE, KILLED);
    EXPECT_EQ(count(), 0) << path;
    EXPECT_FALSE(exists(file)) << path;
    EXPECT_THAT(program.births(), IsEmpty()) << path;
  }
  EXPECT_THAT(notices(), IsEmpty());
  EXPECT_THAT(events(TOV_LOG_RESTART), IsEmpty());
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT), IsEmpty());
}

TEST_F(TovCnMsgExit, OnlyTheNewestRecordGoesThen) {
  const TemporaryFile marker("/tmp/vsd/1/delete_vsd");
  const tov_pid_t *older = add(GONE, "/opt/a");
  add(GONE, "/opt/b");
  tov_cn_msg_exit(GONE, KILLED);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(find(GONE), older);
}

TEST_F(TovCnMsgExit, MarkersOfOtherNumbersAreNone) {
  const Program program("restarted");
  const TemporaryFile device0("/tmp/vsd/0/delete_vsd"), device17("/tmp/vsd/17/delete_vsd");
  const tov_pid_t *record = add(GONE, program.path);
  tov_cn_msg_exit(GONE, KILLED);
  EXPECT_EQ(record->pid, program.birth().pid);
}

// ---- dispatch -------------------------------------------------------------------------------

TEST_F(TovCnmsgDispatch, ByTheKernelsCode) {
  tov_pid_t *record = add(GONE, "/opt/a", NORMAL_EXIT);
  const tov_cnmsg_data_t other{4, GONE, KILLED};
  tov_cnmsg_dispatch(&other);
  const tov_cnmsg_data_t executed{TOV_EVENT_EXEC, GONE, KILLED};
  tov_cnmsg_dispatch(&executed);
  EXPECT_EQ(record->exit_signal, 0);
  const tov_cnmsg_data_t ended{TOV_EVENT_EXIT, GONE, KILLED};
  tov_cnmsg_dispatch(&ended);
  EXPECT_EQ(record->exit_signal, KILLED);
}

TEST_F(TovCnmsgDispatch, ExecutionReachesTheList) {
  const Program program("dispatched");
  write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
  const tov_cnmsg_data_t executed{TOV_EVENT_EXEC, tov_test::start(program.path), 0};
  FakeDaemon server;
  tov_cnmsg_dispatch(&executed);
  EXPECT_EQ(server.only_request().payload<tov_msg_xtach_t>().pid, executed.process_pid);
}

// ---- the thread -----------------------------------------------------------------------------

TEST_F(TovCnmsgHandle, EventsAreHandledInTheirOrder) {
  for (int i = 0; i < 3; i++)
    add(GONE + i, "/opt/" + std::to_string(i));
  put(TOV_EVENT_EXIT, GONE + 1, SIGTERM);
  put(TOV_EVENT_EXIT, GONE, SIGTERM);
  begin_handler();
  put(TOV_EVENT_EXIT, GONE + 2, SIGTERM);
  ASSERT_TRUE(is_empty_soon());
  end_handler();
  const auto stop_of = [](pid_t pid) { return HasSubstr(",pid:" + std::to_string(pid) + ","); };
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              ElementsAre(stop_of(GONE + 1), stop_of(GONE), stop_of(GONE + 2)));
}

TEST_F(TovCnmsgHandle, AtMostOneEventAMillisecond) {
  enum { EVENTS = 100, ROUNDS = 10, SLOW_US = 3 * EVENTS * 1000 };
  add(GONE, "/opt/a", NORMAL_EXIT);
  // On a busy machine any single round can be late.
  int64_t fastest_us = INT64_MAX;
  for (int round = 0; round < ROUNDS && fastest_us >= SLOW_US; round++) {
    for (int i = 0; i < EVENTS; i++)
      put(0, GONE, 0);
    const int64_t begun = tov_test::monotonic_ns();
    begin_handler();
    ASSERT_TRUE(is_empty_soon());
    const int64_t lasted_us = (tov_test::monotonic_ns() - begun) / 1000;
    EXPECT_GE(lasted_us, (EVENTS - 2) * 1000);  // the last one waits for its slot out of the ring
    fastest_us = std::min(fastest_us, lasted_us);
    end_handler();
    tov_flag_set(quit, 0);
  }
  EXPECT_LT(fastest_us, SLOW_US * tov_test::patience());
}

// What comes behind a storm of others' exits is handled at once.
TEST_F(TovCnmsgHandle, StrangersTakeNoSlot) {
  enum { EVENTS = 10'000, ROUNDS = 10, SLOW_US = 1'000'000 };
  int64_t fastest_us = INT64_MAX;
  for (int round = 0; round < ROUNDS && fastest_us >= SLOW_US; round++) {
    const pid_t pid = GONE - round;
    const tov_pid_t *record = add(pid, "/opt/a" + std::to_string(round), NORMAL_EXIT);
    for (int i = 1; i <= EVENTS; i++)
      put(i % 2 == 0 ? uint32_t{TOV_EVENT_EXIT} : uint32_t{TOV_EVENT_EXEC}, GONE + i, 0);
    put(TOV_EVENT_EXIT, pid, KILLED);
    const int64_t begun = tov_test::monotonic_ns();
    begin_handler();
    ASSERT_TRUE(is_empty_soon());
    fastest_us = std::min(fastest_us, (tov_test::monotonic_ns() - begun) / 1000);
    end_handler();
    EXPECT_EQ(record->exit_signal, KILLED);
    tov_flag_set(quit, 0);
  }
  EXPECT_LT(fastest_us, SLOW_US * tov_test::patience());
}

TEST_F(TovCnmsgHandle, MissedSlotsAreNotMadeUpFor) {
  add(GONE, "/opt/a", NORMAL_EXIT);
  begin_handler();
  put(0, GONE, 0);
  ASSERT_TRUE(is_empty_soon());
  usleep(100000);  // a hundred slots
  const int64_t begun = tov_test::monotonic_ns();
  for (int i = 0; i < 20; i++)
    put(0, GONE, 0);
  ASSERT_TRUE(is_empty_soon());
  EXPECT_GE(tov_test::monotonic_ns() - begun, 15 * 1'000'000);
}

TEST_F(TovCnmsgHandle, RecordThatIsNotWholeIsDropped) {
  add(GONE, "/opt/a", NORMAL_EXIT);
  const tov_pid_t *record = add(GONE + 1, "/opt/b", NORMAL_EXIT);
  put(TOV_EVENT_EXIT, GONE, 1);
  const char part[5] = {};
  ASSERT_EQ(__kfifo_in(&tov_cnmsg_fifo, part, sizeof part), sizeof part);
  begin_handler();
  ASSERT_TRUE(is_empty_soon());
  put(TOV_EVENT_EXIT, GONE + 1, 2);  // in step again
  ASSERT_TRUE(is_empty_soon());
  end_handler();
  EXPECT_EQ(record->exit_signal, 2);
}

TEST_F(TovCnmsgHandle, EndsTheDaemonWithALine) {
  begin_handler();
  end_handler();
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_cnmsg_handle\" exit, tov will be restart. res=0, "
                          "Success(0)"));
}

TEST_F(TovCnmsgHandle, RefusedPriorityEndsTheDaemon) {
  tov_test::in_child([] {
    tov_test::give_up_priorities();
    const std::string said = diagnostics([] { tov_cnmsg_handle(nullptr); });
    EXPECT_THAT(said, HasSubstr("]tov_cnmsg_handle: set priority fail: Operation not permitted\n"));
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_cnmsg_handle\" exit, tov will be restart. res=-2, "
                          "Operation not permitted(1)"));
}

TEST_F(TovCnmsgHandle, RefusedNameEndsTheDaemon) {
  tov_test::in_child([] {
    tov_test::refuse({SYS_prctl}, EPERM);
    tov_cnmsg_handle(nullptr);
    EXPECT_EQ(tov_flag_get(quit), 1);
  });
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"tov_cnmsg_handle\" exit, tov will be restart. res=-1, "
                          "Operation not permitted(1)"));
}
