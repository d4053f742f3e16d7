// Starting a program, seen from the child: its words, the state in which it begins, what it says
// when it fails.
#include "proc/child.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "proc/selfcheck/tov_signals.h"
#include "proc/tov_proc.h"
#include "tests/module/proc/spawning.h"
#include "tests/module/program.h"
#include "tests/module/refused_calls.h"
#include "tests/module/world.h"
#include "tests/support/birth.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "util/priority.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tov_test::Birth;
using tov_test::exists;
using tov_test::GONE;
using tov_test::PlainConsole;
using tov_test::Program;
using tov_test::read_file;
using tov_test::refuse;
using tov_test::TemporaryFile;
using tov_test::write_file;

// ---- words ----------------------------------------------------------------------------------

static std::vector<std::string> words_of(const std::string &command) {
  const tov_words_t words(command.c_str());
  std::vector<std::string> all;
  for (char *const *word = words.word; *word != nullptr; word++)
    all.emplace_back(*word);
  return all;
}

TEST(TovWords, BlanksAndTabsSeparateThem) {
  EXPECT_THAT(words_of("/opt/foo -a b"), ElementsAre("/opt/foo", "-a", "b"));
  EXPECT_THAT(words_of(" \t/opt/foo \t \t-a\tb \t"), ElementsAre("/opt/foo", "-a", "b"));
  EXPECT_THAT(words_of("foo\nbar"), ElementsAre("foo\nbar"));
  EXPECT_THAT(words_of(""), IsEmpty());
  EXPECT_THAT(words_of(" \t "), IsEmpty());
}

TEST(TovWords, FourteenAtMost) {
  EXPECT_THAT(words_of("1 2 3 4 5 6 7 8 9 10 11 12 13 14"), testing::SizeIs(14));
  const auto words = words_of("1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16");
  EXPECT_THAT(words, testing::SizeIs(14));
  EXPECT_EQ(words.back(), "14");  // without what follows it
}

TEST(TovWords, CommandsAreCutAt4095Characters) {
  const auto words = words_of("/opt/foo " + std::string(5000, 'x'));
  ASSERT_EQ(words.size(), 2u);
  EXPECT_EQ(words[1].size(), 4095 - std::string("/opt/foo ").size());
}

using TovSpawn = tov_test::Spawning;
using TovSpawnFailure = tov_test::Spawning;

// ---- an ordinary program --------------------------------------------------------------------

TEST_F(TovSpawn, SixteenWordsBecomeFourteen) {
  const Program program("words");
  tov_spawn(add(GONE, program.path + " 2 3\t4 5 6 7 8 9 10 11 12 13 14 15 16"), &res_);
  EXPECT_EQ(program.birth().argv, program.path + " 2 3 4 5 6 7 8 9 10 11 12 13 14");
}

TEST_F(TovSpawn, ChildStartsFromAnOrdinaryState) {
  const Program program("state");
  const PlainConsole console;
  tov_pid_t *record = add(GONE, program.path);
  // A worker thread as the daemon has them: at priority 99, with the daemon's signals blocked.
  struct sigaction ignored {};
  ignored.sa_handler = SIG_IGN;
  struct sigaction before {};
  sigaction(SIGUSR1, &ignored, &before);
  std::thread worker([&] {
    tov_signals_block();
    EXPECT_EQ(tov_set_priority(TOV_RT_PRIORITY), 0);
    tov_spawn(record, &res_);
#ifndef TOV_SANITIZE_THREAD                        // there no thread is real-time
    EXPECT_EQ(sched_getscheduler(0), SCHED_FIFO);  // the caller keeps its own
#endif
  });
  worker.join();
  sigaction(SIGUSR1, &before, nullptr);

  const Birth birth = program.birth();
  EXPECT_EQ(birth.ppid, getpid());
  EXPECT_EQ(birth.sid, birth.pid);
  EXPECT_EQ(birth.pgrp, birth.pid);
  EXPECT_EQ(birth.blocked, 0u);
  EXPECT_EQ(birth.ignored, 0u);
  EXPECT_EQ(birth.caught, 0u);
  EXPECT_EQ(birth.policy, SCHED_OTHER);
  EXPECT_EQ(birth.priority, 0);
  EXPECT_EQ(birth.cwd, "/");
  EXPECT_THAT(birth.fds, ElementsAre(testing::Pair(0, TOV_CONSOLE), testing::Pair(1, TOV_CONSOLE),
                                     testing::Pair(2, TOV_CONSOLE)));
}

TEST_F(TovSpawn, ProgramWithoutAConsoleRunsAllTheSame) {
  const Program program("dark");
  const PlainConsole console;
  ASSERT_EQ(unlink(TOV_CONSOLE), 0);
  tov_spawn(add(GONE, program.path), &res_);
  EXPECT_THAT(program.birth().fds, IsEmpty());
  write_file(TOV_CONSOLE, "");
}

TEST_F(TovSpawn, SignalMaskOfTheCallerIsRestored) {
  const Program program("mask");
  for (const int how : {SIG_BLOCK, SIG_UNBLOCK}) {
    sigset_t set, after;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    pthread_sigmask(how, &set, nullptr);
    tov_spawn(add(GONE, program.path), &res_);
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGCHLD), how == SIG_BLOCK);
    EXPECT_EQ(sigismember(&after, SIGALRM), 0);
  }
}

TEST_F(TovSpawn, EnvironmentOfTheDaemonIsInherited) {
  const Program program("environment");
  setenv("TOLD_TO_THE_DAEMON", "yes", 1);
  const pid_t pid = tov_spawn(add(GONE, program.path), &res_);
  unsetenv("TOLD_TO_THE_DAEMON");
  program.birth();
  EXPECT_THAT(read_file("/proc/" + std::to_string(pid) + "/environ"),
              HasSubstr("TOLD_TO_THE_DAEMON=yes"));
}

TEST_F(TovSpawn, WordWithoutASlashIsSearchedAlongThePath) {
  const Program program("searched");
  const std::string before = getenv("PATH");
  setenv("PATH", ("/nowhere:/opt/supervised:" + before).c_str(), 1);
  tov_spawn(add(GONE, program.name + " -a"), &res_);
  setenv("PATH", before.c_str(), 1);
  EXPECT_EQ(program.birth().argv, program.name + " -a");
}

TEST_F(TovSpawn, FileWithoutAnInterpreterLineIsRunByTheShell) {
  const Program program("plain");
  const TemporaryFile script("/opt/supervised/script", "exec " + program.path + " \"$@\"\n");
  chmod("/opt/supervised/script", 0755);
  tov_spawn(add(GONE, "/opt/supervised/script -a"), &res_);
  EXPECT_EQ(program.birth().argv, program.path + " -a");
}

TEST_F(TovSpawn, ForkRecordIsRemovedByTheChild) {
  const Program program("recovered");
  write_file(TOV_FORK_FILE, "aaa");
  tov_spawn(add(GONE, program.path), &res_);
  program.birth();
  EXPECT_FALSE(exists(TOV_FORK_FILE));
}

TEST_F(TovSpawn, LowMemoryKillersSwitchIsSetByTheChild) {
  const Program program("flushed");
  const TemporaryFile file(TOV_LMK_FLUSH_FILE, "0");
  tov_spawn(add(GONE, program.path), &res_);
  program.birth();
  EXPECT_EQ(read_file(TOV_LMK_FLUSH_FILE), "1\n");
}

// ---- failures -------------------------------------------------------------------------------

TEST_F(TovSpawnFailure, ProgramThatCannotBeExecutedLeavesWithOne) {
  const pid_t pid = tov_spawn(add(GONE, "/no/such/program -a"), &res_);
  EXPECT_GT(pid, 0);
  EXPECT_EQ(res_, pid);
  EXPECT_EQ(status_of(pid), 1);
  EXPECT_THAT(
      events(TOV_LOG_RUN_EVENT),
      testing::UnorderedElementsAre(
          "tov_spawn--> tov_pid->process = /no/such/program, new pid: " + std::to_string(pid),
          "Tov execvp fail,error:No such file or directory."));
}

TEST_F(TovSpawnFailure, ReasonIsThatOfTheExecution) {
  write_file("/opt/supervised/data", "no program");
  chmod("/opt/supervised/data", 0644);
  status_of(tov_spawn(add(GONE, "/opt/supervised/data"), &res_));
  EXPECT_THAT(events(TOV_LOG_RUN_EVENT),
              testing::Contains("Tov execvp fail,error:Permission denied."));
}

TEST_F(TovSpawnFailure, DiagnosticGoesToTheConsole) {
  const PlainConsole console;
  // Each line is written at the beginning of the file, where this is the last one.
  const std::string own =
      diagnostics([&] { status_of(tov_spawn(add(GONE, "/no/such/program"), &res_)); });
  EXPECT_THAT(own, HasSubstr("]tov_spawn--> tov_pid->process = /no/such/program, new pid: "));
  EXPECT_THAT(read_file(TOV_CONSOLE),
              HasSubstr("]HA_RESTART execvp fail, error = No such file or directory.\n"));
}

TEST_F(TovSpawnFailure, EmptyCommandLineIsNoProgram) {
  for (const char *process : {"", " \t"}) {
    const pid_t pid = tov_spawn(add(GONE, process), &res_);
    EXPECT_GT(pid, 0);
    EXPECT_EQ(status_of(pid), 1);
  }
}

TEST_F(TovSpawnFailure, WhatWaitedOnStandardOutputIsWrittenOnce) {
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_LIB, [&] {
    printf("half a line");
    status_of(tov_spawn(add(GONE, "/no/such/program"), &res_));
  });
  EXPECT_EQ(said, "half a line");
}

TEST_F(TovSpawnFailure, ChildThatCannotGoToTheRootComesBackWithMinusOne) {
  tov_test::in_child([this] {
    refuse({SYS_chdir}, EIO);
    const pid_t self = getpid();
    const pid_t result = tov_spawn(add(GONE, "/bin/true"), &res_);
    if (getpid() != self) _exit(result == -1 ? 42 : 43);
    EXPECT_GT(result, 0);
    EXPECT_EQ(status_of(result), 42);
  });
  EXPECT_EQ(read_file(TOV_FORK_FILE), "a");
}

TEST_F(TovSpawnFailure, ItsDiagnosticGoesToTheConsole) {
  const PlainConsole console;
  tov_test::in_child([this] {
    refuse({SYS_chdir}, EIO);
    (void)diagnostics([&] {
      const pid_t self = getpid();
      const pid_t result = tov_spawn(add(GONE, "/bin/true"), &res_);
      if (getpid() != self) _exit(0);
      status_of(result);
    });
  });
  EXPECT_THAT(read_file(TOV_CONSOLE), HasSubstr("]tov_spawn--> chdir failed, ret: -1\n"));
}
