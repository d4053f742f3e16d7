// The deferral of a restart while the registration file of the dead process is locked.
#include "core/policy/defer.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "core/policy/exit.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "util/clock.h"

using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::GONE;
using tov_test::Program;
using tov_test::write_file;

static constexpr int KILLED = SIGKILL;

namespace {

using TovExitDeferral = tov_test::NotesSleeps<tov_test::World>;

}  // namespace

TEST_F(TovExitDeferral, LockedFileParksTheExit) {
  const Program program("parked");
  tov_pid_t *record = add(GONE, program.path, RESPAWN, 2);
  record->restart_time = 7;
  (void)snprintf(record->pathname, sizeof record->pathname, "/opt/script");
  record->flags = TOV_FLAG_STARTED;
  record->count = 3;
  const auto holder = holder_of(write_file_of(*record));
  const time_t before = tov_get_time();
  tov_handle_netlink_exit(GONE, KILLED, 0);

  EXPECT_EQ(find(GONE), record);
  EXPECT_THAT(program.births(), IsEmpty());
  EXPECT_THAT(notices(), IsEmpty());
  const tov_pid_t *parked = find(GONE, tov_chains_delay);
  ASSERT_NE(parked, nullptr);
  EXPECT_EQ(count(tov_chains_delay), 1);
  EXPECT_EQ(parked->vsd_id, 2);
  EXPECT_EQ(parked->alarm_wait_flag, 0);
  EXPECT_EQ(parked->restart_time, 7);
  EXPECT_EQ(parked->action, RESPAWN);
  EXPECT_EQ(parked->exit_signal, KILLED);
  EXPECT_EQ(parked->process, program.path);
  EXPECT_STREQ(parked->pathname, "/opt/script");
  EXPECT_GE(parked->delay_tm, before);
  EXPECT_LE(parked->delay_tm, tov_get_time());
  EXPECT_EQ(parked->force_restart, 0);
  EXPECT_EQ(parked->flags, 0);
  EXPECT_EQ(parked->count, 0);
}

TEST_F(TovExitDeferral, SecondTimeItStaysAsItWasParked) {
  tov_pid_t *record = add(GONE, "/opt/a");
  const auto holder = holder_of(write_file_of(*record));
  tov_handle_netlink_exit(GONE, KILLED, 0);
  const std::string said = diagnostics([] { tov_handle_netlink_exit(GONE, SIGSEGV, 0); });
  EXPECT_EQ(count(tov_chains_delay), 1);
  EXPECT_EQ(find(GONE, tov_chains_delay)->exit_signal, KILLED);
  EXPECT_THAT(said, HasSubstr("]tov_proc_restart_delay /opt/a/5000000 receives event:000b\n"));
  EXPECT_THAT(said, HasSubstr("]be lock file /tmp/vsd/0/tov/db/a.5000000, "));
  EXPECT_THAT(said, HasSubstr("]tov_proc_restart_delay pid 5000000 exist in tov_chains_delay\n"));
}

TEST_F(TovExitDeferral, ForceDoesNotAskForTheLock) {
  const Program program("forced");
  tov_pid_t *record = add(GONE, program.path);
  const auto holder = holder_of(write_file_of(*record));
  tov_handle_netlink_exit(GONE, KILLED, 1);
  EXPECT_EQ(record->pid, program.birth().pid);
  EXPECT_EQ(count(tov_chains_delay), 0);
  EXPECT_EQ(record->force_restart, 0);
}

TEST_F(TovExitDeferral, FreeFileIsNoReason) {
  tov_pid_t *record = add(GONE, "/opt/a");
  write_file_of(*record);
  EXPECT_THAT(diagnostics([&] { EXPECT_EQ(tov_proc_is_exit(record), 1); }),
              HasSubstr("]Succeed to lock file /tmp/vsd/0/tov/db/a.5000000.\n"));
  EXPECT_EQ(tov_proc_restart_delay(record), 0);
}

TEST_F(TovExitDeferral, MissingFileIsNoReason) {
  tov_pid_t *record = add(GONE, "/opt/a");
  EXPECT_THAT(diagnostics([&] { EXPECT_EQ(tov_proc_is_exit(record), 1); }),
              HasSubstr("]tov_proc_is_exit: /tmp/vsd/0/tov/db/a.5000000 fd < 0: No such file or "
                        "directory\n"));
  EXPECT_EQ(tov_proc_restart_delay(record), 0);
}

TEST_F(TovExitDeferral, LockEndsWithTheProcessThatHeldIt) {
  tov_pid_t *record = add(GONE, "/opt/a");
  auto holder = holder_of(write_file_of(*record));
  EXPECT_EQ(tov_proc_is_exit(record), 0);
  holder.end();
  EXPECT_EQ(tov_proc_is_exit(record), 1);
}

TEST_F(TovExitDeferral, LockThatCannotBeAskedForIsNoReason) {
  tov_pid_t *record = add(GONE, "/opt/a");
  write_file_of(*record);
  tov_test::in_child([&] {
    tov_test::refuse({SYS_fcntl}, ENOLCK);
    EXPECT_THAT(diagnostics([&] { EXPECT_EQ(tov_proc_is_exit(record), 1); }),
                HasSubstr("]Failed to lock file /tmp/vsd/0/tov/db/a.5000000, No locks "
                          "available.\n"));
  });
}

TEST_F(TovExitDeferral, NoRecordIsNoReason) {
  EXPECT_EQ(tov_proc_restart_delay(nullptr), 0);
}

TEST_F(TovExitDeferral, PlantedFifoOrLinkIsNoReasonAndDoesNotBlock) {
  tov_pid_t *record = add(GONE, "/opt/a");
  ASSERT_EQ(mkfifo(file_of(*record).c_str(), 0666), 0);
  EXPECT_EQ(tov_proc_is_exit(record), 1);
  tov_pid_t *linked = add(GONE + 1, "/opt/b");
  write_file("/tmp/locked", "");
  const auto holder = holder_of("/tmp/locked");
  ASSERT_EQ(symlink("/tmp/locked", file_of(*linked).c_str()), 0);
  EXPECT_EQ(tov_proc_is_exit(linked), 1);
}
