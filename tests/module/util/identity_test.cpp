// Which process an id stands for, as the real kernel shows it. What it shows is told in
// tests/module/util/tov_sys_test.cpp; here, what is concluded from it.
#include "util/identity.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "include/tov_registry.h"
#include "tests/module/refused_calls.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using tov_test::PATIENT_MS;
using tov_test::wait_until;

static tov_identity_t taken(pid_t pid) {
  tov_identity_t identity{};
  EXPECT_EQ(tov_identity_take(pid, &identity), 0);
  return identity;
}

// Waits until a process is younger than that identity by a tick at least.
static void let_a_tick_pass(const tov_identity_t &identity) {
  ASSERT_TRUE(wait_until(
      [&] {
        const tov_test::Child younger;
        return taken(younger.pid()).started != identity.started;
      },
      PATIENT_MS));
}

static std::string waiter_at(const std::string &path) {
  std::filesystem::copy_file(TOV_VICTIM, path, std::filesystem::copy_options::overwrite_existing);
  return path;
}

TEST(TovIdentity, IsWhatTheProcessExecutes) {
  const tov_test::ScratchDir dir;
  const std::string path = waiter_at(dir / "x");
  const tov_test::Child child({path});
  const tov_identity_t identity = taken(child.pid());
  struct stat file {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(identity.exe_dev, file.st_dev);
  EXPECT_EQ(identity.exe_ino, file.st_ino);
  EXPECT_NE(identity.started, 0u);
  EXPECT_NE(identity.stack, 0u);
  std::filesystem::remove(path);
  const tov_identity_t without_file = taken(child.pid());
  EXPECT_EQ(without_file.exe_ino, identity.exe_ino);
  EXPECT_FALSE(tov_identity_executed(identity, without_file));
  EXPECT_EQ(tov_identity_life(child.pid(), identity), TOV_LIFE_LIVES);
}

TEST(TovIdentity, ZombieAndItsGraveHaveEnded) {
  tov_test::Zombie zombie;
  const tov_identity_t identity = taken(zombie.pid());
  EXPECT_NE(identity.started, 0u);
  EXPECT_EQ(tov_identity_life(zombie.pid(), identity), TOV_LIFE_ENDED);
  zombie.bury();
  EXPECT_EQ(tov_identity_life(zombie.pid(), identity), TOV_LIFE_ENDED);
  tov_identity_t nobody{};
  EXPECT_EQ(tov_identity_take(zombie.pid(), &nobody), -ESRCH);
  EXPECT_EQ(nobody.started, TOV_NEVER_STARTED);
}

TEST(TovIdentity, LivesInItsThreadsAndEndsWithTheLast) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);  // of this thread alone
  }
  ASSERT_TRUE(wait_until([=] { return tov_test::process_state(pid) == 'Z'; }, PATIENT_MS));
  const tov_identity_t identity = taken(pid);
  EXPECT_EQ(tov_identity_life(pid, identity), TOV_LIFE_THREADS);
  EXPECT_EQ(tov_identity_thread_life(pid, identity), TOV_LIFE_ENDED);
  EXPECT_EQ(identity.exe_ino, 0u);
  kill(pid, SIGKILL);
  EXPECT_TRUE(
      wait_until([&] { return tov_identity_life(pid, identity) == TOV_LIFE_ENDED; }, PATIENT_MS));
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(TovIdentity, OutlivesAnExecutionByAnotherThreadThanTheFirst) {
  const tov_test::ScratchDir dir;
  const std::string waiter = waiter_at(dir / "waiter");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::thread([&] {
      char byte;
      if (read(ends[0], &byte, 1) == 1) execl(waiter.c_str(), waiter.c_str(), nullptr);
      _exit(127);
    }).detach();
    for (;;)
      pause();
  }
  const tov_fd_t in(ends[0]), out(ends[1]);
  const tov_identity_t before = taken(pid);
  let_a_tick_pass(before);
  ASSERT_EQ(write(out.n, "", 1), 1);
  // At each moment of it, too. The first thread ends before the other one takes its id.
  EXPECT_TRUE(wait_until(
      [&] {
        const tov_life_e life = tov_identity_life(pid, before);
        EXPECT_TRUE(life == TOV_LIFE_LIVES || life == TOV_LIFE_THREADS) << life;
        return tov_identity_executed(before, taken(pid));
      },
      PATIENT_MS));
  EXPECT_TRUE(tov_identity_equals(pid, before, pid, taken(pid)));
  kill(pid, SIGKILL);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(TovIdentity, NextUserOfTheIdIsAnother) {
  pid_t pid = 0;
  tov_identity_t first{};
  {
    const tov_test::Child child;
    pid = child.pid();
    first = taken(pid);
  }
  let_a_tick_pass(first);
  const pid_t next = tov_test::fork_child_as(pid);
  if (next == 0)
    for (;;)
      pause();
  ASSERT_EQ(next, pid);
  EXPECT_EQ(tov_identity_life(pid, first), TOV_LIFE_REUSED);
  EXPECT_TRUE(tov_identity_differs(pid, first, pid, taken(pid)));
  (void)tov_test::end_child(pid);
}

TEST(TovIdentity, WithoutAFreeDescriptorNothingIsKnown) {
  const tov_test::Zombie zombie;
  const pid_t gone = tov_test::gone_process();
  const tov_test::NoMoreDescriptors none;
  for (const pid_t pid : {getpid(), zombie.pid(), gone}) {
    tov_identity_t identity{1, 2, 3, 4, 5};
    EXPECT_EQ(tov_identity_life(pid, {}), TOV_LIFE_UNKNOWN) << pid;
    EXPECT_EQ(tov_identity_take(pid, &identity), -EMFILE) << pid;
    EXPECT_EQ(identity.started, 1u);
  }
}
